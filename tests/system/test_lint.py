"""zavctl lint as authors start it: files in a folder, no phone.

Runs on the machine itself, not inside lab/phone: test_lint.py BUILD_DIRECTORY
"""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

import examples

BUILD = sys.argv.pop() if len(sys.argv) > 1 else str(examples.ROOT / "build" / "release")
ZAVCTL = os.path.join(BUILD, "bin", "zavctl")
PAGE = "docs/common-errors.md"
ROWS = examples.ROOT / "tests" / "data" / "lint"
# The rule that finds each mistake of the page, from top to bottom.
RULES = """
mac-form missing-version format-version format-version version-without-jobs job-not-allowed missing-product product
unknown-root initial-root job-not-allowed unknown-element mixed-items not-well-formed not-well-formed item-content
item-content item-content instruction value-as-text missing-value bad-value unknown-key locked-key lock-flag refused-key
missing-file firmware-version url-without-slash missing-file missing-file missing-attribute unknown-category
file-version file-version other-version other-version unknown-root job-not-allowed
""".split()
# For another phone, but lint is not told for which.
NEEDS_A_PHONE = 'macAddress="02:00:5E:10:00:02"'


def lint(*words, stdin=b""):
    """(exit status, the object that --json prints)"""
    done = subprocess.run([ZAVCTL, "lint", "--json", *words], input=stdin, capture_output=True, timeout=60, check=False)
    return done.returncode, json.loads(done.stdout)


class LintTest(unittest.TestCase):
    def lint_files(self, files):
        with tempfile.TemporaryDirectory() as folder:
            for name, text in files.items():
                (pathlib.Path(folder) / name).write_text(text, encoding="utf-8")
            return lint(f"{folder}/provisioning.xml")

    def test_every_mistake_of_the_page_is_found(self):
        found = []
        for _, files, changes, _, _ in examples.mistakes(PAGE):
            if NEEDS_A_PHONE in changes[0][1]:
                continue
            for right, wrong in changes:
                files = {name: text.replace(right, wrong) for name, text in files.items()}
            status, report = self.lint_files(files)
            rules = [finding["rule"] for finding in report["findings"] if finding["level"] == "error"]
            self.assertEqual(status, 1, changes)
            found.append(rules[0])
        self.assertEqual(found, RULES)

    def test_the_right_files_have_no_finding(self):
        seen = []
        for _, files, _, _, _ in examples.mistakes(PAGE):
            if files not in seen:
                seen.append(files)
                self.assertEqual(self.lint_files(files), (0, {"errors": 0, "files": len(files), "findings": [], "notes": 0,
                                                              "warnings": 0}))
        self.assertEqual(len(seen), 2)

    def test_every_rule_has_an_example(self):
        _, report = lint("--rules")
        self.assertEqual(sorted(rule["rule"] for rule in report["rules"]), sorted(row.stem for row in ROWS.glob("*.md")))
        for row in ROWS.glob("*.md"):
            self.assertIn(f"[{row.stem}]", row.read_text(encoding="utf-8"))

    def test_exit_statuses(self):
        good = b'<provisioning version="1.1" productID="kd4v"><nvm><param name="Time.Format" value="12h"/></nvm></provisioning>'
        self.assertEqual(lint("-", stdin=good)[0], 0)
        self.assertEqual(lint("-", stdin=good.replace(b"12h", b"half past"))[0], 1)
        self.assertEqual(lint("-", stdin=good.replace(b"<nvm>", b"<nvm><param/>"))[0], 0, "a warning")
        for words in ((), ("/nothing",), ("--catalogue", "/nothing", "-"), ("--offline", "http://127.0.0.1:9/a.xml"), ("--as", "new", "-")):
            with self.subTest(words):
                status, report = lint(*words, stdin=good)
                self.assertEqual((status, report["error"]), (2, "usage"))

    def test_a_caret_stands_below_the_place(self):
        text = b'<provisioning version="1.1" productID="kd4v">\n\t<nvm><param name="Nothing" value=""/></nvm>\n</provisioning>'
        done = subprocess.run([ZAVCTL, "lint", "-"], input=text, capture_output=True, timeout=60, check=False)
        lines = done.stdout.decode().splitlines()
        self.assertTrue(lines[0].startswith("-:2:20: error: "), lines)
        self.assertEqual(lines[1][lines[2].index("^"):][:7], "Nothing")


if __name__ == "__main__":
    unittest.main(verbosity=2)
