#!/usr/bin/env python3
"""Prints a table of the tests of a run of ctest: name, result, seconds, and the totals that the test printed last.

  prove_table.py FILE    the file that `ctest --output-junit` has written"""
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


def table(text):
    lines = [("test", "result", "seconds", "totals"), *rows(text)]
    name, result, seconds = (max(len(line[column]) for line in lines) for column in range(3))
    return "".join(f"{line[0]:{name}}  {line[1]:{result}}  {line[2]:>{seconds}}  {line[3]}".rstrip() + "\n"
                   for line in lines)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        print(table(file.read()), end="")
