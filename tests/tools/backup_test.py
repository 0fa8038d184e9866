"""backup, restore and verify."""
import json
import os
import pathlib
import resource
import shutil
import signal
import subprocess
import sys
import threading
import unittest

MAKE_DAMAGE = pathlib.Path(sys.argv.pop(2)).resolve() if len(sys.argv) > 2 else None

from command import CONFLICT, CommandTest, DAMAGED, DIFFERS, DONE, NOT_FOUND, OTHER, PARTLY, UNUSABLE, USAGE, \
    kill  # noqa: E402


class WithKeys(CommandTest):
    def setUp(self):
        super().setUp()
        for key, words in (("app.hosts", ["--list", "alpha", "beta"]), ("app.nodes.alpha", ["up"]),
                           ("app.limit", ["--int64", "5000000000"]), ("SYSTEM.version.patch", ["7"])):
            self.tkv("set", "-p", key, *words)
        self.tkv("set", "app.bytes", "--hex", "00ff00")
        self.tkv("chown", "-R", "ada:staff", "app")
        self.tkv("chmod", "o=", "app.hosts")
        self.before = self.out("export")

    def backup(self, *arguments):
        return pathlib.Path(self.out("backup", "-q", *arguments).rstrip("\n"))

    def change(self):
        self.tkv("rm", "-r", "--yes", "app.nodes")
        self.tkv("set", "app.limit", "changed")
        self.tkv("set", "app.new", "later")


