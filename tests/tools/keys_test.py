"""Reading and writing keys: get, set, create, ls, tree, stat, rm, mv, cp."""
import json
import re
import subprocess
import unittest

from command import CONFLICT, DEADLINE, CommandTest, DONE, NOT_FOUND, PARTLY, UNREACHABLE, USAGE, USER, WRONG_TYPE


class Values(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("create", "a")

    def stored(self, key):
        """Type and bytes of a value."""
        type_line = [line for line in self.out("stat", key).splitlines() if line.startswith("type")]
        return type_line[0].split(maxsplit=1)[1], bytes.fromhex(self.out("get", "--as", "hex", key))

    def test_a_text_is_stored_with_its_nul(self):
        self.tkv("set", "a.text", "Good morning")
        self.assertEqual(self.stored("a.text"), ("text (3)", b"Good morning\0"))
        self.assertEqual(self.out("get", "a.text"), "Good morning\n")

    def test_a_text_outside_the_basic_plane_is_stored_as_two_surrogates(self):
        self.tkv("set", "a.text", "ö😀")
        self.assertEqual(self.stored("a.text")[1], "ö".encode() + b"\xed\xa0\xbd\xed\xb8\x80" + b"\0")
        self.assertEqual(self.out("get", "a.text"), "ö😀\n")

    def test_a_list_is_its_texts_and_one_nul_more(self):
        self.tkv("set", "a.list", "--list", "a", "bc")
        self.assertEqual(self.stored("a.list"), ("list (5)", b"a\0bc\0\0"))
        self.assertEqual(self.out("get", "a.list"), "a\nbc\n")
        self.assertEqual(self.out("get", "--no-newline", "a.list"), "a\nbc")

    def test_a_list_may_have_no_elements(self):
        self.tkv("set", "a.list", "--list")
        self.assertEqual(self.stored("a.list"), ("list (5)", b""))
        self.assertEqual(self.out("get", "a.list"), "")

    def test_a_list_with_an_empty_element_is_refused_and_nothing_is_stored(self):
        message = self.fails(USAGE, "set", "a.list", "--list", "a", "", "b")
        self.assertIn("element 2 of the list is empty", message)
        self.fails(NOT_FOUND, "get", "a.list")

    def test_numbers_are_machine_words(self):
        for option, text, stored_type, stored in (
                ("--int32", "-5", "int32 (1)", "fbffffff"),
                ("--int32", "2147483647", "int32 (1)", "ffffff7f"),
                ("--int32", "0xffffffff", "int32 (1)", "ffffffff"),
                ("--int64", "5000000000", "int64 (2)", "00f2052a01000000"),
                ("--int64", "-9223372036854775808", "int64 (2)", "0000000000000080")):
            with self.subTest(number=text):
                self.tkv("set", "a.number", option, text)
                self.assertEqual(self.stored("a.number"), (stored_type, bytes.fromhex(stored)))
                expected = "-1" if text == "0xffffffff" else text
                self.assertEqual(self.out("get", "a.number"), expected + "\n")

    def test_numbers_out_of_range_and_malformed_numbers_are_refused(self):
        for option, text in (("--int32", "2147483648"), ("--int32", "five"), ("--int32", ""), ("--int32", "0x"),
                             ("--int32", "1 "), ("--int64", "9223372036854775808"), ("--int64", "1e3"),
                             ("--int64", "+-1")):
            with self.subTest(number=text):
                self.assertIn("is not an int", self.fails(USAGE, "set", "a.number", option, text))

    def test_both_readings_of_a_word_that_holds_text_are_shown(self):
        self.tkv("set", "a.word", "--hex", "31323300", "--type", "int32")
        self.assertEqual(self.out("get", "a.word"), "3355185\n")
        self.assertEqual(self.out("get", "--as", "text", "a.word"), "123\n")
        shown = json.loads(self.out("get", "--json", "a.word"))
        self.assertEqual(shown, {"name": "a.word", "type": "int32", "value": 3355185, "text": "123"})
        self.assertIn('as text  "123"', self.out("stat", "a.word"))

    def test_bytes_pass_unchanged(self):
        every_byte = bytes(range(256)) * 3
        self.tkv("set", "a.bytes", "--bytes", "-", given=every_byte)
        self.assertEqual(self.tkv("get", "--as", "raw", "a.bytes").out, every_byte)
        self.assertEqual(self.stored("a.bytes"), ("bytes (4)", every_byte))
        self.tkv("set", "a.bytes", "--hex", "00 FF 7f", "--type", "77")
        self.assertEqual(self.stored("a.bytes"), ("77", b"\x00\xff\x7f"))

    def test_input_is_a_file_or_standard_input(self):
        source = self.folder / "source"
        source.write_text("from a file\n")
        self.tkv("set", "a.text", f"@{source}")
        self.assertEqual(self.stored("a.text")[1], b"from a file\0")
        self.tkv("set", "a.text", "-", given="piped\r\n")
        self.assertEqual(self.stored("a.text")[1], b"piped\0")
        self.tkv("set", "a.text", "-", given="no line end\r")
        self.assertEqual(self.stored("a.text")[1], b"no line end\r\0")
        self.tkv("set", "a.list", "--list", "-", given="one\r\ntwo\r\n")
        self.assertEqual(self.out("get", "a.list"), "one\ntwo\n")
        self.tkv("set", "a.text", "--keep-newline", "-", given="piped\n")
        self.assertEqual(self.stored("a.text")[1], b"piped\n\0")
        self.tkv("set", "a.text", "--literal", "@home")
        self.assertEqual(self.stored("a.text")[1], b"@home\0")
        self.tkv("set", "a.list", "--list", "first", "-", given="second\nthird\n")
        self.assertEqual(self.out("get", "a.list"), "first\nsecond\nthird\n")
        self.fails(NOT_FOUND, "set", "a.text", "@/no/such/file")

    def test_words_of_the_parser_are_ordinary_values(self):
        for word in ("[a,b]", "{}", "++", "", "get", "--json", "-x", "-", "@x", "%%", "a=b", "//"):
            with self.subTest(word=word):
                self.tkv("set", "a.text", "--literal", "--", word)
                self.assertEqual(self.stored("a.text")[1], word.encode() + b"\0")

    def test_a_key_may_have_the_name_of_a_verb(self):
        self.tkv("set", "get", "create")
        self.assertEqual(self.out("get", "get"), "create\n")

    def test_a_text_that_is_not_utf8_is_refused(self):
        self.assertIn("--bytes", self.fails(USAGE, "set", "a.text", "-", given=b"\xff"))

    def test_a_value_beyond_1_mib_is_refused_and_one_of_1_mib_is_kept(self):
        self.tkv("set", "a.bytes", "--bytes", "-", given=b"x" * 2**20)
        self.assertEqual(len(self.tkv("get", "--as", "raw", "a.bytes").out), 2**20)
        self.assertIn("more than 1 MiB", self.fails(1, "set", "a.bytes", "--bytes", "-", given=b"x" * (2**20 + 1)))

    def test_input_without_end_is_not_waited_for(self):
        with open("/dev/zero", "rb") as endless:
            done = subprocess.run(self.words("set", "a.bytes", "--bytes", "-"), stdin=endless, capture_output=True,
                                  env=self.environment, check=False)
        self.assertEqual((done.returncode, done.stderr), (USAGE, b"tkv: standard input has more than 8388608 bytes\n"))

    def test_a_reading_that_the_value_lacks_is_a_wrong_type(self):
        self.tkv("set", "a.text", "word")
        self.tkv("set", "a.bytes", "--hex", "ff")
        for key, reading in (("a.text", "number"), ("a.text", "list"), ("a.bytes", "text")):
            with self.subTest(key=key, reading=reading):
                self.assertIn("has no reading as " + reading, self.fails(WRONG_TYPE, "get", "--as", reading, key))
        self.fails(USAGE, "get", "--as", "tune", "a.text")

    def test_get_of_several_keys_goes_on_after_one_that_is_missing(self):
        self.tkv("set", "a.one", "1")
        self.tkv("set", "a.two", "2")
        result = self.tkv("get", "a.one", "a.none", "a.two", exits=PARTLY)
        self.assertEqual(result.text, "1\n2\n")
        self.assertEqual(result.messages, "tkv: key 'a.none' does not exist\n")
        result = self.tkv("get", "--null", "a.one", "a.two")
        self.assertEqual(result.out, b"1\x002\x00")

    def test_a_key_without_a_value_prints_nothing(self):
        self.assertEqual(self.out("get", "a"), "")
        self.assertEqual(json.loads(self.out("get", "--json", "a")), {"name": "a", "type": "none"})


class Making(CommandTest):
    def test_a_verb_that_only_reads_creates_no_registry(self):
        for verb in (("ls",), ("tree",), ("get", "a"), ("export",), ("verify",), ("backup",)):
            with self.subTest(verb=verb):
                self.assertIn("there is no registry in", self.fails(NOT_FOUND, *verb))
        self.assertFalse(self.registry.exists())

    def test_the_parent_has_to_exist_or_be_asked_for(self):
        self.assertIn("key 'a' does not exist", self.fails(NOT_FOUND, "set", "a.b.c", "x"))
        self.fails(NOT_FOUND, "create", "a.b.c")
        self.tkv("set", "-p", "a.b.c", "x")
        self.tkv("create", "--parents", "d.e.f")
        self.assertEqual(self.out("ls"), "a\nd\n")
        self.assertEqual(self.out("get", "a.b.c"), "x\n")

    def test_new_and_existing_are_kept_apart(self):
        self.fails(NOT_FOUND, "set", "--existing", "a", "x")
        self.tkv("set", "--new", "a", "first")
        self.fails(CONFLICT, "set", "--new", "a", "second")
        self.fails(CONFLICT, "create", "a")
        self.tkv("set", "--existing", "a", "third")
        self.assertEqual(self.out("get", "a"), "third\n")

    def test_a_new_key_belongs_to_the_session_or_to_the_named_owner(self):
        self.tkv("create", "a")
        self.tkv("set", "b", "x", "--owner", "ada", "--group", "staff", "--mode", "u=rw,g=0x3,o=")
        self.tkv("create", "--inherit", "b.c")
        described = json.loads(self.out("stat", "--json", "a", "b", "b.c"))
        self.assertEqual([(key["owner"], key["masks"]) for key in described],
                         [(USER, [0x3f, 0x3f, 0x3]), ("ada", [5, 3, 0]), (USER, [5, 3, 0])])
        self.assertEqual([key["group"] for key in described[1:]], ["staff", "staff"])

    def test_security_for_a_key_that_exists_is_refused_before_it_is_written(self):
        self.tkv("set", "a", "open")
        self.assertIn("chown and chmod", self.fails(CONFLICT, "set", "a", "secret", "--mode", "u=rw,g=,o="))
        self.assertEqual(self.out("get", "a"), "open\n")

    def test_malformed_names_are_usage(self):
        for name in ("", "a..b", ".a", "a.", "x" * 265, ".".join("x" * 65)):
            with self.subTest(name=name):
                self.fails(USAGE, "create", name)

    def test_several_keys_are_made_one_by_one(self):
        self.tkv("create", "a")
        result = self.tkv("create", "a", "b", exits=PARTLY)
        self.assertEqual(result.messages, "tkv: key 'a' exists\n")
        self.assertEqual(self.out("ls"), "a\nb\n")


class Waiting(CommandTest):
    """Another process is writing, and does not finish."""

    def setUp(self):
        super().setUp()
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}"} for number in range(5000)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        self.writer = self.terminal_with_bars("chmod", "-R", "o=", "many")
        self.writer.read_until(b"\rchmod ")  # and no further: the writer waits for a reader of its bars

    def test_who_waits_says_so_and_for_whom(self):
        waiting = subprocess.Popen(self.words("set", "a", "x"), env=self.environment, stderr=subprocess.PIPE)
        said = waiting.stderr.readline().decode()
        self.assertTrue(said.startswith("tkv: waiting for "), said)
        self.assertIn(f"process {self.writer.process.pid} (tkv)", said)
        self.assertEqual(self.writer.finish()[0], DONE)
        self.assertEqual((waiting.wait(DEADLINE), waiting.stderr.read()), (DONE, b""))
        waiting.stderr.close()
        self.assertEqual(self.out("get", "a"), "x\n")

    def test_who_waits_too_long_gives_up_and_names_the_writer(self):
        self.configure("timeout_ms = 1500")
        message = self.fails(UNREACHABLE, "set", "-q", "a", "x")
        self.assertIn(f"process {self.writer.process.pid} (tkv) is writing", message)
        self.assertEqual(self.writer.finish()[0], DONE)
        self.fails(NOT_FOUND, "get", "a")


