"""edit: a subtree in an editor, applied as one change unless others were faster."""
import grp
import json
import os
import pwd
import re
import shlex
import shutil
import stat
import sys
import unittest

from command import COMMAND, CONFLICT, CommandTest, DENIED, DONE, NOT_FOUND, OTHER, USAGE


class EditTest(CommandTest):
    def setUp(self):
        super().setUp()
        self.scratch = self.folder / "scratch"
        self.scratch.mkdir()
        self.environment["TMPDIR"] = str(self.scratch)
        self.tkv("set", "-p", "app.greeting", "hello")
        self.tkv("set", "app.limit", "--int32", "5")
        self.tkv("set", "app.nodes.alpha", "up", "-p")
        self.before = self.out("export")

    def edit(self, script, *words, exits=DONE, **how):
        """Runs the command with an editor that runs this script in Python, with the file's path as `path` and its text
        as `text`. What the script leaves in `text` is written."""
        return self.tkv("edit", *words, exits=exits, environment={"EDITOR": self.editor(script)}, **how)

    def editor(self, script):
        path = self.folder / "editor.py"
        path.write_text("import os, pathlib, subprocess, sys\npath = pathlib.Path(sys.argv[1])\ntext = path.read_text()\n"
                        f"tkv = {str(COMMAND)!r}\n{script}\npath.write_text(text)\n")
        return f"{shlex.quote(sys.executable)} {shlex.quote(str(path))}"

    def kept(self, result):
        """The text in the only file that is left, which the messages name."""
        named, = re.findall(r"the edited text is in (\S+)", result.messages)
        path, = self.scratch.glob("*/*")
        self.assertEqual(named, str(path))
        self.assertEqual((stat.S_IMODE(path.stat().st_mode), stat.S_IMODE(path.parent.stat().st_mode)), (0o600, 0o700))
        text = path.read_text()
        shutil.rmtree(path.parent)
        return text

    def assert_nothing_is_left(self):
        self.assertEqual(list(self.scratch.iterdir()), [])

    def revision(self):
        self.tkv("set", "mark", "x")
        return json.loads(self.out("stat", "--json", "mark"))["revision"]