class Backup(WithKeys):
    def test_goes_to_the_configured_location_a_directory_or_a_file(self):
        other = self.folder / "other"
        other.mkdir()
        configured = [self.backup(), self.backup()]
        self.assertEqual({path.parent for path in configured}, {self.backups})
        self.assertEqual(len(set(configured)), 2)
        self.assertEqual(self.backup(other).parent, other)
        named = self.folder / "named.backup"
        self.assertEqual(self.backup(named), named)
        self.assertEqual({named.stat().st_mode & 0o777}, {0o600})
        self.assertIn("File exists", self.fails(CONFLICT, "backup", named))
        self.fails(NOT_FOUND, "backup", self.folder / "no" / "such")
        self.fails(NOT_FOUND, "backup", f"{self.folder}/missing/")

    def test_without_a_location_it_fails_with_a_reason(self):
        text = (self.folder / "tkv.conf").read_text().splitlines()
        (self.folder / "tkv.conf").write_text("\n".join(text[:2]) + "\n")
        self.assertIn("no backup location is configured; name a file or a directory, or set `backup_location`",
                      self.fails(USAGE, "backup"))
        self.assertRegex(self.out("status"), "last backup +unknown: no backup location is configured; set "
                                             "`backup_location`\n")

    def test_a_missing_location_fails_with_what_to_type_or_to_set(self):
        self.backups.rmdir()
        missing = f"{self.folder}/missing/"
        for words, place in (((), self.backups), ((missing,), missing)):
            with self.subTest(words=words):
                self.assertEqual(self.fails(NOT_FOUND, "backup", *words),
                                 f"tkv: the backup location {place} does not exist; type: mkdir -p '{place}'\n")
                subprocess.run(["sh", "-c", f"mkdir -p '{place}'"], check=True)
                self.backup(*words)
                shutil.rmtree(place)
        self.backups.write_text("a file")
        for words, place, remedy in (((), self.backups, "set `backup_location` to one"),
                                     ((f"{self.backups}/",), f"{self.backups}/", "name one")):
            with self.subTest(words=words, place="a file"):
                self.assertEqual(self.fails(NOT_FOUND, "backup", *words),
                                 f"tkv: the backup location {place} is not a directory; {remedy}\n")

    def test_a_stream_can_be_verified_and_restored_but_not_written(self):
        path = self.backup()
        report = json.loads(self.out("verify", "--json", "-", given=path.read_bytes()))
        self.assertEqual((report["file"], report["sound"]), ("standard input", True))
        self.assertIn("standard input is damaged", self.fails(DAMAGED, "verify", "-", given=path.read_bytes()[:-1]))
        self.change()
        self.tkv("restore", "-q", "--overwrite", "--yes", "-", given=path.read_bytes())
        self.assertEqual(self.out("export"), self.before)
        self.assertIn("name a file", self.fails(USAGE, "backup", "-"))

    def test_a_signal_leaves_nothing_behind(self):
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": "x" * 400}
                                     for number in range(20000)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(signal=number):
                terminal = self.terminal_with_bars("backup")
                terminal.read_until(b"\rbackup ")
                self.assertEqual(len(list(self.backups.iterdir())), 1)
                terminal.process.send_signal(number)
                self.assertEqual(terminal.finish()[0], -number, "it was done too soon to be interrupted")
                self.assertEqual(list(self.backups.iterdir()), [])

    def test_says_what_it_holds(self):
        told = json.loads(self.out("backup", "--json"))
        checked = json.loads(self.out("verify", "--json", told["file"]))
        keys = json.loads(self.before)["keys"]
        for report in (told, checked):
            self.assertEqual((report["keys"], report["values"], report["value_bytes"]),
                             (len(keys), 5, 12 + 3 + 8 + 2 + 3))
        self.assertEqual(told["xxh3_128"], checked["xxh3_128"])
        self.assertIs(checked["sound"], True)
        message = self.tkv("backup").messages
        self.assertEqual(message, f"tkv: backup of {len(keys)} keys, 5 values, checked\n")

    def test_a_failed_write_leaves_no_file(self):
        self.tkv("set", "app.big", "--bytes", "-", given=b"x" * 2**20)

        def small_files():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (65536, 65536))

        done = subprocess.run(self.words("backup"), env=self.environment, capture_output=True, preexec_fn=small_files,
                              check=False)
        self.assertEqual((done.returncode, done.stdout), (OTHER, b""))
        self.assertIn(b"File too large", done.stderr)
        self.assertEqual(list(self.backups.iterdir()), [])

    def test_is_one_state_while_others_write(self):
        self.tkv("set", "one", "0")
        self.tkv("set", "two", "0")
        stop = threading.Event()
        failures = []

        def write():
            number = 0
            while not stop.is_set():
                number += 1
                keys = [{"name": ""}] + [{"name": name, "type": "text", "value": str(number)} for name in ("one", "two")]
                done = self.run_command("import", "-q", "--merge", given=json.dumps({"tkv": 1, "top": "", "keys": keys}))
                if done.code != DONE:
                    failures.append(done.err)

        writer = threading.Thread(target=write)
        writer.start()
        try:
            backups = [self.backup() for _ in range(8)]
        finally:
            stop.set()
            writer.join()
        self.assertEqual(failures, [])
        self.tkv("rm", "one")
        self.tkv("rm", "two")
        for path in backups:
            self.tkv("restore", "-q", path, "one")
            self.tkv("restore", "-q", path, "two")
            self.assertEqual(self.out("get", "one"), self.out("get", "two"))
            self.tkv("rm", "one")
            self.tkv("rm", "two")


