"""Changes under conditions and with notes, undo, and purging of the history."""
import grp
import json
import os
import pwd
import shutil
import subprocess
import unittest

from command import CONFLICT, CommandTest, DEADLINE, DENIED, DIFFERS, DONE, NOT_FOUND, USAGE


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
        self.tkv("import", "--replace", given=exported.read_text().replace('"5"', '"7"'))
        self.assertEqual(self.log("-n", "1")[0]["note"], "import of standard input")
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


class Undo(Changing):
    def test_shows_and_undoes_each_kind_of_change(self):
        self.tkv("set", "app.other", "o")
        before = self.out("export")
        for words in (("set", "app.limit", "--int64", "6"), ("set", "app.new", "n"), ("chmod", "o=", "app.limit"),
                      ("mv", "app.limit", "app.moved"), ("rm", "app.limit"), ("rm", "-r", "--yes", "app"),
                      ("cp", "-r", "app", "copy")):
            with self.subTest(words=words):
                self.tkv(*words)
                change = self.latest()
                shown = self.tkv("undo", change, "--yes")
                self.assertEqual(self.out("export"), before)
                self.assertNotEqual(shown.text, "")
                self.assertEqual(shown.messages, f"tkv: change {change} is undone by change {self.latest()}\n")
                self.assertEqual(self.log("-n", "1")[0]["note"], f"undo of change {change}")

    def test_shows_what_it_would_do_and_exits_as_diff(self):
        self.tkv("set", "app.limit", "--int64", "6")
        change = self.latest()
        self.assertEqual(self.tkv("undo", "--dry-run", change, exits=DIFFERS).text,
                         "- app.limit = 6\n+ app.limit = 5\n")
        told = json.loads(self.tkv("undo", "--dry-run", "--json", change, exits=DIFFERS).text)
        self.assertEqual(told["undoes"], change)
        only, = told["changes"]
        self.assertEqual((only["kind"], only["before"][0]["value"], only["after"][0]["value"]), ("value", "6", "5"))
        self.assertEqual(self.out("get", "app.limit"), "6\n")
        done = json.loads(self.out("undo", "--yes", "--json", change))
        self.assertEqual((done["done"], done["undone"], done["revision"]), ("undo", change, self.latest()))

    def test_an_undo_can_be_undone(self):
        self.tkv("set", "app.limit", "--int64", "6")
        self.tkv("undo", "--yes", self.latest())
        self.assertEqual(self.out("get", "app.limit"), "5\n")
        self.tkv("undo", "--yes", self.latest())
        self.assertEqual(self.out("get", "app.limit"), "6\n")

    def test_later_changes_are_in_its_way_unless_forced(self):
        self.tkv("set", "app.limit", "--int64", "6")
        change = self.latest()
        self.tkv("set", "app.limit", "--int64", "7")
        for words in ((), ("--dry-run",)):
            message = self.fails(CONFLICT, "undo", "--yes", change, *words)
            self.assertIn("later changes are in the way: key 'app.limit' was changed in revision", message)
            self.assertIn("--force", message)
        self.assertEqual(self.out("get", "app.limit"), "7\n")
        self.assertEqual(self.out("undo", "--yes", "--force", change), "- app.limit = 7\n+ app.limit = 5\n")
        self.assertEqual(self.out("get", "app.limit"), "5\n")

    def test_forced_deletes_what_is_below_a_key_that_was_created(self):
        self.tkv("create", "app.new")
        change = self.latest()
        self.tkv("set", "app.new.below", "b")
        for words in ((), ("--dry-run",)):
            self.assertIn("has subkeys", self.fails(CONFLICT, "undo", "--yes", change, *words))
        self.assertEqual(self.out("undo", "--yes", "--force", change), '- app.new\n- app.new.below = "b"\n')
        self.fails(NOT_FOUND, "get", "app.new")

    def test_asks_on_a_terminal(self):
        self.tkv("set", "app.limit", "--int64", "6")
        change = self.latest()
        for answer, code, value in (("n\n", CONFLICT, "6\n"), ("y\n", DONE, "5\n")):
            terminal = self.terminal("undo", "--no-color", change)
            seen = terminal.read_until(b"[y/N] ").replace(b"\r\n", b"\n").decode()
            self.assertEqual(seen, "- app.limit = 6\n+ app.limit = 5\n"
                                   f"tkv: this undoes change {change}. Go on? [y/N] ")
            terminal.type(answer)
            self.assertEqual(terminal.finish()[0], code)
            self.assertEqual(self.out("get", "app.limit"), value)

    def test_forced_does_what_was_shown_or_nothing(self):
        self.tkv("create", "app.new")
        change = self.latest()
        self.tkv("set", "app.new.below", "shown")
        for words in (("set", "app.new.below", "changed"), ("set", "app.new.later", "l"), ("rm", "app.new.later")):
            with self.subTest(words=words):
                terminal = self.terminal("undo", "--no-color", "--force", change)
                terminal.read_until(b"[y/N] ")
                self.tkv(*words)
                terminal.type("y\n")
                code, seen = terminal.finish()
                self.assertEqual(code, CONFLICT)
                self.assertIn("what was shown has changed", seen)
        self.assertEqual(self.out("get", "app.new.below"), "changed\n")
        self.tkv("undo", "--yes", "--force", change)
        self.fails(NOT_FOUND, "get", "app.new")

    def test_without_a_terminal_needs_yes(self):
        self.tkv("set", "app.limit", "--int64", "6")
        refused = self.tkv("undo", self.latest(), exits=CONFLICT)
        self.assertIn("needs --yes", refused.messages)
        self.assertEqual(self.out("get", "app.limit"), "6\n")

    def test_a_change_that_is_not_retained_cannot_be_undone(self):
        self.assertIn("is not retained", self.fails(NOT_FOUND, "undo", "--yes", self.latest() + 7))
        self.fails(USAGE, "undo", "--yes", "yesterday")

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
    def test_needs_the_rights_of_the_change_back(self):
        user = pwd.getpwnam("nobody")
        os.chmod(self.folder, 0o755)
        self.configure(f"group = {grp.getgrgid(user.pw_gid).gr_name}")
        shutil.rmtree(self.registry)
        prefix = ("setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups")
        self.tkv("set", "own", "a", "--owner", "nobody")
        self.tkv("set", "own", "b")
        own = self.latest()
        self.tkv("set", "foreign", "a")
        self.tkv("set", "foreign", "b")
        foreign = self.latest()
        result = self.tkv("undo", "--yes", foreign, exits=DENIED, prefix=prefix)
        self.assertIn("access denied", result.messages)
        self.tkv("undo", "--yes", own, prefix=prefix)
        self.assertEqual((self.out("get", "own"), self.out("get", "foreign")), ("a\n", "b\n"))


