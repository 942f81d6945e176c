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

    def judge(self, text="", branches=(), **allowed):
        """What is wrong with a report, whose lines name "src/a.cpp" in the way of a compiler."""
        source = f"{self.root}/build/../src/a.cpp"
        lines, conditions = self.root / "report.lcov", self.root / "report.json"
        lines.write_text(f"SF:{source}\n{text}end_of_record\n", encoding="utf-8")
        conditions.write_text(json.dumps({"data": [{"files": [{"filename": source, "branches": branches}]}]}), encoding="utf-8")
        names = collections.Counter({("src/a.cpp", f"{name}();"): times for name, times in allowed.items()})
        with contextlib.redirect_stdout(io.StringIO()):
            return report.judge(report.read(lines, conditions, self.root), names, self.root)

    def lines(self, unreached=()):
        return "".join(f"DA:{number},{int(number not in unreached)}\n" for number in range(1, 101))

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

    def test_conditions_of_the_same_line(self):
        self.assertEqual(self.judge(branches=[condition(1, 7, 1), condition(1, 0, 1, column=9)]),
                         ["src: 75.0 % of the branches, the goal is 92 %"])

    def test_lines_of_other_folders_count_there(self):
        self.assertEqual(self.judge(f"DA:1,1\nend_of_record\nSF:{self.root}/tools/b.cpp\nDA:1,0\n"),
                         ["tools: 0.0 % of the lines, the goal is 90 %"])

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
