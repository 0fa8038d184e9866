#!/usr/bin/env python3
"""Prints a table of the tests of runs of ctest: name, result, seconds, and the totals that the test printed last.

  prove_table.py FILE...    the files that `ctest --output-junit` has written; one that is missing is shown as FAILED,
                            and the exit code is then 1"""
import pathlib
import re
import sys
import xml.etree.ElementTree

RESULTS = {"run": "passed", "fail": "FAILED", "notrun": "skipped", "disabled": "disabled"}
# What a test framework prints after the output of the tests themselves.
FRAME = re.compile(r"\[|-+$|OK\b|FAILED\b|Ran \d+ tests?|Test run finished")


def totals(output):
    """The last line that has a figure and is not a test framework's."""
    lines = [line.strip() for line in output.splitlines()]
    return next((line for line in reversed(lines) if re.search(r"\d", line) and not FRAME.match(line)), "")


def rows(text):
    for case in xml.etree.ElementTree.fromstring(text).iter("testcase"):
        result = RESULTS.get(case.get("status"), case.get("status"))
        yield case.get("name"), result, f"{float(case.get('time')):.0f}", totals(case.findtext("system-out") or "")


def rows_of_file(path):
    if path.exists():
        return [*rows(path.read_text(encoding="utf-8"))]
    return [(path.stem, "FAILED", "0", f"{path} was not written")]


def table(tests):
    lines = [("test", "result", "seconds", "totals"), *tests]
    name, result, seconds = (max(len(line[column]) for line in lines) for column in range(3))
    return "".join(f"{line[0]:{name}}  {line[1]:{result}}  {line[2]:>{seconds}}  {line[3]}".rstrip() + "\n"
                   for line in lines)


if __name__ == "__main__":
    files = [pathlib.Path(word) for word in sys.argv[1:]]
    print(table([row for file in files for row in rows_of_file(file)]), end="")
    sys.exit(0 if all(file.exists() for file in files) else 1)
