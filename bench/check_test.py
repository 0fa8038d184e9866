#!/usr/bin/env python3
"""bench/check compares instruction counts with figures, and renews them. Whether the figures hold is not tested here.

Usage: check_test.py BUILD-DIRECTORY
"""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

CHECK = Path(__file__).resolve().parent / "check"
BUILD = None


class Check(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        cls.figures = Path(cls.directory.name) / "figures.txt"
        cls.renewed = cls.run_check("--renew")

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    @classmethod
    def run_check(cls, *options, figures=None):
        return subprocess.run([str(CHECK), "--build", BUILD, "--figures", str(figures or cls.figures), *options],
                              capture_output=True, text=True, check=False)

    @classmethod
    def renewed_figures(cls):
        return {path: int(number.replace(",", ""))
                for path, number in re.findall(r"(?m)^(\w.*?) {2,}([\d,]+)$", cls.renewed.stdout)}

    def test_renewing_writes_a_figure_for_every_path(self):
        self.assertEqual(self.renewed.returncode, 0, self.renewed.stderr)
        self.assertEqual(self.renewed.stdout, self.figures.read_text())
        self.assertEqual(len(self.renewed_figures()), 17)
        self.assertNotIn(0, self.renewed_figures().values())
        self.assertIn("read a known key", self.renewed_figures())

    def test_open_keys_add_nothing_to_the_cost_of_others(self):
        figures = self.renewed_figures()
        for alone, beside in (("open and close a known key", "open and close a key, a million open"),
                              ("delete a key", "delete a key, a million open")):
            self.assertLess(figures[beside], 1.1 * figures[alone], beside)

    def test_names_every_path_that_differs_and_how_to_renew_its_figure(self):
        changed = self.figures.with_name("changed.txt")
        text = self.figures.read_text().replace("list 100 subkeys  ", "list no subkeys   ")
        number = re.search(r"read a known key +([\d,]+)", text)[1]
        changed.write_text(text.replace(f" {number}\n", f" {int(number.replace(',', '')) * 0.96:,.0f}\n"))
        done = self.run_check(figures=changed)
        self.assertEqual(done.returncode, 1, done.stdout)
        self.assertRegex(done.stdout, r"(?m)^! read a known key .* \+4\.\d%$")
        self.assertRegex(done.stdout, r"(?m)^! list no subkeys .* is no longer counted$")
        self.assertRegex(done.stdout, r"(?m)^! list 100 subkeys .* has no figure$")
        self.assertRegex(done.stdout, r"(?m)^  write a value .* [+-]0\.0%$", "the counts repeat")
        self.assertIn("3 of 18 paths differ", done.stdout)
        self.assertIn("make bench-renew", done.stdout)
        self.assertNotIn("other tools", done.stdout)

    def test_compares_nothing_on_a_kind_of_machine_without_figures(self):
        done = self.run_check(figures=self.figures.with_name("none.txt"))
        self.assertEqual(done.returncode, 77)
        self.assertIn("nothing is compared", done.stdout)

    def test_says_how_to_build_what_is_missing(self):
        with tempfile.TemporaryDirectory() as empty:
            done = self.run_check("--build", empty)
            self.assertEqual(done.returncode, 1)
            self.assertIn("tkv_bench_paths is missing: run 'make bench-check'", done.stderr)


if __name__ == "__main__":
    BUILD = sys.argv.pop(1)
    unittest.main()
