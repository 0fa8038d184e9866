"""The registry's past: --at, and what stat tells of the last change."""
import datetime
import grp
import json
import os
import pwd
import shutil
import unittest

from command import CommandTest, DENIED, NOT_FOUND, USAGE, USER


class Past(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("set", "-p", "app.limit", "--int64", "5")

    def revision(self, key="app.limit"):
        return json.loads(self.out("stat", "--json", key))["revision"]

    def changed_at(self, key="app.limit"):
        return json.loads(self.out("stat", "--json", key))["changed_at"]


class At(Past):
    def test_every_reading_verb_shows_a_former_state(self):
        before = self.revision()
        exported = self.out("export", "app")
        tree = self.out("tree", "app")
        self.tkv("set", "app.limit", "--int64", "6")
        self.tkv("set", "app.more", "m")
        self.tkv("chmod", "o=", "app.limit")
        self.assertEqual(self.out("get", "app.limit", "--at", before), "5\n")
        self.assertEqual(self.out("ls", "app", "--at", before), "limit\n")
        self.assertEqual(self.out("ls", "app"), "limit\nmore\n")
        self.assertEqual(self.out("tree", "app", "--at", before), tree)
        self.assertEqual(self.out("export", "app", "--at", before), exported)
        self.assertEqual(json.loads(self.out("stat", "--json", "app.limit", "--at", before))["value"], "5")
        self.fails(NOT_FOUND, "get", "app.more", "--at", before)

    def test_a_deleted_and_a_moved_key_are_there_before(self):
        before = self.revision()
        self.tkv("mv", "app.limit", "app.moved")
        moved = self.revision("app.moved")
        self.tkv("rm", "-r", "--yes", "app")
        self.assertEqual(self.out("get", "app.limit", "--at", before), "5\n")
        self.assertEqual(self.out("get", "app.moved", "--at", moved), "5\n")
        self.fails(NOT_FOUND, "get", "app.limit", "--at", moved)

    def test_a_time_is_the_state_at_that_time(self):
        first = self.changed_at()
        self.tkv("set", "app.limit", "--int64", "6")
        second = datetime.datetime.fromisoformat(self.changed_at().replace("Z", "+00:00"))
        east = datetime.timezone(datetime.timedelta(hours=5, minutes=30))
        self.assertEqual(self.out("get", "app.limit", "--at", first), "5\n")
        for time in (second.strftime("%Y-%m-%dT%H:%M:%S.%fZ"), second.strftime("%Y-%m-%dT%H:%M:%SZ"),
                     second.strftime("%Y-%m-%d %H:%M:%S.%f+00"), second.astimezone(east).isoformat(), "now",
                     "0 seconds ago", "9999-01-01"):
            with self.subTest(time=time):
                self.assertEqual(self.out("get", "app.limit", "--at", time), "6\n")

    def test_a_time_without_zone_is_local(self):
        first = datetime.datetime.fromisoformat(self.changed_at().replace("Z", "+00:00"))
        self.tkv("set", "app.limit", "--int64", "6")
        local = (first - datetime.timedelta(hours=3)).strftime("%Y-%m-%dT%H:%M:%S.%f")
        self.assertEqual(self.out("get", "app.limit", "--at", local, environment={"TZ": "WEST3"}), "5\n")

    def test_what_is_neither_a_revision_nor_a_time_is_usage(self):
        for word in ("-1", "x", "1x", "2026-02-30", "2026-13-01", "2026-02-28T25:00", "2026-02-28T12",
                     "2026-02-28T12:30:05.", "2026-02-28T12:30Zulu", "2026-02-28T12:30+1", "2 hours", "hours ago",
                     "-2 hours ago", "2 fortnights ago", "2  hours ago", "18446744073709551616", "yesterday"):
            with self.subTest(word=word):
                self.assertIn("is neither a revision nor a time", self.fails(USAGE, "get", "app.limit", f"--at={word}"))

    def test_a_state_that_cannot_be_read_says_which_can(self):
        latest = self.revision()
        self.assertIn(f"revision {latest + 7} does not exist yet; the latest is {latest}",
                      self.fails(NOT_FOUND, "get", "app.limit", "--at", latest + 7))
        self.configure("[history]", "changes = 1")
        for number in range(20):
            self.tkv("set", "app.limit", "--int64", number)
        self.assertRegex(self.fails(NOT_FOUND, "get", "app.limit", "--at", latest),
                         rf"revision {latest} is not retained; the oldest state that can be read is \d+\n")
        self.assertRegex(self.fails(NOT_FOUND, "get", "app.limit", "--at", "2 hours ago"),
                         r"does not reach back to \S+Z; the oldest state that can be read is \d+\n")

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
    def test_the_past_needs_the_right_of_then_and_of_today(self):
        user = pwd.getpwnam("nobody")
        os.chmod(self.folder, 0o755)
        self.configure(f"group = {grp.getgrgid(user.pw_gid).gr_name}")
        shutil.rmtree(self.registry)
        prefix = ("setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups")
        self.tkv("set", "opened", "x", "--mode", "u=rlwscd,g=,o=")
        closed_then = self.revision("opened")
        self.tkv("chmod", "o=r", "opened")
        self.tkv("set", "closed", "y", "--mode", "u=rlwscd,g=,o=r")
        open_then = self.revision("closed")
        self.tkv("chmod", "o=", "closed")
        self.assertEqual(self.out("get", "opened", "--at", open_then, prefix=prefix), "x\n")
        for key, revision in (("opened", closed_then), ("closed", open_then)):
            with self.subTest(key=key):
                self.assertIn("access denied", self.fails(DENIED, "get", key, "--at", revision, prefix=prefix))


class LastChange(Past):
    def test_stat_tells_revision_time_and_author(self):
        shown = self.out("stat", "app.limit")
        self.assertRegex(shown, rf"(?m)^changed  revision {self.revision()}, \d{{4}}-\d\d-\d\dT\d\d:\d\d:\d\dZ, by {USER}$")
        told = json.loads(self.out("stat", "--json", "app.limit"))
        self.assertRegex(told["changed_at"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z$")
        self.assertEqual(told["changed_by"], USER)

    def test_without_the_log_only_the_revision_is_known(self):
        self.configure("[history]", "off = yes")
        self.tkv("set", "app.limit", "--int64", "6")
        self.assertRegex(self.out("stat", "app.limit"), r"(?m)^changed  revision \d+$")
        self.assertNotIn("changed_by", json.loads(self.out("stat", "--json", "app.limit")))


if __name__ == "__main__":
    unittest.main()
