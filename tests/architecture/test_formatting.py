"""Every source is as clang-format writes it; scripts/format does it."""

import subprocess
import unittest

import tree


class Formatting(unittest.TestCase):
    def test_every_source_is_formatted(self):
        sources = tree.sources()
        self.assertTrue(sources)
        result = subprocess.run(["clang-format-14", "--dry-run", "-Werror", *sources],
                                cwd=tree.ROOT, capture_output=True, text=True)
        self.assertEqual(result.returncode, 0, "scripts/format mends this:\n" + result.stderr[:3000])


if __name__ == "__main__":
    unittest.main()
