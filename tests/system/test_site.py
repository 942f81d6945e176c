"""The site that scripts/docs makes of the pages, in a copy of the tree. Skipped where mkdocs is not installed.

Runs on the machine itself: test_site.py
"""

import html.parser
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
SKIPPED = 77


class Page(html.parser.HTMLParser):
    """The anchors of a page and its links to other places of the site."""

    def __init__(self, path):
        super().__init__()
        self.anchors, self.links = set(), []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attrs):
        values = dict(attrs)
        self.anchors.update(values[name] for name in ("id", "name") if values.get(name))
        link = values.get("href") or values.get("src") or ""
        if link and ":" not in link and not link.startswith(("//", "#")):
            self.links.append(link)


class SiteTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.root = pathlib.Path(cls.folder.name) / "tree"
        shutil.copytree(ROOT, cls.root, ignore=lambda folder, names: [
            name for name in names if folder == str(ROOT) and name in (".git", "build", "src", "platform", "bench")])

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def build(self):
        """(exit status, what was said) of scripts/docs"""
        done = subprocess.run([f"{self.root}/scripts/docs"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120,
                              check=False)
        return done.returncode, done.stdout

    def append(self, page, text):
        """Adds text to a page for this test only."""
        path = self.root / page
        before = path.read_text(encoding="utf-8") if path.exists() else None
        path.write_text((before or "") + text, encoding="utf-8")
        self.addCleanup(path.write_text if before is not None else lambda _: path.unlink(), before)

    def test_every_link_and_anchor_leads_somewhere(self):
        self.assertEqual(self.build(), (0, "build/docs/index.html\n"))
        site = self.root / "build" / "docs"
        pages = {path: Page(path) for path in site.rglob("*.html") if path.name != "404.html"}
        self.assertGreater(len(pages), 20)
        broken = []
        for path, page in pages.items():
            for link in page.links:
                name, _, anchor = link.partition("#")
                target = pathlib.Path(os.path.normpath(path.parent / name.partition("?")[0]))
                if target.is_dir():
                    target /= "index.html"
                if not target.exists() or (anchor and anchor not in pages[target].anchors):
                    broken.append(f"{path.relative_to(site)}: {link}")
        self.assertEqual(broken, [])

    def test_mistakes_are_refused(self):
        for page, text, reason in [("docs/threads.md", "\n[x](nowhere.md)\n", "nowhere.md"),
                                   ("docs/unlisted.md", "# Unlisted\n", "unlisted.md"),
                                   ("docs/threads.md", '\n<script src="https://elsewhere.test/x.js"></script>\n', "elsewhere.test")]:
            with self.subTest(reason):
                self.append(page, text)
                status, said = self.build()
                self.assertEqual(status, 1, said)
                self.assertIn(reason, said)
                self.doCleanups()


if __name__ == "__main__":
    if shutil.which("mkdocs") is None:
        print("mkdocs is not installed")
        sys.exit(SKIPPED)
    unittest.main(verbosity=2)
