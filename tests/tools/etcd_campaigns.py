"""Recursive changes beside small ones, by processes of the command on one registry on etcd. Whatever the order in which
they take effect, what was acknowledged must be there in the end.

  etcd_campaigns.py COMMAND [--long]"""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import time
import unittest

LONG = "--long" in sys.argv
if LONG:
    sys.argv.remove("--long")

from command import DEADLINE, DENIED, DONE, NOT_FOUND, CommandTest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "cluster"))
from etcd_cluster import EtcdCluster

RUNS = 40 if LONG else 4
FEW, MANY = 60, 600  # keys: what one transaction of etcd can compare, and more
AT_ONCE = 6  # small changes beside a recursive one
OTHER_USER = 54321


class Campaign(CommandTest):
    def setUp(self):
        super().setUp()
        cluster = EtcdCluster()
        self.addCleanup(cluster.close)
        self.folder.chmod(0o755)
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = etcd://{cluster.endpoints[0]}\n"
                                              "[etcd]\ntimeout_ms = 60000\n")
        self.pause = 0.0

    def key(self, number):
        return f"top.k{number % 10}.k{number:04}"

    def document(self, keys, mode, value):
        records = [{"name": "top"}] + [{"name": f"top.k{group}"} for group in range(10)]
        records += [{"name": self.key(number)} for number in range(keys)]
        for record in records:
            record.update({"mode": mode, "type": "int32", "value": value})
        return json.dumps({"tkv": 1, "top": "top", "keys": sorted(records, key=lambda each: each["name"])}).encode()

    def fill(self, keys, mode="u=rlwscd,g=rl,o=rl"):
        self.tkv("import", "--replace", "--yes", given=self.document(keys, mode, 1))

    def start(self, *words, prefix=(), given=b""):
        process = subprocess.Popen([*prefix, *self.words(*words)], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, env=self.environment)
        process.stdin.write(given)
        process.stdin.close()
        process.stdin = None
        return process

    def finish(self, process):
        _, messages = process.communicate(timeout=DEADLINE)
        return process.returncode, messages.decode()

    def security_of(self, keys):
        """Owner and mode of each key, as an export shows them."""
        exported = json.loads(self.out("export", "top"))
        self.assertEqual(len(exported["keys"]), 11 + keys)
        return {record["name"]: (record.get("owner"), record["mode"], record.get("value"))
                for record in exported["keys"]}

    def run_beside(self, large, small):
        """Starts the large change, and the small ones while it runs: each a little later than the one before, over the
        time that the large one took when it was alone. Gives their exit codes."""
        processes = [large()]
        for change in small:
            processes.append(change())
            limit = time.monotonic() + self.pause
            while time.monotonic() < limit and processes[0].poll() is None:
                os.sched_yield()
        ends = [self.finish(process) for process in processes]
        return [code for code, _ in ends], " ".join(messages for _, messages in ends)

    def campaign(self, once):
        """Runs `once` with few and with many keys in turns; it returns what went wrong, or nothing."""
        broken = []
        for number in range(RUNS):
            keys = (FEW, MANY)[number % 2]
            self.pause = (number // 2 % 5) * 0.01
            wrong = once(keys, number)
            broken += [f"run {number}, {keys} keys: {wrong}"] if wrong else []
        print(f"{self.id().rpartition('.')[2]}: {RUNS} runs, {len(broken)} broken", file=sys.stderr)
        self.assertEqual(broken, [])

    def test_a_recursive_chmod_loses_no_revocation(self):
        def once(keys, number):
            self.fill(keys)
            victims = [self.key((number * 17 + i * (keys // AT_ONCE)) % keys) for i in range(AT_ONCE)]
            codes, messages = self.run_beside(
                lambda: self.start("chmod", "-R", "g+c", "top"),
                [lambda victim=victim: self.start("chmod", "o=", victim) for victim in victims])
            if any(codes):
                return f"{codes} {messages}"
            modes = {name: mode for name, (_, mode, _) in self.security_of(keys).items()}
            lost = [name for name in victims if not modes[name].endswith("o=")]
            missed = [name for name, mode in modes.items() if "c" not in mode.split(",")[1]]
            return f"lost at {lost}, missed {missed}" if lost or missed else None

        self.campaign(once)

    def test_a_merging_import_loses_no_change_of_owner(self):
        def once(keys, number):
            self.fill(keys)
            given = self.document(keys, "u=rlwscd,g=r,o=r", 2)
            victims = [self.key((number * 17 + i * (keys // AT_ONCE)) % keys) for i in range(AT_ONCE)]
            codes, messages = self.run_beside(
                lambda: self.start("import", "--merge", given=given),
                [lambda victim=victim: self.start("chown", "ada:staff", victim) for victim in victims])
            if any(codes):
                return f"{codes} {messages}"
            found = self.security_of(keys)
            lost = [name for name in victims if found[name][0] != "ada"]
            missed = [name for name, (_, mode, value) in found.items() if value != 2 or not mode.endswith("g=r,o=r")]
            return f"lost at {lost}, missed {missed}" if lost or missed else None

        self.campaign(once)

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
    def test_a_recursive_deletion_spares_what_was_protected(self):
        other = ("setpriv", f"--reuid={OTHER_USER}", f"--regid={OTHER_USER}", "--clear-groups")
        self.tkv("create", "top")
        self.tkv("chmod", "a=rlwscd", ".")

        def once(keys, number):
            self.fill(keys, "u=rlwscd,g=rlwscd,o=rlwscd")
            victims = [self.key((number * 17 + i * (keys // AT_ONCE)) % keys) for i in range(AT_ONCE)]
            codes, messages = self.run_beside(
                lambda: self.start("rm", "-r", "--yes", "top", prefix=other),
                [lambda victim=victim: self.start("chmod", "a-d", victim) for victim in victims])
            removed, protected = codes[0] == DONE, [code == DONE for code in codes[1:]]
            if codes[0] not in (DONE, DENIED) or any(code not in (DONE, NOT_FOUND) for code in codes[1:]):
                return f"{codes} {messages}"
            if removed and any(protected):
                return f"{protected.count(True)} protected keys were deleted"
            if not removed and not all(protected):
                return f"nothing was deleted, but {codes}"
            if not removed:
                self.security_of(keys)  # every key is there
            return None

        self.campaign(once)


if __name__ == "__main__":
    unittest.main()
