"""export and import: lossless, all or nothing, and a difference that can be read."""
import base64
import json
import random
import subprocess
import unittest

from command import CONFLICT, CommandTest, DIFFERS, GROUP, NOT_FOUND, OTHER, USAGE, USER, kill

MANY_KEYS = 20000


def entries(text):
    return {key["name"] if isinstance(key["name"], str) else key["name"]["base64"]: key
            for key in json.loads(text)["keys"]}


def document(top, *keys):
    return json.dumps({"tkv": 1, "top": top, "keys": keys})


def some_value(number, source):
    """A value of each kind, with unusual contents."""
    kind = number % 8
    if kind == 0:
        return {"type": "none"}
    if kind == 1:
        return {"type": "text", "value": f"text {number} \u00e4\u20ac\U0001f600 \t\n\"\\\u0000 end"}
    if kind == 2:
        return {"type": "list", "value": [f"element {n}" for n in range(number % 5)]}
    if kind == 3:
        return {"type": "int32", "value": source.randint(-2**31, 2**31 - 1)}
    if kind == 4:
        return {"type": "int64", "value": str(source.randint(-2**63, 2**63 - 1))}
    if kind == 5:
        return {"type": "bytes", "value": {"base64": base64.b64encode(b"\xff" + source.randbytes(number % 40)).decode()}}
    if kind == 6:
        return {"type": source.randint(6, 2**31 - 1), "value": {"utf8": f"of some type {number}"}}
    return {"type": 3, "value": {"base64": base64.b64encode(b"no nul \xfe").decode()}}


def many_keys(count):
    """A tree of keys with names of every kind."""
    source = random.Random(20000)
    keys = [{"name": "many", "owner": "root", "group": "root", "mode": "u=rlwscd,g=,o=rl", "type": "none"}]
    parents = ["many"]
    while len(keys) < count:
        number = len(keys)
        parent = parents[-1] if number % 50 == 0 and len(parents) < 40 else source.choice(parents)
        level = source.choice(["k", "K-", "k_ ", "\u00fc", "\U0001f511", "-", "!", "~"]) + str(number)
        name = f"{parent}.{level}"
        mode = f"u=0x{number % 64:x},g=0x{number // 64 % 64:x},o=0x{number % 61:x}"
        keys.append({"name": name, "owner": f"user{number % 7}", "group": f"gr\u00fcp{number % 3}", "mode": mode,
                     **some_value(number, source)})
        if number % 20 == 0:
            parents.append(name)
    return keys


