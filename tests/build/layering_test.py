"""Which folder may include which: arrows only point down.

java -> bridge -> platform/if <- platform services; registry -> store.h <- stores; tools, java/native -> registry; all ->
base.
Headers of the platform are included by their path below platform/, those of platform/if by their bare name.
"""
import pathlib
import posixpath
import re
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()

# What files of a folder may include, besides their own folder and the system's headers. The longest folder counts.
LAYERS = {
    "framework/tkv": ["framework/tkv/if", "platform/if"],
    "framework/tkv/if": ["platform/if"],
    "platform/if": [],
    "platform/base": ["platform/if"],
    "platform/lpm": ["platform/if", "platform/base"],
    "platform/scls": ["platform/if", "platform/base"],
    "platform/lx": ["platform/if", "platform/base"],
    "platform/prsrvut": ["platform/if", "platform/base", "platform/lx"],
    "platform/cls": ["platform/if", "platform/base", "platform/registry"],
    "platform/registry": ["platform/if", "platform/base", "platform/store"],
    "platform/store": ["platform/if", "platform/base", "platform/store/lmdb", "platform/store/etcd"],
    "platform/store/lmdb": ["platform/if", "platform/base", "platform/store"],
    "platform/store/etcd": ["platform/if", "platform/base", "platform/store"],
    "tools/tkv": ["platform/if", "platform/base", "platform/registry"],
    "java/native": ["platform/if", "platform/base", "platform/registry"],
    "java/native/loading": ["framework/tkv/if", "platform/if", "platform/prsrvut", "java/native"],
}

# The registry client as programs see it.
CLIENT = {"client.h", "open_client.h", "configuration.h", "access.h", "difference.h", "name.h"}

# For some pairs of layers, the only headers of the lower one that the upper one may include: its interface.
FACES = {
    ("platform/registry", "platform/store"): {"store.h", "store_kinds.h", "setting_values.h"},
    ("platform/store", "platform/store/lmdb"): {"kind.h"},
    ("platform/store", "platform/store/etcd"): {"kind.h"},
    ("tools/tkv", "platform/registry"): CLIENT,
    ("java/native", "platform/registry"): CLIENT | {"zuved.h"},
    ("java/native/loading", "java/native"): {"registry_natives.h"},
    ("java/native/loading", "platform/prsrvut"): {"loading.h", "native_call.h"},
}

# The bridge knows JNI and the platform's functions: no file, no thread, no system call.
BRIDGE_SYSTEM_HEADERS = {
    "algorithm", "array", "assert.h", "bit", "cassert", "climits", "cstddef", "cstdint", "cstdio", "cstdlib",
    "cstring", "iterator", "jni.h", "limits", "memory", "span", "stddef.h", "stdint.h", "string_view", "type_traits", "utility",
}
BRIDGE = {"framework/tkv", "framework/tkv/if", "platform/if"}

# Headers that the build generates.
GENERATED = re.compile(r"\.pb\.h$|^store/etcd/module_abi\.h$")

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^>"]+)[>"]', re.MULTILINE)
SOURCES = {".h", ".hpp", ".c", ".cc", ".cpp"}


def folder_of(path):
    return path.parent.as_posix()


def layer_of(folder):
    layers = [layer for layer in LAYERS if folder == layer or folder.startswith(layer + "/")]
    return max(layers, key=len) if layers else None


def sources(root):
    for top in ("framework", "platform", "tools", "java"):
        for path in sorted((root / top).rglob("*")):
            if path.suffix in SOURCES:
                yield path.relative_to(root)


def resolve(path, name, files):
    """The file that `#include "name"` in `path` means, or None."""
    for folder in (folder_of(path), "framework/tkv/if", "platform/if", "platform", "java/native"):
        candidate = pathlib.PurePosixPath(posixpath.normpath(posixpath.join(folder, name)))
        if candidate in files:
            return candidate
    return None


def violations(root):
    files = {pathlib.PurePosixPath(path.as_posix()) for path in sources(root)}
    for path in sorted(files):
        layer = layer_of(folder_of(path))
        if layer is None:
            yield f"{path}: a folder that has no layer"
            continue
        for mark, name in INCLUDE.findall((root / path).read_text(encoding="utf-8")):
            yield from check(path, layer, mark, name, files)


