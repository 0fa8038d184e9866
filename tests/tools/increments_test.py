"""Increments by compare-and-set from eight processes at once, on each kind of store: none is lost, none is made twice.

  increments_test.py COMMAND INCREMENT [--long] [TEST...]"""
import json
import pathlib
import subprocess
import sys
import unittest

LONG = "--long" in sys.argv
if LONG:
    sys.argv.remove("--long")

from command import CommandTest, DEADLINE

INCREMENT = pathlib.Path(sys.argv.pop(1)).resolve()
PROCESSES = 8
TIMES = 1000 if LONG else 20


class Increments(CommandTest):
    def count(self):
        """Lets the processes count at once. Returns the numbers that each has written."""
        self.tkv("set", "count", "0")
        counters = [subprocess.Popen([str(INCREMENT), "count", str(TIMES)], env=self.environment, text=True,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE) for _ in range(PROCESSES)]
        ends = [(*counter.communicate(timeout=4 * DEADLINE), counter.returncode) for counter in counters]
        self.assertEqual([(messages, code) for _, messages, code in ends], [("", 0)] * PROCESSES)
        return [[int(number) for number in numbers.split()] for numbers, _, _ in ends]

    def check(self):
        written = self.count()
        total = PROCESSES * TIMES
        self.assertEqual([numbers == sorted(numbers) for numbers in written], [True] * PROCESSES)
        self.assertEqual(sorted(number for numbers in written for number in numbers), list(range(1, total + 1)))
        self.assertEqual(self.out("get", "count"), f"{total}\n")
        changes = json.loads(self.out("log", "--json", "count"))["changes"]
        self.assertEqual([change["changes"][0]["kind"] for change in changes], ["value"] * total + ["created"])
        self.assertEqual(len({change["process"] for change in changes[:-1]}), PROCESSES)
        print(f"{total} increments by {PROCESSES} processes, {total - len(changes) + 1} lost")


class OnLmdb(Increments):
    def test_none_is_lost(self):
        self.check()


class OnEtcd(Increments):
    def setUp(self):
        super().setUp()
        sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "cluster"))
        from etcd_cluster import EtcdCluster
        cluster = EtcdCluster()
        self.addCleanup(cluster.close)
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = etcd://{cluster.endpoints[0]}\n"
                                              "[etcd]\ntimeout_ms = 60000\n")

    def test_none_is_lost(self):
        self.check()


if __name__ == "__main__":
    unittest.main()