class Purge(Changing):
    def setUp(self):
        super().setUp()
        self.tkv("set", "app.secret", "first-secret")
        self.before = self.latest()
        self.tkv("set", "app.secret", "second-secret")
        self.tkv("rm", "app.secret")

    def test_removes_the_former_values_for_good(self):
        self.assertEqual(self.out("get", "app.secret", "--at", self.before), "first-secret\n")
        self.assertEqual(self.tkv("history", "purge", "--yes", "app.secret").messages,
                         "tkv: 2 former values of key 'app.secret' removed\n")
        self.assertEqual(self.out("get", "app.secret", "--at", self.before), "")
        self.assertNotIn("secret =", self.out("log", "--patch"))
        self.assertIn("created app.secret", self.out("log"))
        self.assertEqual(json.loads(self.out("history", "purge", "--yes", "--json", "app.secret"))["removed"], 0)

    def test_asks_on_a_terminal(self):
        terminal = self.terminal("history", "purge", "app.secret")
        self.assertIn(b"tkv: this removes the former values of key 'app.secret' for good. Go on? [y/N] ",
                      terminal.read_until(b"[y/N] "))
        terminal.type("n\n")
        self.assertEqual(terminal.finish()[0], CONFLICT)
        self.assertIn("needs --yes", self.fails(CONFLICT, "history", "purge", "app.secret"))
        self.assertEqual(self.out("get", "app.secret", "--at", self.before), "first-secret\n")

    def test_there_is_no_other_action(self):
        self.fails(USAGE, "history", "forget", "app.secret")
        self.assertEqual(self.out("complete", "--", "history", ""), "purge\n")


if __name__ == "__main__":
    unittest.main()
