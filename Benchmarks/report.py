"""Makes the table, as Markdown and JSON, out of measured figures.

A figure is {"name", "python", "lifetime", "values"}; python and lifetime are "" where no Python
takes part. Values of one figure are repetitions.
"""

import collections
import json
import statistics

import plot
from rows import ROWS

HEADER = ("what", "Python", "lifetime", "measured", "against", "pybind11", "result", "goal", "")
TIMES = ((1e9, "s"), (1e6, "ms"), (1e3, "µs"), (1, "ns"))

Spread = collections.namedtuple("Spread", "low median high")


def spread(values):
    """Median and quartiles."""
    if len(values) == 1:
        return Spread(values[0], values[0], values[0])
    low, median, high = statistics.quantiles(values, n=4, method="inclusive")
    return Spread(low, median, high)


def significant(number):
    """Three digits are as many as a spread of some per cent is worth."""
    if number == 0 or abs(number) >= 100:
        return format(round(number), ",")
    return format(number, ".3g")


def amount(number, unit):
    if unit != "ns":
        return (significant(number) + " " + unit).strip()
    factor, name = next(((f, n) for f, n in TIMES if abs(number) >= f), TIMES[-1])
    return significant(number / factor) + " " + name


def spread_text(measured, unit):
    if measured.low == measured.high:
        return amount(measured.median, unit)
    return "%s (%s to %s)" % tuple(
        amount(number, unit) for number in (measured.median, measured.low, measured.high)
    )


def combine(row, values, others):
    """What the goal speaks of, with its spread, or None when it cannot be told."""
    if row.how == "smallest":
        return spread([min(values)])
    results = [result_of(row, value, sum(against)) for value, *against in zip(values, *others)]
    return None if None in results else spread(results)


def result_of(row, value, base):
    """Of one repetition, whose values were measured within the same second."""
    if row.how == "value":
        return value
    if row.how == "difference":
        return value - base
    return value / base if base else None


def judge(row, result):
    if row.goal is None:
        return ""
    if result is None:
        return "not measured"
    met = result <= row.goal if row.sense == "<=" else result >= row.goal
    return "met" if met else "missed"


class Figures:
    def __init__(self, figures):
        self.values = {(f["name"], f["python"], f["lifetime"]): f["values"] for f in figures}

    def get(self, name, place):
        return self.values.get((name, *place))

    def places(self, row):
        """Where any figure of the row was measured, in the order of measuring."""
        names = {row.figure, *row.against}
        found = dict.fromkeys(key[1:] for key in self.values if key[0] in names)
        return [place for place in found if applies(row, *place)] or [("", "")]


def applies(row, python, lifetime):
    minor = int(python.split(".")[1]) if python else None
    return (row.minors is None or minor in row.minors) and (
        row.lifetimes is None or lifetime in row.lifetimes
    )


def evaluate(row, place, figures):
    values = figures.get(row.figure, place)
    others = [figures.get(name, place) for name in row.against]
    beside = figures.get(row.beside, place)
    complete = values and all(others)
    if complete and any(len(other) != len(values) for other in others):
        raise ValueError("%s: figures of one row have as many repetitions" % row.label)
    results = combine(row, values, others) if complete else None
    result = results.median if results else None
    return {
        "section": row.section, "what": row.label, "python": place[0], "lifetime": place[1],
        "figures": [row.figure, *row.against], "how": row.how, "unit": row.unit,
        "measured": spread(values)._asdict() if values else None,
        "against": [spread(other)._asdict() if other else None for other in others],
        "pybind11": spread(beside)._asdict() if beside else None,
        "result": result, "results": results._asdict() if results else None,
        "sense": row.sense, "goal": row.goal, "verdict": judge(row, result),
    }


def table(figures):
    """All rows, each once for every place where it was measured."""
    known = Figures(figures)
    return [evaluate(row, place, known) for row in ROWS for place in known.places(row)]