class Edit(EditTest):
    def test_makes_what_differs_as_one_change(self):
        first = self.revision()
        result = self.edit("""
lines = text.splitlines()
lines = [line for line in lines if '"app.limit"' not in line]
lines.insert(-1, ',{"name":"app.new","type":"text","value":"n"},{"name":"app.new.deep","mode":"u=rl,g=,o="}')
text = "\\n".join(lines).replace("hello", "good bye") + "\\n"
""", "app")
        self.assertEqual((result.text, result.messages), ("", "tkv: edit of key 'app': 4 changes\n"))
        self.assertEqual(self.out("get", "app.greeting", "app.new"), "good bye\nn\n")
        self.assertEqual(json.loads(self.out("stat", "--json", "app.new.deep"))["masks"], [3, 0, 0])
        self.fails(NOT_FOUND, "get", "app.limit")
        self.assertEqual(self.out("get", "app.nodes.alpha"), "up\n")
        self.assertEqual(self.revision(), first + 2)
        self.assert_nothing_is_left()

    def test_the_editor_sees_the_text_of_an_export_in_a_private_file(self):
        shown = self.folder / "shown"
        self.edit(f"""
status = [oct(each.stat().st_mode & 0o777) for each in (path, path.parent)]
pathlib.Path({str(shown)!r}).write_text(" ".join(status) + "\\n" + text)
""", "app")
        self.assertEqual(shown.read_text(), "0o600 0o700\n" + self.out("export", "app"))
        self.assert_nothing_is_left()

    def test_an_unchanged_text_changes_nothing(self):
        first = self.revision()
        for script in ("", "text = text.replace('hello', 'hello')", "text = text + '\\n'"):
            with self.subTest(script=script):
                self.assertEqual(self.edit(script, "app").messages, "tkv: edit of key 'app': nothing was changed\n")
        self.assertEqual(self.revision(), first + 1)
        self.assert_nothing_is_left()

    def test_what_an_entry_leaves_out_stays(self):
        self.tkv("chmod", "u=rw,g=r,o=", "app.limit")
        before = self.out("export", "app")
        self.edit("""
import json
document = json.loads(text)
for key in document["keys"]:
    for member in ("owner", "group", "mode"):
        del key[member]
text = json.dumps(document)
""", "app")
        self.assertEqual(self.out("export", "app"), before)

    def test_rights_are_edited_too(self):
        self.edit("text = text.replace('o=rl', 'o=')", "app.greeting")
        self.assertEqual(json.loads(self.out("stat", "--json", "app.greeting"))["masks"], [63, 63, 0])

    def test_the_root_can_be_edited(self):
        self.edit("text = text.replace('hello', 'bye')", ".")
        self.assertEqual(self.out("export"), self.before.replace("hello", "bye"))

    def test_as_json(self):
        result = self.edit("text = text.replace('hello', 'bye')", "--json", "app")
        self.assertEqual(json.loads(result.text), {"done": "edit", "name": "app", "changes": 1})

    def test_visual_comes_before_editor_and_may_have_arguments(self):
        environment = {"VISUAL": "sed -i s/hello/bye/", "EDITOR": "false"}
        self.tkv("edit", "app", environment=environment)
        self.assertEqual(self.out("get", "app.greeting"), "bye\n")

    def test_an_editor_that_fails_changes_nothing(self):
        for editor in ("false", "/no/such/editor"):
            with self.subTest(editor=editor):
                result = self.tkv("edit", "app", exits=OTHER, environment={"EDITOR": editor})
                self.assertIn(f"the editor '{editor}' failed; nothing was done", result.messages)
                self.assert_nothing_is_left()
        result = self.edit("path.write_text(text.replace('hello', 'bye')); sys.exit(3)", "app", exits=OTHER)
        self.assertIn('"bye"', self.kept(result))
        self.assertEqual(self.out("export"), self.before)

    def test_a_key_that_does_not_exist_opens_no_editor(self):
        result = self.edit("raise SystemExit('an editor was opened')", "nothing", exits=NOT_FOUND)
        self.assertNotIn("an editor was opened", result.messages)
        self.assert_nothing_is_left()


class Mistakes(EditTest):
    def test_a_text_that_is_no_export_is_kept(self):
        for script, reason in (("text = text.replace('{', '', 1)", "line 1"), ("text = ''", "line 1"),
                               ("text = text.replace('\"app.limit\"', '\"a..b\"')", "a..b"),
                               ("text = text.replace('\"app', '\"other')", "must stay key 'app'"),
                               ("text = '{\"tkv\":1,\"top\":\"app\",\"keys\":[]}'", "must hold at least the top"),
                               ("text = text.replace('\"app.nodes\"', '\"app.notes\"')", "app.nodes")):
            with self.subTest(script=script):
                result = self.edit(script, "app", exits=USAGE)
                self.assertIn(reason, result.messages)
                self.kept(result)
        self.assertEqual(self.out("export"), self.before)

    def on_terminal_with(self, script, answer):
        terminal = self.terminal("edit", "app", environment={"EDITOR": self.editor(script)})
        terminal.read_until(b"Edit the text again? [y/N] ")
        terminal.type(answer)
        return terminal.finish()

    # Leaves a mistake the first time, and corrects it the second time.
    TWICE = "text = text.replace('hello', 'bye\"') if 'hello' in text else text.replace('bye\"', 'bye')"

    def test_a_person_may_edit_again(self):
        code, seen = self.on_terminal_with(self.TWICE, "y\n")
        self.assertEqual(code, DONE)
        self.assertRegex(seen, r"^tkv: not JSON: .*\ntkv: Edit the text again\? \[y/N\] y\ntkv: edit of key 'app': 1 change\n$")
        self.assertEqual(self.out("get", "app.greeting"), "bye\n")
        self.assert_nothing_is_left()

    def test_a_person_may_give_up_and_keeps_the_text(self):
        code, seen = self.on_terminal_with(self.TWICE, "n\n")
        self.assertEqual(code, USAGE)
        self.assertRegex(seen, r"tkv: nothing was done; the edited text is in \S+\n$")
        path, = self.scratch.glob("*/*")
        self.assertIn('bye""', path.read_text())
        self.assertEqual(self.out("export"), self.before)

    def test_deleting_several_keys_is_asked_for(self):
        script = "text = text[:text.index(',\\n{\"name\":\"app.nodes\"')] + '\\n]}\\n'"
        result = self.edit(script, "app", exits=CONFLICT)
        self.assertIn("the edit deletes 2 keys; without a terminal to ask on, this needs --yes", result.messages)
        self.kept(result)
        self.assertEqual(self.out("export"), self.before)
        self.edit(script, "--yes", "app")
        self.assertEqual(self.out("ls", "app"), "greeting\nlimit\n")


