#!/usr/bin/env python3
"""Runs an etcd cluster on loopback for a test, a demonstration or a benchmark.

  etcd_cluster.py [--members N] [--directory DIR] [--peers-through-proxies] [--tls CERT KEY] [-- ETCD-FLAG...]

The program that needs the cluster writes commands to standard input, one per line, and reads one line per command:
"ok", followed by the answer if there is one, or "failed" and the reason. Members are numbered from 0.

  start         starts every member that is not running and waits until all are healthy
  start M       starts a member and does not wait
  kill M        kills a member with SIGKILL and waits for its end
  stop M        stops a member with SIGSTOP
  cont M        lets a stopped member continue
  save          saves a snapshot, which replaces the one before
  restore       kills every member, restores the last snapshot into each of them and starts them: the same addresses, names
                and ids, and the state that was saved
  wait          waits until every running member is healthy
  leader        the member that says it leads, or -1
  pids          the members' process ids, 0 for one that is not running
  address       the cluster's own IP address
  endpoints     the members' client endpoints, host:port
  peers         the endpoints on which the members listen for each other
  proxies       with --peers-through-proxies: the endpoints at which the members expect each other; whoever starts the
                cluster listens there and forwards to `peers`

When standard input ends, so does the cluster, and its data is removed. The caller may therefore crash or be killed at
any time. If this program itself is killed, the kernel kills the members.

Ports cannot collide. Each cluster has an IP address of its own in 127.0.0.0/8, all of which is this machine, and fixed
ports on it. A cluster claims its address by binding a socket to the claim port there, which the kernel grants once.
The members inherit that socket, so an address is not claimed again before the last of them has ended. Ports are below
the range from which the kernel chooses, and nobody else binds to these addresses.

Programs in Python use the class EtcdCluster below; etcd_cluster.sh does the same for shell scripts.
"""
import argparse
import ctypes
import http.client
import os
import random
import select
import shutil
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time

LONGEST_WAIT = 180  # seconds; reached only when something is broken
CLAIM_PORT, CLIENT_PORT, PEER_PORT, PROXY_PORT = 23700, 23710, 23720, 23730
MEMORY = "/dev/shm"
MEMORY_NEEDED = 2 << 30  # bytes free: etcd reserves 64 MiB per log file
PR_SET_PDEATHSIG = 1


class Failure(Exception):
    """A command that could not be carried out."""


class CallerGone(Exception):
    """Standard input ended."""


def claim_address():
    """The socket that claims an address; bound to it, for as long as it is open in any process."""
    while True:
        # Not 127.0.0.0/16: software that uses loopback addresses of its own uses these.
        address = f"127.{random.randint(1, 254)}.{random.randint(0, 255)}.{random.randint(1, 254)}"
        claim = socket.socket()
        try:
            claim.bind((address, CLAIM_PORT))
            return claim
        except OSError:
            claim.close()


def data_directory(chosen):
    """A new directory in the chosen place; by default in memory if there is room, since durability is not the point."""
    if chosen is None and os.access(MEMORY, os.W_OK):
        room = os.statvfs(MEMORY)
        if room.f_bavail * room.f_frsize >= MEMORY_NEEDED:
            chosen = MEMORY
    return tempfile.mkdtemp(prefix="tkv-etcd-", dir=chosen)


def caller_gone(longest):
    """Whether standard input was closed at its other end; looks for so many seconds."""
    poll = select.poll()
    poll.register(sys.stdin, 0)  # reports the end even if commands are still to be read
    return bool(poll.poll(1000 * longest))


