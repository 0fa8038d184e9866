"""Drives the built command as a person would: arguments, standard files, terminals, signals."""
import fcntl
import grp
import os
import pathlib
import pty
import pwd
import select
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

COMMAND = pathlib.Path(sys.argv.pop(1)).resolve()
HERE = pathlib.Path(__file__).resolve().parent
DEADLINE = 240  # seconds until something that has to happen counts as not happening

(DONE, OTHER, USAGE, NOT_FOUND, DENIED, CONFLICT, WRONG_TYPE, UNREACHABLE, DAMAGED, PARTLY, UNUSABLE,
 UNDECIDED) = range(12)
DIFFERS = OTHER  # of --dry-run, as of diff(1)

USER = pwd.getpwuid(os.geteuid()).pw_name
GROUP = grp.getgrgid(os.getegid()).gr_name


class Result:
    def __init__(self, code, out, err):
        self.code, self.out, self.err = code, out, err

    @property
    def text(self):
        return self.out.decode("utf-8")

    @property
    def messages(self):
        return self.err.decode("utf-8")


class Terminal:
    """A command whose three standard files, or some of them, are one terminal."""

    def __init__(self, words, environment, output=None, input_file=None, folder=None, columns=80):
        self.master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self.process = subprocess.Popen(words, env=environment, stdin=input_file if input_file is not None else slave,
                                        stdout=output if output is not None else slave, stderr=slave,
                                        start_new_session=True, cwd=folder)
        os.close(slave)
        self.seen = b""

    def read_until(self, text):
        """Reads until a text has been seen, or to the end."""
        limit = time.monotonic() + DEADLINE
        while text is None or text not in self.seen:
            ready, _, _ = select.select([self.master], [], [], max(0, limit - time.monotonic()))
            if not ready:
                raise AssertionError(f"{text!r} did not come, but {self.seen!r}")
            try:
                part = os.read(self.master, 65536)
            except OSError:  # the other end is closed
                part = b""
            if not part:
                break
            self.seen += part
        return self.seen

    def type(self, text):
        os.write(self.master, text.encode())

    def kill(self):
        """Kills the command, which must not have ended by itself."""
        kill(self.process)
        os.close(self.master)
        if self.process.returncode != -signal.SIGKILL:
            raise AssertionError(f"it ended by itself, with {self.process.returncode}, before it could be killed")

    def finish(self):
        self.read_until(None)
        code = self.process.wait(DEADLINE)
        os.close(self.master)
        return code, self.seen.replace(b"\r\n", b"\n").decode("utf-8")


class CommandTest(unittest.TestCase):
    """Each test has a fresh configuration, whose registry does not exist yet."""

    maxDiff = None

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="tkv-test-"))
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.registry = self.folder / "registry"
        self.backups = self.folder / "backups"
        self.backups.mkdir()
        self.configure()
        self.environment = {
            "PATH": os.environ["PATH"],
            "HOME": str(self.folder),
            "LC_ALL": "C.UTF-8",
            "TERM": "xterm",
            "TKV_CONF": str(self.folder / "tkv.conf"),
        }
        for name in ("ASAN_OPTIONS", "UBSAN_OPTIONS"):
            if name in os.environ:
                self.environment[name] = os.environ[name]

    def configure(self, *lines):
        text = f"[registry]\nlocation = {self.registry}\nbackup_location = {self.backups}\n"
        (self.folder / "tkv.conf").write_text(text + "".join(line + "\n" for line in lines))

    def words(self, *arguments):
        return [str(COMMAND), *map(str, arguments)]

    def run_command(self, *arguments, given=b"", environment=None, prefix=()):
        if isinstance(given, str):
            given = given.encode()
        done = subprocess.run([*prefix, *self.words(*arguments)], input=given, capture_output=True,
                              env={**self.environment, **(environment or {})}, timeout=DEADLINE, check=False)
        return Result(done.returncode, done.stdout, done.stderr)

    def in_background(self, *arguments, prefix=()):
        """Starts the command, whose output and messages are texts to read. It is killed at the test's end."""
        process = subprocess.Popen([*prefix, *self.words(*arguments)], env=self.environment, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def tkv(self, *arguments, exits=DONE, **how):
        """Runs the command, which must end with this exit code. Returns its result."""
        result = self.run_command(*arguments, **how)
        self.assertEqual(result.code, exits, f"tkv {' '.join(map(str, arguments))}: {result.err!r} {result.out!r}")
        return result

    def out(self, *arguments, **how):
        return self.tkv(*arguments, **how).text

    def fails(self, exits, *arguments, **how):
        """Runs the command, which must fail with this exit code, print no data and give a reason. Returns its messages."""
        result = self.tkv(*arguments, exits=exits, **how)
        self.assertEqual(result.out, b"")
        self.assertTrue(result.messages.startswith("tkv: "), result.messages)
        return result.messages

    def terminal(self, *arguments, environment=None, **files):
        return Terminal(self.words(*arguments), {**self.environment, **(environment or {})}, **files)

    def terminal_with_bars(self, *arguments, **files):
        """A command that draws its progress bar at every step. Once the terminal's buffer is full of bars, the command
        waits for a reader: after a test has stopped reading at a bar of some work, the command stays in that work."""
        sanitizer = self.environment.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        return self.terminal(*arguments, environment={"LD_PRELOAD": os.environ["TKV_FAST_CLOCK"],
                                                      "ASAN_OPTIONS": sanitizer}, **files)

    def on_terminal(self, *arguments, **how):
        return self.terminal(*arguments, **how).finish()

    def golden(self, name, text):
        """Compares a text with a golden file, in which FOLDER stands for the test's folder."""
        path = HERE / "golden" / name
        text = text.replace(str(self.folder), "FOLDER")
        if os.environ.get("TKV_UPDATE_GOLDEN"):
            path.write_text(text, encoding="utf-8")
        expected = path.read_text(encoding="utf-8")
        self.assertEqual(text, expected, f"differs from golden/{name}; TKV_UPDATE_GOLDEN=1 writes it anew")

    def wait_until(self, what, condition):
        limit = time.monotonic() + DEADLINE
        while not condition():
            if time.monotonic() > limit:
                raise AssertionError(f"{what} did not happen")
            os.sched_yield()


def kill(process):
    process.send_signal(signal.SIGKILL)
    process.wait(DEADLINE)
