"""The command as a set-user-ID program."""
import os
import pwd
import shutil
import subprocess
import unittest

from command import COMMAND, CommandTest, DEADLINE, USAGE


@unittest.skipUnless(os.geteuid() == 0, "only root can give a program to another user")
class SetUserId(CommandTest):
    """A command that runs with its file owner's rights does not let its caller choose where to read and write."""

    def setUp(self):
        super().setUp()
        if os.statvfs(self.folder).f_flag & os.ST_NOSUID:
            self.skipTest("set-user-ID has no effect in the directory for temporary files")
        os.chmod(self.folder, 0o755)
        self.command = self.folder / "tkv"
        shutil.copy(COMMAND, self.command)
        os.chown(self.command, pwd.getpwnam("nobody").pw_uid, -1)
        os.chmod(self.command, 0o4755)

    def run_it(self, *words):
        return subprocess.run([self.command, *words], env=self.environment, capture_output=True, text=True,
                              timeout=DEADLINE, check=False)

    def test_the_environment_names_neither_configuration_nor_home(self):
        self.environment["XDG_STATE_HOME"] = str(self.folder)
        said = self.run_it("conf", "--json")
        self.assertNotIn(str(self.folder), said.stdout)
        self.assertNotIn("environment", said.stdout)
        self.assertIn('"cluster_word"', said.stdout, said.stderr)

    def test_the_option_for_a_configuration_is_refused(self):
        said = self.run_it("conf", "--conf", str(self.folder / "tkv.conf"))
        self.assertEqual((said.returncode, said.stdout), (USAGE, ""))
        self.assertIn("more rights than its caller", said.stderr)

    def test_no_file_that_the_caller_names_is_read_or_written(self):
        secret = self.folder / "secret"
        secret.write_text("nothing to see")
        secret.chmod(0o600)
        os.chown(secret, pwd.getpwnam("nobody").pw_uid, -1)
        target = self.folder / "written"
        for words in (("set", "a", f"@{secret}"), ("set", "a", "--bytes", f"@{secret}"), ("set", "a", "--list", f"@{secret}"),
                      ("import", secret), ("restore", secret), ("verify", secret), ("backup", target),
                      ("export", "-o", target), ("migrate", self.folder, target)):
            with self.subTest(words=words):
                said = self.run_it(*words)
                self.assertIn("more rights than its caller", said.stderr)
                self.assertEqual((said.returncode, said.stdout), (USAGE, ""))
                self.assertFalse(target.exists())

    def test_no_command_of_the_caller_is_run(self):
        told = self.folder / "told"
        said = self.run_it("watch", "a", "--initial", "--exec", f"touch {told}")
        self.assertIn("more rights than its caller", said.stderr)
        self.assertEqual((said.returncode, said.stdout), (USAGE, ""))
        self.assertFalse(told.exists())


if __name__ == "__main__":
    unittest.main()