class Trees(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("set", "-p", "app.hosts", "--list", "alpha", "beta")
        self.tkv("set", "app.limit", "--int64", "5000000000")
        self.tkv("set", "app.greeting", "Good\nmorning\x1b[31m")
        self.tkv("set", "-p", "app.nodes.alpha.state", "up")
        self.tkv("set", "app.nodes.beta", "--hex", "0001ff")
        self.tkv("chown", "-R", "ada:staff", "app")

    def names(self, *arguments):
        return [key["name"] for key in json.loads(self.out("tree", "--json", *arguments))]

    def test_outputs(self):
        self.golden("tree.txt", self.out("tree", "app"))
        self.golden("tree-long.txt", self.out("tree", "--long", "app"))
        self.golden("tree.json", self.out("tree", "--json", "app"))
        self.golden("ls-long.txt", self.out("ls", "-l", "app"))
        self.golden("ls.json", self.out("ls", "--json", "-l", "app"))
        stat = self.out("stat", "app.hosts", "app.limit").replace(f"by {USER}", "by USER")
        self.golden("stat.txt", re.sub(r"(?m)^(changed  revision )\d+, \S+Z", r"\1N, TIME", stat))
        self.golden("export.json", self.out("export", "app"))

    def test_ls_lists_subkeys_in_the_order_of_their_bytes(self):
        self.assertEqual(self.out("ls", "app"), "greeting\nhosts\nlimit\nnodes\n")
        self.assertEqual(self.out("ls", "--full", "app.nodes"), "app.nodes.alpha\napp.nodes.beta\n")
        self.assertEqual(self.tkv("ls", "-0", "app.nodes").out, b"alpha\0beta\0")
        self.assertRegex(self.out("ls", "-l0", "app.nodes"), r"^[rlwscd-].* alpha\.\0[rlwscd-].* beta\0$")
        self.fails(NOT_FOUND, "ls", "nothing")

    def test_tree_stops_at_a_depth(self):
        self.assertEqual(self.names("-d", "1", "app"),
                         ["app", "app.greeting", "app.hosts", "app.limit", "app.nodes"])
        self.assertEqual(self.names("-d", "0", "app"), ["app"])
        self.fails(USAGE, "tree", "--depth", "deep")

    def test_tree_shows_only_keys_on_request(self):
        self.assertEqual(self.out("tree", "-k", "app.nodes"), "app.nodes\n├── alpha\n│   └── state\n└── beta\n")
        for key in json.loads(self.out("tree", "-k", "--json", "app.nodes")):
            self.assertEqual(set(key), {"name", "owner", "group", "mode"})

    def test_rm_deletes_the_named_keys_and_no_others(self):
        self.assertIn("-r deletes them too", self.fails(CONFLICT, "rm", "app.nodes"))
        self.assertIn("this deletes 4 keys", self.fails(CONFLICT, "rm", "-r", "app.nodes"))
        self.assertEqual(len(self.names("app.nodes")), 4)
        self.tkv("rm", "app.limit")
        self.tkv("rm", "-r", "--yes", "app.nodes")
        self.assertEqual(self.names("app"), ["app", "app.greeting", "app.hosts"])
        self.fails(NOT_FOUND, "rm", "app.limit")
        self.tkv("rm", "--force", "app.limit")
        self.fails(USAGE, "rm", "-r", "--yes", ".")

    def test_mv_moves_the_subtree(self):
        self.tkv("mv", "app.nodes", "members")
        self.assertEqual(self.names("members"), ["members", "members.alpha", "members.alpha.state", "members.beta"])
        self.assertNotIn("app.nodes", self.names("app"))
        self.assertIn("exists", self.fails(CONFLICT, "mv", "app", "members"))
        self.fails(USAGE, "mv", "members", "members.alpha.below")
        self.fails(NOT_FOUND, "mv", "nothing", "something")
        self.fails(NOT_FOUND, "mv", "members", "no.parent")
        self.assertIn("deletes 4 keys", self.fails(CONFLICT, "mv", "--replace", "app", "members"))
        self.tkv("mv", "--replace", "--yes", "app", "members")
        self.assertEqual(self.names("members"), ["members", "members.greeting", "members.hosts", "members.limit"])

    def test_mv_and_cp_never_replace_a_key_above_the_source(self):
        before = self.out("export")
        for words in (("mv", "--replace", "--yes"), ("cp", "-r", "--replace", "--yes")):
            for source in ("app.nodes", "app.nodes.alpha"):
                with self.subTest(words=words, source=source):
                    self.assertIn(f"key '{source}' cannot replace key 'app', which it lies below",
                                  self.fails(USAGE, *words, source, "app"))
        self.assertEqual(self.out("export"), before)

    def test_cp_copies_all_or_only_the_key(self):
        self.tkv("cp", "-r", "app", "copy")
        self.assertEqual(self.out("export", "copy").replace('"copy', '"app'), self.out("export", "app"))
        self.tkv("cp", "app", "single")
        self.assertEqual(self.names("single"), ["single"])
        self.fails(CONFLICT, "cp", "-r", "app", "copy")
        self.fails(USAGE, "cp", "-r", "app", "app.below")
        self.tkv("cp", "-r", "--replace", "--yes", "app.nodes", "copy")
        self.assertEqual(self.names("copy"), ["copy", "copy.alpha", "copy.alpha.state", "copy.beta"])

    def test_cp_own_gives_the_copies_to_the_session(self):
        self.tkv("cp", "-r", "--own", "app", "mine")
        copies = json.loads(self.out("tree", "--json", "mine"))
        self.assertEqual(len(copies), 8)
        self.assertEqual({key["owner"] for key in copies}, {USER})
        self.assertEqual({key["owner"] for key in json.loads(self.out("tree", "--json", "app"))}, {"ada"})
        self.tkv("cp", "--own", "app.hosts", "hosts")
        self.assertEqual(self.out("get", "hosts"), "alpha\nbeta\n")

    def test_json_of_verbs_that_change_something(self):
        self.assertEqual(json.loads(self.out("set", "--json", "x", "1")), {"done": "set", "name": "x"})
        self.assertEqual(json.loads(self.out("mv", "--json", "x", "y")), {"done": "mv", "name": "x", "to": "y"})
        self.assertEqual(json.loads(self.out("rm", "--json", "y")), {"done": "rm", "name": "y"})
        self.assertEqual(json.loads(self.out("rm", "--json", "-f", "y")), {"done": "rm", "name": "y", "existed": False})

    def test_json_of_several_keys_is_one_document(self):
        for verb, keys in (("create", ("x", "y")), ("chmod", ("o=", "x", "y")), ("chown", ("ada", "x", "y")),
                           ("rm", ("--yes", "x", "y"))):
            with self.subTest(verb=verb):
                self.assertEqual(json.loads(self.out(verb, "--json", *keys)),
                                 [{"done": verb, "name": "x"}, {"done": verb, "name": "y"}])
        result = self.tkv("create", "--json", "x", "app", exits=PARTLY)
        self.assertEqual(json.loads(result.text), [{"done": "create", "name": "x"}])
        self.assertEqual(json.loads(result.messages), {"error": "conflict", "exit": 5, "text": "key 'app' exists"})

    def test_errors_as_json(self):
        result = self.tkv("get", "--json", "nothing", exits=NOT_FOUND)
        self.assertEqual(result.out, b"")
        self.assertEqual(json.loads(result.messages),
                         {"error": "not-found", "exit": 3, "text": "key 'nothing' does not exist"})
        for words, text in ((("get", "--json"), "KEY is required\nSee: tkv get --help"),
                            (("--json", "😀"), "there is no verb '😀'\nSee: tkv --help"),
                            (("--json",), "a verb is missing\nSee: tkv --help"),
                            (("get", "--json", "--as", "😀", "app"),
                             "--as 😀: choose auto, text, list, number, hex or raw")):
            with self.subTest(words=words):
                result = self.tkv(*words, exits=USAGE)
                self.assertEqual(json.loads(result.messages), {"error": "usage", "exit": 2, "text": text})


class Together(CommandTest):
    def test_an_observer_sees_a_tree_verb_whole_or_not_at_all(self):
        for number in range(30):
            self.tkv("set", "-p", f"from.k{number}", str(number))
        whole = len(json.loads(self.out("tree", "--json", "from")))
        sizes = set()
        for _ in range(4):
            copying = subprocess.Popen(self.words("cp", "-r", "from", "to"), env=self.environment)
            while copying.poll() is None:
                seen = self.run_command("tree", "--json", "to")
                sizes.add(len(json.loads(seen.out)) if seen.code == DONE else 0)
            self.assertEqual(copying.returncode, DONE)
            self.tkv("rm", "-r", "--yes", "to")
        self.assertLessEqual(sizes, {0, whole})


if __name__ == "__main__":
    unittest.main()
