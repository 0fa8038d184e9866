"""What the bridge asks of others, and what libtkv.so shows and needs."""
import re
import subprocess
import sys
import unittest

BRIDGE, LIBRARY, HEADER = sys.argv[1:4]
del sys.argv[1:4]

# Every function of the platform's interface. A site may put its own in their place, so that the bridge must need
# these and no others.
PLATFORM = set("""
    prsrvut_setStatus prsrvut_setBooleanResult prsrvut_callMethod prsrvut_trace prsrvut_isDebugOn prsrvut_NewStringUTF
    prsrvut_NewString prsrvut_FindClass prsrvut_NewObjectArray prsrvut_getNativeString
    prtkv_init_ext prtkv_terminate prtkv_open_key prtkv_close_key prtkv_create_key prtkv_create_n_set_key
    prtkv_create_n_set_key_ext prtkv_delete_key prtkv_move_key prtkv_enum_subkey prtkv_get_value prtkv_set_value
    prtkv_get_key_security prtkv_set_key_security prtkv_set_key_security_ext prtkv_get_last_error prtkv_get_conf
    prtkv_check_storage prtkv_get_backup_loc prtkv_set_zuved_dependencies
    prou_allocm prou_freem
    lpminit lpmprinit lpmprterm
    clsugetconf clsvswpatch
    scls_meta_query_size scls_meta_ctx_init scls_idq_get_user_name scls_idq_get_primary_privgrp_name
    lxlinit lxinitc lxhLangEnv lxhcsn lxlterm lxhci2h lxsulen lxgt2u
""".split())

# What a compiler may turn the bridge's copying, comparing and formatting into.
C_LIBRARY = re.compile(r"""(__)?(mem(c?cpy|move|set|cmp|chr)|str(n?len|n?cmp|n?cpy|chr)|v?snprintf)(_chk)?$""")
COMPILER = re.compile(r"""_GLOBAL_OFFSET_TABLE_$|__stack_chk_fail$|__gxx_personality_v0$|_Unwind_Resume$
                          |__(asan|ubsan|tsan|gcov|sanitizer)_.*""", re.VERBOSE)

NEEDED = re.compile(r"lib(stdc\+\+|gcc_s|c|m|pthread|dl|rt|lmdb|xxhash|inih|asan|ubsan|tsan)\.so[.\d]*$|ld-linux.*$")
HEAVY = re.compile(r"grpc|protobuf|absl|etcd|jvm|libssl|icu", re.IGNORECASE)


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def symbols(*options):
    return {line.split()[-1].split("@")[0] for line in output("nm", *options).splitlines() if re.search(r" [A-Za-z] ", line)}


def native_methods():
    with open(HEADER, encoding="utf-8") as header:
        names = re.findall(r"^TKV_NATIVE\(\w+, (\w+)\)", header.read(), re.MULTILINE)
    return {"Java_velmar_qen_mgmt_nativesystem_TKVNative_" + name for name in names}


class Bridge(unittest.TestCase):
    def test_needs_the_platforms_functions_and_no_others(self):
        needed = symbols("--undefined-only", BRIDGE)
        self.assertEqual(sorted(PLATFORM - needed), [])
        others = {name for name in needed - PLATFORM if not C_LIBRARY.match(name) and not COMPILER.match(name)}
        self.assertEqual(sorted(others), [])

    def test_defines_the_native_methods_for_all_to_see(self):
        shown = {name for name in symbols("--defined-only", "--extern-only", BRIDGE) if name.startswith("Java_")}
        self.assertEqual(len(shown), 24)
        self.assertEqual(shown, native_methods())


class Library(unittest.TestCase):
    def test_shows_the_native_methods_and_what_loading_needs(self):
        shown = symbols("-D", "--defined-only", LIBRARY)
        self.assertEqual(sorted(shown), sorted(native_methods() | {"JNI_OnLoad", "JNI_OnUnload"}))

    def test_needs_nothing_of_the_platform_from_outside(self):
        self.assertEqual(sorted(symbols("-D", "--undefined-only", LIBRARY) & PLATFORM), [])

    def test_needs_few_libraries(self):
        needed = re.findall(r"\(NEEDED\).*\[(.+)\]", output("readelf", "-dW", LIBRARY))
        self.assertTrue(needed)
        self.assertEqual([name for name in needed if not NEEDED.match(name)], [])

    def test_loads_nothing_heavy(self):
        loaded = output("ldd", LIBRARY)
        self.assertIn("libc.so", loaded)
        self.assertNotIn("not found", loaded)
        self.assertEqual([line for line in loaded.splitlines() if HEAVY.search(line.split("=>")[0])], [])

    def test_is_hardened(self):
        self.assertIn("GNU_RELRO", output("readelf", "-lW", LIBRARY))
        self.assertRegex(output("readelf", "-dW", LIBRARY), r"FLAGS.*NOW")
        stack = [line for line in output("readelf", "-lW", LIBRARY).splitlines() if "GNU_STACK" in line]
        self.assertNotIn("RWE", stack[0])


if __name__ == "__main__":
    unittest.main()
