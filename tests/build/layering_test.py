"""Which folder may include which: arrows only point down.

java -> bridge -> platform/if <- platform services; registry -> store.h <- stores; tools -> registry.
"""
import pathlib
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
    "platform/lpm": ["platform/if"],
    "platform/scls": ["platform/if"],
    "platform/lx": ["platform/if"],
    "platform/prsrvut": ["platform/if", "platform/lx"],
    "platform/cls": ["platform/if", "platform/registry"],
    "platform/registry": ["platform/if", "platform/store"],
    "platform/store": ["platform/if"],
    "tools/tkv": ["platform/if", "platform/registry", "platform/store"],
}

# What is seen of the stores: their interface and how they are opened, not what they are made of; above the registry no
# more than the types in which it asks and answers.
STORE_FACES = {
    "platform/registry": {"store.h", "status.h", "function_ref.h", "store_limits.h", "lmdb_store.h",
                          "lmdb_directory.h", "etcd_module.h", "descriptor.h", "system_entries.h"},
    "tools/tkv": {"status.h", "function_ref.h", "standard_files.h", "system_entries.h"},
}

# The bridge knows JNI and the platform's functions: no file, no thread, no system call.
BRIDGE_SYSTEM_HEADERS = {
    "algorithm", "array", "assert.h", "bit", "cassert", "climits", "cstddef", "cstdint", "cstdio", "cstring", "iterator",
    "jni.h", "limits", "span", "stddef.h", "stdint.h", "string_view", "type_traits", "utility",
}
BRIDGE = {"framework/tkv", "framework/tkv/if", "platform/if"}

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^>"]+)[>"]', re.MULTILINE)
SOURCES = {".h", ".hpp", ".c", ".cc", ".cpp"}


def folder_of(path):
    return path.parent.as_posix()


def layer_of(folder):
    layers = [layer for layer in LAYERS if folder == layer or folder.startswith(layer + "/")]
    return max(layers, key=len) if layers else None


def sources(root):
    for top in ("framework", "platform", "tools"):
        for path in sorted((root / top).rglob("*")):
            if path.suffix in SOURCES:
                yield path.relative_to(root)


def violations(root):
    files = list(sources(root))
    places = {}
    for path in files:
        places.setdefault(path.name, []).append(path)
    for path in files:
        layer = layer_of(folder_of(path))
        if layer is None:
            yield f"{path}: a folder that has no layer"
            continue
        for mark, name in INCLUDE.findall((root / path).read_text(encoding="utf-8")):
            yield from check(path, layer, mark, name, places)


def check(path, layer, mark, name, places):
    base = pathlib.PurePosixPath(name).name
    found = places.get(base, []) if mark == '"' else []
    if mark == '"' and not found and not base.endswith((".pb.h",)):
        yield f'{path}: "{name}" is no file of the tree'
    if not found:
        if layer in BRIDGE and (mark == "<" and name not in BRIDGE_SYSTEM_HEADERS):
            yield f"{path}: <{name}> is none of the bridge's business"
        return
    own = [place for place in found if layer_of(folder_of(place)) == layer]
    if own:
        return
    for place in found:
        target = layer_of(folder_of(place))
        if target not in LAYERS[layer]:
            yield f"{path}: includes {place}, which is not below it"
        elif target == "platform/store" and base not in STORE_FACES[layer]:
            yield f"{path}: includes {place}, which is a store's own"


class Layers(unittest.TestCase):
    def test_arrows_only_point_down(self):
        self.assertEqual(list(violations(ROOT)), [])

    def test_every_layer_has_files(self):
        layers = {layer_of(folder_of(path)) for path in sources(ROOT)}
        self.assertEqual(sorted(layer for layer in LAYERS if layer not in layers), [])

    def test_an_arrow_that_points_up_is_seen(self):
        rows = [
            ("framework/tkv/tkv.cpp", '"store.h"', "is not below"),
            ("framework/tkv/tkv.cpp", '"charset.h"', "is not below"),
            ("framework/tkv/tkv.cpp", '"../../platform/store/store.h"', "is not below"),
            ("framework/tkv/tkv.cpp", "<thread>", "none of the bridge's business"),
            ("framework/tkv/if/tkv.h", "<lmdb.h>", "none of the bridge's business"),
            ("platform/if/lpm.h", '"store.h"', "is not below"),
            ("platform/if/lpm.h", '"tkv.h"', "is not below"),
            ("platform/lx/charset.h", '"session.h"', "is not below"),
            ("platform/store/store.h", '"session.h"', "is not below"),
            ("platform/registry/session.h", '"lmdb_file.h"', "a store's own"),
            ("platform/registry/session.h", '"tkv.h"', "is not below"),
            ("tools/tkv/main.cpp", '"store.h"', "a store's own"),
            ("tools/tkv/main.cpp", '"charset.h"', "is not below"),
            ("tools/tkv/main.cpp", '"gone.h"', "no file of the tree"),
            ("tools/other/main.cpp", '"store.h"', "no layer"),
        ]
        everything = ["framework/tkv/if/tkv.h", "platform/if/lpm.h", "platform/lx/charset.h", "platform/store/store.h",
                      "platform/store/lmdb_file.h", "platform/registry/session.h"]
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
