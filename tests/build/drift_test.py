"""Facts that Java and C both declare must agree: the native methods and the registry's result codes."""
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv[1]).resolve()
CC, JAVAC = sys.argv[2:4]
JNI = sys.argv[4].split(":")
del sys.argv[1:5]

CLASS = "velmar/qen/mgmt/nativesystem/TKVNative"
DECLARATION = re.compile(r"([\w ]+?[ *]+)(Java_\w+)\s*\(([^)]*)\)\s*;")
# Words before a type that are not part of it.
ATTRIBUTE = re.compile(r"__attribute__\s*\(\(.*?\)\)|\bextern\b|\"C\"")


def preprocessed(text, folders):
    options = [option for folder in [*folders, *JNI] for option in ("-I", str(folder))]
    command = [CC, "-std=c11", "-E", "-P", *options, "-x", "c", "-"]
    return subprocess.run(command, input=text, check=True, capture_output=True, text=True).stdout


def parameter_type(parameter):
    """The type of a parameter, which may have a name: JNIEnv *env, jstring name, jint."""
    match = re.fullmatch(r"\s*(\w+)\s*(\**)\s*\w*\s*", parameter)
    if match is None:
        raise ValueError(f"not understood: {parameter}")
    return match.group(1) + match.group(2)


def declarations(text):
    found = {}
    for returned, name, parameters in DECLARATION.findall(ATTRIBUTE.sub(" ", text)):
        found[name] = (returned.strip(), [parameter_type(parameter) for parameter in parameters.split(",")])
    return found


def generated_header(source_folder, target):
    """What the compiler derives from the Java class."""
    command = [JAVAC, "-encoding", "UTF-8", "-implicit:none", "-proc:none", "-d", target, "-h", target, "-sourcepath",
               str(source_folder), str(source_folder / f"{CLASS}.java")]
    subprocess.run(command, check=True, capture_output=True, text=True)
    headers = list(pathlib.Path(target).glob("*.h"))
    assert len(headers) == 1, headers
    return headers[0].read_text()


class Drift(unittest.TestCase):
    maxDiff = None

    def from_java(self, source_folder):
        with tempfile.TemporaryDirectory() as target:
            return declarations(preprocessed(generated_header(source_folder, target), []))

    def from_c(self, change=lambda text: text):
        text = (ROOT / "framework/tkv/if/tkv.h").read_text(encoding="utf-8")
        return declarations(preprocessed(change(text), [ROOT / "platform/if"]))

    def test_java_and_c_declare_the_same_methods(self):
        java = self.from_java(ROOT / "java/src")
        self.assertEqual(len(java), 24)
        self.assertEqual(self.from_c(), java)

    def test_a_drift_is_seen(self):
        changes = [
            ("TKV_NATIVE(jint, getPatchLevel)", "TKV_NATIVE(jlong, getPatchLevel)"),
            ("TKV_NATIVE(jint, getPatchLevel)", "TKV_NATIVE(jint, getPatchlevel)"),
            ("jboolean recurse", "jint recurse"),
            ("setZUVEDDependencies)(JNIEnv *env, jobject self, jint mode,", "setZUVEDDependencies)(JNIEnv *env, jobject self,"),
        ]
        as_it_is = self.from_c()
        for old, new in changes:
            with self.subTest(change=new):
                changed = self.from_c(lambda text: text.replace(old, new))
                self.assertEqual(len(changed), 24)
                self.assertNotEqual(changed, as_it_is)


class ResultCodes(unittest.TestCase):
    JAVA = "java/src/velmar/qen/mgmt/registry/ResultCode.java"
    C = "platform/if/prtkv_results.h"

    @staticmethod
    def from_java(text):
        return dict(re.findall(r"static final int (\w+) = (\d+);", text))

    @staticmethod
    def from_c(text):
        return dict(re.findall(r"\bRESULT\((\w+), (\d+), ", text))

    def test_java_and_c_name_the_same_codes(self):
        java = self.from_java((ROOT / self.JAVA).read_text(encoding="utf-8"))
        self.assertEqual(java["NO_SUCH_KEY"], "4")
        self.assertEqual(java, self.from_c((ROOT / self.C).read_text(encoding="utf-8")))

    def test_a_drift_is_seen(self):
        table = (ROOT / self.C).read_text(encoding="utf-8")
        for old, new in (("BUSY, 19", "BUSY, 20"), ("RESULT(BUSY", "RESULT(BUSIER"), ("RESULT(BUSY, 19,", "(")):
            with self.subTest(change=new):
                self.assertNotEqual(self.from_c(table), self.from_c(table.replace(old, new)))


if __name__ == "__main__":
    unittest.main()
