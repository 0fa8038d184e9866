#!/usr/bin/env python3
"""bench/run-etcd --quick runs and prints a figure for everything that it measures. How fast is not tested.

Usage: run_etcd_test.py BUILD-DIRECTORY
"""

import json
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

RUN = Path(__file__).resolve().parent / "run-etcd"
BUILD = None

TIME = r"[\d,]+(?:\.\d+)? (?:ns|µs|ms|s)"
OPERATIONS = {  # requests through the registry and bare
    "open a key, known before": ("1", "1"),
    "read a value, key known before": ("1", "1"),
    "write a value, key known before": ("1", "1"),
    "list 100 subkeys": ("1", "1"),
    "walk 200 keys with values": (r"\d\d?", r"\d\d?"),
    "open the registry": ("2", "2"),
}
LISTINGS = ["first of a session", "later ones", "bare requests"]
WAITS = ["killed until another leads", "then until a busy session reads", "then until a busy session writes",
         "then until an idle session reads", "then until an idle session writes"]


def run(*options):
    return subprocess.run([str(RUN), "--build", BUILD, *options], capture_output=True, text=True, check=False)


class RunEtcd(unittest.TestCase):
    def test_prints_a_figure_for_each_operation_and_each_wait(self):
        with tempfile.TemporaryDirectory() as output:
            done = run("--quick", "--rounds", "1", "--output", output)
            self.assertEqual(done.returncode, 0, done.stderr)
            for head in ("1 member ", "3 members "):
                table = done.stdout[done.stdout.index("\n" + head):].split("\n\n")[0]
                for row, (through, bare) in OPERATIONS.items():
                    self.assertRegex(table, rf"{re.escape(row)} +{TIME} +{TIME} +[\d,.]+ +{through} +{bare}(\n|$)")
            counts = {label: re.search(rf"\n{label} +([\d,]+) +([\d,]+) +([\d,]+)\n", done.stdout).groups()
                      for label in LISTINGS}
            self.assertEqual([counts[label][0] for label in LISTINGS], ["4", "1", "1"])
            for row in WAITS:
                self.assertRegex(done.stdout, rf"{row} +{TIME} +{TIME}\n")
            self.assertRegex(done.stdout, r"200 keys with values of 100 bytes take \d+ bytes each")
            self.assertEqual((Path(output) / "etcd.txt").read_text(), done.stdout)
            raw = json.loads((Path(output) / "etcd.json").read_text())
            self.assertEqual(len(raw["failover"]), 1)
            self.assertEqual([path.name for path in Path(output).glob("tkv-etcd-*")], [])

    def test_says_what_is_missing(self):
        done = subprocess.run([str(RUN), "--build", "/nonexistent"], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("tkv_bench_etcd is missing", done.stderr)


if __name__ == "__main__":
    BUILD = sys.argv.pop(1)
    unittest.main()
