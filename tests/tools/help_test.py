"""Help, manual pages, completion, configuration, exit codes."""
import json
import os
import pathlib
import re
import shutil
import struct
import subprocess
import time
import unittest

from command import COMMAND, DAMAGED, DONE, GROUP, NOT_FOUND, CommandTest, OTHER, Terminal, UNREACHABLE, UNUSABLE, USAGE

DOCS = pathlib.Path(__file__).resolve().parents[2] / "docs"

VERBS = ["get", "set", "create", "ls", "tree", "find", "wait", "stat", "rm", "mv", "cp", "chown", "chmod", "edit",
         "access", "conf", "status", "diff", "export", "import", "backup", "restore", "verify", "migrate", "log",
         "watch", "undo", "history", "help", "completion"]


class Help(CommandTest):
    def test_describes_the_command_and_each_verb(self):
        overview = self.out("--help")
        self.assertEqual(overview, self.out("help"))
        for verb in VERBS:
            with self.subTest(verb=verb):
                self.assertRegex(overview, rf"\n  {verb} +[A-Z]")
                text = self.out("help", verb)
                self.assertEqual(text, self.out(verb, "--help"))
                self.assertRegex(text, rf"Examples\n( .*\n)*  .*tkv {verb}")
        self.assertNotRegex(overview, r"\n  complete ")

    def test_lists_all_exit_codes(self):
        for page in (self.out("--help"), self.out("help", "--man")):
            for code in range(12):
                self.assertRegex(page, rf"\n +{code}  \S")

    def test_the_documentation_lists_the_same_exit_codes(self):
        help_lines = re.findall(r"(?m)^ +(\d+)  (.*)$", self.out("--help"))
        documented = re.findall(r"(?m)^\| (\d+) \| (.*) \|$", (DOCS / "command.md").read_text(encoding="utf-8"))
        self.assertEqual(documented, help_lines)

    def test_version(self):
        self.assertRegex(self.out("--version"), r"^tkv \d+\.\d+\.\d+\n$")

    def test_what_makes_no_sense_is_usage(self):
        for words in ((), ("frobnicate",), ("get",), ("get", "--frobnicate", "a"), ("mv", "a"), ("help", "frobnicate"),
                      ("--quiet",), ("completion", "csh"), ("ls", "a", "b"), ("set", "a"), ("set", "a", "b", "c"),
                      ("set", "a", "--int32", "--list", "1"), ("set", "a", "--type", "3", "x"),
                      ("set", "a", "--new", "--existing", "x"), ("help", "--man", "--man-conf")):
            with self.subTest(words=words):
                self.fails(USAGE, *words)
        self.assertFalse(self.registry.exists())

    def test_a_mistyped_word_gets_a_suggestion(self):
        for words, meant in ((("imort", "x"), "import"), (("lst",), "ls"), (("help", "restroe"), "restore"),
                             (("rm", "--recusive", "a"), "--recursive"), (("ls", "--jsn"), "--json")):
            with self.subTest(words=words):
                self.assertIn(f"; did you mean '{meant}'?", self.fails(USAGE, *words))
        for words in (("frobnicate",), ("rm", "--frobnicate", "a"), ("help", "frobnicate")):
            with self.subTest(words=words):
                self.assertNotIn("did you mean", self.fails(USAGE, *words))

    def test_as_json_is_one_document(self):
        self.assertEqual(json.loads(self.out("help", "--json", "set"))["text"], self.out("help", "set"))
        self.assertEqual(json.loads(self.out("help", "--json", "--man"))["text"], self.out("help", "--man"))
        self.assertEqual(json.loads(self.out("completion", "--json", "zsh")),
                         {"shell": "zsh", "script": self.out("completion", "zsh")})

    def test_the_argument_of_an_option_is_no_verb(self):
        conf = self.folder / "get"
        conf.write_text(f"[registry]\nlocation = {self.folder}/other\n")
        done = subprocess.run(self.words("--conf", "get", "set", "get", "[a]"), cwd=self.folder, env=self.environment,
                              check=False)
        self.assertEqual((done.returncode, self.out("get", "get", "--conf", conf)), (0, "[a]\n"))