class Restore(WithKeys):
    def test_brings_everything_back_into_an_empty_registry(self):
        path = self.backup()
        self.registry = self.folder / "second"
        self.configure()
        self.tkv("restore", path)
        self.assertEqual(self.out("export"), self.before)
        self.tkv("verify")

    def test_refuses_to_overwrite_unless_asked(self):
        path = self.backup()
        self.change()
        changed = self.out("export")
        self.assertIn("--overwrite replaces it", self.fails(CONFLICT, "restore", path))
        self.assertIn("--overwrite replaces it", self.fails(CONFLICT, "restore", path, "app"))
        self.assertEqual(self.out("export"), changed)
        self.tkv("restore", "--overwrite", path)
        self.assertEqual(self.out("export"), self.before)
        self.fails(CONFLICT, "restore", path)

    def test_asks_before_it_deletes_several_keys(self):
        path = self.backup()
        self.tkv("set", "-p", "new.one", "1")
        self.assertIn("the restore deletes 2 keys", self.fails(CONFLICT, "restore", "--overwrite", path))
        self.tkv("restore", "--overwrite", "--yes", path)
        self.assertEqual(self.out("export"), self.before)

    def test_of_one_subtree_leaves_the_rest(self):
        path = self.backup()
        self.change()
        self.tkv("restore", path, "app.nodes")
        self.assertEqual(self.out("get", "app.nodes.alpha"), "up\n")
        self.assertEqual(self.out("get", "app.limit"), "changed\n")
        self.fails(NOT_FOUND, "restore", path, "app.nothing")

    def test_of_a_backup_of_a_subtree(self):
        path = self.backup("--key", "app")
        self.tkv("rm", "-r", "--yes", "app")
        self.tkv("restore", path)
        self.assertEqual(self.out("export"), self.before)
        self.fails(NOT_FOUND, "restore", path, "SYSTEM")

    def test_dry_run_changes_nothing(self):
        path = self.backup()
        self.change()
        changed = self.out("export")
        names = [json.loads(line[1:])["name"] for line in
                 self.out("restore", "--dry-run", path, exits=DIFFERS).splitlines()]
        self.assertEqual(names, ["app.limit", "app.limit", "app.new", "app.nodes", "app.nodes.alpha"])
        self.assertEqual(self.out("restore", "--dry-run", self.backup()), "")
        self.assertEqual(self.out("export"), changed)

    def test_a_damaged_backup_is_refused_wherever_the_damage_is(self):
        path = self.backup()
        sound = path.read_bytes()
        damaged = self.folder / "damaged.backup"
        for at in range(12, len(sound), 7):
            damaged.write_bytes(sound[:at] + bytes([sound[at] ^ 0x40]) + sound[at + 1:])
            self.fails(DAMAGED, "verify", damaged)
        for size in range(12, len(sound), 41):
            damaged.write_bytes(sound[:size])
            self.fails(DAMAGED, "restore", "--overwrite", damaged)
        damaged.write_bytes(sound + b"x")
        self.fails(DAMAGED, "restore", "--overwrite", damaged)
        self.assertEqual(self.out("export"), self.before)

    def test_what_is_no_backup_is_refused(self):
        other = self.folder / "other"
        for contents in (b"", b"TKVBACK", b"#!/bin/sh\necho no backup\n"):
            other.write_bytes(contents)
            self.assertIn("is not a backup", self.fails(USAGE, "restore", other))
        other.write_bytes(b"TKVBACKUP 3\n" + b"\0" * 100)
        self.assertIn("in a format that this release does not know", self.fails(USAGE, "restore", other))
        self.fails(NOT_FOUND, "restore", self.folder / "none")

    def test_killed_at_any_time_it_is_whole_or_nothing(self):
        keys = [{"name": "many"}] + [{"name": f"many.k{number:05}", "type": "text", "value": "x" * (number % 300)}
                                     for number in range(5000)]
        self.tkv("import", given=json.dumps({"tkv": 1, "top": "many", "keys": keys}))
        path = self.backup()
        whole = self.out("export")
        self.tkv("rm", "-r", "--yes", "many")
        self.tkv("set", "app.limit", "changed")
        changed = self.out("export")
        for bar, inside in ((b"\rread backup ", "reading"), (b"\rcompare ", "comparing"), (b"\rwrite ", "writing")):
            with self.subTest(killed_while=inside):
                restoring = self.terminal_with_bars("restore", "--overwrite", path)
                restoring.read_until(bar)
                restoring.kill()
                self.assertEqual(self.out("export"), changed)
        killed = 0
        for wait in range(0, 400, 12):
            restoring = subprocess.Popen(self.words("restore", "-q", "--overwrite", path), env=self.environment)
            try:
                restoring.wait(wait / 1000)
            except subprocess.TimeoutExpired:
                pass
            kill(restoring)
            killed += restoring.returncode == -signal.SIGKILL
            now = self.out("export")
            self.assertIn(now, (changed, whole))
            if now == whole:
                break
        self.assertGreater(killed, 0, "no kill fell inside the work")
        self.tkv("restore", "-q", "--overwrite", path)
        self.assertEqual(self.out("export"), whole)
        self.tkv("verify")