class RoundTrip(CommandTest):
    def test_twenty_thousand_keys_are_the_same_entry_by_entry(self):
        keys = many_keys(MANY_KEYS)
        self.tkv("import", given=document("many", *keys))
        first = self.out("export", "many")
        read = entries(first)
        self.assertEqual(len(read), MANY_KEYS)
        for key in keys:
            found = dict(read[key["name"]])
            found["mode"] = self.numbers(found["mode"])
            self.assertEqual(found, {**key, "mode": self.numbers(key["mode"])})
        exporting = subprocess.Popen(self.words("export", "many"), env=self.environment, stdout=subprocess.PIPE)
        self.tkv("import", "--at", "again", given=exporting.stdout.read())
        exporting.stdout.close()
        self.assertEqual(exporting.wait(), 0)
        second = entries(self.out("export", "again"))
        self.assertEqual(len(second), MANY_KEYS)
        for name, key in read.items():
            self.assertEqual({**second["again" + name[4:]], "name": name}, key)
        self.assertEqual(self.out("import", "--replace", "--dry-run", given=first), "")

    @staticmethod
    def numbers(mode):
        letters = dict(zip("rlwscd", (1, 2, 4, 8, 16, 32)))
        result = []
        for clause in mode.split(","):
            rights = clause.split("=")[1]
            result.append(int(rights, 16) if rights.startswith("0x") else sum(letters[letter] for letter in rights))
        return result

    def test_the_order_is_that_of_names_level_by_level(self):
        for name in ("a", "a.z", "a-b", "a.B", "a.b", "aa", "\u00e4", "Z"):
            self.tkv("set", "-p", name, "x")
        self.assertEqual([key["name"] for key in json.loads(self.out("export"))["keys"]],
                         ["", "Z", "a", "a.B", "a.b", "a.z", "a-b", "aa", "\u00e4"])

    def test_names_that_are_not_unicode_survive(self):
        lone = base64.b64encode(b"k\xed\xa0\x80").decode()  # half of a surrogate pair is a name in modified UTF-8
        given = document("", {"name": ""}, {"name": {"base64": lone}, "type": "text", "value": "x"})
        self.tkv("import", "--merge", given=given)
        self.assertEqual(json.loads(self.out("export"))["keys"][1]["name"], {"base64": lone})
        self.assertEqual(self.tkv("ls").out, b"k\xed\xa0\x80\n")

    def test_export_to_a_file_is_whole_or_not_at_all(self):
        self.tkv("set", "a", "x")
        target = self.folder / "a.json"
        self.tkv("export", "a", "-o", target)
        self.assertEqual(target.read_text(), self.out("export", "a"))
        self.fails(NOT_FOUND, "export", "nothing", "-o", target)
        self.assertEqual(target.read_text(), self.out("export", "a"))
        self.assertIn("is not a regular file", self.fails(USAGE, "export", "-o", "/dev/null"))
        self.assertEqual(sorted(path.name for path in self.folder.glob("a.json*")), ["a.json"])

    def test_export_to_a_file_keeps_its_mode_and_the_links_to_it(self):
        self.tkv("set", "a", "x")
        path = self.folder / "out.json"
        link = self.folder / "link.json"
        link.symlink_to(path)
        self.tkv("export", "-o", path)
        self.assertEqual(path.stat().st_mode & 0o777, 0o600)
        path.chmod(0o640)
        path.write_text("older")
        report = json.loads(self.out("export", "--json", "-o", link))
        self.assertEqual(report, {"done": "export", "name": "", "file": str(link), "keys": 2})
        self.assertTrue(link.is_symlink())
        self.assertEqual((path.read_text(), path.stat().st_mode & 0o777), (self.out("export"), 0o640))

    def test_a_full_disk_behind_the_output_is_an_error(self):
        self.tkv("set", "a", "x")
        with open("/dev/full", "wb") as full:
            done = subprocess.run(self.words("export"), env=self.environment, stdout=full, stderr=subprocess.PIPE,
                                  check=False)
        self.assertEqual(done.returncode, OTHER)
        self.assertEqual(done.stderr, b"tkv: cannot write the output: No space left on device\n")


