"""What the local Maven repository holds."""
import hashlib
import pathlib
import sys
import unittest
import xml.etree.ElementTree
import zipfile

REPOSITORY, VERSION, SOURCES = pathlib.Path(sys.argv[1]), sys.argv[2], pathlib.Path(sys.argv[3])
del sys.argv[1:]

ARTIFACT = REPOSITORY / "velmar" / "qen" / "tkv"
POM = "{http://maven.apache.org/POM/4.0.0}"


def file(suffix):
    return ARTIFACT / VERSION / f"tkv-{VERSION}{suffix}"


def names(suffix):
    with zipfile.ZipFile(file(suffix)) as jar:
        return {name for name in jar.namelist() if not name.endswith("/")}


class MavenRepository(unittest.TestCase):
    def test_the_pom_names_the_artifact(self):
        project = xml.etree.ElementTree.parse(file(".pom")).getroot()
        found = [project.find(POM + name).text for name in ("groupId", "artifactId", "version", "packaging")]
        self.assertEqual(found, ["velmar.qen", "tkv", VERSION, "jar"])
        metadata = xml.etree.ElementTree.parse(ARTIFACT / "maven-metadata.xml").getroot()
        self.assertEqual(metadata.find("versioning/versions/version").text, VERSION)

    def test_every_file_has_its_checksums(self):
        files = [path for path in ARTIFACT.rglob("*") if path.is_file() and path.suffix not in (".md5", ".sha1")]
        self.assertEqual(len(files), 5)
        for path in files:
            for algorithm in ("md5", "sha1"):
                expected = hashlib.new(algorithm, path.read_bytes()).hexdigest()
                self.assertEqual(path.with_name(f"{path.name}.{algorithm}").read_text(), expected, path)

    def test_the_jar_holds_classes_libraries_and_its_version(self):
        self.assertLessEqual({"module-info.class", "velmar/qen/mgmt/registry/Registry.class"}, names(".jar"))
        self.assertTrue(any(name.endswith("/libtkv.so") for name in names(".jar")))
        with zipfile.ZipFile(file(".jar")) as jar:
            manifest = jar.read("META-INF/MANIFEST.MF").decode()
        self.assertIn(f"Implementation-Version: {VERSION}", manifest)

    def test_the_sources_are_all_there(self):
        expected = {path.relative_to(SOURCES).as_posix() for path in SOURCES.rglob("*.java")}
        self.assertEqual(names("-sources.jar"), expected)

    def test_the_javadoc_covers_what_is_exported_and_nothing_else(self):
        shown = names("-javadoc.jar")
        self.assertLessEqual({"index.html", "velmar.qen.mgmt/velmar/qen/mgmt/registry/Registry.html"}, shown)
        self.assertFalse([name for name in shown if "RegistryNatives" in name])


if __name__ == "__main__":
    unittest.main()
