"""Owners and rights: chown, chmod, access, and every verb as a user who lacks rights."""
import grp
import json
import os
import pwd
import shutil
import unittest

from command import CommandTest, DENIED, GROUP, NOT_FOUND, USAGE


class Changing(CommandTest):
    def setUp(self):
        super().setUp()
        for key in ("app.nodes.alpha", "app.hosts"):
            self.tkv("create", "-p", key)

    def security(self, key):
        described = json.loads(self.out("stat", "--json", key))
        return described["owner"], described["group"], described["masks"]

    def test_chmod_by_letters_and_numbers(self):
        for mode, masks in (("0x3f,0x34,0x3", [0x3f, 0x34, 0x3]), ("u=rlw,g+s,o=", [7, 0x3c, 0]),
                            ("a+d", [0x27, 0x3c, 0x20]), ("ug-d", [7, 0x1c, 0x20]), ("o=0x3", [7, 0x1c, 3]),
                            ("63,52,3", [63, 52, 3]), ("u=", [0, 52, 3]), ("u=rlwscd,go=", [63, 0, 0])):
            with self.subTest(mode=mode):
                self.tkv("chmod", mode, "app")
                self.assertEqual(self.security("app")[2], masks)
        self.assertEqual(self.security("app.hosts")[2], [63, 63, 3])

    def test_malformed_modes_are_usage(self):
        for mode in ("", "x", "u", "=r", "u=x", "z=r", "0x40,0,0", "1,2", "1,2,3,4", "u=r,", "0x,0,0", "u=9q"):
            with self.subTest(mode=mode):
                self.fails(USAGE, "chmod", mode, "app")

    def test_chown_sets_what_is_named(self):
        self.tkv("chown", "ada:staff", "app")
        self.assertEqual(self.security("app")[:2], ("ada", "staff"))
        self.tkv("chown", "bob", "app")
        self.assertEqual(self.security("app")[:2], ("bob", "staff"))
        self.tkv("chown", ":wheel", "app")
        self.assertEqual(self.security("app")[:2], ("bob", "wheel"))
        self.tkv("chown", "x" * 64, "app")
        self.assertEqual(self.security("app")[0], "x" * 64)
        self.fails(USAGE, "chown", ":", "app")
        self.fails(USAGE, "chown", "x" * 65, "app")
        self.fails(NOT_FOUND, "chown", "ada", "nothing")

    def test_chown_warns_about_names_that_this_machine_does_not_know(self):
        self.assertEqual(self.tkv("chown", "nobody:root", "app").messages, "")
        self.assertEqual(self.tkv("chown", "54321:54321", "app").messages, "")
        warned = self.tkv("chown", "no-such-user:no-such-group", "app").messages
        self.assertEqual(warned, "tkv: warning: there is no user 'no-such-user' on this machine\n"
                                 "tkv: warning: there is no group 'no-such-group' on this machine\n")
        self.assertEqual(self.security("app")[:2], ("no-such-user", "no-such-group"))
        self.assertEqual(self.tkv("chown", "-q", "no-such-user", "app").messages, "")

    def test_recursion_takes_the_whole_subtree(self):
        self.tkv("chown", "-R", "ada", "app")
        self.tkv("chmod", "-R", "g=r,o=", "app")
        for key in ("app", "app.hosts", "app.nodes", "app.nodes.alpha"):
            self.assertEqual(self.security(key), ("ada", GROUP, [63, 1, 0]))

    def test_the_mode_that_is_shown_is_a_mode(self):
        self.tkv("chmod", "u=rwd,g=,o=l", "app")
        shown = json.loads(self.out("stat", "--json", "app"))["mode"]
        self.tkv("chmod", shown, "app.hosts")
        self.assertEqual(self.security("app.hosts")[2], self.security("app")[2])