class Launcher:
    """The members and what the commands do to them."""

    def __init__(self, options):
        self.options = options
        self.claim = claim_address()
        self.address = self.claim.getsockname()[0]
        self.directory = data_directory(options.directory)
        self.processes = [None] * options.members
        self.stopped = set()

    def all_on(self, port):
        return [f"{self.address}:{port + member}" for member in range(self.options.members)]

    def flags_of(self, member):
        client = f"{'https' if self.options.tls else 'http'}://{self.address}:{CLIENT_PORT + member}"
        reached = self.all_on(PROXY_PORT if self.options.peers_through_proxies else PEER_PORT)
        return ["--name", f"m{member}", "--data-dir", os.path.join(self.directory, f"m{member}"),
                "--listen-client-urls", client, "--advertise-client-urls", client,
                "--listen-peer-urls", f"http://{self.address}:{PEER_PORT + member}",
                "--initial-advertise-peer-urls", f"http://{reached[member]}",
                "--initial-cluster", ",".join(f"m{other}=http://{peer}" for other, peer in enumerate(reached)),
                "--initial-cluster-token", f"{self.address}-{os.getpid()}", "--log-level", "error",
                *self.options.etcd_flags]

    def is_running(self, member):
        process = self.processes[member]
        return process is not None and process.poll() is None

    def start_one(self, member):
        if self.is_running(member):
            raise Failure(f"member {member} is running")
        launcher = os.getpid()

        def die_with_launcher():
            ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
            if os.getppid() != launcher:
                os._exit(1)

        with open(self.log_of(member), "ab") as log:
            self.processes[member] = subprocess.Popen(
                ["etcd", *self.flags_of(member)], stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                pass_fds=[self.claim.fileno()], preexec_fn=die_with_launcher)

    def log_of(self, member):
        return os.path.join(self.directory, f"m{member}.log")

    def ask(self, member, path):
        """The text of a page that the member serves, or "" if it does not answer."""
        where = (self.address, CLIENT_PORT + member)
        connection = http.client.HTTPConnection(*where, timeout=2)
        if self.options.tls:
            context = ssl._create_unverified_context()  # the members are this program's own
            context.load_cert_chain(*self.options.tls)  # as they are now: tests replace them
            connection = http.client.HTTPSConnection(*where, timeout=2, context=context)
        try:
            connection.request("GET", path)
            return connection.getresponse().read().decode()
        except (OSError, http.client.HTTPException):
            return ""
        finally:
            connection.close()

    def is_healthy(self, member):
        return '"health":"true"' in self.ask(member, "/health")

    def start(self, member=None):
        if member is not None:
            return self.start_one(member)
        for each in range(self.options.members):
            if not self.is_running(each):
                self.start_one(each)
        return self.wait()

    def wait(self):
        members = [member for member, process in enumerate(self.processes) if process is not None]
        limit = time.monotonic() + LONGEST_WAIT
        while not all(self.is_healthy(member) for member in members):
            ended = [member for member in members if not self.is_running(member)]
            if ended or time.monotonic() > limit:
                what = f"member {ended[0]} has ended" if ended else "no health"
                raise Failure(what + ": " + " ".join(self.logs().split()))
            if caller_gone(0.02):
                raise CallerGone

    def logs(self):
        text = ""
        for member in range(self.options.members):
            if os.path.exists(self.log_of(member)):
                with open(self.log_of(member), encoding="utf-8", errors="replace") as log:
                    text += log.read()[-4000:]
        return text

    def kill(self, member):
        process = self.processes[member]
        if process is not None:
            process.kill()
            process.wait()
        self.processes[member] = None
        self.stopped.discard(member)

    def stop(self, member):
        self.processes[member].send_signal(signal.SIGSTOP)
        self.stopped.add(member)

    def cont(self, member):
        self.processes[member].send_signal(signal.SIGCONT)
        self.stopped.discard(member)

    def etcdctl(self, *arguments):
        done = subprocess.run(["etcdctl", *arguments], env={**os.environ, "ETCDCTL_API": "3"}, stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise Failure(f"etcdctl {' '.join(arguments)}: " + " ".join(done.stderr.split()))

    def snapshot(self):
        return os.path.join(self.directory, "snapshot")

    def save(self):
        if os.path.exists(self.snapshot()):
            os.remove(self.snapshot())
        self.etcdctl("--endpoints", self.all_on(CLIENT_PORT)[0], "snapshot", "save", self.snapshot())

    def restore(self):
        topology = ["--name", "--data-dir", "--initial-advertise-peer-urls", "--initial-cluster", "--initial-cluster-token"]
        for member in range(self.options.members):
            self.kill(member)
        for member in range(self.options.members):
            flags = self.flags_of(member)
            shutil.rmtree(flags[flags.index("--data-dir") + 1])
            self.etcdctl("snapshot", "restore", self.snapshot(),
                         *(word for flag in topology for word in (flag, flags[flags.index(flag) + 1])))
        self.start()

    def leader(self):
        for member in range(self.options.members):
            if self.is_running(member) and member not in self.stopped:
                if "etcd_server_is_leader 1\n" in self.ask(member, "/metrics"):
                    return str(member)
        return "-1"

    def pids(self):
        return " ".join(str(self.processes[member].pid if self.is_running(member) else 0)
                        for member in range(self.options.members))

    def carry_out(self, line):
        name, *arguments = line.split()
        known = {
            "start": self.start, "kill": self.kill, "stop": self.stop, "cont": self.cont, "wait": self.wait,
            "save": self.save, "restore": self.restore,
            "leader": self.leader, "pids": self.pids, "address": lambda: self.address,
            "endpoints": lambda: " ".join(self.all_on(CLIENT_PORT)), "peers": lambda: " ".join(self.all_on(PEER_PORT)),
            "proxies": lambda: " ".join(self.all_on(PROXY_PORT)),
        }
        if name not in known:
            raise Failure(f"there is no command '{name}'")
        return known[name](*map(int, arguments))

    def close(self):
        for member in range(self.options.members):
            self.kill(member)
        shutil.rmtree(self.directory, ignore_errors=True)
        self.claim.close()


def serve(launcher):
    while line := sys.stdin.readline():
        try:
            answer = launcher.carry_out(line)
            print("ok" if answer is None else f"ok {answer}", flush=True)
        except (Failure, OSError) as failure:
            print(f"failed {failure}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--members", type=int, default=1, choices=range(1, 10), metavar="N")
    parser.add_argument("--directory", help="where the data directory is made")
    parser.add_argument("--peers-through-proxies", action="store_true")
    parser.add_argument("--tls", nargs=2, metavar=("CERT", "KEY"), help="speak TLS to the members")
    parser.add_argument("etcd_flags", nargs="*", metavar="ETCD-FLAG")
    options = parser.parse_args()
    if shutil.which("etcd") is None:
        sys.exit("etcd is missing: install the Debian packages etcd-server and etcd-client")
    # Ctrl-C reaches the caller as well, whose end then ends the cluster.
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    for each in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(each, lambda *_: sys.exit(1))
    launcher = Launcher(options)
    try:
        serve(launcher)
    except (CallerGone, BrokenPipeError):
        pass
    finally:
        launcher.close()


class EtcdCluster:
    """A running cluster, for programs in Python. Raises Failure when a command fails."""

    def __init__(self, members=1, directory=None, flags=()):
        place = [] if directory is None else ["--directory", str(directory)]
        self.launcher = subprocess.Popen(
            [sys.executable, os.path.abspath(__file__), "--members", str(members), *place, "--", *flags],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        try:
            self.endpoints = self.ask("endpoints").split()
            self.ask("start")
        except BaseException:
            self.close()
            raise

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def ask(self, *words):
        print(*words, file=self.launcher.stdin, flush=True)
        result, _, answer = self.launcher.stdout.readline().rstrip("\n").partition(" ")
        if result != "ok":
            raise Failure(f"etcd cluster: {' '.join(map(str, words))}: {answer or 'the launcher has ended'}")
        return answer

    def close(self):
        self.launcher.stdin.close()
        self.launcher.wait()
        self.launcher.stdout.close()


if __name__ == "__main__":
    main()
