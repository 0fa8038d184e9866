"""diff: keys, former states, exports and other registries, compared with each other."""
import json
import unittest

from command import CommandTest, DIFFERS, DONE, NOT_FOUND, OTHER, USAGE


class Diff(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("set", "-p", "app.hosts", "--list", "alpha", "beta")
        self.tkv("set", "app.limit", "--int32", "5")
        self.tkv("set", "app.name", "billing")
        self.tkv("chown", "-R", "ada:staff", "app")
        self.first = self.revision("app")
        self.export = self.folder / "app.json"
        self.export.write_text(self.out("export", "app"))
        self.tkv("set", "app.limit", "--int32", "6")
        self.tkv("rm", "app.name")
        self.tkv("set", "app.new", "n", "--owner", "ada", "--group", "staff")

    # What turns the first state of app into the present one.
    DIFFERENCE = [("-", "app.limit", 5), ("+", "app.limit", 6), ("-", "app.name", "billing"), ("+", "app.new", "n")]

    def revision(self, key):
        return json.loads(self.out("stat", "--json", key))["revision"]

    def lines(self, *words, exits=DIFFERS, **how):
        text = self.tkv("diff", *words, exits=exits, **how).text
        return [(line[0], key["name"], key["value"]) for line in text.splitlines() for key in [json.loads(line[1:])]]

    def assert_same(self, *words, **how):
        self.assertEqual(self.lines(*words, exits=DONE, **how), [])

    def reversed(self):
        opposite = {"-": "+", "+": "-"}
        lines = [(opposite[sign], *rest) for sign, *rest in self.DIFFERENCE]
        return sorted(lines, key=lambda line: (line[1], "-+".index(line[0])))

    def test_a_former_state_with_the_present(self):
        self.assertEqual(self.lines(f"app@{self.first}", "app"), self.DIFFERENCE)
        self.assertEqual(self.lines("app", f"app@{self.first}"), self.reversed())
        self.assertEqual(self.lines(f"app@{self.first}", "app@now"), self.DIFFERENCE)
        self.assert_same("app", "app@now")
        self.assert_same(f"app@{self.first}", f"app@{self.first}")

    def test_a_time_names_a_state(self):
        time = json.loads(self.out("stat", "--json", "app"))["changed_at"]
        self.assertEqual(self.lines(f"app@{time}", "app"), self.DIFFERENCE)

    def test_outputs(self):
        self.golden("diff.diff", self.tkv("diff", f"app@{self.first}", "app", exits=DIFFERS).text)
        self.golden("diff.json", self.tkv("diff", "--json", f"app@{self.first}", "app", exits=DIFFERS).text)
        self.assertEqual(json.loads(self.out("diff", "--json", "app", "app")), {"added": [], "changed": [], "removed": []})

    def test_an_export_from_a_file_or_standard_input(self):
        self.assertEqual(self.lines(f"@{self.export}", "app"), self.DIFFERENCE)
        self.assertEqual(self.lines(self.export, "app"), self.DIFFERENCE)
        self.assertEqual(self.lines("app", f"@{self.export}"), self.reversed())
        self.assertEqual(self.lines("-", "app", given=self.export.read_text()), self.DIFFERENCE)
        self.assert_same(f"@{self.export}", f"app@{self.first}")
        self.assert_same(self.export, f"@{self.export}")

    def test_what_an_export_leaves_out_is_equal(self):
        given = json.dumps({"tkv": 1, "top": "app", "keys": [
            {"name": "app"}, {"name": "app.hosts", "owner": "bob"}, {"name": "app.limit", "type": "int32", "value": 6},
            {"name": "app.new", "mode": "u=rlwscd,g=rlwscd,o=rl"}]})
        self.assertEqual(self.lines("app", "-", given=given),
                         [("-", "app.hosts", ["alpha", "beta"]), ("+", "app.hosts", ["alpha", "beta"])])
        self.assertEqual(self.tkv("diff", "app", "-", exits=DIFFERS, given=given).text.count('"owner":"bob"'), 1)

    def test_an_export_without_keys_is_not_an_empty_subtree(self):
        """It comes from a damaged top: to show every key as removed would be wrong."""
        empty = self.folder / "empty.json"
        empty.write_text(json.dumps({"tkv": 1, "top": "app", "keys": []}))
        for words in ((f"@{empty}", "app"), ("app", f"@{empty}"), (empty, "app"), (empty, self.export), (empty, empty)):
            with self.subTest(words=words):
                self.assertIn(f"{empty} holds no key", self.fails(USAGE, "diff", *words))
        self.assertIn("standard input holds no key", self.fails(USAGE, "diff", "app", "-", given=empty.read_text()))

    def test_rights_and_owners_are_compared(self):
        self.tkv("chmod", "o=", "app.hosts")
        after = self.revision("app.hosts")
        text = self.tkv("diff", f"app@{after - 1}", "app", exits=DIFFERS).text
        self.assertEqual([line[0] for line in text.splitlines()], ["-", "+"])
        self.assertIn('"mode":"u=rlwscd,g=rlwscd,o="', text.splitlines()[1])

    def test_two_keys_are_compared_under_the_names_of_the_first(self):
        self.tkv("cp", "-r", "app", "copy")
        self.assert_same("app", "copy")
        self.tkv("set", "copy.limit", "--int32", "7")
        self.tkv("create", "-p", "copy.a.b")
        self.tkv("chown", "-R", "ada:staff", "copy.a")
        text = self.tkv("diff", "app", "copy", exits=DIFFERS).text
        self.assertEqual([(line[0], json.loads(line[1:])["name"]) for line in text.splitlines()],
                         [("+", "app.a"), ("+", "app.a.b"), ("-", "app.limit"), ("+", "app.limit")])

    def test_the_root_can_be_compared(self):
        self.assert_same(".", ".@now")
        whole = self.folder / "all.json"
        whole.write_text(self.out("export"))
        self.assert_same(".", f"@{whole}")

    def test_a_key_whose_name_ends_like_a_state(self):
        self.tkv("set", "-p", "job@17.x", "1")
        self.assert_same("job@17@now", "job@17@now")
        self.fails(NOT_FOUND, "diff", "job@17", "app")

    def test_another_registry_is_compared_where_the_first_side_is(self):
        other = self.folder / "other.conf"
        other.write_text(f"[registry]\nlocation = {self.folder}/other\n")
        self.tkv("import", "--conf", other, self.export)
        for place in (other, self.folder / "other"):
            with self.subTest(place=place):
                self.assertEqual(self.lines(place, "app"), self.DIFFERENCE)
                self.assertEqual(self.lines("app", place), self.reversed())
                self.assertEqual(self.lines(place, "."), self.DIFFERENCE)
                self.assertEqual(self.lines(place, self.registry), self.DIFFERENCE)
                self.assert_same(place, self.export)
                self.assertIn(str(place), self.fails(NOT_FOUND, "diff", place, "app.new"))
        self.fails(NOT_FOUND, "diff", self.folder / "nothing", "app")
        self.assertFalse((self.folder / "nothing").exists())

    def test_trouble_has_codes_of_its_own(self):
        bad = self.folder / "bad.json"
        bad.write_text('{"tkv":1')
        for code, words in ((NOT_FOUND, ("app", "nothing")), (NOT_FOUND, ("app", "@/no/such/file")),
                            (NOT_FOUND, ("app", "app@999999")), (USAGE, ("app", f"@{bad}")), (USAGE, ("app", bad)),
                            (USAGE, ("app", "a..b")), (USAGE, ("app", f"@{self.folder}/tkv.conf")), (USAGE, ("app",))):
            with self.subTest(words=words):
                self.fails(code, "diff", *words)
        (self.folder / "tkv.conf").unlink()
        self.assertEqual(self.tkv("ls", exits=OTHER).code, 1)
        self.fails(USAGE, "diff", "app", "app")  # 1 would be a difference

    def test_a_difference_is_coloured_on_a_terminal(self):
        code, seen = self.on_terminal("diff", f"app@{self.first}", "app")
        self.assertEqual(code, DIFFERS)
        self.assertIn("\x1b[31m-{", seen)
        self.assertIn("\x1b[32m+{", seen)

    def test_a_registry_is_not_created(self):
        other = self.folder / "fresh.conf"
        other.write_text(f"[registry]\nlocation = {self.folder}/fresh\n")
        self.fails(NOT_FOUND, "diff", "--conf", other, "a", "b")
        self.assertFalse((self.folder / "fresh").exists())


if __name__ == "__main__":
    unittest.main()
