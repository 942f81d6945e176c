"""tests/mutation/equivalents.txt: each reason is for a line that exists. The suite itself takes half an hour to say so."""

import unittest

import tree


class Equivalents(unittest.TestCase):
    def test_each_names_a_line_of_its_source(self):
        gone = []
        reasons = (tree.ROOT / "tests/mutation/equivalents.txt").read_text(encoding="utf-8").splitlines()
        for row in reasons:
            if not row or row.startswith("#"):
                continue
            path, _, *line = row.split(" | ")[:-2]
            source = tree.ROOT / path
            lines = source.read_text(encoding="utf-8").splitlines() if source.exists() else []
            if " | ".join(line).strip() not in (" ".join(each.split()) for each in lines):
                gone.append(row)
        self.assertGreater(len(reasons), 10)
        self.assertEqual(gone, [])


if __name__ == "__main__":
    unittest.main(verbosity=2)
