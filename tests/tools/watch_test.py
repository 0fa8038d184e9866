"""Watching keys: tkv watch, and the commands that it runs."""
import grp
import json
import os
import pathlib
import pwd
import shlex
import shutil
import signal
import subprocess
import unittest

from command import CommandTest, DEADLINE, DONE, NOT_FOUND, USAGE, USER


class Watching(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("create", "app")
        self.tkv("set", "app.limit", "--int64", "5")
        self.told = self.folder / "told"  # by the command of a watch

    def revision(self, key="app.limit"):
        return json.loads(self.out("stat", "--json", key))["revision"]

    def start(self, *words, prefix=()):
        """A watch that has begun: all changes from now on are events."""
        since = () if "--since" in words or "--initial" in words else ("--since", self.latest())
        return self.in_background("watch", *since, *words, prefix=prefix)

    def latest(self):
        return json.loads(self.out("log", "--json", "-n", "1"))["changes"][0]["revision"]

    def end(self, process, number=signal.SIGTERM):
        process.send_signal(number)
        self.assertEqual(process.wait(DEADLINE), DONE)
        return process.stdout.read(), process.stderr.read()

    def wait_for_text(self, path, text):
        self.wait_until(f"{text!r} in {path}", lambda: path.exists() and text in path.read_text())


class Events(Watching):
    def test_are_printed_with_their_values(self):
        watch = self.start("app")
        self.tkv("set", "app.limit", "--int64", "6", "--note", "more")
        self.tkv("set", "other", "x")
        self.tkv("mv", "app.limit", "app.moved")
        self.tkv("rm", "-r", "--yes", "app")
        lines = [watch.stdout.readline().split("  ") for _ in range(3)]
        self.assertEqual([line[3:] for line in lines],
                         [["value app.limit = 6", "(more)\n"], ["moved app.limit to app.moved\n"], ["deleted app\n"]])
        self.assertEqual(lines[0][2], USER)
        self.assertEqual(self.end(watch), ("", ""))

    def test_as_json_are_one_object_a_line(self):
        watch = self.start("--json", "app")
        self.tkv("set", "app.limit", "--int64", "6")
        self.tkv("chmod", "o=", "app.limit")
        first, second = (json.loads(watch.stdout.readline()) for _ in range(2))
        self.assertEqual((first["kind"], first["name"], first["type"], first["value"], first["author"]),
                         ("value", "app.limit", "int64", "6", USER))
        self.assertEqual((second["kind"], second["revision"]), ("security", self.revision()))
        self.assertNotIn("value", second)

    def test_come_in_order_and_once(self):
        begin = self.revision()
        watch = self.start("--json", "--since", begin, "app.limit")
        for number in range(40):
            self.tkv("set", "app.limit", "--int64", number)
        self.assertEqual([int(json.loads(watch.stdout.readline())["value"]) for _ in range(40)], list(range(40)))
        self.assertEqual(self.end(watch), ("", ""))

    def test_each_signal_ends_the_watch(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number):
                watch = self.start("--initial", "app.limit")
                self.assertEqual(watch.stdout.readline(), f"{self.latest()}  resync app.limit = 5\n")
                self.assertEqual(self.end(watch, number), ("", ""))

    def test_a_watch_that_has_fallen_behind_is_told_so_once(self):
        self.configure("[history]", "changes = 2")
        for number in range(20):
            self.tkv("set", "app.limit", "--int64", number)
        watch = self.start("--json", "--since", "1", "app.limit")
        latest = self.latest()
        self.assertEqual(json.loads(watch.stdout.readline()),
                         {"revision": latest, "kind": "resync", "name": "app.limit", "type": "int64", "value": "19"})
        self.tkv("set", "app.limit", "--int64", "20")
        event = json.loads(watch.stdout.readline())
        self.assertEqual((event["kind"], event["value"]), ("value", "20"))
        self.assertEqual(self.end(watch), ("", ""))

    def test_without_a_history_each_change_is_a_resync(self):
        self.configure("[history]", "off = yes")
        self.tkv("set", "app.limit", "--int64", "6")
        watch = self.start("--initial", "app.limit")
        self.assertIn("resync app.limit = 6", watch.stdout.readline())
        self.tkv("set", "app.limit", "--int64", "7")
        self.assertIn("resync app.limit = 7", watch.stdout.readline())

    @unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
    def test_others_get_what_they_may_read(self):
        user = pwd.getpwnam("nobody")
        os.chmod(self.folder, 0o755)
        self.configure(f"group = {grp.getgrgid(user.pw_gid).gr_name}")
        shutil.rmtree(self.registry)
        prefix = ("setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups")
        self.tkv("create", "app")
        watch = self.start("--json", "app", prefix=prefix)
        self.tkv("set", "app.secret", "s", "--mode", "u=rlwscd,g=,o=")
        self.tkv("set", "app.secret", "still secret")
        self.tkv("set", "app.open", "o")
        first, second = (json.loads(watch.stdout.readline()) for _ in range(2))
        self.assertEqual((first["kind"], first["name"]), ("created", "app.secret"))
        self.assertNotIn("value", first)
        self.assertEqual((second["kind"], second["name"], second["value"]), ("created", "app.open", "o"))

    def test_what_makes_no_sense_is_usage(self):
        for words in ((), ("app", "--since", "x"), ("app", "--since", "1", "--initial"), ("app", "--exec-timeout", "1"),
                      ("app", "--exec", "true", "--exec-timeout", "0")):
            with self.subTest(words=words):
                self.fails(USAGE, "watch", *words)
        shutil.rmtree(self.registry)
        self.fails(NOT_FOUND, "watch", "app")


class Commands(Watching):
    def test_get_the_event_in_their_environment_and_the_value_as_input(self):
        variables = ["REVISION", "KIND", "KEY", "FROM", "AUTHOR", "PROGRAM", "NOTE", "VALUE", "TYPE"]
        shown = "|".join(f"$TKV_{name}" for name in variables)
        watch = self.start("app", "--exec", f'{{ echo "{shown}"; cat; echo; }} >> {shlex.quote(str(self.told))}')
        self.tkv("set", "app.name", "Ada", "--note", "a note; $(echo no)")
        named = self.latest()
        self.tkv("mv", "app.limit", "app.moved")
        moved = self.latest()
        self.tkv("rm", "app.moved")
        removed = self.latest()
        expected = (f"{named}|created|app.name||{USER}|tkv|a note; $(echo no)|exact|text\nAda\0\n"
                    f"{moved}|moved|app.moved|app.limit|{USER}|tkv||none|\n\n"
                    f"{removed}|deleted|app.moved||{USER}|tkv||none|\n\n")
        self.wait_until("the third event", lambda: self.told.exists() and self.told.read_text() == expected)
        self.assertEqual(self.end(watch), ("", ""))

    def test_get_a_value_of_any_size_and_content_unchanged(self):
        value = bytes(range(256)) * 4096
        copy = self.folder / "copy"
        watch = self.start("app.big", "--exec", f"cat > {copy}.new; mv {copy}.new {copy}")
        self.tkv("set", "app.big", "--bytes", "-", given=value)
        self.wait_until("the copy", copy.exists)
        self.assertEqual(copy.read_bytes(), value)
        self.tkv("set", "app.big", "--hex", "00")
        self.wait_until("the next copy", lambda: copy.read_bytes() == b"\0")
        self.assertEqual(self.end(watch), ("", ""))

    def test_may_leave_the_value_unread_and_use_the_command(self):
        watch = self.start("app", "--exec", f'{shlex.quote(self.words()[0])} get "$TKV_KEY" > {self.told}')
        self.tkv("set", "app.big", "--bytes", "-", given=b"x" * 2**20)
        self.tkv("set", "app.limit", "--int64", "6")
        self.wait_until("the value", lambda: self.told.exists() and self.told.read_text() == "6\n")
        self.assertEqual(self.end(watch), ("", ""))

    def test_run_one_after_the_other(self):
        watch = self.start("app", "--exec",
                           f"echo begin $TKV_REVISION >> {self.told}; echo end $TKV_REVISION >> {self.told}")
        self.tkv("set", "app.limit", "--int64", "6")
        first = self.latest()
        self.tkv("set", "app.limit", "--int64", "7")
        second = self.latest()
        self.wait_for_text(self.told, f"end {second}\n")
        self.assertEqual(self.told.read_text(), "".join(f"begin {r}\nend {r}\n" for r in (first, second)))
        self.assertEqual(self.end(watch), ("", ""))

    def test_that_fail_are_reported_and_the_watch_goes_on(self):
        watch = self.start("app", "--exec", f'echo "$TKV_KEY" >> {self.told}; [ "$TKV_KEY" = app.limit ] || exit 3')
        self.tkv("set", "app.bad", "x")
        bad = self.latest()
        self.assertEqual(watch.stderr.readline(), f"tkv: revision {bad}: the command exited with 3\n")
        self.tkv("set", "app.limit", "--int64", "6")
        self.wait_for_text(self.told, "app.limit\n")
        self.assertEqual(self.end(watch), ("", ""))

    def test_that_hang_are_ended_after_the_timeout(self):
        watch = self.start("app", "--exec-timeout", "1", "--exec",
                           f'echo "$TKV_KEY" >> {self.told}; [ "$TKV_KEY" = app.limit ] || sleep 1000')
        self.tkv("set", "app.slow", "x")
        slow = self.latest()
        self.assertEqual(watch.stderr.readline(), f"tkv: revision {slow}: the command was ended after 1 s\n")
        self.tkv("set", "app.limit", "--int64", "6")
        self.wait_for_text(self.told, "app.limit\n")
        self.assertEqual(self.end(watch), ("", ""))

    def test_that_run_when_a_signal_comes_are_ended_with_everything_they_started(self):
        pids = self.folder / "pids"
        watch = self.start("app", "--exec", f"sleep 1000 & echo $! > {pids}; wait")
        self.tkv("set", "app.limit", "--int64", "6")
        self.wait_until("the command", lambda: pids.exists() and pids.read_text().endswith("\n"))
        sleeper = pathlib.Path("/proc") / pids.read_text().strip()
        self.assertEqual(self.end(watch), ("", ""))
        self.wait_until("the end of what it started", lambda: self.has_ended(sleeper))

    def test_that_ignore_the_signal_are_killed_with_what_they_started(self):
        pids = self.folder / "pids"
        watch = self.start("app", "--exec-timeout", "1", "--exec",
                           f"(trap '' TERM; exec sleep 1000) & echo $! > {pids}; wait")
        self.tkv("set", "app.limit", "--int64", "6")
        self.assertIn("the command was ended after 1 s", watch.stderr.readline())
        sleeper = pathlib.Path("/proc") / pids.read_text().strip()
        self.wait_until("the end of what it started", lambda: self.has_ended(sleeper))
        self.assertEqual(self.end(watch), ("", ""))

    def test_leave_no_zombies_and_inherit_no_descriptors(self):
        command = f"ls /proc/$$/fd > {self.told}.new; mv {self.told}.new {self.told}"
        subprocess.run(["/bin/sh", "-c", command], check=True)
        plain = self.told.read_text()  # what a shell has open that inherits no more than its standard files
        self.told.unlink()
        watch = self.start("app", "--exec", command)
        self.tkv("set", "app.limit", "--int64", "6")
        self.wait_until("the answer", self.told.exists)
        self.assertEqual(self.told.read_text(), plain)
        self.wait_until("the end of the command", lambda: self.runs_nothing(watch))
        before = len(self.open_files(watch))
        for number in range(5):
            self.told.unlink()
            self.tkv("set", "app.limit", "--int64", number)
            self.wait_until("the answer", self.told.exists)
        self.wait_until("the end of the commands", lambda: self.runs_nothing(watch))
        # A file that is left open for each command; the watch itself may be reading one.
        self.assertLess(len(self.open_files(watch)), before + 5)
        self.assertEqual(self.end(watch), ("", ""))

    @staticmethod
    def has_ended(process):
        """Whether a process whose parent has gone is away, or a zombie until somebody reaps it."""
        try:
            return ") Z " in (process / "stat").read_text()
        except (FileNotFoundError, ProcessLookupError):
            return True

    def runs_nothing(self, watch):
        """Whether the watch has reaped its command, and closed the command's input and its handle of the process."""
        children = pathlib.Path(f"/proc/{watch.pid}/task/{watch.pid}/children").read_text()
        return children == "" and not any("pidfd" in file or "memfd" in file for file in self.open_files(watch))

    @staticmethod
    def open_files(process):
        files = []
        for file in pathlib.Path(f"/proc/{process.pid}/fd").iterdir():
            try:
                files.append(os.readlink(file))
            except FileNotFoundError:  # closed meanwhile
                pass
        return sorted(files)

    def test_have_ordinary_signals(self):
        watch = self.start("app", "--exec", f"grep -E '^Sig(Blk|Ign)' /proc/self/status > {self.told}.new; "
                                            f"mv {self.told}.new {self.told}")
        self.tkv("set", "app.limit", "--int64", "6")
        self.wait_until("the answer", self.told.exists)
        blocked, ignored = (int(line.split()[1], 16) for line in self.told.read_text().splitlines())
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGPIPE):
            self.assertEqual((blocked | ignored) & 1 << (number - 1), 0)
        self.assertEqual(self.end(watch), ("", ""))

    def test_begin_with_the_present_value(self):
        watch = self.start("--initial", "app.limit", "--exec",
                           f"{{ echo $TKV_KIND $TKV_VALUE; od -An -td8; }} > {self.told}")
        self.wait_until("the value",
                        lambda: self.told.exists() and self.told.read_text().split() == ["resync", "exact", "5"])
        self.assertEqual(self.end(watch), ("", ""))


if __name__ == "__main__":
    unittest.main()
