"""Draws the ratios that have a goal: a line for each goal, a dot for each Python."""

import math
from xml.sax.saxutils import escape

LABELS, WIDTH, ROW, TOP, BOTTOM = 520, 640, 24, 60, 40
TICKS = (0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500)
RADIUS = 4.5
# Two sections use the same words.
PLACES = {
    "Receiver, starting thread": "Starting thread, ",
    "Receiver, other threads": "Other threads, ",
}


class Scale:
    """Logarithmic, from the tick below the smallest number to the tick above the largest one."""

    def __init__(self, numbers):
        below = [tick for tick in TICKS if tick <= min(numbers)] or [TICKS[0]]
        above = [tick for tick in TICKS if tick >= max(numbers)] or [TICKS[-1]]
        self.ticks = [tick for tick in TICKS if below[-1] <= tick <= above[0]]
        self.low = math.log(self.ticks[0])
        self.high = max(math.log(self.ticks[-1]), self.low + 1)

    def x(self, number):
        share = (math.log(number) - self.low) / (self.high - self.low)
        return LABELS + WIDTH * min(max(share, 0), 1)


def colour(index, count):
    return "hsl(%d, 70%%, 42%%)" % round(300 * index / max(count - 1, 1))


def text(x, y, content, anchor="start"):
    return '<text x="%.1f" y="%.1f" text-anchor="%s">%s</text>' % (x, y, anchor, escape(content))


def vertical(x, top, bottom, stroke, width):
    return '<line x1="%.1f" x2="%.1f" y1="%.1f" y2="%.1f" stroke="%s" stroke-width="%g"/>' % (
        x, x, top, bottom, stroke, width)


def dot(x, y, entry, tint):
    """Filled where the lifetime is that of the process, a ring otherwise."""
    fill = tint if entry["lifetime"] == "process" else "none"
    title = "%s %s: %.3f" % (entry["python"], entry["lifetime"], entry["result"])
    return '<circle cx="%.1f" cy="%.1f" r="%g" fill="%s" stroke="%s"><title>%s</title></circle>' % (
        x, y, RADIUS, fill, tint, escape(title.strip()))


def legend(colours):
    x = LABELS
    for python, tint in colours.items():
        yield '<circle cx="%.1f" cy="14" r="%g" fill="%s"/>' % (x, RADIUS, tint)
        yield text(x + 8, 18, python or "no Python")
        x += 22 + 7 * len(python or "no Python")
    yield text(LABELS, 36, "filled: lifetime=process, ring: unset or none; bar: the goal")


def rows_of(groups, scale, colours):
    for index, (label, entries) in enumerate(groups.items()):
        y = TOP + ROW * index + ROW / 2
        first = entries[0]
        yield text(LABELS - 10, y + 4, "%s (%s %g)" % (label, first["sense"], first["goal"]), "end")
        yield vertical(scale.x(first["goal"]), y - 9, y + 9, "black", 2)
        for entry in entries:
            yield dot(scale.x(entry["result"]), y, entry, colours[entry["python"]])


def svg(entries):
    drawn = [e for e in entries if e["goal"] and e["how"] == "ratio" and e["result"]]
    groups = {}
    for entry in drawn:
        groups.setdefault(PLACES.get(entry["section"], "") + entry["what"], []).append(entry)
    numbers = [number for entry in drawn for number in (entry["result"], entry["goal"])] or [1]
    scale = Scale(numbers)
    pythons = list(dict.fromkeys(entry["python"] for entry in drawn))
    colours = {python: colour(i, len(pythons)) for i, python in enumerate(pythons)}
    bottom = TOP + ROW * len(groups)
    width = LABELS + max(WIDTH + 20, 90 * len(colours))
    parts = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
             'font-family="sans-serif" font-size="12">' % (width, bottom + BOTTOM),
             '<rect width="100%" height="100%" fill="white"/>']
    parts += legend(colours)
    for tick in scale.ticks:
        parts += [vertical(scale.x(tick), TOP, bottom, "#ccc", 1),
                  text(scale.x(tick), bottom + 18, "%g" % tick, "middle")]
    parts += [*rows_of(groups, scale, colours), "</svg>"]
    return "\n".join(parts) + "\n"
