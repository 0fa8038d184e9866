"""The log of changes: tkv log."""
import grp
import json
import os
import pwd
import re
import shutil
import signal
import unittest

from command import CommandTest, DEADLINE, DONE, NOT_FOUND, USAGE, USER


class Log(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("create", "app")
        self.tkv("set", "app.limit", "--int64", "5")
        self.tkv("set", "app.limit", "--int64", "6")

    def log(self, *words, **how):
        """The changes as JSON, newest first."""
        return json.loads(self.out("log", "--json", *words, **how))["changes"]

    def latest(self):
        return self.log("-n", "1")[0]["revision"]

    def follow(self, *words):
        return self.in_background("log", "--follow", *words)


class Showing(Log):
    def plain(self, text):
        text = re.sub(r"(?m)^((revision )?)\d+", r"\1N", text)
        text = re.sub(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", "TIME", text)
        text = re.sub(r"(?m)^(author   ).*, tkv \(\d+\)$", r"\1USER on HOST, tkv (PROCESS)", text)
        return text.replace(f"  {USER}  ", "  USER  ").replace(f"{USER}:{grp.getgrgid(os.getegid()).gr_name}", "USER:GROUP")

    def test_outputs(self):
        self.tkv("chmod", "o=", "app.limit")
        self.tkv("set", "app.bytes", "--hex", "00ff10")
        self.tkv("set", "app.hosts", "--list", "alpha", "beta")
        self.tkv("mv", "app.limit", "app.moved")
        self.tkv("cp", "-r", "app", "copy")
        self.tkv("rm", "-r", "--yes", "app")
        self.golden("log.txt", self.plain(self.out("log")))
        self.golden("log-patch.txt", self.plain(self.out("log", "--patch")))

    def test_newest_first_and_as_many_as_wanted(self):
        revisions = [change["revision"] for change in self.log()]
        self.assertEqual(revisions, sorted(revisions, reverse=True))
        self.assertEqual([change["revision"] for change in self.log("-n", "2")], revisions[:2])
        self.assertEqual(self.out("log", "-n", "1").split()[0], str(revisions[0]))
        self.assertEqual(self.log("-n", "0"), [])

    def test_of_a_key_has_what_concerns_it(self):
        self.tkv("set", "other", "x")
        self.assertEqual([change["changes"] for change in self.log("-n", "1", "app")],
                         [[{"kind": "value", "name": "app.limit"}]])
        self.assertEqual(self.out("log", "nothing"), "")

    def test_since_a_revision_or_a_time(self):
        first, second = self.log("-n", "2")[::-1]
        self.assertEqual(self.log("--since", first["revision"]), [second])
        self.assertEqual(self.log("--since", second["revision"]), [])
        self.assertEqual(self.log("--since", second["time"]), [second])
        self.assertEqual(self.log("--since", "9999-01-01"), [])
        self.assertEqual(self.log("--since", "1 week ago"), self.log())

    def test_of_an_author(self):
        self.assertEqual(self.log("--author", USER), self.log())
        self.assertEqual(self.log("--author", "no-such-user"), [])

    def test_tells_who_and_with_what(self):
        change = self.log("-n", "1")[0]
        self.assertEqual((change["author"], change["program"]), (USER, "tkv"))
        self.assertRegex(change["time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")
        self.assertEqual(sorted(change), ["author", "changes", "host", "process", "program", "revision", "time"])

    def test_patch_as_json_has_the_keys_before_and_after(self):
        change, = self.log("-n", "1", "--patch")[0]["changes"]
        self.assertEqual((change["kind"], change["name"]), ("value", "app.limit"))
        self.assertEqual([change[side][0]["value"] for side in ("before", "after")], ["5", "6"])
        created, = self.log("-n", "2", "--patch")[1]["changes"]
        self.assertEqual((created["kind"], created["before"], len(created["after"])), ("created", [], 1))

    def test_a_large_change_is_shown_at_its_top(self):
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "int32", "value": number}
                                     for number in range(1100)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        self.assertEqual(self.log("-n", "1")[0]["changes"], [{"kind": "subtree", "name": "many"}])
        shown = self.out("log", "-n", "1", "--patch")
        self.assertIn("+ many.k01099 = 1099\n", shown)
        self.tkv("set", "many.k00007", "changed")
        self.tkv("import", "--merge", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        self.assertEqual(self.out("log", "-n", "1", "--patch").splitlines()[-2:],
                         ['- many.k00007 = "changed"', "+ many.k00007 = 7"])

    def test_a_lost_past_is_said(self):
        self.assertEqual(self.tkv("log").messages, "")
        self.assertIs(json.loads(self.out("log", "--json"))["complete"], True)
        self.configure("[history]", "changes = 2")
        for number in range(20):
            self.tkv("set", "app.limit", "--int64", number)
        self.assertEqual(self.tkv("log").messages, "tkv: note: older changes are no longer retained\n")
        self.assertEqual(self.tkv("log", "-n", "1").messages, "")
        self.assertIs(json.loads(self.out("log", "--json"))["complete"], False)

    def test_values_that_are_no_longer_retained_are_said(self):
        self.configure("[history]", "size = 64K")
        self.tkv("set", "app.big", "--bytes", "-", given=b"x" * 200_000)
        self.tkv("set", "app.big", "--hex", "00")
        self.assertIn("(the state before this change is no longer retained)", self.out("log", "-n", "1", "--patch"))
        self.assertIs(self.log("-n", "1", "--patch")[0]["retained"], False)

    def test_what_makes_no_sense_is_usage(self):
        for words in (("-n", "x"), ("-n", "1x"), ("--since", "x"), ("a..b",)):
            with self.subTest(words=words):
                self.fails(USAGE, "log", *words)

    def test_of_no_registry_is_not_found(self):
        shutil.rmtree(self.registry)
        self.fails(NOT_FOUND, "log")
        self.assertFalse(self.registry.exists())

    def test_nothing_of_it_reaches_a_terminal_unescaped(self):
        self.tkv("set", "a\x1b[2Jb", "x\x1b]0;owned\x07")
        seen = self.on_terminal("log", "--no-color", "--patch")[1] + self.on_terminal("log", "--no-color")[1]
        self.assertNotIn("\x1b", seen)
        self.assertIn("a\\x1b[2Jb", seen)


class Rights(Log):
    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
    def test_others_see_what_they_may(self):
        user = pwd.getpwnam("nobody")
        os.chmod(self.folder, 0o755)
        self.configure(f"group = {grp.getgrgid(user.pw_gid).gr_name}")
        shutil.rmtree(self.registry)
        prefix = ("setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups")
        self.tkv("set", "open", "for all")
        self.tkv("set", "secret", "for root", "--mode", "u=rlwscd,g=,o=")
        self.tkv("set", "secret", "still for root")
        self.tkv("set", "secret.below", "hidden name")
        self.tkv("set", "own", "x", "--owner", "nobody")
        self.tkv("set", "own", "by nobody", prefix=prefix)
        seen = self.log(prefix=prefix)
        self.assertEqual([(change["author"], change["changes"]) for change in seen], [
            ("nobody", [{"kind": "value", "name": "own"}]),
            (USER, [{"kind": "created", "name": "own"}]),
            (USER, [{"kind": "created", "name": "secret"}]),
            (USER, [{"kind": "created", "name": "open"}])])
        patch = self.out("log", "--patch", prefix=prefix)
        self.assertIn("+ secret  (access denied)\n", patch)
        self.assertIn('+ own = "by nobody"\n', patch)
        for secret in ("for root", "below", "hidden"):
            self.assertNotIn(secret, patch)
        self.assertEqual([change["author"] for change in self.log("--author", "nobody")], ["nobody"])


class Following(Log):
    def test_shows_changes_as_they_come_and_ends_with_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number):
                follower = self.follow("-n", "1", "app")
                self.assertIn("value app.limit", follower.stdout.readline())
                self.tkv("set", "other", "not this one")
                self.tkv("set", "app.limit", "--int64", "7")
                line = follower.stdout.readline()
                self.assertEqual(line.split()[0], str(self.latest()))
                self.assertIn("value app.limit", line)
                follower.send_signal(number)
                self.assertEqual((follower.stdout.read(), follower.stderr.read()), ("", ""))
                self.assertEqual(follower.wait(DEADLINE), DONE)

    def test_as_json_is_one_change_a_line(self):
        follower = self.follow("--json", "--since", "0")
        seen = [json.loads(follower.stdout.readline()) for _ in range(3)]
        self.assertEqual(seen, self.log()[::-1][-3:])
        follower.send_signal(signal.SIGTERM)
        self.assertEqual(follower.wait(DEADLINE), DONE)

    def test_ends_when_its_reader_has_gone(self):
        follower = self.follow("-n", "1")
        follower.stdout.readline()
        follower.stdout.close()
        self.assertEqual(follower.wait(DEADLINE), -signal.SIGPIPE)
        self.assertEqual(follower.stderr.read(), "")

    def test_says_that_changes_were_lost(self):
        self.configure("[history]", "changes = 2")
        for number in range(20):
            self.tkv("set", "app.limit", "--int64", number)
        follower = self.follow("--since", "1")
        self.assertEqual(follower.stderr.readline(),
                         "tkv: note: older changes are no longer retained; some are missing here\n")
        self.tkv("set", "app.limit", "--int64", "99")
        latest = str(self.latest())
        while follower.stdout.readline().split()[0] != latest:
            pass
        follower.send_signal(signal.SIGTERM)
        self.assertEqual((follower.wait(DEADLINE), follower.stderr.read()), (DONE, ""))


if __name__ == "__main__":
    unittest.main()