class Manners(CommandTest):
    """--merge, --replace, neither, and what entries leave out."""

    def given(self):
        return document("app", {"name": "app"}, {"name": "app.same", "type": "text", "value": "s"},
                        {"name": "app.other", "type": "text", "value": "new"},
                        {"name": "app.fresh", "mode": "u=rw,g=,o=", "type": "int32", "value": 7},
                        {"name": "app.fresh.deep", "type": "list", "value": ["x"]})

    def setUp(self):
        super().setUp()
        for key, value in (("app.same", "s"), ("app.other", "old"), ("app.extra.below", "e")):
            self.tkv("set", "-p", key, value)
        self.before = self.out("export")

    def values(self):
        return {name: key.get("value") for name, key in entries(self.out("export", "app")).items()}

    def test_a_difference_is_a_conflict_by_default(self):
        self.assertIn("key 'app.other' exists and differs", self.fails(CONFLICT, "import", given=self.given()))
        self.assertEqual(self.out("export"), self.before)

    def test_merge_keeps_what_the_export_lacks(self):
        self.tkv("import", "--merge", given=self.given())
        self.assertEqual(self.values(), {"app": None, "app.extra": None, "app.extra.below": "e", "app.fresh": 7,
                                         "app.fresh.deep": ["x"], "app.other": "new", "app.same": "s"})

    def test_replace_makes_it_what_the_export_says(self):
        self.assertIn("deletes 2 keys", self.fails(CONFLICT, "import", "--replace", given=self.given()))
        self.assertEqual(self.out("export"), self.before)
        self.tkv("import", "--replace", "--yes", given=self.given())
        self.assertEqual(self.values(), {"app": None, "app.fresh": 7, "app.fresh.deep": ["x"], "app.other": "new",
                                         "app.same": "s"})

    def test_what_an_entry_leaves_out_stays(self):
        self.tkv("chown", "ada:staff", "app.other")
        self.tkv("import", "--merge", given=document("app", {"name": "app"}, {"name": "app.other", "mode": "u=r,g=,o="}))
        key = entries(self.out("export", "app"))["app.other"]
        self.assertEqual(key, {"name": "app.other", "owner": "ada", "group": "staff", "mode": "u=r,g=,o=",
                               "type": "text", "value": "old"})

    def test_dry_run_shows_removed_and_added_lines_and_changes_nothing(self):
        shown = self.out("import", "--replace", "--dry-run", given=self.given(), exits=DIFFERS)
        self.golden("import-dry-run.diff", self.anonymous(shown))
        found = json.loads(self.out("import", "--json", "--replace", "--dry-run", given=self.given(), exits=DIFFERS))
        self.assertEqual([key["name"] for key in found["added"]], ["app.fresh", "app.fresh.deep"])
        self.assertEqual([key["after"]["value"] for key in found["changed"]], ["new"])
        self.assertEqual([key["name"] for key in found["removed"]], ["app.extra", "app.extra.below"])
        self.assertEqual(self.out("export"), self.before)

    def anonymous(self, text):
        return text.replace(f'"owner":"{USER}"', '"owner":"USER"').replace(f'"group":"{GROUP}"', '"group":"GROUP"')

    def test_dry_run_applied_by_hand_is_the_import(self):
        changes = self.out("import", "--merge", "--dry-run", given=self.given(), exits=DIFFERS).splitlines()
        lines = {json.loads(line.rstrip(","))["name"]: line.rstrip(",")
                 for line in self.out("export", "app").splitlines()[3:-1]}
        for change in changes:
            name = json.loads(change[1:])["name"]
            if change[0] == "-":
                self.assertEqual(lines.pop(name), change[1:])
            else:
                lines[name] = change[1:]
        self.tkv("import", "--merge", given=self.given())
        after = [line.rstrip(",") for line in self.out("export", "app").splitlines()[3:-1]]
        self.assertEqual(sorted(lines.values()), sorted(after))

    def test_a_missing_parent_of_the_top(self):
        self.fails(NOT_FOUND, "import", "--at", "no.parent", given=self.given())
        self.tkv("import", "-p", "--at", "no.parent", given=self.given())
        self.assertEqual(self.out("get", "no.parent.other"), "new\n")

    def test_a_failure_in_the_middle_leaves_nothing(self):
        too_large = document("app", {"name": "app"}, {"name": "app.aa", "type": "text", "value": "x"},
                             {"name": "app.zz", "type": "text", "value": "x" * 2**20})
        self.fails(OTHER, "import", "--merge", given=too_large)
        self.assertEqual(self.out("export"), self.before)

    def test_json_report(self):
        self.assertEqual(json.loads(self.out("import", "--json", "--merge", given=self.given())),
                         {"done": "import", "name": "app", "keys": 5, "changes": 3})