def check(path, layer, mark, name, files):
    found = resolve(path, name, files) if mark == '"' else None
    if found is None:
        if mark == '"' and not GENERATED.search(name):
            yield f'{path}: "{name}" is no file of the tree'
        elif layer in BRIDGE and (mark == "<" and name not in BRIDGE_SYSTEM_HEADERS):
            yield f"{path}: <{name}> is none of the bridge's business"
        return
    target = layer_of(folder_of(found))
    if target == layer:
        return
    if target not in LAYERS[layer]:
        yield f"{path}: includes {found}, which is not below it"
    elif found.name not in FACES.get((layer, target), {found.name}):
        yield f"{path}: includes {found}, which is not part of an interface"


class Layers(unittest.TestCase):
    def test_arrows_only_point_down(self):
        self.assertEqual(list(violations(ROOT)), [])

    def test_every_layer_has_files(self):
        layers = {layer_of(folder_of(path)) for path in sources(ROOT)}
        self.assertEqual(sorted(layer for layer in LAYERS if layer not in layers), [])

    def test_an_arrow_that_points_up_is_seen(self):
        rows = [
            ("framework/tkv/tkv.cpp", '"store/store.h"', "is not below"),
            ("framework/tkv/tkv.cpp", '"lx/charset.h"', "is not below"),
            ("framework/tkv/tkv.cpp", '"../../platform/store/store.h"', "is not below"),
            ("framework/tkv/tkv.cpp", "<thread>", "none of the bridge's business"),
            ("framework/tkv/if/tkv.h", "<lmdb.h>", "none of the bridge's business"),
            ("platform/if/lpm.h", '"store/store.h"', "is not below"),
            ("platform/if/lpm.h", '"tkv.h"', "is not below"),
            ("platform/base/status.h", '"store/store.h"', "is not below"),
            ("platform/lx/charset.h", '"registry/session.h"', "is not below"),
            ("platform/store/store.h", '"registry/session.h"', "is not below"),
            ("platform/store/store.h", '"store/lmdb/file.h"', "not part of an interface"),
            ("platform/store/lmdb/file.h", '"store/etcd/cluster.h"', "is not below"),
            ("platform/store/etcd/cluster.h", '"store/lmdb/file.h"', "is not below"),
            ("platform/registry/session.h", '"store/lmdb/file.h"', "is not below"),
            ("platform/registry/session.h", '"tkv.h"', "is not below"),
            ("tools/tkv/main.cpp", '"store/store.h"', "is not below"),
            ("tools/tkv/main.cpp", '"registry/session.h"', "not part of an interface"),
            ("tools/tkv/main.cpp", '"lx/charset.h"', "is not below"),
            ("tools/tkv/main.cpp", '"gone.h"', "no file of the tree"),
            ("tools/tkv/main.cpp", '"session.h"', "no file of the tree"),
            ("java/native/walk.cpp", '"store/store.h"', "is not below"),
            ("java/native/walk.cpp", '"tkv.h"', "is not below"),
            ("java/native/walk.cpp", '"registry/session.h"', "not part of an interface"),
            ("java/native/loading/natives.cpp", '"registry/client.h"', "is not below"),
            ("tools/other/main.cpp", '"store/store.h"', "no layer"),
        ]
        everything = ["framework/tkv/if/tkv.h", "platform/if/lpm.h", "platform/lx/charset.h", "platform/store/store.h",
                      "platform/store/lmdb/file.h", "platform/store/etcd/cluster.h", "platform/registry/session.h",
                      "platform/registry/client.h"]
        for source, include, message in rows:
            with self.subTest(source=source, include=include), tempfile.TemporaryDirectory() as folder:
                root = pathlib.Path(folder)
                for name in [*everything, source]:
                    path = root / name
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.write_text(f"#  include {include}\n" if name == source else "")
                found = list(violations(root))
                self.assertEqual(len(found), 1, found)
                self.assertIn(message, found[0])


if __name__ == "__main__":
    unittest.main()
