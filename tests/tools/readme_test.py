"""The shell session in the README prints what the README shows."""
import pathlib
import re
import shlex
import unittest

from command import CommandTest

README = pathlib.Path(__file__).parents[2] / "README.md"


class Readme(CommandTest):
    def test_shows_what_is_printed(self):
        # What the README's Java example leaves behind.
        self.tkv("create", "app")
        self.tkv("set", "app.name", "billing")
        self.tkv("set", "--int32", "app.port", "8080")
        self.tkv("set", "--list", "app.nodes", "alpha", "beta")
        shown = re.findall(r"```console\n(.*?)```", README.read_text(), re.DOTALL)
        steps = re.findall(r"(?m)^\$ tkv (.*)\n((?:(?!\$ ).*\n)*)", "".join(shown))
        self.assertGreater(len(steps), 1)
        for words, output in steps:
            with self.subTest(command=words):
                self.assertEqual(self.out(*shlex.split(words)), output)


if __name__ == "__main__":
    unittest.main()
