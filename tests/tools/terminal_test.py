"""What people see on a terminal, and what scripts see instead."""
import json
import os
import select
import signal
import subprocess
import unittest

from command import CONFLICT, CommandTest, DIFFERS, DONE


class Questions(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("set", "-p", "app.nodes.alpha", "up")

    def answer(self, answer, *words):
        terminal = self.terminal(*words)
        terminal.read_until(b"[y/N] ")
        terminal.type(answer)
        return terminal.finish()

    def test_a_no_deletes_nothing(self):
        for answer in ("n\n", "\n", "what\n", "\x04"):
            with self.subTest(answer=answer):
                code, seen = self.answer(answer, "rm", "-r", "app")
                self.assertEqual(code, CONFLICT)
                self.assertTrue(seen.startswith("tkv: this deletes 3 keys. Go on? [y/N] "), seen)
                self.assertTrue(seen.endswith("tkv: nothing was done\n"), seen)
                self.assertEqual(self.out("get", "app.nodes.alpha"), "up\n")

    def test_a_yes_deletes(self):
        code, _ = self.answer("y\n", "rm", "-r", "app")
        self.assertEqual(code, DONE)
        self.assertEqual(self.out("ls"), "")

    def test_one_key_is_deleted_without_a_question(self):
        self.assertEqual(self.on_terminal("rm", "app.nodes.alpha"), (DONE, ""))
        self.assertEqual(self.on_terminal("rm", "-r", "app.nodes"), (DONE, ""))

    def test_yes_asks_nothing(self):
        self.assertEqual(self.on_terminal("rm", "-r", "--yes", "app"), (DONE, ""))

    def test_without_a_terminal_it_refuses(self):
        code, seen = self.on_terminal("rm", "-r", "app", input_file=subprocess.DEVNULL)
        self.assertEqual(code, CONFLICT)
        self.assertIn("needs --yes", seen)


class Colours(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("set", "-p", "app.greeting", "hello")

    def test_are_for_terminals_only(self):
        self.assertIn("\x1b[", self.on_terminal("tree")[1])
        self.assertIn("\x1b[", self.on_terminal("ls")[1])
        self.assertNotIn("\x1b", self.out("tree"))
        self.assertNotIn("\x1b", self.out("ls"))

    def test_can_be_declined(self):
        for words, environment in ((("tree", "--no-color"), {}), (("tree",), {"NO_COLOR": "1"}),
                                   (("tree",), {"TERM": "dumb"})):
            with self.subTest(words=words, environment=environment):
                self.assertNotIn("\x1b", self.on_terminal(*words, environment=environment)[1])

    def test_an_empty_no_color_means_nothing(self):
        self.assertIn("\x1b[", self.on_terminal("tree", environment={"NO_COLOR": ""})[1])

    def test_a_difference_is_coloured(self):
        source = self.folder / "app.json"
        source.write_text(self.out("export", "app").replace("hello", "good bye"))
        code, seen = self.on_terminal("import", "--merge", "--dry-run", source)
        self.assertEqual(code, DIFFERS)
        self.assertIn("\x1b[31m-{", seen)
        self.assertIn("\x1b[32m+{", seen)


class Safety(CommandTest):
    """Names and values cannot do anything to a terminal."""

    EVIL = "\x1b]0;owned\x07\x9b31m\r\u202e"

    def setUp(self):
        super().setUp()
        self.name = "a\x1b[2J\u202eb"
        self.tkv("set", self.name, self.EVIL.replace("\x9b", "\u009b"))

    def test_nothing_of_them_reaches_a_terminal(self):
        self.tkv("chown", "--", "o\x1b[31mwner", self.name)
        for words in (("get", self.name), ("ls", "--no-color"), ("ls", "-l", "--no-color"), ("tree", "--no-color"),
                      ("stat", self.name), ("export",), ("get", "--json", self.name), ("get", self.name + ".none"),
                      ("tree", "-l", "--no-color"), ("access", "root", self.name, "--why"), ("get", "\x1b[31m..x")):
            with self.subTest(words=words):
                seen = self.on_terminal(*words)[1]
                for bad in ("\x1b", "\x07", "\r", "\u009b", "\u202e"):
                    self.assertNotIn(bad, seen)

    def test_a_pipe_gets_them_as_they_are(self):
        self.assertEqual(self.out("get", self.name), self.EVIL + "\n")
        self.assertEqual(self.out("ls"), self.name + "\n")

    def test_a_terminal_shows_them_escaped(self):
        self.assertEqual(self.on_terminal("ls", "--no-color")[1], "a\\x1b[2J\\u{202e}b\n")


class Pipes(CommandTest):
    def setUp(self):
        super().setUp()
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": "x" * 100}
                                     for number in range(5000)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))

    def closed_early(self, *words):
        process = subprocess.Popen(self.words(*words), env=self.environment, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
        process.stdout.read(10)
        process.stdout.close()
        messages = process.stderr.read()
        process.stderr.close()
        return process.wait(), messages

    def test_a_reader_that_leaves_ends_the_command_quietly(self):
        for words in (("export",), ("tree",), ("ls", "-l", "many"), ("export", "--json")):
            with self.subTest(words=words):
                self.assertEqual(self.closed_early(*words), (-signal.SIGPIPE, b""))

    def test_a_change_is_made_even_when_nobody_listens(self):
        reader, writer = os.pipe()
        os.close(reader)
        done = subprocess.run(self.words("set", "--json", "a", "x"), env=self.environment, stdout=writer,
                              stderr=subprocess.PIPE, check=False)
        os.close(writer)
        self.assertEqual((done.returncode, done.stderr), (-signal.SIGPIPE, b""))
        self.assertEqual(self.out("get", "a"), "x\n")

    def test_messages_nobody_reads_change_nothing(self):
        reader, writer = os.pipe()
        os.close(reader)
        done = subprocess.run(self.words("get", "nothing"), env=self.environment, stderr=writer, check=False)
        os.close(writer)
        self.assertEqual(done.returncode, 3)

    def test_a_closed_standard_output_is_an_error(self):
        done = subprocess.run(["/bin/sh", "-c", '"$0" "$@" >&-', *self.words("get", "many.k00000")],
                              env=self.environment, capture_output=True, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr, b"tkv: cannot write the output: Bad file descriptor\n")

    def test_nothing_is_printed_into_the_registry_in_place_of_closed_standard_files(self):
        for words in (("get", "nothing"), ("get", "many.k00000"), ("set", "--json", "a", "x"), ("frobnicate",)):
            for closed in (">&-", "2>&-", ">&- 2>&-", "<&- >&- 2>&-"):
                with self.subTest(words=words, closed=closed):
                    subprocess.run(["/bin/sh", "-c", f'"$0" "$@" {closed}', *self.words(*words)],
                                   env=self.environment, capture_output=True, check=False)
                    self.tkv("verify")
        self.assertEqual(self.out("get", "a"), "x\n")


class Bars(CommandTest):
    def setUp(self):
        super().setUp()
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": "x" * 400}
                                     for number in range(2000)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        self.backup = self.folder / "many.backup"
        self.tkv("backup", self.backup)
        self.contents = self.backup.read_bytes()
        self.slow = self.folder / "slow"
        os.mkfifo(self.slow)

    def verify_slowly(self, terminal):
        """Feeds the backup bit by bit, and looks for a bar after each. Returns what was seen."""
        seen = b""
        with open(self.slow, "wb", buffering=0) as pipe:
            for start in range(0, len(self.contents), 8192):
                pipe.write(self.contents[start:start + 8192])
                if b"verify" not in seen and select.select([terminal.master], [], [], 0.05)[0]:
                    seen += os.read(terminal.master, 65536)
        return seen

    def test_long_work_shows_its_progress_on_a_terminal_and_takes_it_away(self):
        with open(self.folder / "out", "wb") as output:
            terminal = self.terminal("verify", self.slow, output=output)
            first = self.verify_slowly(terminal)
            code, rest = terminal.finish()
        self.assertEqual(code, DONE)
        self.assertRegex(first.decode() + rest, r"^(\rverify [0-9,]+\x1b\[K)+\r\x1b\[K$")

    def test_quiet_shows_none(self):
        with open(self.folder / "out", "wb") as output:
            terminal = self.terminal_with_bars("verify", "-q", self.backup, output=output)
        self.assertEqual(terminal.finish(), (DONE, ""))


class BarsOfChanges(CommandTest):
    """Work on the registry itself shows its progress."""

    def setUp(self):
        super().setUp()
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": "x" * 100}
                                     for number in range(20000)]
        self.source = self.folder / "many.json"
        self.source.write_text(json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        self.tkv("import", self.source)

    def watch(self, *words, columns=80, data_too=False):
        """Runs the command to its end. Returns its exit code and what was seen."""
        with open(self.folder / "out", "wb") as output:
            terminal = self.terminal_with_bars(*words, output=None if data_too else output, columns=columns)
        return terminal.finish()

    def test_each_shows_its_progress(self):
        self.tkv("backup", self.folder / "many.backup")
        fresh = self.folder / "fresh.conf"
        fresh.write_text(f"[registry]\nlocation = {self.folder}/fresh\n")
        for bar, words in (("verify ", ("verify",)), ("cp ", ("cp", "-r", "many", "copy")),
                           ("chmod ", ("chmod", "-R", "o=", "many")),
                           ("write ", ("import", "--at", "new", self.source)),
                           ("write ", ("restore", "--conf", fresh, self.folder / "many.backup"))):
            with self.subTest(words=words):
                code, seen = self.watch(*words)
                self.assertEqual(code, DONE, seen[-1000:])
                self.assertRegex(seen, rf"\r{bar}(pages |records )?(\[[# ]+\] \d+% )?\d[0-9,]*( of [0-9,]+)?\x1b\[K")
                self.assertRegex(seen, r"\r\x1b\[K(tkv: .*)?$")

    def test_it_is_gone_before_data_comes(self):
        _, seen = self.watch("export", "many", data_too=True)
        self.assertRegex(seen, r"(\rexport [0-9,]+\x1b\[K)+\r\x1b\[K\{\"tkv\"")

    def test_none_is_wider_than_the_terminal(self):
        _, seen = self.watch("verify", columns=40)
        bars = [line for line in seen.replace("\x1b[K", "").split("\r") if line.startswith("verify ")]
        self.assertTrue(bars, seen)
        self.assertLess(max(map(len, bars)), 40)


class Quiet(CommandTest):
    def test_only_errors_are_said(self):
        self.tkv("set", "-p", "app.a", "1")
        text = self.out("export", "app")
        self.assertEqual(self.tkv("import", given=text).messages, "tkv: import of 2 keys to key 'app': 0 changes\n")
        self.assertEqual(self.tkv("import", "-q", given=text).messages, "")
        self.assertEqual(self.tkv("get", "-q", "none", exits=3).messages, "tkv: key 'none' does not exist\n")


if __name__ == "__main__":
    unittest.main()
