"""Help, manual pages, completion, configuration, exit codes."""
import json
import re
import shutil
import subprocess
import unittest

from command import CommandTest, OTHER, UNREACHABLE, USAGE

VERBS = ["get", "set", "create", "ls", "tree", "stat", "rm", "mv", "cp", "chown", "chmod", "access", "conf", "export",
         "import", "backup", "restore", "verify", "migrate", "help", "completion"]


class Help(CommandTest):
    def test_tells_of_the_command_and_of_each_verb(self):
        overview = self.out("--help")
        self.assertEqual(overview, self.out("help"))
        for verb in VERBS:
            with self.subTest(verb=verb):
                self.assertRegex(overview, rf"\n  {verb} +[A-Z]")
                text = self.out("help", verb)
                self.assertEqual(text, self.out(verb, "--help"))
                self.assertRegex(text, rf"Examples\n( .*\n)*  .*tkv {verb}")
        self.assertNotRegex(overview, r"\n  complete ")

    def test_tells_all_exit_codes(self):
        for page in (self.out("--help"), self.out("help", "--man")):
            for code in range(10):
                self.assertRegex(page, rf"\n  {code}  \S")

    def test_version(self):
        self.assertRegex(self.out("--version"), r"^tkv \d+\.\d+\.\d+\n$")

    def test_what_makes_no_sense_is_usage(self):
        for words in ((), ("frobnicate",), ("get",), ("get", "--frobnicate", "a"), ("mv", "a"), ("help", "frobnicate"),
                      ("--json",), ("completion", "csh"), ("ls", "a", "b"), ("set", "a"), ("set", "a", "b", "c"),
                      ("set", "a", "--int32", "--list", "1"), ("set", "a", "--type", "3", "x"),
                      ("set", "a", "--new", "--existing", "x"), ("help", "--man", "--man-conf")):
            with self.subTest(words=words):
                self.fails(USAGE, *words)
        self.assertFalse(self.registry.exists())


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
        self.assertEqual(self.candidates("get", "app."), ["app.nodes"])
        self.assertEqual(self.candidates("get", "nothing."), [])

    def test_of_files_is_left_to_the_shell(self):
        self.assertEqual(self.candidates("restore", ""), [":files"])
        self.assertEqual(self.candidates("--conf", ""), [":files"])

    def test_in_bash(self):
        script = ('source <("$0" completion bash); shift 0; COMP_WORDS=(tkv "$@"); COMP_CWORD=$#; '
                  '_tkv; printf "%s\\n" "${COMPREPLY[@]}"')
        environment = {**self.environment, "PATH": f"{self.words()[0].rsplit('/', 1)[0]}:{self.environment['PATH']}"}
        for words, expected in ((["ge"], "get\n"), (["get", "app."], "app.hosts\napp.nodes\n"),
                                (["get", "app.nodes.al"], "app.nodes.alpha\n")):
            done = subprocess.run(["bash", "-c", script, self.words()[0], *words], env=environment,
                                  capture_output=True, check=True, text=True)
            self.assertEqual(done.stdout, expected)

    def test_scripts_are_well_formed(self):
        for shell in ("bash", "zsh", "fish"):
            script = self.out("completion", shell)
            self.assertIn("tkv complete --", script)
            if shutil.which(shell):
                subprocess.run([shell, "-n"], input=script, text=True, check=True)


class Configuration(CommandTest):
    def test_outputs(self):
        self.golden("conf.txt", re.sub(r" {2,}", "  ", self.out("conf")))
        self.golden("conf.json", self.out("conf", "--json"))

    def test_a_location_that_cannot_be_used_is_said(self):
        self.registry = self.folder / "no" / "parent"
        self.configure()
        report = json.loads(self.out("conf", "--json"))
        self.assertIs(report["usable"], False)
        self.assertIn("no", report["reason"])

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

    def test_an_etcd_cluster_without_its_module_is_unreachable(self):
        (self.folder / "tkv.conf").write_text("[registry]\nlocation = etcd://127.0.0.1:1\n[etcd]\ntimeout_ms = 100\n")
        self.fails(UNREACHABLE, "get", "a")
        self.assertEqual(json.loads(self.out("conf", "--json"))["store"], "etcd")


class Linkage(CommandTest):
    def test_nothing_large_is_loaded_for_an_embedded_registry(self):
        done = subprocess.run(["ldd", self.words()[0]], capture_output=True, check=True, text=True)
        self.assertIn("liblmdb", done.stdout)
        self.assertNotIn("grpc", done.stdout)
        self.assertNotIn("protobuf", done.stdout)


if __name__ == "__main__":
    unittest.main()
