"""The log, watching and undo on a registry on etcd."""
import json
import pathlib
import signal
import subprocess
import sys
import unittest
import urllib.request

from command import CONFLICT, CommandTest, DEADLINE, DIFFERS, DONE, NOT_FOUND, USAGE

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "cluster"))
from etcd_cluster import EtcdCluster


class OnEtcd(CommandTest):
    def setUp(self):
        super().setUp()
        self.cluster = EtcdCluster()
        self.addCleanup(self.cluster.close)
        self.configure_etcd(60_000)
        self.tkv("create", "app")
        self.tkv("set", "app.limit", "--int64", "5")
        self.tkv("set", "app.limit", "--int64", "6")

    def configure_etcd(self, timeout):
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = etcd://{self.cluster.endpoints[0]}\n"
                                              f"[etcd]\ntimeout_ms = {timeout}\n")

    def log(self, *words):
        return json.loads(self.out("log", "--json", *words))["changes"]

    def stop(self, process):
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(DEADLINE), DONE, process.stderr.read())

    def restart_cluster(self, process):
        """Stops the cluster until the process has said so, and starts it again."""
        self.cluster.ask("kill", 0)
        self.assertIn("trying again until it can be reached", process.stderr.readline())
        self.cluster.ask("start")
        self.assertEqual(process.stderr.readline(), "tkv: the registry can be reached again\n")


class Log(OnEtcd):
    def test_shows_changes_and_their_values(self):
        self.assertEqual([change["changes"] for change in self.log()],
                         [[{"kind": "value", "name": "app.limit"}], [{"kind": "created", "name": "app.limit"}],
                          [{"kind": "created", "name": "app"}]])
        self.assertEqual(self.out("log", "-n", "1", "--patch").splitlines()[-2:], ["- app.limit = 5", "+ app.limit = 6"])
        before = self.log()[1]["revision"]
        self.assertEqual(self.out("get", "app.limit", "--at", before), "5\n")

    def test_following_survives_a_restart_of_etcd(self):
        self.configure_etcd(1000)
        follower = self.in_background("log", "--follow", "-n", "1")
        self.assertIn("value app.limit", follower.stdout.readline())
        self.restart_cluster(follower)
        self.configure_etcd(60_000)
        self.tkv("set", "app.limit", "--int64", "7")
        self.tkv("set", "app.limit", "--int64", "8")
        lines = [follower.stdout.readline() for _ in range(2)]
        self.assertEqual([int(line.split()[0]) for line in lines],
                         [change["revision"] for change in self.log("-n", "2")][::-1])
        self.stop(follower)
        self.assertEqual((follower.stdout.read(), follower.stderr.read()), ("", ""))


class Watch(OnEtcd):
    def test_survives_a_restart_of_etcd(self):
        self.configure_etcd(1000)
        watch = self.in_background("watch", "--initial", "app.limit")
        self.assertIn("resync app.limit = 6", watch.stdout.readline())
        self.restart_cluster(watch)
        self.configure_etcd(60_000)
        for number in range(7, 12):
            self.tkv("set", "app.limit", "--int64", number)
        self.assertEqual([watch.stdout.readline().split(" = ")[1] for _ in range(5)],
                         [f"{number}\n" for number in range(7, 12)])
        self.stop(watch)
        self.assertEqual((watch.stdout.read(), watch.stderr.read()), ("", ""))

    def test_that_has_fallen_behind_a_compaction_is_told_so_once(self):
        begin = self.log("-n", "1")[0]["revision"]
        for number in range(7, 10):
            self.tkv("set", "app.limit", "--int64", number)
        latest = self.log("-n", "1")[0]["revision"]
        self.compact(latest)
        watch = self.in_background("watch", "--json", "--since", begin, "app.limit")
        event = json.loads(watch.stdout.readline())
        self.assertEqual((event["kind"], event["value"]), ("resync", "9"))
        self.tkv("set", "app.limit", "--int64", "10")
        event = json.loads(watch.stdout.readline())
        self.assertEqual((event["kind"], event["value"]), ("value", "10"))
        self.stop(watch)
        self.assertEqual((watch.stdout.read(), watch.stderr.read()), ("", ""))
        self.assertRegex(self.fails(NOT_FOUND, "get", "app.limit", "--at", begin),
                         rf"revision {begin} is not retained; the oldest state that can be read is \d+\n")

    def compact(self, revision):
        subprocess.run(["etcdctl", "--endpoints", self.cluster.endpoints[0], "compact", str(revision)], check=True,
                       env={**self.environment, "ETCDCTL_API": "3"}, capture_output=True)


