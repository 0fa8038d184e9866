"""Looking through a subtree: ls -R and find."""
import json
import unittest

from command import CommandTest, DONE, NOT_FOUND, USAGE


class Search(CommandTest):
    def setUp(self):
        super().setUp()
        self.tkv("set", "-p", "app.nodes.alpha.port", "--int32", "8080")
        self.tkv("set", "-p", "app.nodes.beta.port", "--int64", "8081")
        self.tkv("set", "app.nodes.alpha.address", "10.0.0.7")
        self.tkv("set", "app.hosts", "--list", "alpha", "beta")
        self.tkv("set", "-p", "other.port", "closed")
        self.tkv("chown", "-R", "ada:staff", ".")
        self.before = json.loads(self.out("stat", "--json", "."))["revision"]


class RecursiveLs(Search):
    def test_lists_the_full_names_of_all_keys_below(self):
        self.assertEqual(self.out("ls", "-R", "app").splitlines(),
                         ["app.hosts", "app.nodes", "app.nodes.alpha", "app.nodes.alpha.address",
                          "app.nodes.alpha.port", "app.nodes.beta", "app.nodes.beta.port"])
        self.assertEqual(self.out("ls", "--recursive", "other"), "other.port\n")
        self.assertEqual(self.out("ls", "-R", "other.port"), "")

    def test_of_the_root_are_all_keys_but_the_root(self):
        tree = [key["name"] for key in json.loads(self.out("tree", "--json"))]
        self.assertEqual(self.out("ls", "-R").splitlines(), tree[1:])
        self.assertEqual(tree[0], "")

    def test_full_names_are_full_in_any_case(self):
        self.assertEqual(self.out("ls", "-Rf", "app"), self.out("ls", "-R", "app"))

    def test_long_lines_describe_each_key(self):
        self.golden("ls-recursive-long.txt", self.out("ls", "-Rl", "app"))

    def test_as_json_each_key_is_an_object(self):
        self.golden("ls-recursive.json", self.out("ls", "-Rl", "--json", "app.nodes"))
        plain = json.loads(self.out("ls", "-R", "--json", "other"))
        self.assertEqual(plain, [{"level": "port", "name": "other.port"}])

    def test_a_former_state_can_be_listed(self):
        self.tkv("rm", "-r", "--yes", "other")
        self.assertEqual(self.out("ls", "-R", "--at", self.before, "other"), "other.port\n")

    def test_lines_can_end_with_nul(self):
        self.assertEqual(self.tkv("ls", "-R0", "app.nodes.beta").out, b"app.nodes.beta.port\0")

    def test_a_key_that_does_not_exist_is_not_found(self):
        self.fails(NOT_FOUND, "ls", "-R", "nothing")