class Malformed(CommandTest):
    def test_errors_are_reported_and_nothing_is_done(self):
        text = {"name": "a.b", "type": "text", "value": "x"}
        for given, message in (
                ("", "not JSON: parse error at line 1, column 1"),
                ("[1,", "not JSON: parse error at line 1, column 4"),
                ("[]", "not an export"),
                ('{"tkv":2,"top":"a","keys":[]}', "not an export"),
                ('{"tkv":1,"tkv":1,"top":"a","keys":[{"name":"a"}]}', 'the member "tkv" is given twice'),
                ('{"tkv":1,"top":"a","keys":[],"more":1}', 'has no member "more"'),
                ('{"tkv":1,"top":"a","keys":{}}', '"keys" must be an array'),
                ('{"tkv":1,"top":"a"}', '"keys" must be an array'),
                ('{"tkv":1,"top":"a","keys":[],"left_out":"b"}', '"left_out" must be an array'),
                ('{"tkv":1,"top":"a","keys":[],"left_out":[1]}', '"left_out" must hold names'),
                ('{"tkv":1,"top":"a","keys":[{"name":"a"}],"left_out":["a..b"]}', "a level is empty"),
                ('{"tkv":1,"top":"a","keys":[{"name":"a"}],"left_out":["b"]}', "key 'b', which was left out"),
                ('{"tkv":1,"top":"a","keys":[{"name":"a"}],"left_out":["a.b.c"]}', "key 'a.b.c', which was left out"),
                (document("a", {"name": "b"}), "the top, key 'a', is not among the keys"),
                (document("a", {"name": "a"}, {"name": "b"}), "key 'b' is outside the top"),
                (document("a", {"name": "a"}, {"name": "a"}), "key 'a' is given twice"),
                (document("a", {"name": "a"}, {"name": "a.b.c"}), "the parent of key 'a.b.c' is not among the keys"),
                (document("a", {"name": "a"}, {"name": "a..c"}), "a level is empty"),
                (document("a", {"name": "a"}, {**text, "type": "txt"}), 'key 2 (key \'a.b\'): unknown type "txt"'),
                (document("a", {"name": "a"}, {**text, "type": "list"}), "array of strings"),
                (document("a", {"name": "a"}, {**text, "type": "list", "value": ["x", ""]}), "element 2"),
                (document("a", {"name": "a"}, {**text, "type": "int32", "value": 2**31}), "is not an int32"),
                (document("a", {"name": "a"}, {**text, "type": "int32", "value": 1.5}), "whole number"),
                (document("a", {"name": "a"}, {**text, "type": "int64", "value": 5}), "must be a string"),
                (document("a", {"name": "a"}, {**text, "type": 9}), "numbered type"),
                (document("a", {"name": "a"}, {**text, "type": 2**31, "value": {"utf8": ""}}), "32 bits"),
                (document("a", {"name": "a"}, {**text, "type": "bytes", "value": {"base64": "AB=="}}), "bytes must be"),
                (document("a", {"name": "a"}, {**text, "type": "none"}), 'must not have a "value"'),
                (document("a", {"name": "a"}, {"name": "a.b", "value": "x"}), 'without a "type"'),
                (document("a", {"name": "a"}, {**text, "mode": "g+r"}), "must set u, g and o"),
                (document("a", {"name": "a"}, {**text, "mode": "u=rx,g=,o="}), "'x' is not a right"),
                (document("a", {"name": "a"}, {**text, "owner": "x" * 65}), "key 2 (key 'a.b'):"),
                (document("a", {"name": "a"}, {**text, "colour": "red"}), 'a key has no member "colour"')):
            with self.subTest(given=given[:120]):
                self.assertIn(message, self.fails(USAGE, "import", "--merge", given=given))
        self.assertFalse(self.registry.exists())
        self.fails(NOT_FOUND, "import", "/no/such/file")
        self.fails(USAGE, "import", "--merge", "--replace", given=document("a", {"name": "a"}))


class Killed(CommandTest):
    def test_an_import_killed_at_any_time_is_whole_or_nothing(self):
        self.tkv("set", "-p", "many.old", "old")
        before = self.out("export")
        source = self.folder / "many.json"
        source.write_text(document("many", *many_keys(4000)))
        for bar, inside in ((b"\rread import ", "reading"), (b"\rcompare ", "comparing"), (b"\rwrite ", "writing")):
            with self.subTest(killed_while=inside):
                importing = self.terminal_with_bars("import", "--replace", "--yes", source)
                importing.read_until(bar)
                importing.kill()
                self.assertEqual(self.out("export"), before)
        for wait in range(0, 200, 12):  # in milliseconds: some before, some within, some after the transaction
            importing = subprocess.Popen(self.words("import", "-q", "--replace", "--yes", source), env=self.environment)
            try:
                importing.wait(wait / 1000)
            except subprocess.TimeoutExpired:
                pass
            kill(importing)
            now = self.out("export")
            if now != before:
                self.assertEqual(len(json.loads(now)["keys"]), 4001)
                self.tkv("verify")
            if importing.returncode == 0:
                self.assertNotEqual(now, before)
                break
        self.tkv("import", "-q", "--replace", "--yes", source)
        self.tkv("verify")


if __name__ == "__main__":
    unittest.main()
