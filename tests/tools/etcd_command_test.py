"""The command on a registry on etcd: the same verbs, the same outputs."""
import base64
import json
import pathlib
import re
import subprocess
import sys
import unittest
import urllib.request

from command import COMMAND, CONFLICT, DAMAGED, DEADLINE, DIFFERS, NOT_FOUND, PARTLY, UNREACHABLE, CommandTest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "cluster"))
from etcd_cluster import EtcdCluster

SOME = 700  # keys: more than one transaction of the cluster can change


class OnEtcd(CommandTest):
    def setUp(self):
        super().setUp()
        self.cluster = EtcdCluster()
        self.addCleanup(self.cluster.close)
        self.address = f"etcd://{self.cluster.endpoints[0]}"
        self.local_conf = self.folder / "local.conf"
        self.local_conf.write_text((self.folder / "tkv.conf").read_text())
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = {self.address}\n"
                                              f"backup_location = {self.backups}\n[etcd]\ntimeout_ms = 60000\n")
        self.tkv("create", "ready")

    def document(self):
        keys = [{"name": "many"}]
        for number in range(SOME):
            parent = "many" if number % 10 == 0 else f"many.k{number - number % 10:04}"
            keys.append({"name": f"{parent}.k{number:04}", "mode": "u=rlwscd,g=r,o=", "type": "int32", "value": number})
        return json.dumps({"tkv": 1, "top": "many", "keys": keys})

    def test_the_verbs_work_as_on_an_embedded_registry(self):
        self.tkv("set", "-p", "app.hosts", "--list", "alpha", "beta")
        self.tkv("set", "app.limit", "--int64", "5000000000")
        self.assertEqual(self.out("get", "app.hosts"), "alpha\nbeta\n")
        self.assertEqual(self.out("ls", "app"), "hosts\nlimit\n")
        self.tkv("mv", "app", "moved")
        self.tkv("cp", "-r", "moved", "copy")
        self.tkv("chown", "-R", "ada:staff", "copy")
        self.fails(NOT_FOUND, "get", "app.limit")
        self.fails(CONFLICT, "create", "copy")
        self.assertEqual(json.loads(self.out("conf", "--json"))["cluster_word"], 4)
        self.assertIn('limit = 5000000000  (ada:staff ', self.out("tree", "-l", "copy"))
        self.tkv("rm", "-r", "--yes", "moved")
        self.tkv("verify")
        self.assertEqual(self.out("ls"), "copy\nready\n")

    def test_a_change_larger_than_a_transaction_is_still_atomic(self):
        self.tkv("import", given=self.document())
        first = self.out("export", "many")
        self.assertEqual(first.count('"name"'), SOME + 1)
        self.assertEqual(self.out("import", "--replace", "--dry-run", given=first), "")
        self.tkv("chmod", "-R", "o=r", "many")
        self.assertEqual(self.out("export", "many"), first.replace(',o="', ',o=r"').replace(",o=rl", ",o=r"))
        changed = first.replace('"value":1', '"value":2')
        self.assertGreater(first.count('"value":1'), 100)
        self.tkv("import", "--merge", given=changed)
        self.assertEqual(self.out("export", "many"), changed)
        self.tkv("cp", "-r", "--own", "many", "own")
        self.assertEqual(self.out("export", "own").count('"name"'), SOME + 1)
        self.tkv("verify")

    def test_backup_and_restore(self):
        self.tkv("import", given=self.document())
        before = self.out("export")
        path = self.out("backup", "-q").rstrip("\n")
        self.tkv("chmod", "-R", "a=rl", "many")
        self.tkv("restore", "--overwrite", path)
        self.assertEqual(self.out("export"), before)
        self.tkv("restore", path, "--conf", self.local_conf)
        self.assertEqual(self.out("export", "--conf", self.local_conf), before)

    def damage(self, name):
        """Changes the last byte of a record: of what etcd holds under the key that ends with this name."""
        etcdctl = ("etcdctl", f"--endpoints={self.cluster.endpoints[0]}")
        found = subprocess.run([*etcdctl, "get", "--prefix", "/tkv/n/", "-w", "json"], capture_output=True, check=True,
                               env={**self.environment, "ETCDCTL_API": "3"})
        pairs = [[base64.b64decode(pair[part]) for part in ("key", "value")] for pair in json.loads(found.stdout)["kvs"]]
        (key, record), = [pair for pair in pairs if pair[0].endswith(b"/" + name)]
        subprocess.run([*etcdctl, "put", "--", key.decode()], input=record[:-1] + bytes([record[-1] ^ 1]), check=True,
                       capture_output=True, env={**self.environment, "ETCDCTL_API": "3"})

    def test_an_export_and_a_backup_of_a_damaged_top_hold_nothing_and_say_so(self):
        self.tkv("set", "-p", "app.broken.below", "x")
        whole = self.out("backup", "-q").rstrip("\n")
        before = self.out("export")
        self.damage(b"broken")
        saved = self.folder / "saved.backup"
        for words in (("export", "app.broken"), ("backup", saved, "--key", "app.broken")):
            self.fails(DAMAGED, *words)
            self.assertFalse(saved.exists())
            result = self.tkv(*words, "--skip-damaged", exits=PARTLY)
            self.assertIn("left out: key 'app.broken', the top, with everything below it: ", result.messages)
            self.assertIn(f"the {words[0]} is incomplete: 1 damaged part left out", result.messages)
        self.tkv("restore", "--overwrite", "--yes", whole)
        self.tkv("restore", "--overwrite", "--yes", saved)
        self.assertEqual(self.out("export"), before)

    def test_migrate_there_and_back(self):
        self.tkv("import", "--conf", self.local_conf, given=self.document())
        self.tkv("set", ".", "the root has a value", "--conf", self.local_conf)
        before = self.out("export", "--conf", self.local_conf)
        self.assertIn("is not empty", self.fails(CONFLICT, "migrate", self.local_conf, self.folder / "tkv.conf"))
        self.tkv("rm", "ready")
        self.tkv("migrate", self.local_conf, self.folder / "tkv.conf")
        self.assertEqual(self.out("export"), before)
        first, second = json.loads(self.out("log", "--json", "-n", "2"))["changes"]
        self.assertEqual(first["note"], f"migration from {self.local_conf}")
        self.assertEqual(second["changes"][0]["kind"], "deleted")
        back = self.folder / "back"
        self.tkv("migrate", self.address, back)
        (self.folder / "back.conf").write_text(f"[registry]\nlocation = {back}\n")
        self.assertEqual(self.out("export", "--conf", self.folder / "back.conf"), before)
        (change,) = json.loads(self.out("log", "--json", "--conf", self.folder / "back.conf"))["changes"]
        self.assertEqual(change["note"], f"migration from {self.address}")

    def test_status_shows_the_cluster(self):
        report = json.loads(self.out("status", "--json"))
        cluster = report["cluster"]
        (member,) = cluster["members"]
        self.assertEqual((member["name"], member["address"]), ("m0", self.cluster.endpoints[0]))
        self.assertEqual((member["leads"], member["answers"]), (True, True))
        self.assertNotIn("problem", member)
        self.assertEqual(report["bytes"], member["bytes"])
        self.assertGreater(cluster["revision"], 0)
        self.assertGreater(cluster["bytes_in_use"], 0)
        self.assertEqual([cluster[name] for name in ("alarms", "claims", "builds", "dead_builds", "garbage", "retries")],
                         [[], 0, 0, 0, 0, 0])
        history = report["history"]
        self.assertGreater(history["last_change"], history["log_after"])
        self.assertEqual(history["oldest_state"], history["log_after"])
        self.assertEqual(len(history), 3)
        shown = self.out("status")
        self.assertRegex(shown, rf"(?m)^history +states from {history['oldest_state']} on, changes after \d+$")
        self.assertNotIn("history size", shown)
        for line in (rf"member +m0 leads, {self.cluster.endpoints[0]}, release 3\.\S+, \d+ bytes", "alarm +none",
                     r"revision +\d+", r"size +\d+ bytes.*, \d+ in use", "claims +0", "builds +0", "garbage +0",
                     "retries +0", "keys +2"):
            self.assertRegex(shown, rf"(?m)^{line}$")

    def test_wait_ends_when_the_key_has_the_value(self):
        self.fails(UNREACHABLE, "wait", "app", "--timeout", "0")
        process = subprocess.Popen(self.words("wait", "app.state", "--value", "running"), env=self.environment,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        for value in ("starting", "running"):
            self.assertIsNone(process.poll())
            self.tkv("set", "-p", "app.state", value)
        self.assertEqual((*process.communicate(timeout=DEADLINE), process.returncode), (b"", b"", 0))

    def test_wait_goes_on_after_the_cluster_has_been_away(self):
        text = (self.folder / "tkv.conf").read_text().replace("60000", "500")
        (self.folder / "short.conf").write_text(text)
        process = subprocess.Popen(self.words("wait", "app", "--conf", self.folder / "short.conf"), env=self.environment,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        self.wait_until("waiting", lambda: process.poll() is not None or self.watchers() > 0)
        self.cluster.ask("kill", 0)
        self.assertIn(b"still waiting: ", process.stderr.readline())
        self.cluster.ask("start")
        self.tkv("create", "app")
        self.assertEqual((process.communicate(timeout=DEADLINE)[0], process.returncode), (b"", 0))

    def test_diff_compares_states_and_registries(self):
        self.tkv("import", given=self.document())
        before = json.loads(self.out("stat", "--json", "many"))["revision"]
        self.tkv("export", "many", "-o", self.folder / "many.json")
        self.tkv("import", "--conf", self.local_conf, self.folder / "many.json")
        self.assertEqual(self.out("diff", "many", self.local_conf), "")
        self.tkv("set", "many.k0000", "--int32", "-1")
        for former in (f"many@{before}", self.local_conf, f"@{self.folder}/many.json"):
            with self.subTest(former=former):
                text = self.tkv("diff", former, "many", exits=DIFFERS).text
                self.assertEqual([(line[0], json.loads(line[1:])["value"]) for line in text.splitlines()],
                                 [("-", 0), ("+", -1)])
        self.assertEqual(self.tkv("diff", "--conf", self.local_conf, "many", self.address, exits=DIFFERS).text, text)

    def watchers(self):
        """The number of watches that the cluster's only member serves."""
        with urllib.request.urlopen(f"http://{self.cluster.endpoints[0]}/metrics", timeout=DEADLINE) as page:
            count, = re.findall(r"(?m)^etcd_debugging_mvcc_watcher_total (\d+)$", page.read().decode())
        return int(count)

    def test_a_member_that_is_gone_is_unreachable(self):
        self.cluster.ask("kill", 0)
        text = (self.folder / "tkv.conf").read_text().replace("60000", "500")
        (self.folder / "tkv.conf").write_text(text)
        self.assertIn(self.cluster.endpoints[0], self.fails(UNREACHABLE, "get", "ready"))


class OnSeveralMembers(CommandTest):
    def setUp(self):
        super().setUp()
        self.cluster = EtcdCluster(members=3)
        self.addCleanup(self.cluster.close)
        addresses = ", ".join(f"etcd://{endpoint}" for endpoint in self.cluster.endpoints)
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = {addresses}\n[etcd]\ntimeout_ms = 60000\n")
        self.tkv("set", "ready", "yes")

    def test_status_names_a_member_that_is_gone(self):
        self.assertEqual(self.out("status").count(" leads, "), 1)
        self.cluster.ask("kill", 1)
        self.tkv("get", "ready")  # once there is a leader again
        members = json.loads(self.out("status", "--json"))["cluster"]["members"]
        self.assertEqual({member["name"]: member["answers"] for member in members}, {"m0": True, "m1": False, "m2": True})
        (gone,) = (member for member in members if not member["answers"])
        self.assertEqual(gone["address"], self.cluster.endpoints[1])
        self.assertIn("does not answer", gone["problem"])
        self.assertNotIn("version", gone)
        shown = self.out("status")
        self.assertRegex(shown, rf"(?m)^member +m1 {self.cluster.endpoints[1]}, does not answer: ")
        self.assertRegex(shown, r"(?m)^serving +yes$")


class TheModule(CommandTest):
    def test_is_found_beside_the_command_and_not_in_the_current_directory(self):
        for place in (self.folder, self.folder / "lib"):
            place.mkdir(exist_ok=True)
            (place / "libtkv_etcd.so").write_text("not this one")
        (self.folder / "tkv").write_text("nor this one")
        (self.folder / "tkv.conf").write_text("[registry]\nlocation = etcd://127.0.0.1:1\n[etcd]\ntimeout_ms = 200\n")
        # Called by its bare name, as a shell calls a command that it finds on the path.
        done = subprocess.run(["tkv", "ls"], executable=COMMAND, cwd=self.folder, env=self.environment,
                              capture_output=True, text=True, timeout=DEADLINE, check=False)
        self.assertEqual(done.returncode, UNREACHABLE, done.stderr)
        self.assertIn("127.0.0.1:1", done.stderr)
        self.assertNotIn("cannot be loaded", done.stderr)


class Documentation(CommandTest):
    def test_the_user_of_the_registry_is_set_up_as_printed(self):
        cluster = EtcdCluster()
        self.addCleanup(cluster.close)
        text = (ROOT / "docs" / "operations.md").read_text(encoding="utf-8")
        lines = re.findall(r"(?m)^\$ (etcdctl .*)$", text)
        self.assertIn("etcdctl auth enable", lines)
        environment = {**self.environment, "ETCDCTL_API": "3", "ETCDCTL_ENDPOINTS": cluster.endpoints[0]}
        for line in lines:
            # A password, which etcdctl would ask for.
            done = subprocess.run(re.sub(r"(user add \w+)", r"\1:secret", line).split(), env=environment,
                                  capture_output=True, text=True, timeout=DEADLINE, check=False)
            self.assertEqual(done.returncode, 0, (line, done.stderr))
        password = self.folder / "password"
        password.write_text("secret\n")
        password.chmod(0o600)
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = etcd://{cluster.endpoints[0]}\n"
                                              f"[etcd]\ntimeout_ms = 60000\nuser = tkv\npassword_file = {password}\n")
        self.tkv("set", "a", "x")
        self.assertEqual(self.out("get", "a"), "x\n")

    def test_a_registry_is_moved_as_printed(self):
        cluster = EtcdCluster()
        self.addCleanup(cluster.close)
        self.tkv("set", "-p", "app.name", "billing")
        (self.folder / "new.conf").write_text(f"[registry]\nlocation = etcd://{cluster.endpoints[0]}\n"
                                              "[etcd]\ntimeout_ms = 60000\n")
        text = (ROOT / "docs" / "operations.md").read_text(encoding="utf-8")
        text = re.search(r"(?ms)^## Moving a registry to etcd$(.*?)^## ", text)[1]
        lines = re.findall(r"`(tkv conf [^`]*)`|(?m:^ *\$ (.*)$)", text)
        environment = {**self.environment, "PATH": f"{COMMAND.parent}:{self.environment['PATH']}"}
        run = ["".join(line).replace("/etc/tkv/", f"{self.folder}/") for line in lines]
        self.assertEqual([line.split()[:2] for line in run[:2]], [["tkv", "conf"], ["tkv", "migrate"]])
        for line in run:
            if "--overwrite" in line:
                self.tkv("set", "app.name", "changed meanwhile")
                line += " --yes"  # the answer of a person at a terminal
            done = subprocess.run(line.split(), env=environment, capture_output=True, text=True, timeout=DEADLINE,
                                  check=False)
            self.assertEqual(done.returncode, 0, (line, done.stderr))
        self.assertEqual(self.out("get", "app.name"), "changed meanwhile\n")
        self.assertEqual(json.loads(self.out("status", "--json"))["store"], "etcd")


if __name__ == "__main__":
    unittest.main()
