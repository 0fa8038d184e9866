"""Figures in tables, and how they are shown."""

import math
import statistics


class Failure(Exception):
    """What went wrong, as a message for the user."""


class Table:
    """Figures by row and column: a list of values for each cell, empty if there is no such thing.

    With an axis, rows are points on it, and the table can be drawn: `axis` is its label, and each row has a number.
    `base` is the column that the others are divided by.
    """

    def __init__(self, name, title, columns, unit="ns", axis=None, base="tkv"):
        self.name, self.title, self.columns, self.unit, self.axis = name, title, list(columns), unit, axis
        self.base = base
        self.rows = {}      # label: {column: values}
        self.positions = {}  # label: number on the axis

    def add_row(self, label, position=None):
        self.rows[label] = {column: [] for column in self.columns}
        if self.axis is not None:
            self.positions[label] = position

    def add(self, label, column, values):
        self.rows[label][column] += values

    def median(self, label, column):
        values = self.rows[label][column]
        return statistics.median(values) if values else None

    def p10(self, label, column):
        """The value that a tenth of the values stays below."""
        values = sorted(self.rows[label][column])
        return values[(len(values) - 1) // 10] if values else None

    def ratio(self, label, column, base):
        value, floor = self.median(label, column), self.median(label, base)
        return value / floor if value is not None and floor else None

    def to_json(self):
        return {"name": self.name, "title": self.title, "unit": self.unit, "columns": self.columns, "axis": self.axis,
                "base": self.base,
                "rows": [{"label": label, "position": self.positions.get(label), "cells": cells}
                         for label, cells in self.rows.items()]}

    @staticmethod
    def from_json(data):
        made = Table(data["name"], data["title"], data["columns"], data["unit"], data["axis"], data["base"])
        for row in data["rows"]:
            made.add_row(row["label"], row["position"])
            for column, values in row["cells"].items():
                made.add(row["label"], column, values)
        return made

    def shown(self, number):
        if number is None:
            return "-"
        return {"ns": shown_time, "KiB": shown_memory}.get(self.unit, shown_number)(number)

    def text(self):
        """The lines of a table of medians and, unless all cells have one value at most, of one of tenth percentiles."""
        lines = aligned([f"{self.title}, median"] + self.columns, self.cells(self.median)) + [""]
        if any(len(values) > 1 for row in self.rows.values() for values in row.values()):
            lines += aligned([f"{self.title}, p10"] + self.columns, self.cells(self.p10)) + [""]
        return lines

    def cells(self, figure):
        return [[label] + [self.shown(figure(label, column)) for column in self.columns] for label in self.rows]

    def ratios_text(self, without=()):
        """The lines of a table of medians divided by those of the base."""
        base = self.base
        columns = [column for column in self.columns if column not in without]
        rows = []
        for label in self.rows:
            ratios = {column: self.ratio(label, column, base) for column in columns}
            if any(ratio is not None for column, ratio in ratios.items() if column != base):
                rows.append([label] + ["-" if ratios[column] is None else shown_number(ratios[column])
                                       for column in columns])
        return aligned([f"{self.title}, times of {base}"] + columns, rows) + [""]

    def markdown(self, base=None):
        """The lines of a Markdown table of medians with p10 in brackets, or of ratios to one column."""
        head = ["", *self.columns] if base is None else ["", *(column for column in self.columns if column != base)]
        lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
        for label in self.rows:
            if base is None:
                cells = [self.shown_with_p10(label, column) for column in head[1:]]
            else:
                ratios = [self.ratio(label, column, base) for column in head[1:]]
                cells = ["-" if ratio is None else shown_number(ratio) for ratio in ratios]
            if any(cell != "-" for cell in cells):
                lines.append(f"| {label} | " + " | ".join(cells) + " |")
        return lines

    def shown_with_p10(self, label, column):
        median, low = self.median(label, column), self.p10(label, column)
        if median is None:
            return "-"
        return self.shown(median) if low == median else f"{self.shown(median)} ({self.shown(low)})"


def shown_time(nanoseconds):
    for unit, factor in (("ns", 1), ("µs", 1e3), ("ms", 1e6), ("s", 1e9)):
        if nanoseconds < 999.5 * factor or unit == "s":
            return f"{shown_number(nanoseconds / factor)} {unit}"


def shown_memory(kibibytes):
    return f"{shown_number(kibibytes / 1024)} MiB"


def shown_number(number):
    return f"{number:.2f}" if number < 10 else f"{number:.1f}" if number < 100 else f"{number:,.0f}"


def shown_size(size):
    """A number of bytes, as in "20 B", "1 KiB" or "1 MiB"."""
    for unit, factor in (("MiB", 2**20), ("KiB", 2**10)):
        if size + 1 >= factor:
            return f"{math.ceil(size / factor)} {unit}"
    return f"{size} B"


def aligned(head, rows):
    """The lines of a table with aligned columns: the first to the left, the others to the right."""
    rows = [head] + rows
    widths = [max(len(row[column]) for row in rows) for column in range(len(head))]
    return ["  ".join(cell.ljust(width) if column == 0 else cell.rjust(width)
                      for column, (cell, width) in enumerate(zip(row, widths))).rstrip() for row in rows]
