"""The procedures of docs/operations.md work as printed."""
import grp
import os
import pathlib
import pwd
import re
import shutil
import subprocess
import unittest

from command import COMMAND, DEADLINE, DIFFERS, CommandTest

TEXT = (pathlib.Path(__file__).resolve().parents[2] / "docs" / "operations.md").read_text(encoding="utf-8")


def section(title):
    """The text below a heading, up to the next one of the same depth or above."""
    match = re.search(rf"(?m)^(#+) {re.escape(title)}$", TEXT)
    rest = TEXT[match.end():]
    following = re.search(rf"(?m)^#{{1,{len(match.group(1))}}} ", rest)
    return rest[:following.start()] if following else rest


def blocks(text, kind):
    return [re.sub(r"(?m)^ +", "", block) for block in re.findall(rf"(?s)```{kind}\n(.*?)```", text)]


# These change the machine, not the registry.
NOT_RUN = ("groupadd ", "usermod ", "systemctl ", "groupdel ")


def commands(text):
    return [line[2:] for block in blocks(text, "console") for line in block.splitlines() if line.startswith("$ ")]


@unittest.skipUnless(os.geteuid() == 0 and shutil.which("setpriv"), "needs to set a registry up for other users")
class Procedures(CommandTest):
    """Runs the printed commands in a folder of this test instead of the system's, and with a user that every machine has
    instead of the one that the text adds."""

    def setUp(self):
        super().setUp()
        os.chmod(self.folder, 0o755)
        self.user = pwd.getpwnam("nobody")
        self.group = grp.getgrgid(self.user.pw_gid).gr_name
        self.environment["PATH"] = f"{COMMAND.parent}:{self.environment['PATH']}"

    def here(self, text):
        for printed, meant in (("/srv/", f"{self.folder}/"), ("/etc/tkv/", f"{self.folder}/"), ("ada", self.user.pw_name),
                               ("group = cluster", f"group = {self.group}"), (":cluster", f":{self.group}"),
                               ("/etc/tkv", f"{self.folder}/etc"), ("--group cluster", f"--group {self.group}")):
            text = text.replace(printed, meant)
        return text

    def run_lines(self, lines):
        for line in lines:
            if not line.startswith(NOT_RUN):
                with self.subTest(command=line):
                    done = subprocess.run(["sh", "-c", self.here(line)], env=self.environment, capture_output=True,
                                          text=True, timeout=DEADLINE, check=False)
                    self.assertEqual(done.returncode, 0, done.stderr)

    def set_up(self):
        text = section("Setting up a registry for several users of a node")
        (self.folder / "tkv.conf").write_text(self.here(blocks(text, "ini")[0]))
        self.run_lines(commands(text))

    def as_member(self, *words, **how):
        prefix = ("setpriv", f"--reuid={self.user.pw_uid}", f"--regid={self.user.pw_gid}", "--clear-groups")
        return self.tkv(*words, prefix=prefix, **how)

    def test_setting_up_for_several_users(self):
        self.set_up()
        self.assertEqual(self.as_member("get", "app.name").text, "billing\n")
        self.as_member("set", "app.name", "changed by a member")
        self.assertEqual(self.out("get", "app.name"), "changed by a member\n")

    def test_making_the_file_smaller(self):
        self.set_up()
        for line in commands(section("A full disk")):
            if line == "tkv backup":
                backup = self.out("backup", "-q").strip()
            else:
                self.run_lines([re.sub(r"/srv/tkv-backups/\S+", backup, line)])
        self.assertEqual(self.out("get", "app.name"), "billing\n")

    def test_uninstalling_removes_the_registry_its_backups_and_the_configuration(self):
        self.set_up()
        self.out("backup")
        (self.folder / "etc").mkdir()
        lines = commands(section("Upgrading, going back, uninstalling"))
        removed = [word for line in lines if line.startswith("rm -r ") for word in self.here(line).split()[2:]]
        self.assertEqual(len(removed), 3, lines)
        for path in removed:
            self.assertTrue(path.startswith(f"{self.folder}/"), path)
        self.run_lines(lines)
        self.assertEqual(set(self.folder.iterdir()) - {self.backups}, {self.folder / "tkv.conf"})

    def test_restoring_a_backup(self):
        self.set_up()
        backup = self.out("backup", "-q").strip()
        before = self.out("export")
        self.tkv("set", "app.name", "changed since")
        compare, restore = (line.replace("FILE", f"{backup} --yes") for line in commands(section("Backups"))
                            if line.startswith("tkv restore "))
        done = subprocess.run(["sh", "-c", compare], env=self.environment, capture_output=True, timeout=DEADLINE,
                              check=False)
        self.assertEqual((done.returncode, done.stderr), (DIFFERS, b""))
        self.assertEqual(self.out("get", "app.name"), "changed since\n")
        self.run_lines([restore])
        self.assertEqual(self.out("export"), before)

    def test_no_other_commands_are_shown(self):
        run = ("Setting up a registry for several users of a node", "Backups", "A full disk",
               "Upgrading, going back, uninstalling")
        elsewhere = ("Moving a registry to etcd", "Security")  # by etcd_command_test
        tested = [line for title in run + elsewhere for line in commands(section(title))]
        self.assertEqual([line for line in commands(TEXT) if line not in tested and not line.startswith(NOT_RUN)], [])

    def test_the_configurations_that_are_shown_are_understood(self):
        for block in blocks(section("Configuration"), "ini"):
            with self.subTest(block=block):
                (self.folder / "tkv.conf").write_text(block)
                self.tkv("conf")

    @unittest.skipUnless(shutil.which("systemd-analyze"), "needs systemd")
    def test_the_units_are_understood(self):
        units = dict(zip(("tkv-backup.service", "tkv-backup.timer"), blocks(section("Backups"), "ini")))
        for name, text in units.items():
            (self.folder / name).write_text(text.replace("/usr/local/bin/tkv", str(COMMAND)))
        done = subprocess.run(["systemd-analyze", "verify", *(self.folder / name for name in units)], capture_output=True,
                              text=True, timeout=DEADLINE, check=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))


if __name__ == "__main__":
    unittest.main()