class Verify(WithKeys):
    def test_counts_a_sound_registry(self):
        self.golden("verify.txt", self.out("verify"))
        report = json.loads(self.out("verify", "--json"))
        self.assertEqual(report, {"keys": 10, "values": 5, "value_bytes": 28, "repaired": 0, "sound": True,
                                  "findings": []})

    def damage(self, sound, damaged):
        """Changes bytes in the registry's file, wherever they are."""
        data = self.registry / "data.mdb"
        contents = data.read_bytes()
        self.assertIn(sound, contents)
        data.write_bytes(contents.replace(sound, damaged))

    def test_names_the_key_whose_value_is_damaged(self):
        self.tkv("set", "app.marked", "sound-as-a-bell")
        self.damage(b"sound-as-a-bell", b"sound-as-a-bull")
        result = self.tkv("verify", exits=DAMAGED)
        self.assertIn("damaged-value: key 'app.marked'", result.text)
        self.assertEqual(result.messages, "tkv: the registry is damaged\n")
        finding, = json.loads(self.tkv("verify", "--json", exits=DAMAGED).text)["findings"]
        self.assertEqual((finding["kind"], finding["name"]), ("damaged-value", "app.marked"))
        self.assertIn("app.marked", self.fails(DAMAGED, "get", "app.marked"))
        self.assertEqual(self.out("get", "app.nodes.alpha"), "up\n")
        self.fails(DAMAGED, "backup")
        self.assertEqual(list(self.backups.iterdir()), [])

    def test_names_the_key_whose_record_is_damaged(self):
        self.tkv("create", "app.marked", "--owner", "owner-of-the-marked")
        self.damage(b"owner-of-the-marked", b"owner-of-the-market")
        result = self.tkv("verify", exits=DAMAGED)
        self.assertIn("damaged-key: key 'app.marked'", result.text)

    def test_what_is_sound_can_be_saved_beside_damage(self):
        self.tkv("create", "app.marked")
        self.tkv("set", "app.marked.below", "kept with its parent")
        self.tkv("set", "app.marked", "sound-as-a-bell")
        self.tkv("create", "app.broken", "--owner", "owner-of-the-broken")
        self.tkv("set", "app.broken.below", "lost with its parent")
        self.damage(b"sound-as-a-bell", b"sound-as-a-bull")
        self.damage(b"owner-of-the-broken", b"owner-of-the-brokem")
        self.fails(DAMAGED, "export")
        exported = self.tkv("export", "--skip-damaged", exits=PARTLY)
        keys = {key["name"]: key for key in json.loads(exported.text)["keys"]}
        self.assertNotIn("app.broken", keys)
        self.assertNotIn("app.broken.below", keys)
        self.assertNotIn("type", keys["app.marked"])
        self.assertEqual(keys["app.marked.below"]["value"], "kept with its parent")
        self.assertIn("left out: key 'app.broken': ", exported.messages)
        self.assertIn("left out: the value of key 'app.marked': ", exported.messages)
        self.assertIn("2 damaged parts left out", exported.messages)
        backup = self.tkv("backup", "--skip-damaged", exits=PARTLY)
        self.assertIn("2 damaged parts left out", backup.messages)
        self.registry = self.folder / "second"
        self.configure()
        self.tkv("restore", backup.text.rstrip("\n"))
        self.assertEqual(self.out("get", "app.marked.below"), "kept with its parent\n")
        self.assertEqual(self.out("get", "app.marked"), "")
        self.tkv("verify")

    def damage_two_keys(self):
        """Leaves 'app.broken' with a damaged record and a key below it, and 'app.marked' with a damaged value."""
        self.tkv("set", "app.marked", "sound-as-a-bell")
        self.tkv("create", "app.broken", "--owner", "owner-of-the-broken")
        self.tkv("set", "app.broken.below", "kept in the backup")
        self.whole = self.backup()
        self.before = self.out("export")
        self.damage(b"sound-as-a-bell", b"sound-as-a-bull")
        self.damage(b"owner-of-the-broken", b"owner-of-the-brokem")

    def test_damaged_keys_can_be_deleted(self):
        self.damage_two_keys()
        self.tkv("rm", "app.marked")
        self.tkv("rm", "app.broken")
        self.fails(NOT_FOUND, "get", "app.broken")
        self.tkv("verify", "--repair")  # of what was below it
        self.tkv("verify")

    def test_the_key_above_damaged_keys_can_be_deleted(self):
        self.damage_two_keys()
        self.assertIn("deletes", self.fails(CONFLICT, "rm", "-r", "app"))
        self.tkv("rm", "-r", "--yes", "app")
        self.fails(NOT_FOUND, "get", "app")
        self.tkv("verify", "--repair")
        self.tkv("verify")

    def test_damaged_keys_can_be_set_anew(self):
        self.damage_two_keys()
        self.fails(DAMAGED, "set", "--new", "app.broken", "x")
        for name in ("app.marked", "app.broken"):
            self.tkv("set", name, "anew")
            self.assertEqual(self.out("get", name), "anew\n")
        self.tkv("verify", "--repair")
        self.tkv("verify")

    def test_damaged_keys_are_restored_alone_or_with_everything(self):
        self.damage_two_keys()
        shown = self.tkv("restore", "--overwrite", "--dry-run", self.whole, exits=DIFFERS).text
        self.assertIn('-{"name":"app.broken"}\n', shown)
        self.assertIn("exists; --overwrite", self.fails(CONFLICT, "restore", self.whole))
        self.tkv("restore", "--overwrite", "--yes", self.whole, "app.broken")
        self.assertIn("app.marked", self.fails(DAMAGED, "export"))
        self.tkv("restore", "--overwrite", "--yes", self.whole)
        self.assertEqual(self.out("export"), self.before)
        self.tkv("verify", "--repair")
        self.tkv("verify")
        self.assertEqual(self.out("export"), self.before)

    def test_an_export_of_a_damaged_top_holds_nothing_and_says_so(self):
        self.damage_two_keys()
        saved = self.folder / "saved.json"
        self.fails(DAMAGED, "export", "-o", saved, "app.broken")
        self.assertFalse(saved.exists())
        result = self.tkv("export", "--skip-damaged", "app.broken", exits=PARTLY)
        self.assertEqual(json.loads(result.text),
                         {"tkv": 1, "top": "app.broken", "keys": [], "left_out": ["app.broken"]})
        self.assertIn("left out: key 'app.broken', the top, with everything below it: ", result.messages)
        self.assertIn("the export is incomplete: 1 damaged part left out", result.messages)
        report = self.tkv("export", "--json", "--skip-damaged", "-o", saved, "app.broken", exits=PARTLY)
        self.assertEqual(saved.read_text(), result.text)
        self.assertEqual(json.loads(report.text),
                         {"done": "export", "name": "app.broken", "file": str(saved), "keys": 0})
        errors = [json.loads(line) for line in report.messages.splitlines()]
        self.assertEqual([error["error"] for error in errors], ["damaged", "partly-done"])

    def test_a_backup_of_a_damaged_top_holds_nothing_and_says_so(self):
        self.damage_two_keys()
        saved = self.folder / "saved.backup"
        words = ("backup", saved, "--key", "app.broken")
        self.fails(DAMAGED, *words)
        self.assertFalse(saved.exists())
        result = self.tkv(*words, "--skip-damaged", exits=PARTLY)
        self.assertIn("left out: key 'app.broken', the top, with everything below it: ", result.messages)
        self.assertIn("backup of 0 keys, 0 values, checked", result.messages)
        self.assertIn("the backup is incomplete: 1 damaged part left out", result.messages)
        verified = json.loads(self.out("verify", "--json", saved))
        self.assertEqual((verified["keys"], verified["sound"]), (0, True))
        saved.unlink()
        report = self.tkv(*words, "--json", "--skip-damaged", exits=PARTLY)
        self.assertEqual(json.loads(report.text)["keys"], 0)

    def test_what_holds_no_key_is_restored_by_changing_nothing(self):
        """Above all, it deletes nothing: what it lacks could not be read."""
        self.damage_two_keys()
        export = self.folder / "saved.json"
        backup = self.folder / "saved.backup"
        self.tkv("export", "--skip-damaged", "-o", export, "app.broken", exits=PARTLY)
        self.tkv("backup", backup, "--key", "app.broken", "--skip-damaged", exits=PARTLY)
        self.tkv("restore", "--overwrite", "--yes", self.whole)
        for words in (("import", export), ("import", "--replace", "--yes", export), ("import", "--merge", export),
                      ("restore", backup), ("restore", "--overwrite", "--yes", backup)):
            with self.subTest(words=words):
                result = self.tkv(*words)
                self.assertIn(f"{words[0]} of 0 keys to key 'app.broken': 0 changes", result.messages)
                self.assertEqual(json.loads(self.out(*words, "--json")),
                                 {"done": words[0], "name": "app.broken", "keys": 0, "changes": 0})
                self.assertEqual(self.out(*words, "--dry-run"), "")
                self.assertEqual(self.out("export"), self.before)
        self.fails(NOT_FOUND, "restore", backup, "app.broken.below")

    def saved_beside_damage(self):
        """Returns an export and a backup that lack the damaged parts of the registry, which is whole afterwards, and has
        a key more than when they were written."""
        self.damage_two_keys()
        export, backup = self.folder / "saved.json", self.folder / "saved.backup"
        self.tkv("export", "--skip-damaged", "-o", export, exits=PARTLY)
        self.tkv("backup", "--skip-damaged", backup, exits=PARTLY)
        self.tkv("restore", "--overwrite", "--yes", self.whole)
        self.tkv("verify", "--repair")
        self.tkv("set", "app.later", "added")
        self.tkv("set", "app.limit", "changed")
        return export, backup

    def test_an_export_and_a_backup_name_what_they_lack(self):
        export, backup = self.saved_beside_damage()
        self.assertEqual(json.loads(export.read_text())["left_out"], ["app.broken"])
        report = json.loads(self.out("verify", "--json", backup))
        self.assertEqual((report["left_out"], report["values_left_out"]), (["app.broken"], ["app.marked"]))
        shown = self.out("verify", backup)
        self.assertIn("left out     key 'app.broken'\nleft out     the value of key 'app.marked'\n", shown)
        report = json.loads(self.out("verify", "--json", self.whole))
        self.assertEqual((report["left_out"], report["values_left_out"]), ([], []))
        self.assertNotIn("left out", self.out("verify", self.whole))

    def test_what_a_file_lacks_since_it_was_damaged_is_not_deleted_by_bringing_it_in(self):
        """All else is brought to what the file says."""
        for file, *words in zip(self.saved_beside_damage(), ("import", "restore"), ("--replace", "--overwrite")):
            with self.subTest(words=words):
                shown = self.tkv(*words, "--dry-run", file, exits=DIFFERS)
                self.assertEqual(len(shown.text.splitlines()), 3, shown.text)
                self.assertNotIn("app.broken", shown.text)
                self.assertNotIn("app.marked", shown.text)
                done = self.tkv(*words, "--yes", file)
                self.assertIn("tkv: left as it is: key 'app.broken', or subkeys of it, which could not be read when the "
                              "file was written\n", done.messages)
                self.assertEqual(self.out("export"), self.before)
                self.tkv("set", "app.later", "added")
                self.tkv("set", "app.limit", "changed")

    def test_what_is_still_damaged_stays_when_a_file_that_lacks_it_is_brought_in(self):
        self.damage_two_keys()
        backup = self.folder / "saved.backup"
        self.tkv("backup", "--skip-damaged", backup, exits=PARTLY)
        self.tkv("set", "app.limit", "changed")
        self.tkv("restore", "--overwrite", "--yes", backup)
        self.assertEqual(self.out("get", "app.limit"), "5000000000\n")
        self.fails(DAMAGED, "get", "app.broken")
        self.fails(DAMAGED, "get", "app.marked")

    def test_a_part_of_a_backup_that_lacks_it_points_to_an_older_one(self):
        _, backup = self.saved_beside_damage()
        for part in ("app.broken", "app.broken.below"):
            self.assertEqual(self.fails(NOT_FOUND, "restore", "--overwrite", "--yes", backup, part),
                             f"tkv: {backup} does not contain key '{part}', which could not be read when it was written; "
                             "use an older backup\n")
        self.assertNotIn("older", self.fails(NOT_FOUND, "restore", backup, "app.none"))
        done = self.tkv("restore", "--overwrite", backup, "app.nodes")
        self.assertNotIn("left as it is", done.messages)

    def test_what_an_export_lacks_since_it_was_damaged_is_not_a_difference(self):
        export, _ = self.saved_beside_damage()
        limit, later = '"name":"app.limit"', '"name":"app.later"'
        for words, signs in (((".", f"@{export}"), ("-", "+", "-")), ((f"@{export}", "."), ("-", "+", "+"))):
            with self.subTest(words=words):
                result = self.tkv("diff", *words, exits=DIFFERS)
                lines = sorted(result.text.splitlines(), key=lambda line: later in line)
                self.assertEqual([line[0] for line in lines], list(signs))
                self.assertTrue(all(limit in line for line in lines[:2]) and later in lines[2], result.text)
                self.assertIn("tkv: not compared: key 'app.broken', or subkeys of it, which could not be read when the "
                              "file was written\n", result.messages)
        self.tkv("rm", "app.later")
        self.tkv("set", "app.limit", "--int64", "5000000000")
        self.assertEqual(self.tkv("diff", ".", export).text, "")

    def test_an_export_that_lacks_parts_can_be_brought_in_elsewhere(self):
        export, _ = self.saved_beside_damage()
        part = self.folder / "part.json"
        text = json.loads(export.read_text())
        keys = [key for key in text["keys"] if key["name"].startswith("app")]
        part.write_text(json.dumps({**text, "top": "app", "keys": keys}))
        self.tkv("import", "--at", "copy", part)
        self.fails(NOT_FOUND, "get", "copy.broken")
        self.tkv("set", "copy.broken", "kept")
        self.tkv("set", "copy.other", "removed")
        self.tkv("import", "--replace", "--at", "copy", part)
        self.assertEqual(self.out("get", "copy.broken"), "kept\n")
        self.fails(NOT_FOUND, "get", "copy.other")

    def test_only_a_backup_that_lacks_something_has_a_format_that_former_releases_refuse(self):
        _, backup = self.saved_beside_damage()
        self.assertTrue(backup.read_bytes().startswith(b"TKVBACKUP 2\n"))
        whole = self.backup("--skip-damaged")
        self.assertTrue(whole.read_bytes().startswith(b"TKVBACKUP 1\n"))

    def test_skipping_damage_where_there_is_none_is_a_plain_success(self):
        self.assertEqual(self.out("export", "--skip-damaged"), self.before)
        self.tkv("backup", "--skip-damaged")

    def test_repair_removes_what_belongs_to_no_key(self):
        subprocess.run([MAKE_DAMAGE, self.registry, "orphans"], check=True)
        findings = json.loads(self.tkv("verify", "--json", exits=DAMAGED).text)["findings"]
        self.assertEqual(sorted(finding["kind"] for finding in findings), ["orphan", "orphan-value"])
        self.assertIn("'stray'", self.tkv("verify", exits=DAMAGED).text)
        report = json.loads(self.out("verify", "--repair", "--json"))
        self.assertEqual((report["repaired"], report["sound"]), (2, True))
        self.assertEqual(self.out("verify"), self.out("verify", "--repair"))
        self.assertEqual(self.out("export"), self.before)

    def test_repair_leaves_a_damaged_key_alone(self):
        subprocess.run([MAKE_DAMAGE, self.registry, "orphans"], check=True)
        self.tkv("set", "app.marked", "sound-as-a-bell")
        self.damage(b"sound-as-a-bell", b"sound-as-a-bull")
        result = self.tkv("verify", "--repair", exits=PARTLY)
        self.assertIn("damaged-value: key 'app.marked'", result.text)
        self.assertIn("repaired     2\n", result.text)

    def test_twins_are_named_both_and_left_alone(self):
        subprocess.run([MAKE_DAMAGE, self.registry, "twins"], check=True)
        for words in (("verify", "--json"), ("verify", "--json", "--repair")):
            with self.subTest(words=words):
                result = self.tkv(*words, exits=DAMAGED)
                report = json.loads(result.text)
                self.assertEqual((report["sound"], report["repaired"]), (False, 0))
                self.assertEqual([(finding["kind"], finding["name"], finding["level"], finding["parent_id"])
                                  for finding in report["findings"]],
                                 [("duplicate-id", "one", "one", 1), ("duplicate-id", "two", "two", 1)])
                self.assertEqual(len({finding["id"] for finding in report["findings"]}), 1)
                self.assertEqual(json.loads(result.messages)["error"], "damaged")
        self.assertIn("duplicate-id: key 'two': another node has the same id\n", self.tkv("verify", exits=DAMAGED).text)

    def test_keys_that_hang_below_themselves_are_named_and_can_be_deleted(self):
        subprocess.run([MAKE_DAMAGE, self.registry, "loop"], check=True)
        findings = json.loads(self.tkv("verify", "--json", exits=DAMAGED).text)["findings"]
        self.assertEqual({(finding["kind"], finding["name"]) for finding in findings},
                         {("duplicate-id", "ring"), ("duplicate-id", "ring.ring")})
        for words in (("export",), ("tree",), ("backup",), ("rm", "-r", "ring")):
            with self.subTest(words=words):
                self.assertIn("hangs below itself", self.fails(DAMAGED, *words))
        self.assertEqual(list(self.backups.iterdir()), [])
        self.tkv("rm", "-r", "--yes", "ring")
        self.tkv("verify")
        self.assertEqual(self.out("export"), self.before)

    def test_a_file_that_is_no_registry_is_not_touched(self):
        data = self.registry / "data.mdb"
        data.write_bytes(b"not a registry" * 1000)
        for words in (("verify",), ("set", "a", "x")):
            with self.subTest(words=words):
                self.assertIn("is not the data file of a registry", self.fails(UNUSABLE, *words))
        self.assertEqual(data.read_bytes(), b"not a registry" * 1000)


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
class OrdinaryUser(CommandTest):
    """A user who is not root, with a registry of his own."""

    ID = 54321

    def setUp(self):
        super().setUp()
        for folder in (self.folder, self.backups):
            os.chown(folder, self.ID, self.ID)

    def run_command(self, *arguments, prefix=(), **how):
        prefix = ("setpriv", f"--reuid={self.ID}", f"--regid={self.ID}", "--clear-groups", *prefix)
        return super().run_command(*arguments, prefix=prefix, **how)

    def masks_of_the_root(self):
        return json.loads(self.out("stat", "--json", "."))["masks"]

    def test_repairs_a_damaged_root_and_restores_it(self):
        self.tkv("set", "-p", "app.name", "billing")
        whole = self.out("backup", "-q").strip()
        before = self.out("export")
        masks = self.masks_of_the_root()
        data = self.registry / "data.mdb"
        root = b"N" + bytes(8) + b"\2\1\0\0\1"  # its key, and the first bytes of its record
        contents = data.read_bytes()
        self.assertGreaterEqual(contents.count(root), 1)
        data.write_bytes(contents.replace(root, root[:-1] + b"\3"))
        self.assertIn("damaged-key: the root key", self.tkv("verify", exits=DAMAGED).text)
        for words in (("export",), ("backup",)):
            result = self.tkv(*words, "--skip-damaged", exits=PARTLY)
            self.assertIn("left out: the root key, the top, with everything below it: ", result.messages)
            self.assertIn("tkv verify --repair gives the root a new record", result.messages)
        self.tkv("verify", "--repair")
        self.assertEqual(self.masks_of_the_root(), [0x3f, 0, 0])
        self.assertEqual(self.out("get", "app.name"), "billing\n")
        self.tkv("restore", "--overwrite", "--yes", whole)
        self.assertEqual(self.masks_of_the_root(), masks)
        self.assertEqual(self.out("export"), before)
        self.tkv("verify")


if __name__ == "__main__":
    unittest.main()