class Manual(CommandTest):
    def check(self, page, *words):
        for word in words:
            self.assertIn(word.replace("-", "\\-"), page)
        groff = shutil.which("groff")
        if groff:
            done = subprocess.run([groff, "-man", "-Tutf8", "-ww", "-z"], input=page.encode(), capture_output=True,
                                  check=True)
            self.assertEqual(done.stderr, b"")

    def test_the_page_of_the_command_has_every_verb_and_option_of_the_help(self):
        page = self.out("help", "--man")
        options = set(re.findall(r"(?m)^  (?:-\w,)?(--[a-z0-9-]+)", "".join(self.out("help", verb) for verb in VERBS)))
        self.assertGreater(len(options), 30)
        self.check(page, *options, *VERBS)

    def test_the_page_of_the_configuration_has_every_setting(self):
        page = self.out("help", "--man-conf")
        settings = [setting["name"] for setting in json.loads(self.out("conf", "--json"))["settings"]]
        self.assertGreater(len(settings), 10)
        self.check(page, *(name.split(".")[1] for name in settings))


class Completion(CommandTest):
    def setUp(self):
        super().setUp()
        for key in ("app.nodes.alpha", "app.nodes.beta", "app.hosts", "apple"):
            self.tkv("create", "-p", key)

    def candidates(self, *words):
        return self.out("complete", "--", *words).splitlines()

    def test_of_verbs_and_options(self):
        self.assertEqual(self.candidates("c"), ["create", "cp", "chown", "chmod", "conf", "completion"])
        self.assertEqual(self.candidates("rm", "--r"), ["--recursive"])
        self.assertEqual(self.candidates("--ver"), ["--version"])
        self.assertEqual(self.candidates("completion", ""), ["bash", "fish", "zsh"])
        self.assertEqual(self.candidates("get", "--as", "t"), ["text"])

    def test_of_keys_that_are_there_now(self):
        self.assertEqual(self.candidates("get", "ap"), ["app", "apple"])
        self.assertEqual(self.candidates("get", "app."), ["app.hosts", "app.nodes"])
        self.assertEqual(self.candidates("rm", "-r", "app.nodes.b"), ["app.nodes.beta"])
        self.assertEqual(self.candidates("chmod", "a=r", "app.h"), ["app.hosts"])
        self.tkv("rm", "app.hosts")
        self.assertEqual(self.candidates("get", "app."), ["app.nodes", "app.nodes.alpha", "app.nodes.beta"])
        self.assertEqual(self.candidates("get", "nothing."), [])

    def test_of_files_is_left_to_the_shell(self):
        self.assertEqual(self.candidates("restore", ""), [":files"])
        self.assertEqual(self.candidates("--conf", ""), [":files"])

    def test_of_the_only_key_goes_on_below_it(self):
        self.assertEqual(self.candidates("get", "app.n"), ["app.nodes", "app.nodes.alpha", "app.nodes.beta"])

    def test_of_options_with_their_arguments(self):
        self.assertEqual(self.candidates("get", "--as=n"), ["--as=number"])
        self.assertIn(f"--group={GROUP}", self.candidates("create", f"--group={GROUP[0]}"))
        self.assertEqual(self.candidates("get", "--as=text", "apple"), ["apple"])

    def test_of_keys_of_the_registry_that_the_line_names(self):
        other = self.folder / "other.conf"
        other.write_text(f"[registry]\nlocation = {self.folder}/other\n")
        self.tkv("create", "elsewhere", "--conf", other)
        for words in (("--conf", other, "get", ""), (f"--conf={other}", "get", ""), ("get", "--conf", other, ""),
                      ("--conf", "~/other.conf", "get", "")):
            with self.subTest(words=words):
                self.assertEqual(self.candidates(*words), ["elsewhere"])

    # A line with tabs, and what it prints when the shell has completed it.
    LINES = (("get app.nodes.al\t", "of-alpha"),
             ("get app.\th\t", "of-hosts"),
             ("get appl\t", "of-apple"),
             ("get strange\\ \t.\t", "of-strange"),
             ("get 'strange n\t.\t", "of-strange"),
             ("get col\t.t\t", "of-colon"),
             ("get --as=t\t apple", "of-apple"),
             ("get sta\t", "of-star"),
             ("verify ./ver\t | grep -o verified.b", "verified.b"))

    def drive(self, shell, *options, first):
        for name, value in (("app.nodes.alpha", "of-alpha"), ("app.hosts", "of-hosts"), ("apple", "of-apple"),
                            ("strange name*.last one", "of-strange"), ("colon:key.two", "of-colon"),
                            ("star*", "of-star")):
            self.tkv("set", "-p", name, value)
        self.tkv("backup", self.folder / "verified.backup")
        environment = {**self.environment, "PATH": f"{COMMAND.parent}:{self.environment['PATH']}", "INPUTRC": "/dev/null",
                       "TERM": "dumb"}
        terminal = Terminal([shell, *options], environment, folder=self.folder)
        terminal.type(first + "; echo rea''dy\n")
        terminal.read_until(b"ready")
        for line, printed in self.LINES:
            with self.subTest(line=line):
                terminal.seen = b""
                terminal.type(f"tkv {line}\n echo en''d\n")
                self.assertRegex(terminal.read_until(b"end\r\n").decode(), rf"[\r\nJ]{printed}\r\n")
        terminal.type("exit\n")
        terminal.finish()

    def test_in_bash(self):
        self.drive("bash", "--norc", "--noprofile", "-i", first="source <(tkv completion bash)")

    @unittest.skipUnless(shutil.which("zsh"), "zsh is not there")
    def test_in_zsh(self):
        (self.folder / "_tkv").write_text(self.out("completion", "zsh"))
        self.drive("zsh", "-f", "-i", first="fpath=($HOME $fpath); autoload -Uz compinit; compinit -u -D")

    @unittest.skipUnless(shutil.which("fish"), "fish is not there")
    def test_in_fish(self):
        self.tkv("set", "-p", "strange name*.last one", "x")
        environment = {**self.environment, "PATH": f"{COMMAND.parent}:{self.environment['PATH']}"}
        for line, expected in (("get app.no", "app.nodes\napp.nodes.alpha\napp.nodes.beta\n"),
                               ("get strange\\ n", "strange name*\nstrange name*.last one\n"),
                               ("get 'strange name*.", "strange name*.last one\n"),
                               ("get --as=n", "--as=number\n"), ("get nothing", ""),
                               (f"restore {self.folder}/tkv.co", f"{self.folder}/tkv.conf\n")):
            with self.subTest(line=line):
                done = subprocess.run(["fish", "-N", "-c", "tkv completion fish | source; complete -C $argv[1]",
                                       f"tkv {line}"], env=environment, capture_output=True, check=True, text=True)
                self.assertEqual(done.stdout, expected)

    def test_scripts_are_well_formed(self):
        for shell in ("bash", "zsh", "fish"):
            with self.subTest(shell=shell):
                script = self.out("completion", shell)
                self.assertIn("tkv complete --", script)
                if shutil.which(shell):
                    subprocess.run([shell, "-n"], input=script, text=True, check=True)


