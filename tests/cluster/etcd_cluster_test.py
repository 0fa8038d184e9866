"""The launcher of etcd clusters: each cluster belongs to one caller, and none outlives its caller."""
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import etcd_cluster
from etcd_cluster import EtcdCluster, Failure

DEADLINE = 240  # seconds


def exists(pid):
    """Whether a process runs; one that has ended and was not waited for does not."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except (FileNotFoundError, ProcessLookupError):
        return False


class ClusterTest(unittest.TestCase):
    def setUp(self):
        place = tempfile.TemporaryDirectory(prefix="tkv-cluster-test-")
        self.addCleanup(place.cleanup)
        self.place = pathlib.Path(place.name)

    def wait_until(self, what, condition):
        limit = time.monotonic() + DEADLINE
        while not condition():
            self.assertLess(time.monotonic(), limit, what)
            os.sched_yield()

    def cluster(self, members=1, **options):
        cluster = EtcdCluster(members, directory=self.place, **options)
        self.addCleanup(cluster.close)
        return cluster

    def pids(self, cluster):
        return [int(pid) for pid in cluster.ask("pids").split()]

    def assert_all_end(self, pids):
        self.wait_until("the members' end", lambda: not any(exists(pid) for pid in pids))

    def test_members_can_be_killed_stopped_and_started_again(self):
        cluster = self.cluster(3)
        leader = int(cluster.ask("leader"))
        self.assertIn(leader, range(3))
        cluster.ask("kill", leader)
        self.assertEqual([pid == 0 for pid in self.pids(cluster)], [member == leader for member in range(3)])
        self.wait_until("another leader", lambda: int(cluster.ask("leader")) not in (-1, leader))
        cluster.ask("start", leader)
        cluster.ask("wait")
        other = int(cluster.ask("leader"))
        cluster.ask("stop", other)
        self.wait_until("another leader", lambda: int(cluster.ask("leader")) not in (-1, other))
        cluster.ask("cont", other)
        cluster.ask("wait")

    def test_a_snapshot_is_restored_into_the_same_members(self):
        cluster = self.cluster(3)
        ctl = ["etcdctl", "--endpoints", ",".join(cluster.endpoints)]
        environment = {**os.environ, "ETCDCTL_API": "3"}

        def ask(*words):
            return subprocess.run([*ctl, *words], env=environment, capture_output=True, text=True, check=True).stdout

        ask("put", "key", "saved")
        members = ask("member", "list")
        cluster.ask("save")
        ask("put", "key", "lost")
        cluster.ask("restore")
        self.assertEqual(ask("get", "key", "--print-value-only"), "saved\n")
        self.assertEqual(ask("member", "list"), members)

    def test_clusters_at_one_time_have_addresses_of_their_own(self):
        addresses = {self.cluster().ask("address") for _ in range(3)}
        self.assertEqual(len(addresses), 3)

    def test_an_address_stays_claimed_until_the_last_member_has_ended(self):
        cluster = self.cluster()
        address, (member,) = cluster.ask("address"), self.pids(cluster)
        self.assertFalse(self.can_claim(address))
        cluster.launcher.kill()
        self.wait_until("the release of the address", lambda: self.can_claim(address))
        self.assertFalse(exists(member))

    def can_claim(self, address):
        with socket.socket() as claim:
            try:
                claim.bind((address, etcd_cluster.CLAIM_PORT))
                return True
            except OSError:
                return False

    def test_nothing_remains_after_a_close(self):
        cluster = self.cluster(2)
        pids = self.pids(cluster)
        cluster.close()
        self.assertFalse(any(exists(pid) for pid in pids))
        self.assertEqual(list(self.place.iterdir()), [])

    def test_nothing_remains_after_a_caller_that_was_killed(self):
        script = (f"import sys; sys.path.insert(0, {str(HERE)!r}); import etcd_cluster\n"
                  f"cluster = etcd_cluster.EtcdCluster(2, directory={str(self.place)!r})\n"
                  "print(cluster.ask('pids'), flush=True)\n"
                  "cluster.launcher.wait()\n")
        with subprocess.Popen([sys.executable, "-c", script], stdout=subprocess.PIPE, text=True) as caller:
            pids = [int(pid) for pid in caller.stdout.readline().split()]
            self.assertTrue(all(exists(pid) for pid in pids))
            caller.kill()
        self.assert_all_end(pids)
        self.wait_until("the removal of the data", lambda: not list(self.place.iterdir()))

    def test_nothing_remains_when_the_caller_ends_during_a_wait(self):
        launcher = subprocess.Popen([etcd_cluster.__file__, "--members", "2", "--directory", str(self.place)],
                                    stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        print("start 0\nwait", file=launcher.stdin, flush=True)  # one of two has no majority and is never healthy
        self.assertEqual(launcher.stdout.readline(), "ok\n")
        self.assertEqual(len(list(self.place.iterdir())), 1)
        launcher.stdin.close()
        self.assertEqual(launcher.wait(DEADLINE), 0)
        launcher.stdout.close()
        self.assertEqual(list(self.place.iterdir()), [])

    def test_the_members_end_when_the_launcher_is_killed(self):
        cluster = self.cluster(2)
        pids = self.pids(cluster)
        cluster.launcher.send_signal(signal.SIGKILL)
        self.assert_all_end(pids)

    def test_a_member_that_does_not_start_is_a_failure_with_its_log(self):
        with self.assertRaisesRegex(Failure, "member 0 has ended.*no-such-flag"):
            self.cluster(flags=["--no-such-flag"])

    def test_an_unknown_command_is_a_failure(self):
        with self.assertRaisesRegex(Failure, "there is no command 'jump'"):
            self.cluster().ask("jump")


if __name__ == "__main__":
    unittest.main()
