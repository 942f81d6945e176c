"""docs/behaviours.md against the tests: every test that a behaviour names exists, and every behaviour names one."""

import re
import unittest

import tree

PAGE = "docs/behaviours.md"
ROW = re.compile(r"^\|(?P<behaviour>[^|]+)\|(?P<tests>[^|]+)\|$")
NAME = re.compile(r"`([^`]+)`")


def existing_tests():
    names = set()
    for name in tree.files("tests", "bench"):
        text = (tree.ROOT / name).read_text(encoding="utf-8", errors="replace")
        if name.endswith(".cpp"):
            for suite, case in re.findall(r"^TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", text, re.M):
                names.add(f"{suite}.{case}")
        elif name.endswith(".py"):
            for suite, body in re.findall(r"^class (\w+)\([^)]*\):\n((?:(?:[ \t].*)?\n)+)", text, re.M):
                names.update(f"{suite}.{case}" for case in re.findall(r"^    def (test_\w+)\(", body, re.M))
        elif name.startswith("tests/flow/rows/"):
            names.add(name.removeprefix("tests/"))
    return names


def rows():
    found = []
    for line in (tree.ROOT / PAGE).read_text(encoding="utf-8").splitlines():
        match = ROW.match(line)
        if match and not re.fullmatch(r"[\s|:-]+", line) and match["behaviour"].strip() != "Behaviour":
            found.append((match["behaviour"].strip(), NAME.findall(match["tests"])))
    return found


class Behaviours(unittest.TestCase):
    def test_the_page_has_rows(self):
        self.assertGreater(len(rows()), 50)

    def test_every_behaviour_names_a_test(self):
        self.assertEqual([behaviour for behaviour, tests in rows() if not tests], [])

    def test_every_named_test_exists(self):
        known = existing_tests()
        missing = [f"{behaviour}: {test}" for behaviour, tests in rows() for test in tests if test not in known]
        self.assertEqual(missing, [])

    def test_no_behaviour_stands_twice(self):
        names = [behaviour for behaviour, _ in rows()]
        self.assertEqual(sorted({name for name in names if names.count(name) > 1}), [])


if __name__ == "__main__":
    unittest.main()
