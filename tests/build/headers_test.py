"""The C headers are C, each can stand alone, and the bridge compiles from the source tree alone."""
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv[1]).resolve()
CC, CXX = sys.argv[2:4]
JNI = sys.argv[4].split(":")
del sys.argv[1:5]

STRICT = ["-Wall", "-Wextra", "-Werror", "-pedantic", "-fsyntax-only"]
FOLDERS = ["platform/if", "framework/tkv/if"]
JNI_OPTIONS = [option for folder in JNI for option in ("-isystem", folder)]


def headers():
    found = [path for folder in FOLDERS for path in sorted((ROOT / folder).glob("*.h"))]
    return [path.relative_to(ROOT).as_posix() for path in found]


def compile_text(compiler, language, text):
    options = [*STRICT, *JNI_OPTIONS, *(f"-I{ROOT / folder}" for folder in FOLDERS)]
    command = [*compiler, *options, "-x", language, "-"]
    return subprocess.run(command, input=text, capture_output=True, text=True)


def including(names):
    return "".join(f'#include "{pathlib.PurePosixPath(name).name}"\n' for name in names) + "int main(void) { return 0; }\n"


class Headers(unittest.TestCase):
    def check(self, compiler, language, names):
        result = compile_text(compiler, language, including(names))
        self.assertEqual(result.returncode, 0, result.stderr)

    def test_there_are_some(self):
        self.assertIn("platform/if/prtkv.h", headers())
        self.assertIn("framework/tkv/if/tkv.h", headers())

    def test_all_are_c_together_and_twice(self):
        self.check([CC, "-std=c11"], "c", headers() * 2)
        self.check([CC, "-std=c11"], "c", reversed(headers()))

    def test_each_is_c_alone(self):
        for name in headers():
            with self.subTest(header=name):
                self.check([CC, "-std=c11"], "c", [name])

    def test_each_is_cpp_alone(self):
        for name in headers():
            with self.subTest(header=name):
                self.check([CXX, "-std=c++20"], "c++", [name])

    def test_an_unclean_one_is_seen(self):
        result = compile_text([CC, "-std=c11"], "c", including(headers()) + "static int unused(int a) { return 0; }\n")
        self.assertNotEqual(result.returncode, 0)


class Unit(unittest.TestCase):
    def test_compiles_from_the_source_tree_alone(self):
        with tempfile.TemporaryDirectory() as folder:
            copy = pathlib.Path(folder)
            for name in ("framework/tkv", "platform/if"):
                shutil.copytree(ROOT / name, copy / name)
            command = [CXX, "-std=c++20", *STRICT, *JNI_OPTIONS, "-Iframework/tkv/if", "-Iplatform/if",
                       "framework/tkv/tkv.cpp"]
            result = subprocess.run(command, cwd=copy, capture_output=True, text=True)
            self.assertEqual(result.returncode, 0, result.stderr)


if __name__ == "__main__":
    unittest.main()
