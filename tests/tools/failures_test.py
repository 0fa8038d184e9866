"""Every cause of a failure has one result code, one exit code of the command and one exception in Java."""
import ctypes
import os
import pathlib
import re
import socket
import subprocess
import sys
import threading
import unittest

from command import CommandTest, DAMAGED, DONE, OTHER, UNDECIDED, UNREACHABLE, UNUSABLE

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tests" / "cluster"))
from etcd_cluster import EtcdCluster

LIBRARY = ctypes.CDLL(sys.argv.pop(1))
MAKE_DAMAGE = sys.argv.pop(1)
JAVA = ROOT / "java" / "src" / "velmar" / "qen" / "mgmt" / "registry"
VALUE = "a value that can be recognized"


def exception_of(code):
    """The class that the Java API throws for a result code."""
    codes = dict(re.findall(r"static final int (\w+) = (\d+);", (JAVA / "ResultCode.java").read_text("utf-8")))
    factory = (JAVA / "RegistryException.java").read_text("utf-8")
    thrown = {int(codes[name]): kind for name, kind in re.findall(r"case ResultCode\.(\w+) -> new (\w+)\(", factory)}
    return thrown.get(code, "RegistryException")


def documented_exits():
    """Result codes and the exit codes that docs/operations.md promises for them."""
    text = (ROOT / "docs" / "operations.md").read_text("utf-8")
    return {int(code): int(exit_code) for codes, exit_code in re.findall(r"(?m)^\| (\d+(?:, \d+)*) \| (\d+) \| ", text)
            for code in codes.split(", ")}


def result_of_call(value):
    """Reads the value of the key "a" through the C interface, or writes one, and returns the result code."""
    session, key, kind = ctypes.c_uint64(), ctypes.c_uint64(), ctypes.c_int32()
    text, text_size = ctypes.create_string_buffer(1024), ctypes.c_uint64(1024)
    code = LIBRARY.prtkv_init_ext(ctypes.byref(session), 0, text, ctypes.byref(text_size), 0)
    if code != 0:
        return code
    code = LIBRARY.prtkv_open_key(session, ctypes.byref(key), b"a")
    if code == 0 and value is None:
        buffer, size = ctypes.create_string_buffer(1024), ctypes.c_uint32(1024)
        code = LIBRARY.prtkv_get_value(session, key, ctypes.byref(kind), buffer, ctypes.byref(size))
    elif code == 0:
        code = LIBRARY.prtkv_set_value(session, key, 3, value, len(value))
    LIBRARY.prtkv_terminate(session)
    return code


class SilentProxy:
    """Stands between a client and an etcd member. From the moment when a client has sent a certain text, it passes on
    what clients send but nothing of what the member answers."""

    def __init__(self, endpoint, text):
        host, port = endpoint.rsplit(":", 1)
        self.member, self.text = (host, int(port)), text.encode()
        self.silent = threading.Event()
        self.sockets = []
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.endpoint = f"127.0.0.1:{self.listener.getsockname()[1]}"
        threading.Thread(target=self.accept, daemon=True).start()

    def accept(self):
        try:
            while True:
                client, _ = self.listener.accept()
                member = socket.create_connection(self.member)
                self.sockets += [client, member]
                threading.Thread(target=self.pass_on, args=(client, member, True), daemon=True).start()
                threading.Thread(target=self.pass_on, args=(member, client, False), daemon=True).start()
        except OSError:
            pass  # the listener was closed

    def pass_on(self, source, target, from_client):
        try:
            while part := source.recv(1 << 16):
                if from_client and self.text in part:
                    self.silent.set()
                if from_client or not self.silent.is_set():
                    target.sendall(part)
            target.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # one end was closed

    def close(self):
        # shutdown() wakes the thread that waits in accept(), which close() alone does not.
        for connection in [self.listener, *self.sockets]:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            connection.close()


class Failures(CommandTest):
    def setUp(self):
        super().setUp()
        os.environ["TKV_CONF"] = self.environment["TKV_CONF"]

    def assert_failure(self, code, exits, exception, saying, value=VALUE.encode(), prepare=lambda: None):
        """Asserts how writing the value of the key "a" fails, or reading it if `value` is None, first with the command
        and then through the C interface. `prepare` is called before each."""
        prepare()
        words = ["get", "a"] if value is None else ["set", "-q", "a", "-"]
        self.assertIn(saying, self.fails(exits, *words, given=value or b""))
        prepare()
        self.assertEqual(result_of_call(value), code)
        self.assertEqual(exception_of(code), exception)
        self.assertEqual(documented_exits()[code], exits)


