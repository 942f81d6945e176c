"""zavctl lint as authors start it: files in a folder, no phone.

Runs on the machine itself, not inside lab/phone: test_lint.py BUILD_DIRECTORY
"""

import json
import os
import pathlib
import re
import resource
import subprocess
import sys
import tempfile
import unittest
from xml.sax import saxutils

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


def processor_seconds(*command):
    """Of the command and its children: the load of the machine does not count."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=120, check=False)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def different_settings(count):
    """[(key, default)] of the catalogue."""
    found = []
    catalogue = json.loads((examples.ROOT / "services/property-service/catalogue.json").read_text(encoding="utf-8"))
    for pattern, definition in catalogue["keys"].items():
        first, last = (re.search(r"\{(\d+)-(\d+)\}", pattern) or re.match("()()", pattern)).groups()
        numbers = range(int(first), int(last) + 1) if first else [0]
        found += [(re.sub(r"\{\d+-\d+\}", str(number), pattern), definition["default"]) for number in numbers]
    return [one for one in found if not one[0].startswith("State.")][:count]


@unittest.skipIf((pathlib.Path(BUILD) / "profiles").exists(), "programs with coverage counters are slow")
class SpeedTest(unittest.TestCase):
    """1,000 files of 1,000 settings take less than 3 s on two cores; the explanation of a file 50 ms beyond openssl.

    LINT_FILES=1000 lints as many."""

    def test_lint(self):
        count = int(os.environ.get("LINT_FILES", "100"))
        settings = "".join(f'    <param name="{key}" value={saxutils.quoteattr(value)}/>\n' for key, value in different_settings(250))
        jobs = 4 * f"  <nvm>\n{settings}  </nvm>\n"
        text = f'<provisioning version="1.1" productID="kd4v">\n{jobs}</provisioning>\n'
        self.assertEqual(text.count("<param "), 1000)
        with tempfile.TemporaryDirectory() as folder:
            for n in range(count):
                (pathlib.Path(folder) / f"{n}.xml").write_text(text, encoding="utf-8")
            seconds = processor_seconds(ZAVCTL, "lint", folder)
        print(f"lint: {count} files in {seconds:.2f} s of processor time", flush=True)
        self.assertLess(seconds, 2 * 3 * count / 1000)

    def test_explain(self):
        with tempfile.TemporaryDirectory() as folder:
            file = pathlib.Path(folder) / "provisioning.xml"
            file.write_text('<provisioning version="1.1" productID="kd4v"><nvm><param name="Time.Format" value="12h"/></nvm>'
                            "</provisioning>", encoding="utf-8")
            runs = [(processor_seconds(ZAVCTL, "explain", str(file)), processor_seconds("openssl", "version")) for _ in range(10)]
        beyond = min(explain for explain, _ in runs) - min(openssl for _, openssl in runs)
        print(f"explain: {beyond * 1000:.0f} ms of processor time beyond openssl", flush=True)
        self.assertLess(beyond, 0.05)


if __name__ == "__main__":
    unittest.main(verbosity=2)
