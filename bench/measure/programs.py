"""Running the benchmark programs, each on the store of one peer."""

import contextlib
import os
import platform
import shutil
import subprocess
import sys
import threading
import time
from pathlib import Path

from measure.tables import Failure

JARS = Path("/usr/share/java")
JNI_FOLDERS = [Path("/usr/lib") / f"{platform.machine()}-linux-gnu", Path("/usr/lib/jni")]

# The peers of other makers: the jar and the native library that each needs, with their Debian packages.
OUTSIDE = {
    "sqlite": [("sqlite-jdbc.jar", "libxerial-sqlite-jdbc-java"), ("libsqlitejdbc.so", "libxerial-sqlite-jdbc-jni")],
    "mvstore": [("h2.jar", "libh2-java")],
    "bdb": [("db.jar", "libdb5.3-java"), ("libdb_java-5.3.so", "libdb5.3-java-jni")],
    "prefs": [],
}
SHARES_STORE_WITH = {"registry": "tkv"}
FILLED_NATIVELY = ("tkv", "lmdb")


def progress(text):
    print(f"# {text}", file=sys.stderr, flush=True)


def is_installed(file):
    folders = [JARS] if file.endswith(".jar") else [folder / sub for folder in JNI_FOLDERS for sub in ("", "jni")]
    return any((folder / file).exists() for folder in folders)


class Dataset:
    """The keys that each store of a comparison holds; the same names as in the programs."""

    def __init__(self, groups, keys, depth=4, value_size=20):
        self.groups, self.keys, self.depth, self.value_size = groups, keys, depth, value_size

    def options(self):
        return ["--groups", str(self.groups), "--keys", str(self.keys), "--depth", str(self.depth),
                "--value-size", str(self.value_size)]


class Stores:
    """The stores of some peers, all with the same dataset. Their directory is removed at the end.

    `settings` are further lines of the registry's configuration.
    """

    def __init__(self, programs, dataset, peers, settings="", folder="stores"):
        self.programs, self.dataset, self.peers, self.settings = programs, dataset, peers, settings
        self.directory = programs.output / folder
        self.configuration = programs.output / f"{folder}.conf"

    def __enter__(self):
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        self.configuration.write_text(f"[registry]\nlocation = {self.of('tkv')}\n{self.settings}")
        self.configure()
        for peer in self.peers:
            self.of(peer).mkdir(mode=0o700, exist_ok=True)
        for peer in self.peers:
            if peer not in SHARES_STORE_WITH:
                progress(f"filling {peer} with {self.dataset.groups * self.dataset.keys:,} keys of depth "
                         f"{self.dataset.depth} and values of {self.dataset.value_size:,} bytes")
                self.fill(peer)
        return self

    def __exit__(self, *_):
        shutil.rmtree(self.directory, ignore_errors=True)

    def configure(self):
        """From here on, programs use these stores' registry."""
        os.environ["TKV_CONF"] = str(self.configuration)

    def of(self, peer):
        return self.directory / SHARES_STORE_WITH.get(peer, peer)

    def fill(self, peer):
        command = self.native if peer in FILLED_NATIVELY else self.java
        self.programs.run(command(peer, ["fill"]))

    def java(self, peer, scenarios, options=()):
        """The command that runs scenarios in a JVM."""
        return self.programs.java(peer) + self.options(peer, scenarios) + list(options)

    def native(self, peer, scenarios, options=()):
        """The command that runs scenarios natively."""
        return [str(self.programs.build / "bench/tkv_bench")] + self.options(peer, scenarios) + list(options)

    def options(self, peer, scenarios):
        return ["--peer", peer, "--directory", str(self.of(peer)), "--scenarios", ",".join(scenarios),
                *self.dataset.options()]


