"""The table and the plot, on made-up numbers."""

import json
import pathlib
import tempfile
import unittest
import xml.etree.ElementTree as ElementTree

import plot
import report
from rows import ROWS, row


def figure(name, *values, python="3.11.7", lifetime="process"):
    return {"name": name, "python": python, "lifetime": lifetime, "values": list(values)}


def entry_of(tested, *figures):
    known = report.Figures(figures)
    return report.evaluate(tested, known.places(tested)[0], known)


def outcome(tested, *figures):
    entry = entry_of(tested, *figures)
    return entry["result"], entry["verdict"]


class Spread(unittest.TestCase):
    def test_is_the_median_and_the_quartiles(self):
        self.assertEqual((20, 30, 40), report.spread([50, 10, 40, 20, 30]))

    def test_of_one_value_is_that_value(self):
        self.assertEqual((7, 7, 7), report.spread([7]))

    def test_is_written_with_its_unit(self):
        self.assertEqual("1.5 µs (999 ns to 12.3 ms)",
                         report.spread_text(report.Spread(999, 1500, 12_345_678), "ns"))
        self.assertEqual("1,234 B", report.spread_text(report.Spread(1234, 1234, 1234), "B"))
        self.assertEqual("2", report.spread_text(report.Spread(2, 2, 2), ""))


class Verdicts(unittest.TestCase):
    def test_ratio_sums_what_it_stands_against(self):
        tested = row("s", "l", "bridge", "floor", "copy", goal=1.1)
        against = figure("floor", 80), figure("copy", 20)
        self.assertEqual((1.1, "met"), outcome(tested, figure("bridge", 110), *against))
        self.assertEqual((1.2, "missed"), outcome(tested, figure("bridge", 120), *against))

    def test_ratio_is_the_median_of_the_repetitions_ratios(self):
        tested = row("s", "l", "bridge", "floor", goal=1.1)
        slower = figure("bridge", 110, 330, 130), figure("floor", 100, 300, 100)
        self.assertEqual((1.1, "met"), outcome(tested, *slower))
        self.assertEqual({"low": 1.1, "median": 1.1, "high": 1.2},
                         {key: round(value, 9)
                          for key, value in entry_of(tested, *slower)["results"].items()})

    def test_repetitions_that_have_no_partner_are_a_mistake(self):
        tested = row("s", "l", "bridge", "floor", "copy")
        with self.assertRaisesRegex(ValueError, "l: figures of one row have as many repetitions"):
            outcome(tested, figure("bridge", 1, 2), figure("floor", 1, 2), figure("copy", 1))

    def test_at_least(self):
        tested = row("s", "l", "slow", "fast", sense=">=", goal=15)
        self.assertEqual((15, "met"), outcome(tested, figure("slow", 150), figure("fast", 10)))
        self.assertEqual((14, "missed"), outcome(tested, figure("slow", 140), figure("fast", 10)))

    def test_difference(self):
        tested = row("s", "l", "routed", "direct", how="difference", goal=80)
        self.assertEqual((80, "met"), outcome(tested, figure("routed", 90), figure("direct", 10)))
        self.assertEqual((81, "missed"),
                         outcome(tested, figure("routed", 91), figure("direct", 10)))

    def test_value_may_have_no_goal(self):
        self.assertEqual((5, ""), outcome(row("s", "l", "a", how="value"), figure("a", 5)))

    def test_growth_repeats_when_every_round_grew(self):
        tested = row("s", "l", "memory", how="smallest", goal=0)
        self.assertEqual((0, "met"), outcome(tested, figure("memory", 4096, 0, 8192)))
        self.assertEqual((4096, "missed"), outcome(tested, figure("memory", 4096, 4096, 8192)))

    def test_what_is_missing_is_not_measured(self):
        tested = row("s", "l", "a", "b", goal=1)
        self.assertEqual((None, "not measured"), outcome(tested, figure("a", 1)))
        self.assertEqual((None, "not measured"), outcome(tested, figure("b", 1)))
        self.assertEqual((None, "not measured"), outcome(tested))
        self.assertEqual((None, "not measured"), outcome(tested, figure("a", 1), figure("b", 0)))

    def test_figures_of_another_python_or_lifetime_do_not_count(self):
        tested = row("s", "l", "a", "b", goal=1)
        for other in ({"python": "3.12.1"}, {"lifetime": "unset"}):
            self.assertEqual((None, "not measured"),
                             outcome(tested, figure("a", 1), figure("b", 1, **other)))