class Find(Search):
    def found(self, *words):
        return self.out("find", *words).splitlines()

    def test_a_pattern_of_one_level_matches_the_last_level_of_names(self):
        self.assertEqual(self.found("port"), ["app.nodes.alpha.port", "app.nodes.beta.port", "other.port"])
        self.assertEqual(self.found("*o*"), ["app.hosts", "app.nodes", "app.nodes.alpha.port", "app.nodes.beta.port",
                                             "other", "other.port"])
        self.assertEqual(self.found("?eta"), ["app.nodes.beta"])
        self.assertEqual(self.found("[a-c]*"), ["app", "app.nodes.alpha", "app.nodes.alpha.address", "app.nodes.beta"])
        self.assertEqual(self.found("[!a-c]*"), ["app.hosts", "app.nodes", "app.nodes.alpha.port",
                                                 "app.nodes.beta.port", "other", "other.port"])

    def test_a_pattern_of_several_levels_matches_full_names(self):
        self.assertEqual(self.found("app.nodes.*"), ["app.nodes.alpha", "app.nodes.beta"])
        self.assertEqual(self.found("app.*.*.port"), ["app.nodes.alpha.port", "app.nodes.beta.port"])
        self.assertEqual(self.found("*.port"), ["other.port"])
        self.assertEqual(self.found("**.port"), ["app.nodes.alpha.port", "app.nodes.beta.port", "other.port"])
        self.assertEqual(self.found("app.**.port"), ["app.nodes.alpha.port", "app.nodes.beta.port"])
        self.assertEqual(self.found("other.**"), ["other", "other.port"])
        self.assertEqual(self.found("**.nodes.**.p*"), ["app.nodes.alpha.port", "app.nodes.beta.port"])

    def test_a_match_is_whole(self):
        for pattern in ("por", "ort", "nodes.alpha", "app.nodes.alph", "App", "port.", ".port", "app..hosts", ""):
            with self.subTest(pattern=pattern):
                self.fails(NOT_FOUND, "find", pattern)

    def test_a_key_limits_the_search_to_it_and_what_is_below(self):
        self.assertEqual(self.found("port", "app.nodes.beta"), ["app.nodes.beta.port"])
        self.assertEqual(self.found("b*", "app.nodes.beta"), ["app.nodes.beta"])
        self.fails(NOT_FOUND, "find", "port", "nothing")

    def test_special_characters_can_stand_for_themselves(self):
        for name in ("a*b", "a?b", "[x]", "a\\b", "axb"):
            self.tkv("create", f"other.{name}")
        for pattern, names in ((r"a\*b", ["a*b"]), ("a[*]b", ["a*b"]), (r"a\?b", ["a?b"]), (r"\[x]", ["[x]"]),
                               (r"a\\b", ["a\\b"]), (r"a[\\]b", ["a\\b"]), ("[]x[]*", ["[x]"]),
                               ("a[^x*?]b", ["a\\b"]), ("a[w-y]b", ["axb"])):
            with self.subTest(pattern=pattern):
                self.assertEqual(self.found(pattern), [f"other.{name}" for name in names])

    def test_a_character_is_one_however_many_bytes_it_has(self):
        for name in ("\u00e4", "\U0001f511"):
            self.tkv("create", f"other.{name}")
        self.assertEqual(self.found("other.?"), ["other.\u00e4", "other.\U0001f511"])
        self.assertEqual(self.found("[\u00e0-\u00ef]"), ["other.\u00e4"])

    def test_a_set_without_an_end_is_usage(self):
        self.assertIn("has a [ without ]", self.fails(USAGE, "find", "a[b"))

    def test_a_pattern_that_needs_much_going_back_is_matched_at_once(self):
        self.tkv("create", "other." + "a" * 200)
        self.fails(NOT_FOUND, "find", "*a" * 100 + "b")

    def test_values_are_searched_when_asked_for(self):
        self.fails(NOT_FOUND, "find", "10.0.0.*")
        for pattern, names in (("10.0.0.*", ["app.nodes.alpha.address"]), ("808?", ["app.nodes.alpha.port",
                                                                                    "app.nodes.beta.port"]),
                               ("8081", ["app.nodes.beta.port"]), ("clos[e]d", ["other.port"]),
                               ("beta", ["app.hosts", "app.nodes.beta"]), ("al*", ["app.hosts", "app.nodes.alpha"])):
            with self.subTest(pattern=pattern):
                self.assertEqual(self.found("--values", pattern), names)

    def test_a_value_is_matched_whole_with_all_its_lines(self):
        self.tkv("set", "other.text", "one\ntwo")
        self.fails(NOT_FOUND, "find", "--values", "one")
        self.assertEqual(self.found("--values", "one*"), ["other.text"])

    def test_the_value_of_the_root_is_found_as_a_dot(self):
        self.tkv("set", ".", "of the root")
        self.assertEqual(self.found("--values", "*root"), ["."])

    def test_lines_can_end_with_nul(self):
        self.assertEqual(self.tkv("find", "-0", "beta").out, b"app.nodes.beta\0")

    def test_as_json(self):
        self.assertEqual(json.loads(self.out("find", "--json", "beta")), [{"name": "app.nodes.beta"}])
        self.golden("find.json", self.out("find", "--json", "--values", "*a*", "app"))

    def test_a_former_state_can_be_searched(self):
        self.tkv("rm", "app.nodes.beta.port")
        self.assertEqual(self.found("port", "app"), ["app.nodes.alpha.port"])
        self.assertEqual(self.found("port", "app", "--at", self.before), ["app.nodes.alpha.port", "app.nodes.beta.port"])

    def test_nothing_found_is_an_empty_list_and_a_failure(self):
        result = self.tkv("find", "--json", "nothing", exits=NOT_FOUND)
        self.assertEqual(json.loads(result.text), [])
        self.assertEqual(json.loads(result.messages)["text"], "no key matches 'nothing'")

    def test_names_are_coloured_on_a_terminal(self):
        code, seen = self.on_terminal("find", "beta")
        self.assertEqual(code, DONE)
        self.assertRegex(seen, r"^\x1b\[[0-9;]*mapp\.nodes\.beta\x1b\[0m\n$")


if __name__ == "__main__":
    unittest.main()
