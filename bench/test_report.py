"""The runner's figures: medians, spreads, the table, and what counts as a regression."""

import json
import pathlib
import tempfile
import unittest

import page
import plot
import report
from work import Work, at_least, at_most
from works import idle, passes


def work(goal, name="work"):
    made = Work()
    made.name, made.unit, made.goal = name, "ms", goal
    return made


def row(ratio, spread=0.01, goal=at_most(1.2), name="work"):
    return report.result(work(goal, name), [ratio * (1 - spread), ratio, ratio * (1 + spread)], [1, 1, 1])


class Figures(unittest.TestCase):
    def test_ratio_is_the_median_of_pairs(self):
        made = report.result(work(at_most(1.2)), [11, 12, 90], [10, 10, 10])
        self.assertEqual(made["ratio"], 1.2)
        self.assertEqual((made["ours"]["median"], made["floor"]["median"]), (12, 10))
        self.assertTrue(made["met"])

    def test_a_machine_that_becomes_slower_in_between_changes_no_ratio(self):
        made = report.result(work(at_most(1.2)), [11, 11, 22, 22, 22], [10, 10, 10, 20, 20])
        self.assertEqual(made["ratio"], 1.1)

    def test_spread_is_the_quartiles(self):
        made = report.result(work(None), [1, 2, 3, 4, 5], [1, 1, 1, 1, 1])
        self.assertEqual((made["ours"]["low"], made["ours"]["high"]), (2, 4))
        self.assertIsNone(made["met"])

    def test_a_floor_that_is_too_small_misses_the_goal(self):
        self.assertFalse(report.result(work(at_most(1.2)), [1, 1], [0, 0])["met"])
        self.assertTrue(report.result(work(at_most(1.2)), [0, 0], [0, 0])["met"])

    def test_goals(self):
        self.assertFalse(row(1.21)["met"])
        self.assertTrue(row(0.8, goal=at_least(0.8))["met"])
        self.assertFalse(row(0.79, goal=at_least(0.8))["met"])

    def test_numbers_have_three_digits(self):
        self.assertEqual([report.number(value) for value in (0, 0.12345, 1.2345, 12.345, 1234.5)],
                         ["0", "0.123", "1.23", "12.3", "1,234"])


class Idle(unittest.TestCase):
    def test_a_burst_lies_between_quiet_seconds(self):
        self.assertEqual(idle.bursts([(0, 0), (0, 0), (1, 5), (2, 9), (2, 9), (3, 9)]), [(2, 9)])

    def test_a_run_without_keep_alives_says_whose_are_missing(self):
        idle.require_keep_alives({"ours": [(2, 9)], "floor": [(1, 5), (3, 9)]})
        for seen in [], [(1, 5)]:
            with self.assertRaisesRegex(RuntimeError, "no keep-alive of the daemon"):
                idle.require_keep_alives({"ours": seen, "floor": [(2, 9)]})
            with self.assertRaisesRegex(RuntimeError, "no keep-alive of the bare client"):
                idle.require_keep_alives({"ours": [(2, 9)], "floor": seen})


class Table(unittest.TestCase):
    def test_missed_goals_and_failures_stand_out(self):
        lines = report.text_table([row(1.0, name="fast"), row(1.5, name="slow"),
                                   {"name": "broken", "failed": "no broker"}]).splitlines()
        self.assertRegex(lines[2], r"^fast .* <= 1.2 +yes$")
        self.assertRegex(lines[3], r"^slow .* 1.50 +<= 1.2 +NO$")
        self.assertRegex(lines[4], r"^broken +failed .*NO$")