class Programs:
    """The programs of a build."""

    def __init__(self, build, output):
        self.build, self.output = build, output
        home = os.environ.get("JAVA_HOME")
        self.java_command = str(Path(home) / "bin/java") if home else "java"

    def check(self, peers, counts_instructions):
        for path in ("java/tkv.jar", "bench/java", "bench/tkv_bench", "bench/libtkv_bench_jni.so", "bin/tkv"):
            if not (self.build / path).exists():
                raise Failure(f"{self.build / path} is missing: build with 'make bench' or -DTKV_BENCH=ON")
        for peer in peers:
            for file, package in OUTSIDE.get(peer, []):
                if not is_installed(file):
                    raise Failure(f"{file} for the peer {peer} is missing: install the Debian package {package}, "
                                  "or leave the peer out with --peers")
            if OUTSIDE.get(peer) and not (self.build / "bench/peers").exists():
                raise Failure(f"the peer {peer} is not built: build with -DTKV_BENCH=ON, or leave it out with --peers")
        if counts_instructions and shutil.which("valgrind") is None:
            raise Failure("valgrind is missing: install the Debian package valgrind, or leave out --instructions")

    def java(self, peer):
        jars = [JARS / file for file, _ in OUTSIDE.get(peer, []) if file.endswith(".jar")]
        classpath = [self.build / "bench/java", self.build / "bench/peers", self.build / "java/tkv.jar", *jars]
        return [self.java_command, "-Xms512m", "-Xmx512m", "-XX:+UseSerialGC",
                f"-Dbench.library={self.build / 'bench/libtkv_bench_jni.so'}",
                f"-Dtkv.library.path={self.build / 'lib'}",
                f"-Djava.util.prefs.systemRoot={self.output / 'system-prefs'}",
                "-cp", ":".join(map(str, classpath)), "velmar.qen.mgmt.bench.Bench"]

    def run(self, command):
        """Runs a program to its end. Returns what it printed: fields by the first word of each line."""
        return self.finish(command, self.start(command))[0]

    def run_counted(self, command):
        """Runs a program under callgrind. Returns what it printed, and the instructions that it took."""
        command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command]
        answer, errors = self.finish(command, self.start(command))
        collected = [line for line in errors.splitlines() if "Collected" in line]
        if not collected:
            raise Failure(f"valgrind reported no instructions:\n{errors}")
        return answer, int(collected[-1].split(":")[1])

    def run_together(self, commands):
        """Runs programs at the same time. When all of them have said that they are ready, each is told the time, in
        nanoseconds of the machine's monotonic clock. Returns what each printed after that."""
        running = [(command, self.start(command)) for command in commands]
        try:
            for command, process in running:
                self.await_ready(command, process)
            begin = time.monotonic_ns()
            for _, process in running:
                self.tell(process, begin)
            return [self.finish(command, process)[0] for command, process in running]
        except Failure:
            for _, process in running:
                with process:
                    process.kill()
            raise

    def run_timed(self, command):
        """Runs a program. Returns its nanoseconds and the largest size of its resident memory, in KiB."""
        progress(" ".join(command))
        start = time.perf_counter_ns()
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        sizes = [0]
        sampler = threading.Thread(target=sample_memory, args=(process.pid, sizes))
        sampler.start()
        code = process.wait()
        took = time.perf_counter_ns() - start
        sampler.join()
        if code != 0:
            raise Failure(f"{' '.join(command)}\nended with {code}")
        return took, max(sizes)

    @contextlib.contextmanager
    def writing(self, command):
        """While it lasts, a program writes."""
        process = self.start(command)
        self.await_ready(command, process)
        try:
            yield
        finally:
            self.finish(command, process)

    @staticmethod
    def start(command):
        return subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    @staticmethod
    def await_ready(command, process):
        if process.stdout.readline() != "ready\n":
            process.stdin.close()
            raise Failure(f"{' '.join(command)}\ndid not become ready:\n{process.stderr.read()}")

    @staticmethod
    def tell(process, number):
        with contextlib.suppress(BrokenPipeError):  # finish() reports why it has ended
            process.stdin.write(f"{number}\n")
            process.stdin.flush()

    @staticmethod
    def finish(command, process):
        try:
            printed, errors = process.communicate(timeout=1800)
        except subprocess.TimeoutExpired:
            process.kill()
            process.communicate()
            raise
        if process.returncode != 0:
            raise Failure(f"{' '.join(command)}\nended with {process.returncode}:\n{printed}{errors}")
        fields = (line.split("\t", 1) for line in printed.splitlines() if "\t" in line)
        return {name: text for name, text in fields}, errors


def sample_memory(pid, sizes):
    """Until a process ends, adds the largest size so far of its resident memory, in KiB."""
    while True:
        try:
            lines = Path(f"/proc/{pid}/status").read_text().splitlines()
        except (FileNotFoundError, ProcessLookupError):
            return
        size = next((int(line.split()[1]) for line in lines if line.startswith("VmHWM:")), None)
        if size is None:  # it has ended
            return
        sizes.append(size)
        time.sleep(0.002)


def values_of(text):
    """The figures of a line, none if the peer has no such operation."""
    return [] if text == "-" else [float(word) for word in text.split()]
