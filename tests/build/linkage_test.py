"""The symbols that the bridge needs, and those that libtkv.so exports and needs."""
import platform
import re
import subprocess
import sys
import unittest

BRIDGE, LIBRARY, HEADER, FORTIFIED = sys.argv[1:5]
SHIPPED = sys.argv[5:]
del sys.argv[1:]

# Every function of the platform's interface. A site may supply its own, so the bridge must need these and no others.
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

# What a compiler may turn the bridge's copying, comparing and formatting into, and the memory for deep copies.
C_LIBRARY = re.compile(r"""(__)?(mem(c?cpy|move|set|cmp|chr)|str(n?len|n?cmp|n?cpy|chr)|v?snprintf)(_chk)?$
                           |(calloc|free)$""", re.VERBOSE)
COMPILER = re.compile(r"""_GLOBAL_OFFSET_TABLE_$|__stack_chk_fail$|__gxx_personality_v0$|_Unwind_Resume$
                          |__(asan|ubsan|tsan|gcov|sanitizer)_.*""", re.VERBOSE)

NEEDED = re.compile(r"lib(stdc\+\+|gcc_s|c|m|pthread|dl|rt|lmdb|xxhash|inih|asan|ubsan|tsan)\.so[.\d]*$|ld-linux.*$")
HEAVY = re.compile(r"grpc|protobuf|absl|etcd|jvm|libssl|icu", re.IGNORECASE)


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def symbols(*options):
    # Without a plugin, nm reads the symbols of the compiled code, not those that link-time optimisation starts from.
    listed = output("nm", "--plugin", "/dev/null", *options)
    return {line.split()[-1].split("@")[0] for line in listed.splitlines() if re.search(r" [A-Za-z] ", line)}


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


class Hardening(unittest.TestCase):
    """Of the bridge, and of every library and program that is installed."""

    def test_relocations_are_read_only_and_the_stack_does_not_execute(self):
        for file in SHIPPED:
            with self.subTest(file=file):
                segments = output("readelf", "-lW", file)
                self.assertIn("GNU_RELRO", segments)
                self.assertRegex(output("readelf", "-dW", file), r"FLAGS.*NOW")
                self.assertNotRegex(segments, r"GNU_STACK.*RWE")
                self.assertIn("DYN", output("readelf", "-h", file))

    def test_arrays_on_the_stack_are_guarded(self):
        for file in [BRIDGE, *SHIPPED]:
            with self.subTest(file=file):
                self.assertIn("__stack_chk_fail", symbols("--undefined-only", file))

    @unittest.skipUnless(platform.machine() == "x86_64", "a feature of x86-64")
    def test_calls_through_pointers_land_where_functions_begin(self):
        # The linker drops the note of this from what it links, for the C library's start files lack it.
        notes = output("readelf", "-nW", BRIDGE)
        self.assertRegex(notes, r"x86 feature: IBT, SHSTK")
        for method in native_methods():
            with self.subTest(method=method):
                first = output("objdump", "-d", "--no-show-raw-insn", f"--disassemble={method}", LIBRARY)
                self.assertRegex(first, rf"<{method}>:\n\s*[0-9a-f]+:\s+endbr64")

    def test_calls_of_the_c_library_are_checked(self):
        checked = {name for name in symbols("--undefined-only", LIBRARY) if re.fullmatch(r"__\w+_chk", name)}
        # Unoptimised and sanitized builds have no such checks.
        self.assertEqual(checked != set(), FORTIFIED == "ON")


if __name__ == "__main__":
    unittest.main()
