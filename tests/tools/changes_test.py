"""Changes under conditions and with notes."""
import grp
import json
import os
import pwd
import shutil
import subprocess
import unittest

from command import CONFLICT, CommandTest, DEADLINE, DENIED, DONE, USAGE


class Changing(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("create", "app")
        self.tkv("set", "app.limit", "--int64", "5")

    def revision(self, key="app.limit"):
        return json.loads(self.out("stat", "--json", key))["revision"]

    def log(self, *words):
        return json.loads(self.out("log", "--json", *words))["changes"]

    def latest(self):
        return self.log("-n", "1")[0]["revision"]


class Conditions(Changing):
    def test_if_absent(self):
        self.tkv("set", "app.new", "x", "--if-absent")
        self.assertEqual(self.fails(CONFLICT, "set", "app.new", "y", "--if-absent"), "tkv: key 'app.new' exists\n")
        self.assertEqual(self.out("get", "app.new"), "x\n")
        self.tkv("set", "-p", "deep.er", "x", "--if-absent", "--mode", "u=rw,g=,o=")
        self.assertEqual(json.loads(self.out("stat", "--json", "deep.er"))["masks"], [5, 0, 0])

    def test_if_revision(self):
        before = self.revision()
        told = json.loads(self.out("set", "--json", "app.limit", "--int64", "6", "--if-revision", before))
        self.assertEqual(told, {"done": "set", "name": "app.limit", "revision": self.revision()})
        self.assertEqual(self.fails(CONFLICT, "set", "app.limit", "--int64", "7", "--if-revision", before),
                         f"tkv: key 'app.limit' was changed in revision {self.revision()}, not last in {before}\n")
        self.assertEqual(self.out("get", "app.limit"), "6\n")
        self.assertIn("does not exist", self.fails(CONFLICT, "set", "app.new", "x", "--if-revision", before))

    def test_if_value_is_of_the_type_that_is_written(self):
        self.tkv("set", "app.bytes", "--hex", "00ff")
        for key, options, before, after in (("limit", ("--int64",), "5", "6"), ("text", (), "a b", "c"),
                                            ("at", ("--literal",), "@here", "-"), ("bytes", ("--hex",), "00 ff", "01"),
                                            ("list", ("--list",), "alpha", "beta")):
            with self.subTest(key=key):
                if key not in ("limit", "bytes"):
                    self.tkv("set", f"app.{key}", *options, "--literal", before)
                self.tkv("set", f"app.{key}", *options, after, "--if-value", before)
                message = self.fails(CONFLICT, "set", f"app.{key}", *options, after, "--if-value", before)
                self.assertEqual(message, f"tkv: key 'app.{key}' has another value than the condition names\n")
        self.assertIn("another value", self.fails(CONFLICT, "set", "app.limit", "7", "--if-value", "6"))

    def test_if_value_is_what_get_prints(self):
        self.tkv("set", "app.hosts", "--list", "alpha", "beta")
        shown = self.out("get", "--no-newline", "app.hosts")
        self.tkv("set", "app.hosts", "--list", "alpha", "beta", "gamma", "--if-value", shown)
        self.assertEqual(self.out("get", "app.hosts"), "alpha\nbeta\ngamma\n")

    def test_counting_by_several_processes_loses_nothing(self):
        step = ('while v=$("$0" get app.limit); do "$0" set app.limit --int64 $((v+1)) --if-value "$v" 2>/dev/null; '
                'c=$?; [ $c = 5 ] || exit $c; done')
        counters = [subprocess.Popen(["sh", "-c", f"for i in 1 2 3 4 5; do ({step}) || exit; done", self.words()[0]],
                                     env=self.environment) for _ in range(4)]
        self.assertEqual([counter.wait(DEADLINE) for counter in counters], [DONE] * 4)
        self.assertEqual(self.out("get", "app.limit"), "25\n")

    def test_what_makes_no_sense_is_usage(self):
        for words in (("--if-revision", "x"), ("--if-revision", "1", "--if-absent"), ("--if-value", "x", "--new"),
                      ("--if-absent", "--existing"), ("--int32", "--if-value", "x")):
            with self.subTest(words=words):
                self.fails(USAGE, "set", "app.limit", "1", *words)

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
    def test_a_condition_about_the_value_needs_the_right_to_read(self):
        user = pwd.getpwnam("nobody")
        os.chmod(self.folder, 0o755)
        self.configure(f"group = {grp.getgrgid(user.pw_gid).gr_name}")
        shutil.rmtree(self.registry)
        prefix = ("setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups")
        self.tkv("set", "box", "x", "--mode", "u=rlwscd,g=,o=w")
        for words in (("--if-value", "x"), ("--if-revision", "1")):
            self.assertIn("access denied", self.fails(DENIED, "set", "box", "y", *words, prefix=prefix))
        self.tkv("set", "box", "y", prefix=prefix)


class Notes(Changing):
    def test_every_verb_that_changes_something_takes_one(self):
        self.environment["VISUAL"] = "sed -i /limit/s/5/8/"
        exported = self.folder / "app.json"
        self.tkv("export", "app", "-o", exported)
        backup = self.out("backup", "-q").strip()
        for words in (("set", "app.limit", "--int64", "6"), ("create", "app.new"), ("mv", "app.new", "app.moved"),
                      ("cp", "app.moved", "app.copy"), ("chown", "ada", "app.copy"), ("chmod", "o=", "app.copy"),
                      ("rm", "app.copy"), ("import", "--replace", "--yes", exported),
                      ("edit", "app.limit"), ("restore", "--overwrite", "--yes", backup)):
            with self.subTest(words=words):
                self.tkv(*words, "--note", f"for {words[0]}")
                self.assertEqual(self.log("-n", "1")[0]["note"], f"for {words[0]}")
        self.assertTrue(self.out("log", "-n", "1").endswith("  (for restore)\n"))

    def test_import_restore_and_migrate_say_where_the_keys_come_from(self):
        exported = self.folder / "app.json"
        self.tkv("export", "app", "-o", exported)
        backup = self.out("backup", "-q").strip()
        self.tkv("set", "app.limit", "--int64", "6")
        self.tkv("import", "--merge", exported)
        self.assertEqual(self.log("-n", "1")[0]["note"], f"import of {exported}")
        self.tkv("set", "app.limit", "--int64", "6")
        self.tkv("restore", "--overwrite", backup)
        self.assertEqual(self.log("-n", "1")[0]["note"], f"restore of {backup}")
        self.tkv("migrate", self.registry, self.folder / "copy")
        (self.folder / "copy.conf").write_text(f"[registry]\nlocation = {self.folder}/copy\n")
        self.assertEqual({change["note"] for change in self.log("--conf", self.folder / "copy.conf")},
                         {f"migration from {self.registry}"})

    def test_one_that_is_too_long_is_refused(self):
        self.tkv("set", "app.limit", "--int64", "6", "--note", "x" * 1024)
        self.assertIn("at most 1024 bytes",
                      self.fails(USAGE, "set", "app.limit", "--int64", "7", "--note", "x" * 1025))
        self.assertEqual(self.out("get", "app.limit"), "6\n")


if __name__ == "__main__":
    unittest.main()