class Asking(CommandTest):
    def setUp(self):
        super().setUp()
        self.user = pwd.getpwnam("nobody")
        self.group = grp.getgrgid(self.user.pw_gid).gr_name
        self.tkv("create", "app", "--owner", "ada", "--group", self.group, "--mode", "u=rlwscd,g=lw,o=r")

    def test_access_adds_up_the_classes(self):
        self.assertEqual(self.out("access", "nobody", "app"), "rlw---\n")
        self.assertEqual(self.out("access", "root", "app"), "rlwscd\n")
        self.fails(NOT_FOUND, "access", "no-such-user", "app")
        self.fails(NOT_FOUND, "access", "nobody", "nothing")

    def test_why_names_the_class_of_each_right(self):
        why = json.loads(self.out("access", "--json", "--why", "nobody", "app"))
        self.assertEqual((why["rights"], why["mask"]), ("rlw---", 7))
        self.assertEqual(why["why"], {"read": {"granted": True, "by": ["other"]},
                                      "list": {"granted": True, "by": ["group"]},
                                      "write": {"granted": True, "by": ["group"]},
                                      "security": {"granted": False, "by": []},
                                      "create": {"granted": False, "by": []},
                                      "delete": {"granted": False, "by": []}})
        shown = self.out("access", "--why", "nobody", "app").replace(self.group, "GROUP")
        self.golden("access.txt", shown)

    def test_need_is_an_answer_for_scripts(self):
        self.tkv("access", "nobody", "app", "--need", "rw")
        result = self.tkv("access", "nobody", "app", "--need", "rd", exits=DENIED)
        self.assertIn("lacks rights on key 'app': -----d", result.messages)
        self.fails(USAGE, "access", "nobody", "app", "--need", "x")


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
class Nameless(CommandTest):
    """A session under a user id and a group id without names, as is usual in a container."""

    ID = 54321

    def setUp(self):
        super().setUp()
        os.chown(self.folder, self.ID, self.ID)

    def run_command(self, *arguments, prefix=(), **how):
        prefix = ("setpriv", f"--reuid={self.ID}", f"--regid={self.ID}", "--clear-groups", *prefix)
        return super().run_command(*arguments, prefix=prefix, **how)

    def test_its_keys_belong_to_the_numbers(self):
        self.tkv("set", "app", "v")
        self.assertEqual(self.out("get", "app"), "v\n")
        shown = json.loads(self.out("stat", "--json", "app"))
        self.assertEqual((shown["owner"], shown["group"]), (str(self.ID), str(self.ID)))

    def test_access_identifies_a_user_without_an_account_by_number(self):
        self.tkv("create", "app", "--mode", "u=rw,g=l,o=c")
        self.assertEqual(self.out("access", self.ID, "app"), "r-w-c-\n")
        self.assertEqual(self.out("access", self.ID + 1, "app"), "----c-\n")


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to become another user")
class AnotherUser(CommandTest):
    """A session of a user who shares the registry's files, but does not have all rights in it."""

    def setUp(self):
        super().setUp()
        self.user = pwd.getpwnam("nobody")
        self.group = grp.getgrgid(self.user.pw_gid).gr_name
        os.chmod(self.folder, 0o755)
        os.chmod(self.backups, 0o777)
        self.configure(f"group = {self.group}")
        self.tkv("set", "-p", "app.open", "for all")
        self.tkv("set", "app.secret", "for some", "--mode", "u=rlwscd,g=,o=")
        self.tkv("set", "app.closed", "c", "--mode", "u=rlwscd,g=,o=r")
        self.tkv("set", "app.closed.below", "b")
        self.tkv("chown", "-R", "root:root", "app")

    def as_nobody(self, *words, **how):
        prefix = ("setpriv", f"--reuid={self.user.pw_uid}", f"--regid={self.user.pw_gid}", "--clear-groups")
        return self.tkv(*words, prefix=prefix, **how)

    def denied(self, *words, **how):
        result = self.as_nobody(*words, exits=DENIED, **how)
        self.assertEqual(result.out, b"")
        self.assertIn("access denied", result.messages)

    def test_what_is_granted_works(self):
        self.assertEqual(self.as_nobody("get", "app.open").text, "for all\n")
        self.assertEqual(self.as_nobody("ls", "app").text, "closed\nopen\nsecret\n")

    def test_each_verb_keeps_to_the_rights(self):
        before = self.out("export")
        for words in (("get", "app.secret"), ("stat", "app.secret"), ("set", "app.open", "x"), ("create", "app.new"),
                      ("rm", "app.open"), ("rm", "-r", "--yes", "app"), ("mv", "app.open", "app.moved"),
                      ("cp", "app.secret", "copy"), ("cp", "app.open", "app.copy"), ("chown", "nobody", "app.open"),
                      ("chmod", "o+w", "app.open"), ("chmod", "-R", "o+w", "app"), ("ls", "app.closed"),
                      ("export", "app"), ("export", "app.closed"), ("diff", "app", "app"), ("backup",), ("backup", "--key", "app.secret"),
                      ("access", "nobody", "app.secret"), ("verify", "--repair")):
            with self.subTest(words=words):
                self.denied(*words)
        self.assertEqual(self.out("export"), before)
        self.assertEqual(list(self.backups.iterdir()), [])

    def test_an_import_that_lacks_a_right_does_nothing(self):
        before = self.out("export")
        given = json.dumps({"tkv": 1, "top": "app.open", "keys": [
            {"name": "app.open", "type": "text", "value": "x"}, {"name": "app.open.below"}]})
        self.denied("import", "--merge", given=given)
        self.assertEqual(self.out("export"), before)

    def test_tree_marks_what_it_may_not_show(self):
        seen = self.as_nobody("tree", "app").text
        self.assertIn("open = \"for all\"\n", seen)
        self.assertIn("secret  (value: access denied)\n", seen)
        self.assertIn("closed = \"c\"  (subkeys: access denied)\n", seen)
        self.assertNotIn("below", seen)
        self.assertNotIn("for some", seen)

    def test_tree_as_json_marks_what_it_may_not_show(self):
        shown = self.as_nobody("tree", "--json", "app").text
        keys = {key["name"]: key for key in json.loads(shown)}
        self.assertEqual(sorted(keys), ["app", "app.closed", "app.open", "app.secret"])
        self.assertIs(keys["app.closed"]["subkeys_denied"], True)
        self.assertEqual(keys["app.secret"], {"name": "app.secret", "denied": True})
        self.assertNotIn("for some", shown)

    def test_tree_of_a_key_that_may_not_be_listed_is_that_key(self):
        for depth in ((), ("-d", "5")):
            with self.subTest(depth=depth):
                self.assertEqual(self.as_nobody("tree", *depth, "app.closed").text,
                                 "app.closed = \"c\"  (subkeys: access denied)\n")

    def test_long_ls_shows_no_security_that_may_not_be_read(self):
        lines = self.as_nobody("ls", "-l", "app").text.splitlines()
        self.assertEqual([line.split()[0] for line in lines if line.endswith("secret")], ["?"])

    def test_wait_needs_the_right_to_read_a_value_only(self):
        self.as_nobody("wait", "app.secret", "--timeout", "0")
        self.denied("wait", "app.secret", "--value", "for some", "--timeout", "1h")

    def test_recursive_ls_says_once_what_it_may_not_list(self):
        self.tkv("set", "-p", "app.barred.below", "b")
        self.tkv("chmod", "o=", "app.barred")
        result = self.as_nobody("ls", "-R", "app")
        self.assertEqual(result.text.splitlines(), ["app.barred", "app.closed", "app.open", "app.secret"])
        self.assertEqual(result.messages, "tkv: note: access denied to the subkeys of key 'app.barred' "
                                          "and of 1 other key\n")
        self.assertEqual(self.as_nobody("ls", "-Rq", "app").messages, "")
        keys = {key["name"]: key for key in json.loads(self.as_nobody("ls", "-Rl", "--json", "app").text)}
        self.assertEqual(keys["app.barred"], {"level": "barred", "name": "app.barred", "subkeys_denied": True})
        self.assertEqual((keys["app.closed"]["subkeys"], keys["app.closed"]["subkeys_denied"]), (True, True))
        self.assertNotIn("subkeys_denied", keys["app.open"])
        lines = self.as_nobody("ls", "-Rl", "app").text.splitlines()
        self.assertEqual([line.split()[0] for line in lines if line.split()[-1] in ("app.secret", "app.barred.")],
                         ["?", "?"])
        self.denied("ls", "-R", "app.closed")

    def test_find_passes_over_what_it_may_not_see_and_says_so_once(self):
        result = self.as_nobody("find", "*", "app")
        self.assertEqual(result.text.splitlines(), ["app", "app.closed", "app.open", "app.secret"])
        self.assertEqual(result.messages, "tkv: note: access denied to the subkeys of key 'app.closed'\n")
        result = self.as_nobody("find", "--values", "for *", "app")
        self.assertEqual(result.text, "app.open\n")
        self.assertIn("tkv: note: access denied to the value of key 'app.secret'\n", result.messages)
        result = self.as_nobody("find", "below", "app", exits=NOT_FOUND)
        self.assertIn("access denied to the subkeys of key 'app.closed'", result.messages)
        shown = self.as_nobody("find", "--values", "--json", "secret", "app").text
        self.assertEqual(json.loads(shown), [{"name": "app.secret", "matched": ["name"]}])


if __name__ == "__main__":
    unittest.main()
