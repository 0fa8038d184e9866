#!/usr/bin/env python3
"""bench/run --quick runs and prints a figure for everything that it measures. How fast is not tested.

Usage: run_test.py BUILD-DIRECTORY
"""

import json
import os
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path
from xml.etree import ElementTree

HERE = Path(__file__).resolve().parent
RUN, REPORT = HERE / "run", HERE / "report"
BUILD = None

sys.dont_write_bytecode = True
sys.path.insert(0, str(HERE))

from measure import machine
from measure.programs import Programs
from measure.tables import Failure, Table

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
COMPARED = ["tkv", "registry", "lmdb", "prefs"]
AT_ONCE = {"one reader": set(), "two readers at once, each": {"tkv"}}
SIXTEEN = {"16 readers at once, all together": {"tkv"}}
BESIDE_A_WRITER = {"while another process writes": {"prefs"},
                   "while another process writes, always the same key": {"prefs"}}
REREADS = {row: set() for row in ("50 keys", "200 keys", "200 keys, in another order each time")}
SERIES = {  # the plots: their rows, and the columns without a figure
    "keys": ("Java, read a random key", COMPARED, {"50 keys": set(), "200 keys": set()}),
    "depths": ("Java, read a random key of 50", COMPARED, {"2 levels": set(), "5 levels": set()}),
    "values": ("Java, read one of 10 values", COMPARED, {"20 B": set(), "3 KiB": set()}),
    "opening": ("Java, close, open the store, read", COMPARED[:3], {"0.10 MiB": set(), "0.25 MiB": set()}),
}
STEPS = {step: set() for step in ("export", "verify", "copy", "move", "delete", "import")}


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
        cls.done = run("--quick", "--instructions", "--peers", "prefs", "--output", str(cls.output))

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    def check_table(self, title, columns, expected, figure=FIGURE, kinds=("median", "p10")):
        """The tables of medians and of tenth percentiles have a figure in each cell."""
        for kind in kinds:
            head = f"{title}, {kind}"
            rows = rows_below(self.done.stdout, head)
            self.assertEqual(list(rows), list(expected), head)
            for row, absent in expected.items():
                self.assertEqual(list(rows[row]), columns, head)
                for column, cell in rows[row].items():
                    self.assertRegex(cell, r"^-$" if column in absent else f"^{figure}$", f"{head}: {row}, {column}")

    def test_succeeds(self):
        self.assertEqual(self.done.returncode, 0, self.done.stderr)

    def test_prints_a_figure_for_every_scenario_and_peer_in_java(self):
        self.check_table("Java, time an operation", ["control", "tkv", "registry", "lmdb", "prefs"], JAVA)

    def test_prints_a_figure_for_every_native_scenario(self):
        self.check_table("native, time an operation", ["control", "tkv", "lmdb"], NATIVE)

    def test_prints_ratios_to_tkv(self):
        for head in ("Java, time an operation, times of tkv", "native, time an operation, times of tkv"):
            for row, cells in rows_below(self.done.stdout, head).items():
                self.assertEqual(cells["tkv"], "1.00", f"{head}: {row}")
                self.assertNotIn("control", cells)

    def test_says_what_was_measured_and_where(self):
        self.assertIn("the figures mean nothing", self.done.stdout)
        for beginning in ("system: ", "JVM: ", "stores: ", "times: ", "control: ", "tkv: ", "registry: ", "lmdb: ", "prefs: "):
            self.assertRegex(self.done.stdout, f"(?m)^{beginning}.+")

    def test_writes_the_same_text_and_every_figure_to_files(self):
        self.assertEqual((self.output / "bench.txt").read_text(), self.done.stdout)
        tables = json.loads((self.output / "bench.json").read_text())["tables"]
        row = next(row for row in tables[0]["rows"] if row["label"] == "read, random of 200")
        self.assertEqual(len(row["cells"]["tkv"]), 3, "one value for each window")
        self.assertGreater(min(row["cells"]["tkv"]), 0)

    def test_measures_several_readers_and_reading_beside_a_writer(self):
        self.check_table("Java, read, random of 200", COMPARED, {**AT_ONCE, **SIXTEEN, **BESIDE_A_WRITER})
        self.check_table("native, read, random of 200", ["tkv", "lmdb"],
                         {row: set() for row in (*AT_ONCE, *BESIDE_A_WRITER)})

    def test_measures_reading_again_after_each_change(self):
        self.check_table("Java, read each key once after each change", ["tkv", "registry", "lmdb"], REREADS)

    def test_measures_processes_that_write_at_the_same_time(self):
        self.check_table("Java, durable write by any of", ["tkv", "registry", "lmdb"],
                         {"1 process": set(), "2 processes": set()})

    def test_measures_writes_with_and_without_history(self):
        self.check_table("native, history", ["off", "on"], {"durable write": set()})
        ratios = rows_below(self.done.stdout, "native, history, times of off")["durable write"]
        self.assertEqual(ratios["off"], "1.00")
        self.assertRegex(ratios["on"], r"^\d+\.\d\d$")

    def test_measures_by_keys_depth_size_of_values_and_size_of_the_store(self):
        for title, columns, rows in SERIES.values():
            self.check_table(title, columns, rows)

    def test_draws_a_line_for_each_peer(self):
        for name, (title, columns, _) in SERIES.items():
            plot = ElementTree.parse(self.output / "plots" / f"{name}.svg").getroot()
            self.assertEqual(len(plot.findall("{*}polyline")), len(columns), name)
            self.assertEqual(plot.find("{*}title").text, title)
            words = [text.text for text in plot.findall("{*}text")]
            self.assertEqual(sorted(word for word in words if word in columns), sorted(columns), name)

    def test_counts_instructions(self):
        rows = {row: set() for row in JAVA if row not in ("durable write", "close, open the store, read")}
        rows.update({"open and close a key": {"lmdb"}, "trace line, tracing off": {"lmdb"}})
        printed = rows_below(self.done.stdout, "native, instructions, median")
        self.assertEqual(set(printed), set(rows))
        for row, absent in rows.items():
            for column, cell in printed[row].items():
                self.assertRegex(cell, r"^-$" if column in absent else r"^[\d,.]+$", f"{row}, {column}")

    def test_measures_whole_subtrees_and_memory(self):
        self.check_table("tkv, 300 keys", ["tkv"], STEPS, kinds=["median"])
        self.check_table("tkv, 300 keys, largest resident memory", ["tkv"], STEPS, r"[\d.]+ MiB", ["median"])
        self.check_table("Java, memory of a process that reads, without files", COMPARED,
                         SERIES["keys"][2], r"[\d.]+ MiB", ["median"])

    def test_the_report_fills_every_place_of_the_document(self):
        document = self.output / "performance.md"
        document.write_text((HERE.parent / "docs/performance.md").read_text())
        (self.output / "etcd.txt").write_text("A registry on etcd\n\nfigures of etcd\n")
        options = [str(REPORT), "--output", str(self.output), "--document", str(document)]
        refused = subprocess.run(options, capture_output=True, text=True, check=False)
        self.assertEqual(refused.returncode, 1)
        self.assertIn("comes from a quick run", refused.stderr)
        done = subprocess.run([*options, "--any-size"], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        text = document.read_text()
        self.assertNotIn("Not measured yet", text)
        self.assertIn("figures of etcd", text)
        times = ", ".join(rf"`{peer}` \d+\.\d\d" for peer in COMPARED if peer != "tkv")
        self.assertRegex(text, rf"Together, 16 readers read {times} times as fast as one\.")
        self.assertRegex(text, r"A durable write with history takes \d+\.\d\d times as long as one without\.")
        self.assertRegex(text, rf"\| read, random of 200 \| {FIGURE} \({FIGURE}\) \|")
        for name in SERIES:
            self.assertIn(f"(figures/{name}.svg)", text)
            self.assertTrue((self.output / "figures" / f"{name}.svg").exists())

    def test_leaves_no_stores_behind(self):
        self.assertEqual([path.name for path in self.output.glob("stores*") if path.is_dir()], [])


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

    def test_names_the_parts_there_are_when_asked_for_another(self):
        done = run("--only", "everything")
        self.assertEqual(done.returncode, 2)
        self.assertIn("there is no part 'everything'; there are java, native, readers", done.stderr)

    def test_refuses_no_forks_at_all(self):
        self.assertEqual(run("--quick", "--forks", "0").returncode, 2)


class Turns(unittest.TestCase):
    def test_takes_turns_with_tkv_and_its_floor_more_often_than_with_other_stores(self):
        with tempfile.TemporaryDirectory() as directory:
            done = run("--quick", "--forks", "2", "--only", "readers,writers", "--peers", "prefs", "--output", directory)
            self.assertEqual(done.returncode, 0, done.stderr)
            tables = json.loads((Path(directory) / "bench.json").read_text())["tables"]
        values = {(table["name"], row["label"], column): len(values) for table in tables for row in table["rows"]
                  for column, values in row["cells"].items()}
        turn = 3  # windows
        for row in (*AT_ONCE, *BESIDE_A_WRITER):
            for table, columns in ("readers", COMPARED), ("native-readers", ("tkv", "lmdb")):
                absent = {**AT_ONCE, **BESIDE_A_WRITER}[row] if table == "readers" else set()
                for column in columns:
                    expected = 0 if column in absent else turn if column == "prefs" else 2 * turn
                    self.assertEqual(values.get((table, row, column), 0), expected, f"{table}: {row}: {column}")
        for column in ("tkv", "registry", "lmdb"):
            self.assertEqual(values["writers", "2 processes", column], 2 * turn, column)


class Parts(unittest.TestCase):
    def test_a_machine_is_quiet_if_nothing_else_uses_it(self):
        self.assertTrue(machine.is_quiet(busy=0.02, load=0.3, processors=2))
        self.assertFalse(machine.is_quiet(busy=0.3, load=0.3, processors=2))
        self.assertFalse(machine.is_quiet(busy=0.02, load=1.5, processors=2))

    def test_programs_run_together_begin_once_all_are_ready(self):
        programs = Programs(Path(), Path())
        with tempfile.TemporaryDirectory() as directory:
            # Each looks for the files by which all have said that they are ready.
            script = ("import os, sys; open(sys.argv[1], 'x').close(); print('ready', flush=True); begin = input(); "
                      "print('begin', begin, sep='\\t'); print('files', len(os.listdir('.')), sep='\\t')")
            commands = [["env", "-C", directory, sys.executable, "-c", script, name] for name in ("a", "b", "c")]
            answers = programs.run_together(commands)
        self.assertEqual([answer["files"] for answer in answers], ["3"] * 3)
        self.assertEqual(len({answer["begin"] for answer in answers}), 1, "the time of the beginning is one for all")

    def test_programs_run_together_end_if_one_does_not_become_ready(self):
        with tempfile.NamedTemporaryFile(mode="r") as file:
            # It ignores the end of its input.
            script = ("import os, signal, sys; open(sys.argv[1], 'w').write(str(os.getpid())); "
                      "print('ready', flush=True); signal.pause()")
            waits = [sys.executable, "-c", script, file.name]
            fails = [sys.executable, "-c", "import sys; sys.exit('no store')"]
            with self.assertRaisesRegex(Failure, "did not become ready:\nno store"):
                Programs(Path(), Path()).run_together([waits, fails])
            process = int(file.read())
        with self.assertRaises(ProcessLookupError):
            os.kill(process, 0)

    def test_p10_is_the_value_that_a_tenth_stays_below(self):
        table = Table("name", "title", ["tkv"])
        table.add_row("row")
        self.assertIsNone(table.p10("row", "tkv"))
        table.add("row", "tkv", [7.0])
        self.assertEqual(table.p10("row", "tkv"), 7)
        table.add("row", "tkv", [float(value) for value in range(20, 0, -1)])
        self.assertEqual((table.p10("row", "tkv"), table.median("row", "tkv")), (3, 10))


if __name__ == "__main__":
    BUILD = sys.argv.pop(1)
    unittest.main()
