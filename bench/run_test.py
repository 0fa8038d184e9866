#!/usr/bin/env python3
"""bench/run --quick runs and prints a figure for everything that it measures. How fast is not tested.

Usage: run_test.py BUILD-DIRECTORY
"""

import json
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

RUN = Path(__file__).resolve().parent / "run"
BUILD = None

FIGURE = r"[\d,]+(?:\.\d+)? (?:ns|µs|ms|s)"
JAVA = {  # the columns without a figure: those that have no such thing
    "read, always the same key": set(),
    "read, random of 50": set(),
    "read, random of 200": set(),
    "list 50 subkeys": set(),
    "durable write": set(),
    "open and close a key": {"registry", "lmdb", "prefs"},
    "close, open the store, read": {"prefs"},
}
NATIVE = {**{row: set() for row in JAVA}, "open and close a key": {"lmdb"}, "trace line, tracing off": {"lmdb"}}


def run(*options):
    return subprocess.run([str(RUN), "--build", BUILD, *options], capture_output=True, text=True, check=False)


def rows_below(text, head):
    """The rows of the table whose first column has this heading: {row: {column: cell}}."""
    lines = text.splitlines()
    start = next(i for i, line in enumerate(lines) if line.startswith(head))
    columns = lines[start][len(head):].split()
    rows = {}
    for line in lines[start + 1:]:
        if not line:
            return rows
        name, *cells = re.split(r" {2,}", line)
        rows[name] = dict(zip(columns, cells, strict=True))
    return rows


class QuickRun(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.output = Path(cls.directory.name) / "out"
        cls.done = run("--quick", "--peers", "prefs", "--output", str(cls.output))

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def check_table(self, head, columns, expected):
        rows = rows_below(self.done.stdout, head)
        self.assertEqual(list(rows), list(expected))
        for row, absent in expected.items():
            self.assertEqual(list(rows[row]), columns)
            for column, cell in rows[row].items():
                self.assertRegex(cell, r"^-$" if column in absent else f"^{FIGURE}$", f"{row}, {column}")

    def test_succeeds(self):
        self.assertEqual(self.done.returncode, 0, self.done.stderr)

    def test_prints_a_figure_for_every_scenario_and_peer_in_java(self):
        self.check_table("Java, time an operation", ["control", "tkv", "registry", "lmdb", "prefs"], JAVA)

    def test_prints_a_figure_for_every_native_scenario(self):
        self.check_table("native, time an operation", ["control", "tkv", "lmdb"], NATIVE)

    def test_prints_ratios_to_tkv(self):
        for head in ("Java, times of tkv", "native, times of tkv"):
            for row, cells in rows_below(self.done.stdout, head).items():
                self.assertEqual(cells["tkv"], "1.00", f"{head}: {row}")
                self.assertNotIn("control", cells)

    def test_says_what_was_measured_and_where(self):
        self.assertIn("the figures mean nothing", self.done.stdout)
        for beginning in ("system: ", "JVM: ", "stores: ", "times: ", "control: ", "tkv: ", "registry: ", "lmdb: ", "prefs: "):
            self.assertRegex(self.done.stdout, f"(?m)^{beginning}.+")

    def test_writes_the_same_text_and_every_figure_to_files(self):
        self.assertEqual((self.output / "bench.txt").read_text(), self.done.stdout)
        raw = json.loads((self.output / "bench.json").read_text())["nanoseconds"]
        self.assertEqual(len(raw["java"]["read-all"]["tkv"]), 1)
        self.assertGreater(raw["java"]["read-all"]["tkv"][0], 0)

    def test_leaves_no_stores_behind(self):
        self.assertFalse((self.output / "stores").exists())


class Refusals(unittest.TestCase):
    def test_names_the_peers_there_are_when_asked_for_another(self):
        done = run("--peers", "abacus")
        self.assertEqual(done.returncode, 2)
        self.assertIn("there is no peer 'abacus'; there are sqlite, mvstore, bdb, prefs", done.stderr)

    def test_says_how_to_build_what_is_missing(self):
        with tempfile.TemporaryDirectory() as empty:
            done = run("--build", empty, "--output", empty)
            self.assertEqual(done.returncode, 1)
            self.assertIn("tkv.jar is missing: build with", done.stderr)

    def test_misses_valgrind_before_it_measures_anything(self):
        with tempfile.TemporaryDirectory() as output:
            done = subprocess.run([sys.executable, str(RUN), "--build", BUILD, "--quick", "--peers", "none",
                                   "--instructions", "--output", output],
                                  capture_output=True, text=True, check=False, env={"PATH": "/nonexistent"})
            self.assertEqual(done.returncode, 1)
            self.assertIn("valgrind is missing: install the Debian package valgrind", done.stderr)
            self.assertNotIn("filling", done.stderr)

    def test_refuses_no_forks_at_all(self):
        self.assertEqual(run("--quick", "--forks", "0").returncode, 2)


if __name__ == "__main__":
    BUILD = sys.argv.pop(1)
    unittest.main()
