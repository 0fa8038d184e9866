"""The tree builds without a preset, in a folder of any name, alone and as part of another project."""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv[1]).resolve()
CMAKE, LAUNCHER = sys.argv[2:4]
del sys.argv[1:4]

SUPERPROJECT = """
cmake_minimum_required(VERSION 3.25)
project(site LANGUAGES C CXX)
add_subdirectory(tkv)
add_executable(consumer tkv/tests/install/consumer.c)
target_link_libraries(consumer PRIVATE tkv::prtkv)
"""


def files():
    """The files under version control and new ones, or, in an unpacked archive, all that were not built."""
    listed = subprocess.run(["git", "-C", str(ROOT), "ls-files", "--cached", "--others", "--exclude-standard"],
                            capture_output=True, text=True)
    if listed.returncode == 0 and listed.stdout:
        return [name for name in listed.stdout.splitlines() if (ROOT / name).is_file()]
    paths = (path.relative_to(ROOT) for path in ROOT.rglob("*") if path.is_file())
    return [str(path) for path in paths if path.parts[0] not in ("build", ".git")]


class Tree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.site = pathlib.Path(cls.folder.name) / "it's a site (copy)"
        for name in files():
            target = cls.site / "tkv" / name
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(ROOT / name, target)
        (cls.site / "CMakeLists.txt").write_text(SUPERPROJECT)

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def run_here(self, *command, **variables):
        environment = {**os.environ, "CCACHE_BASEDIR": str(self.site), **variables}
        done = subprocess.run(list(map(str, command)), cwd=self.site, capture_output=True, text=True, env=environment)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def configure(self, source, build, *options):
        launcher = [f"-DCMAKE_{language}_COMPILER_LAUNCHER={LAUNCHER}" for language in ("C", "CXX")]
        output = self.run_here(CMAKE, "-S", source, "-B", build, *launcher, *options)
        self.assertNotIn("Warning", output)

    def cached(self, build, name):
        lines = (self.site / build / "CMakeCache.txt").read_text().splitlines()
        return next(line.split("=", 1)[1] for line in lines if line.startswith(name + ":"))

    def test_alone_it_is_optimised_and_has_tests(self):
        self.configure("tkv", "alone")
        self.assertEqual(self.cached("alone", "CMAKE_BUILD_TYPE"), "RelWithDebInfo")
        self.assertIn("record_test", self.run_here(CMAKE, "--build", "alone", "--target", "help"))

    def test_in_another_project_it_serves_that_projects_program(self):
        # Not optimised: this test is only about whether it builds.
        self.configure(".", "build", "-DTKV_ETCD=OFF")
        self.assertNotIn("record_test", self.run_here(CMAKE, "--build", "build", "--target", "help"))
        self.run_here(CMAKE, "--build", "build", "--parallel", "2", "--target", "consumer", "tkv_jar", "tkv_manuals")
        configuration = self.site / "tkv.conf"
        configuration.write_text(f"[registry]\nlocation = {self.site}/registry\n")
        self.assertEqual(self.run_here(self.site / "build/consumer", TKV_CONF=str(configuration)), "hello 3 6\n")
        self.assertTrue((self.site / "build/tkv/java/tkv.jar").is_file())
        self.assertIn("tkv", (self.site / "build/tkv/manuals/tkv.1").read_text())


if __name__ == "__main__":
    unittest.main()
