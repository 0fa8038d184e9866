#!/usr/bin/env python3
"""The conversion of histories that docs/reliability.md shows makes what it shows, in the form that Knossos reads."""

import pathlib
import re
import subprocess
import tempfile
import textwrap
import unittest

DOCUMENT = pathlib.Path(__file__).parents[2] / "docs/reliability.md"
EVENT = re.compile(r'\{:process (\d+) :f :tree :value \["([^"]+)" "([^"]*)"\] :type :(invoke|ok|info)\}')


def section():
    return DOCUMENT.read_text().split("## Histories for other checkers\n")[1].split("\n## ")[0]


def blocks():
    """The section's examples: their languages and texts."""
    found = re.findall(r"(?ms)^( *)```(\w*)\n(.*?)^ *```$", section())
    return [(language, textwrap.dedent(text)) for _, language, text in found]


def only(language, first_word=""):
    texts = [text for of, text in blocks() if of == language and text.startswith(first_word)]
    assert len(texts) == 1, (language, texts)
    return texts[0]


def events_of(history):
    """What the document's command prints for a history."""
    with tempfile.TemporaryDirectory() as directory:
        (pathlib.Path(directory) / "room-1.txt").write_text(history)
        done = subprocess.run(["sh", "-c", only("sh")], cwd=directory, capture_output=True, text=True, check=True)
    assert done.stderr == "", done.stderr
    return done.stdout


class HistoryConversion(unittest.TestCase):
    def test_makes_what_the_document_shows(self):
        self.assertEqual(events_of(only("", "#")), only("clj"))

    def test_every_operation_is_a_process_that_begins_and_ends(self):
        history = [f"{client} {1000 * i + client} {1000 * i + 2500 + client if (i + client) % 5 else '-'} "
                   f"import a={i} a.b={client} : {'done' if (i + client) % 5 else ''}".rstrip()
                   for i in range(40) for client in range(3)]
        lines = events_of("\n".join(history) + "\n").splitlines()
        self.assertEqual(len(lines), 2 * len(history))
        processes = {}
        for line in lines:
            process, asked, answered, kind = EVENT.fullmatch(line).groups()
            processes.setdefault(process, []).append((asked, answered, kind))
        self.assertEqual(len(processes), len(history))
        for process, (begin, end) in processes.items():
            asked, answered = history[int(process) - 1].split(" ", 3)[3].split(" :")
            self.assertEqual(begin, (asked, answered.strip(), "invoke"))
            self.assertEqual(end, (asked, answered.strip(), "ok" if answered else "info"))

    def test_keeps_the_order_of_nanoseconds(self):
        start = 1_234_567_890_123_456_789
        history = "".join(f"0 {start + 2 * i} {start + 2 * i + 1} read a{i} : no-such-key\n" for i in range(200))
        asked = [EVENT.fullmatch(line).group(2, 4) for line in events_of(history).splitlines()]
        self.assertEqual(asked, [(f"read a{i}", kind) for i in range(200) for kind in ("invoke", "ok")])


if __name__ == "__main__":
    unittest.main()