class Wait(OnEtcd):
    def test_survives_a_restart_of_etcd(self):
        self.configure_etcd(1000)
        waiting = self.in_background("wait", "app.limit", "--value", "8")
        self.wait_until("a watch of the log", self.is_watched)
        self.cluster.ask("kill", 0)
        self.assertIn("tkv: still waiting: ", waiting.stderr.readline())
        self.cluster.ask("start")
        self.configure_etcd(60_000)
        self.tkv("set", "app.limit", "--int64", "7")
        self.assertIsNone(waiting.poll())
        self.tkv("set", "app.limit", "--int64", "8")
        self.assertEqual(waiting.wait(DEADLINE), DONE)

    def is_watched(self):
        with urllib.request.urlopen(f"http://{self.cluster.endpoints[0]}/metrics", timeout=DEADLINE) as metrics:
            return any(float(line.split()[1]) > 0 for line in metrics.read().decode().splitlines()
                       if line.startswith("etcd_debugging_mvcc_watcher_total "))


class LargeChange(OnEtcd):
    def setUp(self):
        super().setUp()
        keys = [{"name": "many"}] + [{"name": f"many.k{number:03}", "type": "int32", "value": number}
                                     for number in range(200)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))

    def assert_is_last_change_of(self, *keys):
        change, = self.log("-n", "1")
        for key in keys:
            stat = json.loads(self.out("stat", "--json", key))
            self.assertEqual((stat["revision"], stat["changed_by"]), (change["revision"], change["author"]), key)

    def test_its_keys_tell_its_revision_and_author(self):
        self.assert_is_last_change_of("many", "many.k000", "many.k077", "many.k199")
        self.tkv("chmod", "-R", "o=", "many")
        self.assert_is_last_change_of("many", "many.k000", "many.k077", "many.k199")
        self.tkv("set", "many.k077", "later")
        self.assert_is_last_change_of("many.k077")

    def test_a_condition_names_its_revision(self):
        self.tkv("chmod", "-R", "o=", "many")
        revision = self.log("-n", "1")[0]["revision"]
        self.tkv("set", "many.k077", "later", "--if-revision", revision)
        self.fails(CONFLICT, "set", "many.k077", "too late", "--if-revision", revision)
        self.assertEqual(self.out("get", "many.k077"), "later\n")


class Undo(OnEtcd):
    def test_shows_and_undoes_a_change(self):
        before = self.out("export")
        self.tkv("rm", "-r", "--yes", "app")
        change = self.log("-n", "1")[0]["revision"]
        self.assertEqual(self.tkv("undo", "--dry-run", change, exits=DIFFERS).text, "+ app\n+ app.limit = 6\n")
        self.tkv("undo", "--yes", change)
        self.assertEqual(self.out("export"), before)
        self.assertEqual(self.log("-n", "1")[0]["note"], f"undo of change {change}")

    def test_later_changes_are_in_its_way(self):
        change = self.log("-n", "1")[0]["revision"]
        self.tkv("set", "app.limit", "--int64", "7")
        self.assertIn("later changes are in the way", self.fails(CONFLICT, "undo", "--yes", change))
        self.tkv("undo", "--yes", "--force", change)
        self.assertEqual(self.out("get", "app.limit"), "5\n")

    def test_conditions_hold(self):
        revision = json.loads(self.out("stat", "--json", "app.limit"))["revision"]
        self.tkv("set", "app.limit", "--int64", "7", "--if-revision", revision, "--if-value", "6")
        self.fails(CONFLICT, "set", "app.limit", "--int64", "8", "--if-revision", revision)
        self.fails(CONFLICT, "set", "app.limit", "--int64", "8", "--if-value", "6")
        self.fails(CONFLICT, "set", "app.limit", "x", "--if-absent")
        self.assertEqual(self.out("get", "app.limit"), "7\n")

    def test_the_history_is_not_purged_but_compacted(self):
        self.assertIn("compact", self.fails(USAGE, "history", "purge", "--yes", "app.limit"))
        # Before it asks: without a terminal, the question alone would fail.
        self.assertIn("compact", self.fails(USAGE, "history", "purge", "app.limit"))


if __name__ == "__main__":
    unittest.main()
