"""migrate: copies one registry into another, whatever interrupts it."""
import json
import unittest

from command import CONFLICT, NOT_FOUND, USAGE, CommandTest


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

    def test_an_interrupted_one_is_resumed(self):
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": f"value {number}"}
                                     for number in range(20000)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        migrating = self.terminal_with_bars("migrate", self.registry, self.target)
        migrating.read_until(b"\rmigrate ")  # the first keys are there; the comparison waits for a reader of its bars
        migrating.kill()
        self.assertEqual(self.out("get", "many.k00100", "--conf", self.target_conf), "value 100\n")
        self.assertEqual(self.out("get", "__tkv_migration", "--conf", self.target_conf), f"{self.registry}\n")
        self.assertIn("unfinished migration", self.fails(CONFLICT, "migrate", self.target, self.folder / "third"))
        self.assertIn("unfinished migration from", self.fails(CONFLICT, "migrate", self.folder / "tkv.conf", self.target))
        self.tkv("set", "many.k00001", "changed meanwhile")
        self.tkv("rm", "many.k00002")
        told = self.tkv("migrate", self.registry, self.target).messages
        self.assertIn("resuming the interrupted migration", told)
        self.assertEqual(self.target_text(), self.out("export"))
        self.tkv("verify", "--conf", self.target_conf)


if __name__ == "__main__":
    unittest.main()
