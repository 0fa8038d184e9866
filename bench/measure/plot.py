"""Plots as SVG: one line for each column of a table, both axes logarithmic."""

import math
from xml.sax.saxutils import escape

WIDTH, HEIGHT = 720, 400
LEFT, RIGHT, TOP, BOTTOM = 80, 130, 40, 50
# Colours that people with any colour vision can tell apart.
COLOURS = {"tkv": "#0072b2", "registry": "#56b4e9", "lmdb": "#000000", "sqlite": "#e69f00", "mvstore": "#009e73",
           "bdb": "#d55e00", "prefs": "#cc79a7"}
OTHER_COLOUR = "#666666"
FLOOR = "lmdb"  # drawn dashed


class Axis:
    """A logarithmic axis from `start` to `end`, in the plot's coordinates."""

    def __init__(self, values, start, end):
        self.low, self.high = math.log10(min(values)), math.log10(max(values))
        if self.high - self.low < 0.5:
            middle = (self.high + self.low) / 2
            self.low, self.high = middle - 0.5, middle + 0.5
        self.start, self.end = start, end

    def at(self, value):
        return self.start + (math.log10(value) - self.low) / (self.high - self.low) * (self.end - self.start)

    def powers(self):
        """The powers of ten on the axis."""
        return [10.0**exponent for exponent in range(math.ceil(self.low - 1e-9), math.floor(self.high + 1e-9) + 1)]


def svg(table, shown):
    """The text of a plot of a table's medians; `shown` makes labels of the vertical axis. The table needs an axis."""
    lines = {column: points for column in table.columns if (points := points_of(table, column))}
    heights = [height for points in lines.values() for _, height in points]
    across = Axis(list(table.positions.values()), LEFT, WIDTH - RIGHT)
    up = Axis([min(heights) / 1.2, max(heights) * 1.2], HEIGHT - BOTTOM, TOP)
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" '
             'font-size="12" role="img">',
             f"<title>{escape(table.title)}</title>",
             f'<rect width="{WIDTH}" height="{HEIGHT}" fill="#ffffff"/>',
             text(LEFT, TOP - 18, f"{table.title}, median", weight="bold"),
             text((LEFT + WIDTH - RIGHT) / 2, HEIGHT - 10, table.axis, anchor="middle")]
    parts += grid(table, across, up, shown)
    for column, points in lines.items():
        parts += line(column, [(across.at(x), up.at(y)) for x, y in points])
    parts += legend({column: up.at(points[-1][1]) for column, points in lines.items()})
    return "\n".join(parts) + "\n</svg>\n"


def points_of(table, column):
    medians = [(table.positions[label], table.median(label, column)) for label in table.rows]
    return [(x, y) for x, y in medians if y]


def grid(table, across, up, shown):
    parts = []
    for height in up.powers():
        parts += [rule(LEFT, up.at(height), WIDTH - RIGHT, up.at(height)),
                  text(LEFT - 8, up.at(height) + 4, shown(height), anchor="end")]
    for label, position in table.positions.items():
        parts += [rule(across.at(position), TOP, across.at(position), HEIGHT - BOTTOM),
                  text(across.at(position), HEIGHT - BOTTOM + 18, label, anchor="middle")]
    parts.append(f'<rect x="{LEFT}" y="{TOP}" width="{WIDTH - RIGHT - LEFT}" height="{HEIGHT - BOTTOM - TOP}" '
                 'fill="none" stroke="#888888"/>')
    return parts


def line(column, points):
    colour = COLOURS.get(column, OTHER_COLOUR)
    dashes = ' stroke-dasharray="6 4"' if column == FLOOR else ""
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    return [f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"{dashes}/>'] + [
        f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>' for x, y in points]


def legend(ends):
    """The names at the right, beside the ends of their lines, and at least a line of text apart."""
    parts, lowest = [], -math.inf
    for column, height in sorted(ends.items(), key=lambda end: end[1]):
        lowest = max(height, lowest + 15)
        parts.append(text(WIDTH - RIGHT + 10, lowest + 4, column, colour=COLOURS.get(column, OTHER_COLOUR), weight="bold"))
    return parts


def rule(x1, y1, x2, y2):
    return f'<line x1="{x1:.1f}" y1="{y1:.1f}" x2="{x2:.1f}" y2="{y2:.1f}" stroke="#dddddd"/>'


def text(x, y, words, anchor="start", colour="#222222", weight="normal"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" fill="{colour}" font-weight="{weight}">'
            f"{escape(words)}</text>")
