"""CHANGELOG.md: sections by release and kind, entries of one line, and the version of the latest release is the tree's."""

import re
import unittest

import tree

RELEASE = re.compile(r"^## (\d+\.\d+\.\d+) - \d{4}-\d{2}-\d{2}$", re.M)


def changelog():
    return (tree.ROOT / "CHANGELOG.md").read_text(encoding="utf-8")


class Changelog(unittest.TestCase):
    def test_it_consists_of_releases_kinds_and_entries_of_one_line(self):
        lines = changelog().split("\n## Unreleased\n", 1)[1].splitlines()
        known = re.compile(r"## \d+\.\d+\.\d+ - \d{4}-\d{2}-\d{2}|### (Added|Changed|Fixed|Removed)|- \S.*[.:`)]|")
        self.assertEqual([line for line in lines if not known.fullmatch(line) or len(line) > 150], [])

    def test_the_latest_release_is_the_version_of_the_programs(self):
        version = re.search(r"project\(zav VERSION (\S+)", (tree.ROOT / "CMakeLists.txt").read_text()).group(1)
        self.assertEqual(RELEASE.findall(changelog())[0], version)

    def test_the_packages_have_the_version_of_the_programs(self):
        version = re.search(r"project\(zav VERSION (\S+)", (tree.ROOT / "CMakeLists.txt").read_text()).group(1)
        first = (tree.ROOT / "packaging/debian/changelog").read_text(encoding="utf-8").splitlines()[0]
        self.assertRegex(first, rf"^zav \({re.escape(version)}-\d+\) ")


if __name__ == "__main__":
    unittest.main()
