"""Every public method and exception of the Java API is used by a test.

What the tests use is read from the constant pools of their class files: methods that are called or referred to, and
classes that are named.
"""
import collections
import pathlib
import struct
import sys
import unittest
import zipfile

JAR, TESTS = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
del sys.argv[1:]

API = "velmar/qen/mgmt/registry/"
PUBLIC, BRIDGE, SYNTHETIC = 0x0001, 0x0040, 0x1000
ACCESSIBLE = 0x0005  # public or protected

# The tags of constants in a class file, and how many bytes follow those of a fixed size.
UTF8, LONG, DOUBLE, CLASS, METHOD, INTERFACE_METHOD = 1, 5, 6, 7, 10, 11
SIZES = {3: 4, 4: 4, 5: 8, 6: 8, 7: 2, 8: 2, 9: 4, 10: 4, 11: 4, 12: 4, 15: 3, 16: 2, 17: 4, 18: 4, 19: 2, 20: 2}

# Methods of the compiler, or that the language and the JDK call.
IMPLICIT = {"valueOf", "values", "toString", "hashCode", "equals"}


class ClassFile:
    """The name, the supertypes and the accessible methods of a class, and what it refers to."""

    def __init__(self, data):
        self.data, self.at = data, 8
        self.constants = self.read_constants()
        self.access, name, parent = (self.word() for _ in range(3))
        self.name = self.class_name(name)
        interfaces = [self.word() for _ in range(self.word())]
        self.supertypes = {self.class_name(index) for index in [parent, *interfaces] if index}
        self.read_members()  # the fields
        self.methods = {signature for access, signature in self.read_members()
                        if access & ACCESSIBLE and not access & (BRIDGE | SYNTHETIC)}

    def word(self):
        self.at += 2
        return struct.unpack_from(">H", self.data, self.at - 2)[0]

    def read_constants(self):
        constants, index, count = {}, 1, self.word()
        while index < count:
            tag = self.data[self.at]
            self.at += 1
            if tag == UTF8:
                size = self.word()
                value = self.data[self.at:self.at + size].decode(errors="replace")
            else:
                size = SIZES[tag]
                value = [number for number, in struct.iter_unpack(">H", self.data[self.at:self.at + size // 2 * 2])]
            constants[index] = (tag, value)
            self.at += size
            index += 2 if tag in (LONG, DOUBLE) else 1
        return constants

    def text(self, index):
        return self.constants[index][1]

    def class_name(self, index):
        return self.text(self.text(index)[0])

    def read_members(self):
        members = []
        for _ in range(self.word()):
            access, name, descriptor = (self.word() for _ in range(3))
            members.append((access, (self.text(name), self.text(descriptor))))
            for _ in range(self.word()):
                self.at += 2
                self.at += 4 + struct.unpack_from(">I", self.data, self.at)[0]
        return members

    def classes_named(self):
        return {self.text(value[0]) for tag, value in self.constants.values() if tag == CLASS}

    def methods_used(self):
        """Pairs of a class and a method's name and descriptor."""
        for tag, value in self.constants.values():
            if tag in (METHOD, INTERFACE_METHOD):
                name, descriptor = self.text(value[1])
                yield self.class_name(value[0]), (self.text(name), self.text(descriptor))


def api_classes():
    with zipfile.ZipFile(JAR) as jar:
        classes = [ClassFile(jar.read(name)) for name in jar.namelist()
                   if name.startswith(API) and name.endswith(".class") and not name.endswith("package-info.class")]
    return {each.name: each for each in classes}


class ApiUsage(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.api = api_classes()
        cls.tests = [ClassFile(path.read_bytes()) for path in TESTS.rglob("*.class")]

    def public(self):
        return [each for each in self.api.values() if each.access & PUBLIC and "$1" not in each.name]

    def and_supertypes(self, name):
        if name in self.api:
            yield name
            for supertype in self.api[name].supertypes:
                yield from self.and_supertypes(supertype)

    def test_every_public_method_is_used(self):
        used = collections.defaultdict(set)
        for test in self.tests:
            for owner, method in test.methods_used():
                for name in self.and_supertypes(owner):
                    used[name].add(method)
        self.assertGreater(sum(len(methods) for methods in used.values()), 100)
        unused = []
        for each in self.public():
            # A method may also be called as that of a supertype.
            known = set().union(*(used[name] for name in self.and_supertypes(each.name)))
            unused += [f"{each.name}.{name}{descriptor}" for name, descriptor in sorted(each.methods - known)
                       if name not in IMPLICIT]
        self.assertEqual(unused, [])

    def test_every_exception_is_caused(self):
        named = set()
        for test in self.tests:
            # That test creates exceptions itself.
            if not test.name.startswith(API + "ExceptionTest"):
                named |= test.classes_named()
        exceptions = {each.name for each in self.public() if each.name.endswith("Exception")}
        self.assertGreater(len(exceptions), 10)
        self.assertEqual(exceptions - named, set())


if __name__ == "__main__":
    unittest.main()
