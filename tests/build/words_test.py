"""Texts speak of the system: not of the papers it was made from, nor of the machine it was made on."""
import codecs
import pathlib
import re
import subprocess
import sys
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()

# Rotated by thirteen letters, so that this file passes its own test.
WORDS = re.compile("|".join(codecs.decode(word, "rot13") for word in [
    r"\ofcrpf?\o", r"\ofcrpvsvpngvbaf?\o", r"\onf fcrpvsvrq\o", r"\ocnegf? \q+\.\q+", r"\ovffhr #?\q+",
    r"\oerdhverq ol gur vffhr", r"\oqrfvta\.zq\o", r"\ocyngsbez-nov\o", r"\ozrnfherq\.zq\o", r"\oOEVRS\.zq\o",
    r"\oprb\o", r"/jbex/",
]), re.IGNORECASE)

# Names that say nothing about what is in a file.
EMPTY_NAMES = re.compile(r"(^|[_-])(utils?|common|helpers?|managers?|misc)([_.-]|$)", re.IGNORECASE)


def git(*arguments):
    result = subprocess.run(["git", "-C", str(ROOT), *arguments], capture_output=True, text=True)
    return result.stdout if result.returncode == 0 else ""


def files():
    """The tree's files: what git knows, or, without git, what is not built."""
    tracked = git("ls-files", "--cached", "--others", "--exclude-standard").splitlines()
    if tracked:
        return [path for path in map(pathlib.PurePosixPath, tracked) if (ROOT / path).is_file()]
    return [path.relative_to(ROOT) for path in ROOT.rglob("*")
            if path.is_file() and path.relative_to(ROOT).parts[0] not in ("build", ".git")]


def found_in(text):
    return [match.group() for match in WORDS.finditer(text)]


class Words(unittest.TestCase):
    def test_files_do_not_have_them(self):
        found = []
        for path in files():
            try:
                lines = (ROOT / path).read_text(encoding="utf-8").splitlines()
            except UnicodeDecodeError:
                continue
            for number, line in enumerate(lines, 1):
                found += [f"{path}:{number}: {word}" for word in found_in(line)]
        self.assertEqual(found, [])

    def test_names_do_not_have_them(self):
        self.assertEqual([str(path) for path in files() if found_in(str(path).replace("_", " "))], [])

    def test_names_tell_what_is_in_a_file(self):
        self.assertEqual([str(path) for path in files() if EMPTY_NAMES.search(path.name)], [])

    def test_messages_of_commits_do_not_have_them(self):
        self.assertEqual(found_in(git("log", "--format=%B")), [])

    def test_there_are_files(self):
        self.assertTrue("tests/build/words_test.py" in map(str, files()))

    def test_they_would_be_seen(self):
        for word in ["nf gur Fcrpvsvpngvba fnlf", "n fcrp.", "Cneg 3.2", "vffhr 4", "va /jbex/znva", "frr qrfvta.zq"]:
            text = codecs.decode(word, "rot13")
            with self.subTest(text=text):
                self.assertEqual(len(found_in(text)), 1)
        for text in ["special", "inspect", "specific", "a part of 3.2 MB", "issued", "workspace", "tissue 4"]:
            with self.subTest(text=text):
                self.assertEqual(found_in(text), [])


if __name__ == "__main__":
    unittest.main()
