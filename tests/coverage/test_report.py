"""What scripts/test coverage says about a report: goals, and lines of src that no test reaches."""

import collections
import contextlib
import io
import json
import pathlib
import re
import tempfile
import unittest

import report


def condition(line, true, false, column=1):
    """A condition in llvm-cov's form: where it begins and ends, how often it was true and false, and what is of no interest."""
    return [line, column, line, column + 5, true, false, 0, 0, 4]


class Report(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name)
        (self.root / "src").mkdir()
        (self.root / "src/a.cpp").write_text("one();\n    two();\ntwo();\n" + "three();\n" * 97, encoding="utf-8")

    def judge(self, segments=(), branches=(), **allowed):
        """What is wrong with a report, which names "src/a.cpp" in the way of a compiler."""
        one = {"filename": f"{self.root}/build/../src/a.cpp", "segments": segments, "branches": branches}
        path = self.root / "report.json"
        path.write_text(json.dumps({"data": [{"files": [one]}]}), encoding="utf-8")
        names = collections.Counter({("src/a.cpp", f"{name}();"): times for name, times in allowed.items()})
        with contextlib.redirect_stdout(io.StringIO()):
            return report.judge(report.read(path, self.root), names, self.root)

    def lines(self, unreached=()):
        """A function of a hundred lines, each with a count of its own."""
        return [segment for number in range(1, 101) for segment in (
            [number, 1, int(number not in unreached), True, True, False], [number, 7, 0, False, False, False])]

    def test_everything_reached(self):
        self.assertEqual(self.judge(self.lines()), [])

    def test_a_line_that_is_not_reached(self):
        self.assertEqual(self.judge(self.lines([2])), ["src/a.cpp:2: no test reaches it: two();"])

    def test_a_line_that_is_named(self):
        self.assertEqual(self.judge(self.lines([2]), two=1), [])

    def test_a_second_line_of_the_same_text(self):
        self.assertEqual(self.judge(self.lines([2, 3]), two=1), ["src/a.cpp:3: no test reaches it: two();"])

    def test_a_named_line_that_is_reached(self):
        self.assertEqual(self.judge(self.lines(), two=1),
                         ["uncovered.txt names a line that a test reaches, or that is gone: src/a.cpp: two();"])

    def test_too_few_lines(self):
        self.assertIn("src: 97.0 % of the lines, the goal is 98 %", self.judge(self.lines([1, 2, 3]), one=1, two=2))

    def test_too_few_branches(self):
        self.assertEqual(self.judge(branches=[condition(1, 7, 0)]), ["src: 50.0 % of the branches, the goal is 92 %"])

    def test_a_condition_of_a_template_counts_once(self):
        self.assertEqual(self.judge(branches=[condition(1, 7, 0), condition(1, 0, 1)]), [])

    def test_negative_counts_are_not_reached(self):
        self.assertEqual(self.judge(branches=[condition(1, 7, report.NEGATIVE)]),
                         ["src: 50.0 % of the branches, the goal is 92 %"])
        self.assertEqual(self.judge([[2, 1, report.NEGATIVE, True, True, False]], two=1),
                         ["src: 0.0 % of the lines, the goal is 98 %"])

    def test_conditions_of_the_same_line(self):
        self.assertEqual(self.judge(branches=[condition(1, 7, 1), condition(1, 0, 1, column=9)]),
                         ["src: 75.0 % of the branches, the goal is 92 %"])

    def test_the_line_behind_a_block_that_may_return(self):
        segments = [[1, 1, 7, True, True, False],  # the function
                    [2, 9, 0, True, True, False], [2, 16, 7, True, False, False],  # return; in a block
                    [3, 2, 0, True, False, True], [4, 5, 7, True, False, False],  # the block's end, and what follows
                    [6, 2, 0, False, False, False]]
        self.assertEqual(report.line_counts(segments), {1: 7, 2: 7, 3: 7, 4: 7, 5: 7, 6: 7})

    def test_lines_of_a_block_that_is_not_reached(self):
        segments = [[1, 1, 7, True, True, False], [2, 9, 0, True, True, False], [4, 6, 7, True, False, False],
                    [6, 2, 0, False, False, False]]
        self.assertEqual(report.line_counts(segments), {1: 7, 2: 7, 3: 0, 4: 0, 5: 7, 6: 7})

    def test_lines_without_code_do_not_count(self):
        segments = [[1, 1, 7, True, True, False], [2, 1, 0, False, True, False], [3, 1, 7, True, False, False],
                    [3, 9, 0, False, False, False], [7, 1, 0, True, True, False], [7, 9, 0, False, False, False]]
        self.assertEqual(report.line_counts(segments), {1: 7, 7: 0})

    def test_every_reason_is_given(self):
        for (file, text), _ in report.named().items():
            found = [one.strip() for one in (report.ROOT / file).read_text(encoding="utf-8").splitlines()]
            self.assertIn(text, found, file)

    def test_a_line_without_a_reason(self):
        path = self.root / "uncovered.txt"
        path.write_text("src/a.cpp | one();\n", encoding="utf-8")
        with self.assertRaisesRegex(SystemExit, re.escape("FILE | TEXT | REASON")):
            report.named(path)


if __name__ == "__main__":
    unittest.main()
