"""The manual pages: every program has one, they agree with zavctl's help and the catalogue, and they are well formed.

Runs on the machine itself: test_man.py BUILD_DIRECTORY
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv.pop() if len(sys.argv) > 1 else ROOT / "build" / "release")
PAGES = sorted((ROOT / "docs" / "man").glob("*.md"))


def run(*command):
    """(exit status, what was said)"""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=60, check=False)
    return done.returncode, done.stdout


def converted(page):
    status, roff = run(ROOT / "docs/man/convert", page, "1.2.3", "2026-01-31")
    if status != 0:
        raise AssertionError(roff)
    return roff


class ManualPagesTest(unittest.TestCase):
    def test_every_program_and_format_has_a_page(self):
        self.assertEqual([page.name for page in PAGES], [
            "prop-service.8.md", "zav-demo.1.md", "zav-phone.1.md", "zav-platform-tests.1.md", "zav-properties.7.md",
            "zav-provisioning.5.md", "zavctl.1.md", "zavd.8.md"])

    def test_each_page_is_installed(self):
        rules = "".join(path.read_text() for folder in ("src", "services", "tools", "lab", "tests") for path in (ROOT / folder).rglob("CMakeLists.txt"))
        installed = re.findall(r"zav_install_man_page\(\S+ (\S+)\)", rules)
        self.assertEqual(sorted(f"{name}.md" for name in installed), [page.name for page in PAGES])

    def test_generated_parts_are_up_to_date(self):
        for words in (["properties"], ["commands", BUILD / "bin/zavctl"]):
            with self.subTest(words[0]):
                self.assertEqual(run("/usr/bin/python3", "-B", ROOT / "docs/man/generate.py", *words, "--check"), (0, ""))

    def test_pages_are_well_formed(self):
        for page in PAGES:
            with self.subTest(page.name), tempfile.NamedTemporaryFile("w", suffix=".roff") as file:
                file.write(converted(page))
                file.flush()
                self.assertEqual(run("mandoc", "-Tlint", "-W", "warning", file.name), (0, ""))

    def test_header_and_name(self):
        for page in PAGES:
            with self.subTest(page.name):
                name, section, _ = page.name.split(".")
                roff = converted(page)
                self.assertIn(f'\n.TH "{name.upper()}" "{section}" "2026-01-31" "ZAV 1.2.3"', roff)
                self.assertRegex(roff, rf"\n\.SH NAME\n{name} \\- \S")

    def test_nothing_is_lost(self):
        """Examples keep their lines, also those that begin with a dot, and options their dashes."""
        with tempfile.TemporaryDirectory() as folder:
            page = pathlib.Path(folder) / "try.1.md"
            page.write_text("# try(1)\n\n## NAME\n\ntry - a page\n\n<!-- figure -->\n```sh\ntry --all 'a\\b'\n.dot\n```\n\n"
                            "**--json**\n: prints JSON, [here](other.md)\n")
            roff = pathlib.Path(folder) / "try.1"
            roff.write_text(converted(page))
            status, text = run("mandoc", "-Tascii", roff)
        self.assertEqual(status, 0, text)
        words = re.sub(r".\x08", "", text)
        for line in ("try --all 'a\\b'", ".dot", "--json", "prints JSON, here"):
            self.assertIn(line, [one.strip() for one in words.splitlines()])
        self.assertNotIn("figure", words)
        self.assertNotIn("other.md", words)

    def test_a_file_that_is_not_a_page_is_refused(self):
        self.assertEqual(run(ROOT / "docs/man/convert", "README.md", "1", "2")[0], 2)


if __name__ == "__main__":
    unittest.main(verbosity=2)
