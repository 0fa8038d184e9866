"""No class has more than forty methods; a larger one does several things and has to be split.

Every declaration in the class's body counts, overloads and operators too, but not what makes and ends an object nor
what is deleted. The classes of the public interface are exempt.
"""
import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(sys.argv.pop(1)).resolve()

LIMIT = 40
EXEMPT = {"Registry", "RegistryReader"}  # the Java API

FOLDERS = ["framework", "platform", "tools", "java/src"]
SUFFIXES = {".h", ".cpp", ".java"}
# What may contain braces and parentheses that do not count: comments, strings, characters, preprocessor lines.
NOISE = re.compile(r"""//[^\n]* | /\*.*?\*/ | R"\(.*?\)" | "(?:\\.|[^"\\\n])*" | (?<!\w)'(?:\\.|[^'\\\n])+'
                       | ^[ \t]*\#(?:[^\n\\]|\\.)*""", re.DOTALL | re.MULTILINE | re.VERBOSE)
CLASS = re.compile(r"""(?<!<)(?<!,\ )\b(?:enum\s+class|class|struct|interface|enum|record)\s+(?:\[\[\w+\]\]\s*)?(\w+)
                       [^;{}()=]*(?:\([^(){}]*\)[^;{}()=]*)?\{""", re.VERBOSE)
NO_METHOD = re.compile(r"^\s*(?:(?:public|protected|private|static|final)\b\s*:?\s*)*"
                       r"(?:using|friend|typedef|static_assert|enum|record|class|struct)\b")


def body_end(text, start):
    """The position behind the brace that closes the one at `start`."""
    depth = 0
    for position in range(start, len(text)):
        depth += {"{": 1, "}": -1}.get(text[position], 0)
        if depth == 0:
            return position + 1
    raise ValueError("braces do not match")


def members(body):
    """The declarations of a class's body, each up to its semicolon or its own body, without what is in braces."""
    declaration, position = "", 0
    while position < len(body):
        if body[position] == "{":
            yield declaration
            declaration, position = "", body_end(body, position)
            continue
        if body[position] == ";":
            yield declaration
            declaration = ""
        else:
            declaration += body[position]
        position += 1


def is_method(declaration, class_name):
    declaration = re.sub(r"@\w+(\([^)]*\))?|\balignas\s*\([^)]*\)|<[^<>]*(<[^<>]*>[^<>]*)*>", " ", declaration)
    if NO_METHOD.match(declaration) is not None or re.search(r"=\s*delete\s*$", declaration) is not None:
        return False
    head = declaration.split("=")[0] if "operator" not in declaration else declaration
    name = re.search(r"(~?\w+|operator\W+)\s*\(", head)
    return name is not None and name.group(1).lstrip("~") != class_name


def methods(text):
    """Every class of a source, with the number of its methods."""
    text = NOISE.sub(" ", text)
    for match in CLASS.finditer(text):
        brace = match.end() - 1
        body = text[brace + 1:body_end(text, brace) - 1]
        yield match.group(1), sum(is_method(declaration, match.group(1)) for declaration in members(body))


def classes():
    for folder in FOLDERS:
        for path in sorted((ROOT / folder).rglob("*")):
            if path.suffix in SUFFIXES:
                for name, count in methods(path.read_text(encoding="utf-8")):
                    yield f"{path.relative_to(ROOT)}: {name}", name, count


class ClassSize(unittest.TestCase):
    def test_no_class_has_more_than_forty_methods(self):
        found = list(classes())
        self.assertGreater(len(found), 100)
        large = [f"{place}: {count}" for place, name, count in found if count > LIMIT and name not in EXEMPT]
        self.assertEqual(large, [])

    def test_methods_are_counted(self):
        text = """
            class Lock final : public Base<int> {  // f();
             public:
              explicit Lock(int fd = open("}")) : fd_(fd) { take(); }
              ~Lock();
              Lock(const Lock&) = delete;
              Lock& operator=(const Lock&) = delete;
              bool operator<(const Lock& other) const;
              [[nodiscard]] bool held() const noexcept { if (x()) { return y(); } return fd_ >= 0; }
              template <class F> void with(F&& f, int (*g)(int) = nullptr);
              template <class F> void without(F f) { f(1'000, "a", 2'000); }
              enum class Mode { kShared = bits(1), kExclusive };
              using Callback = std::function<void(int)>;
              friend bool operator==(const Lock&, const Lock&);
              struct Holder { int pid; std::string name() const; };
             private:
              static constexpr int kMany = many(3);
              std::vector<int> waiting_{};
              std::function<int(std::vector<int> all)> waiter_;
              int fd_ = -1;
            };
        """
        self.assertEqual(list(methods(text)), [("Lock", 4), ("Mode", 0), ("Holder", 1)])

    def test_java_is_counted_too(self):
        text = """
            @SuppressWarnings("unused")
            public final class Key implements Comparable<Key> {
                private final String name = named("a");
                Key(String name) { this.name = name; }
                @Override public int compareTo(Key other) throws Failure { return 0; }
                record Pair(int a, int b) { int sum() { return a + b; } }
                abstract void f();
            }
        """
        self.assertEqual(list(methods(text)), [("Key", 2), ("Pair", 1)])


if __name__ == "__main__":
    unittest.main()
