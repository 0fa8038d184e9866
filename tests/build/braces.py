#!/usr/bin/env python3
"""The one rule about braces that clang-format 14 cannot enforce: an `if` whose statement does not fit on its line has
braces, and one that only returns, and fits, stands on one line without them.

Usage: braces.py [--fix] FILE...    lists what breaks the rule and fails, or mends it; clang-format does the rest
"""
import re
import sys

WIDTH = 120
LEAVES = re.compile(r"\s*(return\b.*|continue|break);$")
TEXT = re.compile(r'"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])+\'|//.*')


def blank(line):
    """The line with its strings and comments blanked, so that only the punctuation of the language is left."""
    return TEXT.sub(lambda match: "_" * len(match.group()), line)


def condition_end(lines, first):
    """The line and column after the parenthesis that closes the condition of the `if` in line `first`."""
    depth = 0
    for number in range(first, len(lines)):
        for column, sign in enumerate(blank(lines[number])):
            depth += {"(": 1, ")": -1}.get(sign, 0)
            if sign == ")" and depth == 0:
                return number, column + 1
    raise ValueError(f"line {first + 1}: no end")


def statement_end(lines, first):
    """The last line of the simple statement that begins in line `first`."""
    depth = 0
    for number in range(first, len(lines)):
        line = blank(lines[number])
        depth += sum({"(": 1, "{": 1, "[": 1, ")": -1, "}": -1, "]": -1}.get(sign, 0) for sign in line)
        if depth == 0 and re.search(r";\s*_*$", line):
            return number
    raise ValueError(f"line {first + 1}: no end")


def mend(lines):
    """Changes the lines to keep the rule; returns the numbers of the lines that broke it."""
    broken, number = [], 0
    while number < len(lines):
        start = re.match(r"(\s*)if (constexpr )?\(", lines[number])
        if start is None:
            number += 1
            continue
        indent = start.group(1)
        end, column = condition_end(lines, number)
        rest = lines[end][column:]
        if rest == "":
            last = statement_end(lines, end + 1)
            follows = lines[last + 1].strip() if last + 1 < len(lines) else ""
            if not follows.startswith("else"):
                broken.append(number + 1)
                lines[end] += " {"
                lines.insert(last + 1, indent + "}")
        elif rest == " {" and end == number and lines[end + 2] == indent + "}" and LEAVES.match(lines[end + 1]):
            whole = lines[end][:-1] + lines[end + 1].strip()
            if len(whole) <= WIDTH:
                broken.append(number + 1)
                lines[end:end + 3] = [whole]
        number += 1
    return broken


def main(fix, paths):
    failed = False
    for path in paths:
        with open(path, encoding="utf-8") as file:
            lines = file.read().split("\n")
        broken = mend(lines)
        if broken and fix:
            with open(path, "w", encoding="utf-8") as file:
                file.write("\n".join(lines))
        elif broken:
            failed = True
            print("\n".join(f"{path}:{number}: the braces of this `if`" for number in broken), file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:2] == ["--fix"], [path for path in sys.argv[1:] if path != "--fix"]))