class Places(unittest.TestCase):
    FIGURES = [figure("a", 1, python=python, lifetime=lifetime)
               for python in ("3.6.15", "3.11.2 Debian") for lifetime in ("unset", "process")]

    def test_every_place_has_its_row(self):
        self.assertEqual([("3.6.15", "unset"), ("3.6.15", "process"), ("3.11.2 Debian", "unset"),
                          ("3.11.2 Debian", "process")],
                         report.Figures(self.FIGURES).places(row("s", "l", "a")))

    def test_a_row_may_be_for_some_versions_and_lifetimes(self):
        tested = row("s", "l", "a", minors=(11,), lifetimes=("process",))
        self.assertEqual([("3.11.2 Debian", "process")],
                         report.Figures(self.FIGURES).places(tested))

    def test_a_row_that_nothing_was_measured_for_stays_in_the_table(self):
        self.assertEqual([("", "")], report.Figures(self.FIGURES).places(row("s", "l", "other")))


class Unexplained(unittest.TestCase):
    def test_are_rows_without_a_result_that_nobody_left_out(self):
        entries = [entry_of(tested, figure("a", 1), figure("b", 1))
                   for tested in (row("s", "measured", "a", "b"),
                                  row("s", "left out", "a", "pybind11/64"),
                                  row("s", "forgotten", "a", "c"))]
        self.assertEqual(["forgotten"],
                         [e["what"] for e in report.unexplained(entries, ["pybind11"])])
        self.assertEqual(["left out", "forgotten"],
                         [e["what"] for e in report.unexplained(entries, [])])


def whole_set():
    """Every figure that a row needs, each twice as large as the last."""
    names = dict.fromkeys(n for r in ROWS for n in (r.figure, *r.against))
    return [figure(name, 10 + i, 20 + i, 30 + i) for i, name in enumerate(names)]


class Written(unittest.TestCase):
    def test_markdown_has_whole_lines(self):
        lines = report.markdown({"date": "today", "notes": ["a note"]}, report.table([
            figure("bridge/starting/64", 100, 120, 140),
            figure("floor/starting/64", 100, 100, 100), figure("pybind11/starting/64", 240),
            figure("bridge/starting/64", 130, python="3.12.1", lifetime="unset"),
            figure("floor/starting/64", 100, python="3.12.1", lifetime="unset"),
        ])).splitlines()
        for line in (
            "- date: today",
            "- a note",
            "| Receiver, starting thread | 64 B against the same calls by hand | <= 1.2 | 1.30 "
            "| 3.12.1, unset | 1 of 2 |",
            "| 64 B against the same calls by hand | 3.11.7 | process | 120 ns (110 ns to 130 ns) "
            "| 100 ns | 240 ns | 1.20 (1.10 to 1.30) | <= 1.2 | met |",
            "| 64 B against the same calls by hand | 3.12.1 | unset | 130 ns | 100 ns |  | 1.30 "
            "| <= 1.2 | missed |",
            "| Start | first library to first response, against bare Python | <= 1.05 "
            "| not measured |  | 0 of 1 |",
        ):
            self.assertIn(line, lines)

    def test_files(self):
        with tempfile.TemporaryDirectory() as name:
            directory = pathlib.Path(name) / "new"
            text = report.write({"date": "today"}, whole_set(), directory)
            self.assertEqual(text, (directory / "table.md").read_text())
            document = json.loads((directory / "table.json").read_text())
            ElementTree.parse(directory / "plot.svg")
        self.assertEqual("today", document["context"]["date"])
        self.assertEqual(len(ROWS), len(document["rows"]))
        for entry in document["rows"]:
            self.assertIsNotNone(entry["result"], entry)


class Plot(unittest.TestCase):
    NAME = "{http://www.w3.org/2000/svg}"

    def circles(self, *figures):
        root = ElementTree.fromstring(plot.svg(report.table(figures)))
        return [(circle, circle.find(self.NAME + "title").text)
                for circle in root.iter(self.NAME + "circle")
                if circle.find(self.NAME + "title") is not None]

    def test_a_dot_for_every_python_of_a_goal(self):
        circles = self.circles(
            figure("bridge/starting/64", 120), figure("floor/starting/64", 100),
            figure("bridge/starting/64", 240, lifetime="unset"),
            figure("floor/starting/64", 100, lifetime="unset"))
        self.assertEqual(["3.11.7 process: 1.200", "3.11.7 unset: 2.400"],
                         [title for _, title in circles])
        (kept, _), (dropped, _) = circles
        self.assertEqual("none", dropped.get("fill"))
        self.assertNotEqual("none", kept.get("fill"))
        self.assertLess(float(kept.get("cx")), float(dropped.get("cx")))

    def test_the_scale_is_logarithmic_and_keeps_what_is_outside_at_its_edge(self):
        scale = plot.Scale([1, 10])
        middle = (scale.x(1) + scale.x(10)) / 2
        self.assertAlmostEqual(middle, scale.x(10 ** 0.5))
        self.assertEqual(scale.x(10), scale.x(1000))

    def test_nothing_measured_is_an_empty_plot(self):
        self.assertEqual([], self.circles())


if __name__ == "__main__":
    unittest.main()