class Configuration(CommandTest):
    def test_outputs(self):
        self.golden("conf.txt", re.sub(r" {2,}", "  ", self.out("conf")))
        self.golden("conf.json", self.out("conf", "--json"))

    def test_a_location_that_cannot_be_used_is_reported(self):
        self.registry = self.folder / "no" / "parent"
        self.configure()
        report = json.loads(self.out("conf", "--json"))
        self.assertIs(report["usable"], False)
        self.assertIn("no", report["reason"])

    def test_a_default_location_that_the_first_write_creates_is_usable(self):
        environment = {"TKV_CONF": str(self.folder / "empty.conf"), "XDG_STATE_HOME": str(self.folder / "a" / "b"),
                       "HOME": str(self.folder)}
        (self.folder / "empty.conf").write_text("")
        command = ("setpriv", "--reuid=54321", "--regid=54321", "--clear-groups")
        os.chown(self.folder, 54321, 54321)
        report = json.loads(self.out("conf", "--json", environment=environment, prefix=command))
        self.assertEqual((report["usable"], report["exists"]), (True, False))
        self.tkv("set", "a", "x", environment=environment, prefix=command)
        report = json.loads(self.out("conf", "--json", environment=environment, prefix=command))
        self.assertEqual((report["usable"], report["exists"]), (True, True))

    def test_an_etcd_cluster_that_does_not_answer_is_not_usable(self):
        (self.folder / "tkv.conf").write_text("[registry]\nlocation = etcd://127.0.0.1:1\n[etcd]\ntimeout_ms = 100\n")
        self.assertIs(json.loads(self.out("conf", "--json"))["usable"], False)

    def test_another_file_is_taken_by_option(self):
        other = self.folder / "other.conf"
        other.write_text(f"[registry]\nlocation = {self.folder}/other\n")
        self.tkv("set", "a", "in the first")
        self.tkv("set", "a", "in the other", "--conf", other)
        self.assertEqual(self.out("get", "a"), "in the first\n")
        self.assertEqual(self.out("--conf", other, "get", "a"), "in the other\n")

    def test_errors_name_file_and_line(self):
        path = self.folder / "tkv.conf"
        path.write_text("[registry]\nlocatoin = /x\n")
        self.assertIn(f"{path}:2", self.fails(OTHER, "conf"))
        self.assertIn(f"{path}:2", self.fails(OTHER, "get", "a"))
        path.unlink()
        self.fails(OTHER, "conf")

    def test_an_etcd_cluster_that_does_not_run_is_unreachable(self):
        (self.folder / "tkv.conf").write_text("[registry]\nlocation = etcd://127.0.0.1:1\n[etcd]\ntimeout_ms = 100\n")
        self.fails(UNREACHABLE, "get", "a")
        self.assertEqual(json.loads(self.out("conf", "--json"))["store"], "etcd")


