"""migrate: copies one registry into another, whatever interrupts it."""
import json
import unittest

from command import CONFLICT, CommandTest, DONE, NOT_FOUND, USAGE, USER


def many_keys():
    keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": f"value {number}"}
                                 for number in range(3000)]
    return json.dumps({"tkv": 1, "top": "many", "keys": keys})


class Migrate(CommandTest):
    def setUp(self):
        super().setUp()
        self.target = self.folder / "target"
        self.target_conf = self.folder / "target.conf"
        self.target_conf.write_text(f"[registry]\nlocation = {self.target}\n")
        for key, words in (("app.hosts", ["--list", "alpha", "beta"]), ("app.nodes.alpha", ["up"]),
                           ("app.limit", ["--int64", "5000000000"])):
            self.tkv("set", "-p", key, *words)
        self.tkv("chown", "-R", "ada:staff", "app")
        self.tkv("chmod", "o=", ".")
        self.tkv("set", ".", "the root has a value")
        self.source_text = self.out("export")

    def target_text(self):
        return self.out("export", "--conf", self.target_conf)

    def target_log(self):
        return json.loads(self.out("log", "--json", "--conf", self.target_conf))["changes"]

    def test_the_target_is_the_same_entry_by_entry(self):
        told = self.tkv("migrate", self.registry, self.target).messages
        self.assertEqual(told, f"tkv: migrated 6 keys to {self.target} and compared them one by one\n")
        self.assertEqual(self.target_text(), self.source_text)
        self.assertEqual(self.out("export"), self.source_text)

    def test_a_configuration_file_can_name_a_place(self):
        report = json.loads(self.out("migrate", "--json", self.folder / "tkv.conf", self.target_conf))
        self.assertEqual(report, {"done": "migrate", "keys": 6, "changes": 6})
        self.assertEqual(self.target_text(), self.source_text)

    def test_a_target_that_is_not_empty_is_refused_unless_asked(self):
        self.tkv("set", "-p", "old.key", "x", "--conf", self.target_conf)
        before = self.target_text()
        self.assertIn("is not empty", self.fails(CONFLICT, "migrate", self.registry, self.target))
        self.assertEqual(self.target_text(), before)
        self.assertIn("deletes 2 keys", self.fails(CONFLICT, "migrate", "--overwrite", self.registry, self.target))
        self.assertEqual(self.target_text(), before)
        self.tkv("migrate", "--overwrite", "--yes", self.registry, self.target)
        self.assertEqual(self.target_text(), self.source_text)

    def test_places_that_make_no_sense(self):
        self.fails(USAGE, "migrate", self.registry, self.registry)
        link = self.folder / "link"
        link.symlink_to(self.registry)
        for place in (link, f"{self.registry}/", f"{self.folder}/./registry"):
            self.fails(USAGE, "migrate", "--overwrite", "--yes", self.registry, place)
        self.fails(USAGE, "migrate", self.registry, "relative")
        self.fails(USAGE, "migrate", self.registry, "etcd://nowhere")
        self.assertIn("there is no registry in", self.fails(NOT_FOUND, "migrate", self.folder / "none", self.target))
        self.assertFalse(self.target.exists())

    def test_one_is_one_change_that_says_where_the_keys_come_from(self):
        self.tkv("import", given=many_keys())
        self.tkv("migrate", self.registry, self.target_conf)
        (change,) = self.target_log()
        self.assertEqual((change["note"], change["author"]), (f"migration from {self.registry}", USER))
        self.assertEqual({each["kind"] for each in change["changes"]}, {"subtree"})
        self.tkv("rm", "-r", "--yes", "many")
        self.tkv("migrate", "--overwrite", "--yes", "--note", "smaller", self.registry, self.target_conf)
        first, second = self.target_log()
        self.assertEqual((first["note"], second), ("smaller", change))
        self.assertIn({"kind": "deleted", "name": "many"},
                      [{part: each[part] for part in ("kind", "name")} for each in first["changes"]])
        self.assertEqual(self.target_text(), self.source_text)

    def test_one_that_finds_no_difference_is_no_change(self):
        self.tkv("migrate", self.registry, self.target_conf)
        before = self.target_log()
        self.tkv("migrate", "--overwrite", self.registry, self.target_conf)
        self.assertEqual(self.target_log(), before)

    def test_an_interrupted_one_leaves_the_target_as_it_was(self):
        self.tkv("import", given=many_keys())
        self.tkv("set", "-p", "old.key", "x", "--conf", self.target_conf)
        before = self.target_text()
        migrating = self.terminal_with_bars("migrate", "--overwrite", "--yes", self.registry, self.target)
        migrating.read_until(b"\rmigrate ")  # the change is being made
        migrating.kill()
        self.assertEqual(self.target_text(), before)
        self.tkv("verify", "--conf", self.target_conf)
        self.tkv("migrate", "--overwrite", "--yes", self.registry, self.target)
        self.assertEqual(self.target_text(), self.out("export"))

    def test_what_is_written_to_the_source_meanwhile_is_told(self):
        self.tkv("import", given=many_keys())
        before = self.out("export")
        migrating = self.terminal_with_bars("migrate", self.registry, self.target)
        migrating.read_until(b"\rmigrate ")  # the source has been read
        self.tkv("set", "many.k00001", "changed meanwhile")
        code, told = migrating.finish()
        self.assertEqual(code, DONE)
        self.assertIn(f"tkv: note: {self.registry} was changed meanwhile", told)
        self.assertEqual(self.target_text(), before)
        told = self.tkv("migrate", "--overwrite", "--yes", self.registry, self.target).messages
        self.assertNotIn("meanwhile", told)
        self.assertEqual(self.target_text(), self.out("export"))

    def test_an_unfinished_target_of_an_earlier_version_is_no_source(self):
        self.tkv("set", "__tkv_migration", "/elsewhere")
        self.assertIn("unfinished migration", self.fails(CONFLICT, "migrate", self.registry, self.target))


if __name__ == "__main__":
    unittest.main()