class Regressions(unittest.TestCase):
    def found(self, old, new):
        return report.regressions([new], {"works": [old]})

    def test_more_than_15_percent_outside_the_spread(self):
        self.assertEqual(self.found(row(1.0), row(1.2)), ["work: ratio 1.00 -> 1.20"])

    def test_less_than_15_percent_is_none(self):
        self.assertEqual(self.found(row(1.0), row(1.14)), [])

    def test_within_the_spread_is_none(self):
        self.assertEqual(self.found(row(1.0, 0.3), row(1.2, 0.3)), [])

    def test_faster_is_none(self):
        self.assertEqual(self.found(row(1.2), row(1.0)), [])

    def test_a_goal_of_at_least_is_the_other_way_round(self):
        goal = at_least(0.8)
        self.assertEqual(self.found(row(1.0, goal=goal), row(0.8, goal=goal)), ["work: ratio 1.00 -> 0.80"])
        self.assertEqual(self.found(row(0.8, goal=goal), row(1.0, goal=goal)), [])

    def test_new_and_failed_works_are_none(self):
        failed = {"name": "work", "failed": "no broker"}
        self.assertEqual(self.found(row(1.0, name="other"), row(9.0)), [])
        self.assertEqual(self.found(failed, row(9.0)), [])
        self.assertEqual(self.found(row(1.0), failed), [])

    def test_the_newest_record_counts(self):
        with tempfile.TemporaryDirectory() as folder:
            folder = pathlib.Path(folder)
            self.assertIsNone(report.last_kept(folder))
            for name, date in (("a", "2026-11-22T10:00:00Z"), ("b", "2026-11-21T10:00:00Z")):
                (folder / f"{name}.json").write_text(json.dumps({"date": date}), encoding="utf-8")
            self.assertEqual(report.last_kept(folder)["date"], "2026-11-22T10:00:00Z")


class Plots(unittest.TestCase):
    def test_a_bar_has_the_length_of_its_ratio(self):
        drawn = plot.bars([row(1.5)], report.number)
        self.assertIn('width="390.0" height="12.0" fill="#c05621"', drawn)  # 1.5 of 260, goal missed
        self.assertIn('width="260.0" height="9.0"', drawn)

    def test_a_curve_leaves_out_a_floor_that_is_not_measured(self):
        drawn = plot.curve("title", [(1, 2.0, None), (10, 20.0, None)], "settings", "ms")
        self.assertEqual(drawn.count("<polyline"), 1)
        self.assertEqual(drawn.count("<circle"), 2)


class Page(unittest.TestCase):
    def test_the_figures_are_replaced_and_the_rest_stays(self):
        record = {"date": "2026-11-22T10:00:00Z", "commit": "abc", "machine": "a machine", "works": [row(1.5)]}
        with tempfile.TemporaryDirectory() as folder:
            output, docs = pathlib.Path(folder) / "output", pathlib.Path(folder) / "docs"
            for made in (output, docs, docs / "plots"):
                made.mkdir()
            (output / "works.svg").write_text(plot.bars(record["works"], report.number), encoding="utf-8")
            (docs / "plots" / "bench-old.svg").touch()
            written = docs / "performance.md"
            written.write_text(f"before\n{page.BEGIN}\nold\n{page.END}\nafter\n", encoding="utf-8")
            for _ in range(2):
                page.update(written, output, record, ["a note"])
            text = written.read_text(encoding="utf-8")
            self.assertTrue(text.startswith("before\n") and text.endswith("\nafter\n"))
            self.assertNotIn("old", text)
            self.assertEqual(text.count("| work | 1.50 (1.49-1.51) | 1.00 | ms | 1.50 | <= 1.2 | NO |"), 1)
            self.assertIn("- a note", text)
            self.assertIn("![Works beside their floors (floor = 1)](plots/bench-works.svg)", text)
            self.assertEqual([made.name for made in (docs / "plots").iterdir()], ["bench-works.svg"])


class Waterfall(unittest.TestCase):
    def test_the_slowest_tenth_does_not_count(self):
        log = ""
        for slow in [0] * 9 + [40]:
            for index, (phase, _) in enumerate(passes.PHASES):
                late = slow if index == len(passes.PHASES) - 1 else 0
                log += f"2026-11-22T10:00:00.{index * 2 + late:03} ZAV info {phase}\n"
        self.assertEqual([(name, round(time, 3)) for name, time in passes.waterfall(log)],
                         [(name, 2.0) for _, name in passes.PHASES[1:]])

    def test_a_log_without_a_whole_pass_is_an_error(self):
        with self.assertRaisesRegex(RuntimeError, "no whole pass"):
            passes.waterfall("nothing\n")


if __name__ == "__main__":
    unittest.main(verbosity=2)