class Conflicts(EditTest):
    def conflict(self, script, *meanwhile):
        """Edits while others change something, and expects that nothing comes of it."""
        change = f"subprocess.run([tkv, *{meanwhile!r}], check=True)"
        result = self.edit(f"{change}\n{script}", "--yes", "app", exits=CONFLICT)
        self.assertIn("changed meanwhile", result.messages)
        return self.kept(result)

    def test_a_change_of_others_is_a_conflict_and_the_text_is_kept(self):
        script = "text = text.replace('hello', 'bye')"
        for words in (("set", "app.greeting", "hi"), ("set", "app.limit", "--int32", "6"), ("chmod", "o=", "app.limit"),
                      ("create", "app.other"), ("create", "app.nodes.alpha.x"), ("rm", "-r", "--yes", "app.nodes"),
                      ("mv", "app.limit", "app.most"), ("rm", "-r", "--yes", "app")):
            with self.subTest(words=words):
                self.tkv("import", "--replace", "--yes", given=self.before)
                self.assertIn('"bye"', self.conflict(script, *words))
                self.assertNotIn("bye", self.out("export"))

    def test_a_key_that_was_made_anew_with_the_same_value_is_another(self):
        self.conflict("text = text.replace('hello', 'bye')\n"
                      "subprocess.run([tkv, 'set', 'app.greeting', 'hello'], check=True)", "rm", "app.greeting")
        self.assertEqual(self.out("get", "app.greeting"), "hello\n")

    def test_a_change_elsewhere_is_none(self):
        self.edit("subprocess.run([tkv, 'set', 'other', 'x'], check=True)\ntext = text.replace('hello', 'bye')", "app")
        self.assertEqual(self.out("get", "app.greeting", "other"), "bye\nx\n")

    def test_what_was_changed_meanwhile_matters_only_if_something_was_edited(self):
        self.edit("subprocess.run([tkv, 'set', 'app.greeting', 'hi'], check=True)", "app")
        self.assertEqual(self.out("get", "app.greeting"), "hi\n")


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
class AnotherUser(EditTest):
    def configure(self, *lines):
        """Lets nobody open the registry's files."""
        super().configure(f"group = {grp.getgrgid(pwd.getpwnam('nobody').pw_gid).gr_name}", *lines)

    def setUp(self):
        super().setUp()
        user = pwd.getpwnam("nobody")
        self.prefix = ("setpriv", f"--reuid={user.pw_uid}", f"--regid={user.pw_gid}", "--clear-groups")
        os.chmod(self.folder, 0o755)
        os.chmod(self.scratch, 0o777)
        self.tkv("chmod", "-R", "o=rl", "app")
        self.before = self.out("export")

    def test_what_may_not_be_read_is_not_opened(self):
        self.tkv("chmod", "o=", "app.limit")
        self.tkv("edit", "app", exits=DENIED, prefix=self.prefix, environment={"EDITOR": f"touch {self.scratch}/opened"})
        self.assert_nothing_is_left()

    def test_what_may_not_be_changed_is_kept_in_the_file(self):
        result = self.tkv("edit", "app", exits=DENIED, prefix=self.prefix, environment={"EDITOR": "sed -i s/hello/bye/"})
        self.assertIn('"bye"', self.kept(result))
        self.assertEqual(self.out("export"), self.before)


if __name__ == "__main__":
    unittest.main()
