"""wait: until a key exists or has a value."""
import json
import os
import pathlib
import signal
import subprocess
import unittest

from command import CommandTest, DEADLINE, NOT_FOUND, UNREACHABLE, USAGE


class Wait(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("create", "app")

    def start(self, *words):
        """Starts the command, and returns it once it waits for the registry's file to change."""
        process = subprocess.Popen(self.words("wait", *words), env=self.environment, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        self.addCleanup(lambda: (process.kill(), process.communicate()))
        self.wait_until("waiting", lambda: process.poll() is not None or self.is_watching(process))
        self.assertIsNone(process.returncode)
        return process

    @staticmethod
    def is_watching(process):
        folder = pathlib.Path(f"/proc/{process.pid}/fd")
        try:
            return any(os.readlink(file) == "anon_inode:inotify" for file in folder.iterdir())
        except FileNotFoundError:  # a descriptor that was closed meanwhile
            return False

    def assert_ends(self, process, code):
        out, messages = process.communicate(timeout=DEADLINE)
        self.assertEqual((process.returncode, out, messages), (code, b"", b""))

    def test_a_key_that_exists_is_not_waited_for(self):
        self.assertEqual(self.out("wait", "app"), "")
        self.assertEqual(self.out("wait", "."), "")
        self.assertEqual(json.loads(self.out("wait", "--json", "app")), {"done": "wait", "name": "app"})

    def test_ends_when_the_key_is_created(self):
        process = self.start("app.ready")
        self.tkv("set", "app.other", "x")
        self.tkv("create", "app.ready")
        self.assert_ends(process, 0)

    def test_ends_when_the_key_is_moved_there(self):
        self.tkv("create", "-p", "app.building.ready")
        process = self.start("app.built.ready")
        self.tkv("mv", "app.building", "app.built")
        self.assert_ends(process, 0)

    def test_ends_when_the_key_has_the_value(self):
        process = self.start("app.state", "--value", "running")
        for value in ("starting", "running long", "running"):
            self.assertIsNone(process.poll())
            self.tkv("set", "app.state", value)
        self.assert_ends(process, 0)

    def test_all_that_wait_are_woken(self):
        processes = [self.start("app.ready") for _ in range(3)]
        self.tkv("create", "app.ready")
        for process in processes:
            self.assert_ends(process, 0)

    def test_a_value_of_any_type_is_compared_as_get_prints_it(self):
        for words in (("hello",), ("",), ("--int32", "-7"), ("--int64", "5000000000"), ("--list", "a", "b"), ("--list",),
                      ("--hex", "00ff"), ("--hex", "6162", "--type", "77"), ("two\nlines",)):
            with self.subTest(words=words):
                self.tkv("set", "app.value", *words)
                shown = self.out("get", "--no-newline", "app.value")
                self.tkv("wait", "app.value", "--value", shown, "--timeout", "0")
                self.fails(UNREACHABLE, "wait", "app.value", "--value", shown + "x", "--timeout", "0")
        self.fails(UNREACHABLE, "wait", "app", "--value", "", "--timeout", "0")

    def test_gives_up_after_the_timeout(self):
        self.assertEqual(self.fails(UNREACHABLE, "wait", "app.ready", "--timeout", "50ms"),
                         "tkv: key 'app.ready' did not come into being within the timeout of 50ms\n")
        self.tkv("set", "app.state", "starting")
        self.assertEqual(self.fails(UNREACHABLE, "wait", "app.state", "--value", "running", "--timeout", "0.05"),
                         "tkv: key 'app.state' did not get the value within the timeout of 0.05\n")

    def test_timeouts_have_units(self):
        for timeout in ("1", "1.5", "20s", "2m", "1h", "1d", "0"):
            with self.subTest(timeout=timeout):
                self.tkv("wait", "app", "--timeout", timeout)
        for timeout in ("s", "-1", "1 s", "1w", "soon", "nan", "inf", "1e3", "99999999999999"):
            with self.subTest(timeout=timeout):
                self.assertIn("write seconds", self.fails(USAGE, "wait", "app", f"--timeout={timeout}"))

    def test_a_signal_ends_it_and_nothing_else_happens(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number=number):
                process = self.start("app.ready", "--timeout", "1h")
                process.send_signal(number)
                self.assert_ends(process, -number)
        self.tkv("verify")
        self.assertEqual(self.out("ls", "-R"), "app\n")

    def test_without_a_registry_there_is_nothing_to_wait_for(self):
        other = self.folder / "other.conf"
        other.write_text(f"[registry]\nlocation = {self.folder}/other\n")
        self.assertIn("there is no registry", self.fails(NOT_FOUND, "wait", "app", "--conf", other))

    def test_a_malformed_name_is_usage(self):
        self.fails(USAGE, "wait", "a..b")


if __name__ == "__main__":
    unittest.main()