def unexplained(entries, left_out):
    """The rows without a result that need no figure whose name begins with one of `left_out`."""
    return [
        entry for entry in entries if entry["result"] is None
        and not any(name.startswith(tuple(left_out)) for name in entry["figures"])
    ]


def shown(entry, key):
    return spread_text(Spread(**entry[key]), entry["unit"]) if entry[key] else ""


def number_text(entry, number):
    return format(number, ".2f") if entry["how"] == "ratio" else amount(number, entry["unit"])


def result_text(entry):
    return "not measured" if entry["result"] is None else number_text(entry, entry["result"])


def results_text(entry):
    """With the quartiles, where there are any."""
    texts = [number_text(entry, entry["results"][key]) for key in ("low", "high")] \
        if entry["results"] else []
    if len(set(texts)) < 2 or entry["how"] == "value":
        return result_text(entry)
    return "%s (%s to %s)" % (result_text(entry), *texts)


def goal_text(entry):
    if entry["goal"] is None:
        return ""
    unit = "" if entry["how"] == "ratio" else entry["unit"]
    return ("%s %s %s" % (entry["sense"], format(entry["goal"], "g"), unit)).strip()


def line_of(entry):
    against = " + ".join(
        spread_text(Spread(**other), entry["unit"]) if other else "-" for other in entry["against"]
    )
    return (entry["what"], entry["python"], entry["lifetime"], shown(entry, "measured"), against,
            shown(entry, "pybind11"), results_text(entry), goal_text(entry), entry["verdict"])


def markdown_table(header, lines):
    yield "| " + " | ".join(header) + " |"
    yield "|" + "---|" * len(header)
    for line in lines:
        yield "| " + " | ".join(line) + " |"


def by_goal(entries):
    groups = {}
    for entry in entries:
        if entry["goal"] is not None:
            groups.setdefault((entry["section"], entry["what"]), []).append(entry)
    return groups


def summary_line(group):
    (section, what), entries = group
    measured = [entry for entry in entries if entry["result"] is not None]
    met = sum(entry["verdict"] == "met" for entry in entries)
    count = "%d of %d" % (met, len(entries))
    if not measured:
        return section, what, goal_text(entries[0]), "not measured", "", count
    worst_of = max if entries[0]["sense"] == "<=" else min
    worst = worst_of(measured, key=lambda entry: entry["result"])
    where = ", ".join(part for part in (worst["python"], worst["lifetime"]) if part)
    return section, what, goal_text(worst), result_text(worst), where, count


def markdown(context, entries):
    """The goals with the worst result of each first, then every row."""
    lines = ["# What the bridge costs", ""]
    lines += ["- %s: %s" % item for item in context.items() if item[0] != "notes"]
    lines += ["- " + note for note in context.get("notes", ())]
    lines += ["", "Median (quartiles) over the repetitions, of which each has a result of its own. "
              "Lifetime is QUORVALEN_PYTHON_LIFETIME.",
              "", "## Goals", ""]
    header = ("", "what", "goal", "worst", "where", "met")
    lines += markdown_table(header, map(summary_line, by_goal(entries).items()))
    for section in dict.fromkeys(entry["section"] for entry in entries):
        lines += ["", "## " + section, ""]
        lines += markdown_table(
            HEADER, (line_of(entry) for entry in entries if entry["section"] == section)
        )
    return "\n".join(lines) + "\n"


def write(context, figures, directory):
    """Writes table.md, table.json and plot.svg; returns the Markdown."""
    entries = table(figures)
    text = markdown(context, entries)
    directory.mkdir(parents=True, exist_ok=True)
    (directory / "table.md").write_text(text)
    document = {"context": context, "rows": entries}
    (directory / "table.json").write_text(json.dumps(document, indent=1, ensure_ascii=False) + "\n")
    (directory / "plot.svg").write_text(plot.svg(entries))
    return text
