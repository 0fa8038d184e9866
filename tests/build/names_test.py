"""A file name says what is in the file; none is a catch-all such as "util"."""
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()

EMPTY_WORDS = re.compile(r"(^|[_-])(utils?|common|helpers?|managers?|misc)([_.-]|$)", re.IGNORECASE)


def files():
    """The files under version control, or, in an unpacked archive, all that were not built."""
    listed = subprocess.run(["git", "-C", str(ROOT), "ls-files"], capture_output=True, text=True)
    if listed.returncode == 0 and listed.stdout:
        return [pathlib.PurePosixPath(name) for name in listed.stdout.splitlines()]
    paths = (path.relative_to(ROOT) for path in ROOT.rglob("*") if path.is_file())
    return [path for path in paths if path.parts[0] not in ("build", ".git")]


class Names(unittest.TestCase):
    def test_no_file_has_an_empty_name(self):
        names = files()
        self.assertIn("tests/build/names_test.py", map(str, names))
        self.assertEqual([str(path) for path in names if EMPTY_WORDS.search(path.name)], [])

    def test_an_empty_name_is_found(self):
        for name in ("util.h", "string_utils.cpp", "common.cmake", "test-helper.py", "lock_manager.h"):
            with self.subTest(name=name):
                self.assertRegex(name, EMPTY_WORDS)
        for name in ("commonality.h", "utility.h", "management.java"):
            with self.subTest(name=name):
                self.assertNotRegex(name, EMPTY_WORDS)


if __name__ == "__main__":
    unittest.main()