class OnADirectory(Failures):
    def assert_unusable(self, saying):
        self.assert_failure(18, UNUSABLE, "RegistryUnusableException", saying)

    def test_damaged_record(self):
        self.tkv("set", "a", VALUE)
        file = self.registry / "data.mdb"
        sound = file.read_bytes()
        self.assertIn(VALUE.encode(), sound)
        file.write_bytes(sound.replace(VALUE.encode(), VALUE.upper().encode()))
        self.assert_failure(7, DAMAGED, "RegistryDamagedException", "'a'", value=None)

    def test_no_space(self):
        self.configure("map_size = 1048576")
        self.tkv("create", "a")
        self.assert_failure(11, OTHER, "StorageFullException", "'a'", value=b"x" * (1 << 20))

    def test_absent_parent_directory(self):
        self.registry = self.folder / "absent" / "registry"
        self.configure()
        self.assert_unusable(str(self.registry))

    def test_location_that_is_a_file(self):
        self.registry.write_text("not a directory")
        self.assert_unusable(str(self.registry))

    def test_location_in_proc(self):
        self.registry = pathlib.Path("/proc/tkv")
        self.configure()
        self.assert_unusable("/proc")

    def test_file_of_another_program(self):
        self.tkv("create", "a")
        (self.registry / "data.mdb").write_bytes(b"not a database" * 1000)
        self.assert_unusable("is not the data file of a registry")

    def test_file_of_another_version_of_lmdb(self):
        self.tkv("create", "a")
        with open(self.registry / "data.mdb", "r+b") as file:
            for meta_page in (0, 4096):
                file.seek(meta_page + 20)
                file.write(b"\x07\0\0\0")
        self.assert_unusable(str(self.registry))

    def test_registry_of_a_newer_format(self):
        self.tkv("create", "a")
        subprocess.run([MAKE_DAMAGE, self.registry, "newer"], check=True)
        self.assert_unusable("and this release reads versions up to ")

    def test_another_writer(self):
        keys = ",".join(f'{{"name":"many.k{number:05}"}}' for number in range(5000))
        self.tkv("import", given=f'{{"tkv":1,"top":"many","keys":[{{"name":"many"}},{keys}]}}')
        self.tkv("create", "a")
        self.configure("timeout_ms = 100")
        writer = self.terminal_with_bars("chmod", "-R", "o=", "many")
        writer.read_until(b"\rchmod ")  # and no further: the writer waits for a reader of its bars
        self.assert_failure(19, UNREACHABLE, "RegistryBusyException",
                            f"process {writer.process.pid} (tkv) is writing to the registry in '{self.registry}'; "
                            "gave up after 100 ms")
        self.assertEqual(writer.finish()[0], DONE)


class OnEtcd(Failures):
    def configure_address(self, endpoint, timeout_ms):
        (self.folder / "tkv.conf").write_text(f"[registry]\nlocation = etcd://{endpoint}\n"
                                              f"[etcd]\ntimeout_ms = {timeout_ms}\n")

    def test_no_member_answers(self):
        self.configure_address("127.0.0.1:1", 200)
        self.assert_failure(15, UNREACHABLE, "RegistryUnavailableException", "127.0.0.1:1")

    def test_lost_reply_to_a_change(self):
        with EtcdCluster() as cluster:
            self.configure_address(cluster.endpoints[0], 60000)
            self.tkv("create", "a")
            proxy = SilentProxy(cluster.endpoints[0], VALUE)
            self.addCleanup(proxy.close)
            self.configure_address(proxy.endpoint, 3000)
            self.assert_failure(20, UNDECIDED, "UndecidedException", proxy.endpoint, prepare=proxy.silent.clear)
            self.configure_address(cluster.endpoints[0], 60000)
            self.assertEqual(self.tkv("get", "--as", "raw", "a").out, VALUE.encode(), "this change was made")


if __name__ == "__main__":
    unittest.main()