class Status(CommandTest):
    def test_of_a_registry_that_works(self):
        self.tkv("set", "-p", "app.name", "billing")
        backup = pathlib.Path(self.out("backup", "-q").rstrip("\n"))
        report = json.loads(self.out("status", "--json"))
        self.assertEqual((report["serving"], report["store"], report["locations"]), (True, "lmdb", [str(self.registry)]))
        self.assertEqual((report["keys"], report["values"], report["value_bytes"], report["damages"]), (3, 1, 8, 0))
        self.assertEqual(report["last_backup"], {"file": str(backup), "written": int(backup.stat().st_mtime)})
        self.assertGreater(report["bytes"], 0)
        shown = self.out("status")
        for line in (rf"location +{self.registry}", "serving +yes", "keys +3", "damage +none", rf"last backup +.*{backup}"):
            self.assertRegex(shown, rf"(?m)^{line}$")

    def test_shows_how_far_the_history_reaches(self):
        self.tkv("set", "a", "1")
        self.tkv("set", "a", "2")
        history = json.loads(self.out("status", "--json"))["history"]
        self.assertGreater(history.pop("bytes"), 0)
        self.assertEqual(history, {"last_change": 2, "oldest_state": 0, "log_after": 0, "max_size": "64M",
                                   "max_changes": "10000", "max_age": "90d"})
        rows = re.findall(r"(?m)^(?:last change|history).*\n", self.out("status"))
        self.golden("status-history.txt", re.sub(r"\d+ bytes", "SIZE bytes", "".join(rows)))

    def test_shows_a_history_that_is_trimmed_or_off(self):
        conf = self.folder / "tkv.conf"
        text = conf.read_text()
        conf.write_text(text + "[history]\nchanges = 2\n")
        for value in range(5):
            self.tkv("set", "a", str(value))
        self.assertRegex(self.out("status"), r"(?m)^history +states from 3 on, changes after 3$")
        conf.write_text(text + "[history]\noff = yes\n")
        self.tkv("set", "a", "unlogged")
        shown = self.out("status")
        self.assertRegex(shown, r"(?m)^last change +6$")
        self.assertRegex(shown, r"(?m)^history +none$")

    def test_quick_counts_nothing(self):
        self.tkv("set", "a", "x")
        report = json.loads(self.out("status", "--quick", "--json"))
        self.assertNotIn("keys", report)
        self.assertIs(report["serving"], True)

    def test_without_a_backup_says_so(self):
        self.tkv("set", "a", "x")
        self.assertRegex(self.out("status"), r"(?m)^last backup +none$")
        self.assertNotIn("last_backup", json.loads(self.out("status", "--json")))

    def test_of_a_registry_that_serves_nobody(self):
        result = self.tkv("status", "--json", exits=NOT_FOUND)
        report = json.loads(result.text)
        self.assertIs(report["serving"], False)
        self.assertIn("there is no registry", report["reason"])
        self.assertIn("there is no registry", json.loads(result.messages)["text"])
        self.assertFalse(self.registry.exists())
        self.tkv("set", "a", "x")
        (self.registry / "data.mdb").write_bytes(b"no registry" * 1000)
        self.assertRegex(self.tkv("status", exits=UNUSABLE).text, r"(?m)^serving +no$")

    def test_of_a_cluster_that_does_not_answer(self):
        (self.folder / "tkv.conf").write_text("[registry]\nlocation = etcd://127.0.0.1:1\n[etcd]\ntimeout_ms = 100\n")
        report = json.loads(self.tkv("status", "--json", exits=UNREACHABLE).text)
        self.assertEqual((report["store"], report["serving"]), ("etcd", False))

    def test_names_a_process_that_reads_one_state_for_minutes(self):
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": "x" * 100}
                                     for number in range(5000)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        reader = self.terminal_with_bars("export", output=subprocess.DEVNULL)
        reader.read_until(b"\rexport ")  # and no further: it waits in the middle of its walk
        self.tkv("rm", "-r", "--yes", "many")
        self.assertNotIn("long reader", self.out("status", "--quick"))
        self.note_commit_of_five_minutes_ago()
        self.assertRegex(self.out("status", "--quick"),
                         rf"(?m)^long reader +process {reader.process.pid} \(tkv\) has read one state for 5 minutes "
                         r"and keeps \d{5,} bytes from being used again$")
        told, = json.loads(self.out("status", "--quick", "--json"))["long_readers"]
        self.assertEqual((told["process"], told["command"]), (reader.process.pid, "tkv"))
        self.assertGreaterEqual(told["seconds"], 300)
        self.assertGreater(told["held_bytes"], 100_000)
        self.assertEqual(reader.finish()[0], DONE)
        self.assertNotIn("long_readers", json.loads(self.out("status", "--quick", "--json")))

    def note_commit_of_five_minutes_ago(self):
        """Adds a later transaction to the commit times in writer.lock (commit_times.cpp)."""
        first, interval, slots, entry = 128, 30, 256, struct.Struct("<qQ")
        with open(self.registry / "writer.lock", "r+b") as file:
            then = int(time.time()) - 300
            file.seek(first + then // interval % slots * entry.size)
            file.write(entry.pack(then, 1 << 40))

    def test_damage_is_counted_and_is_a_failure(self):
        self.tkv("set", "a", "sound-as-a-bell")
        data = self.registry / "data.mdb"
        data.write_bytes(data.read_bytes().replace(b"sound-as-a-bell", b"sound-as-a-bull"))
        result = self.tkv("status", exits=DAMAGED)
        self.assertRegex(result.text, r"(?m)^damage +1$")
        self.assertIn("tkv verify", result.messages)


class Linkage(CommandTest):
    def test_nothing_large_is_loaded_for_an_embedded_registry(self):
        done = subprocess.run(["ldd", self.words()[0]], capture_output=True, check=True, text=True)
        self.assertIn("liblmdb", done.stdout)
        self.assertNotIn("grpc", done.stdout)
        self.assertNotIn("protobuf", done.stdout)


if __name__ == "__main__":
    unittest.main()
