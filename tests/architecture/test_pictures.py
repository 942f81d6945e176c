"""The pictures of docs/pictures: each is made from the source beside it as that is now, and a page shows it."""

import re
import shutil
import sys
import unittest

import tree

sys.path.insert(0, str(tree.ROOT / "docs" / "pictures"))
sys.dont_write_bytecode = True
import pictures  # noqa: E402

MEND = "scripts/pictures mends this"
MEASURED = "soak.svg"  # by a run of scripts/test soak


class Pictures(unittest.TestCase):
    def test_each_is_made_from_its_source_as_it_is_now(self):
        self.assertTrue(pictures.sources())
        for source in pictures.sources():
            with self.subTest(source.name):
                made = pictures.MADE_FROM.match(pictures.picture(source).read_text(encoding="utf-8"))
                self.assertIsNotNone(made, MEND)
                self.assertEqual(made.groups(), (source.name, pictures.digest(source)), MEND)

    def test_each_holds_the_texts_that_its_source_makes(self):
        for source in pictures.sources():
            program = pictures.COMMANDS[source.suffix][0]
            with self.subTest(source.name):
                if shutil.which(program) is None:
                    self.skipTest(f"{program} is not installed")
                made = pictures.picture(source).read_text(encoding="utf-8")
                self.assertEqual(sorted(pictures.texts(made)), sorted(pictures.texts(pictures.draw(source))), MEND)

    def test_no_picture_is_without_a_source(self):
        known = {pictures.picture(source).name for source in pictures.sources()} | {f"{pictures.TERMINAL}.svg", MEASURED}
        found = {name.rsplit("/", 1)[1] for name in tree.files("docs/pictures") if name.endswith(".svg")}
        self.assertEqual(found, known)

    def test_every_picture_is_shown_and_every_shown_one_exists(self):
        shown = set()
        for page in tree.files():
            if page.endswith(".md"):
                text = (tree.ROOT / page).read_text(encoding="utf-8")
                shown |= {match.rsplit("/", 1)[1] for match in re.findall(r"!\[[^\]]*\]\(([^)]*/\w+\.svg)\)", text)}
        found = {name.rsplit("/", 1)[1] for name in tree.files("docs/pictures") if name.endswith(".svg")}
        self.assertEqual(shown, found)

    def test_the_sequence_writes_states_in_the_order_of_a_real_pass(self):
        sequence = (tree.ROOT / "docs/pictures/pass.msc").read_text(encoding="utf-8")
        row = (tree.ROOT / "tests/flow/rows/format_1_1_plain.txt").read_text(encoding="utf-8")
        writes = row.split("\n[writes]\n", 1)[1].split("\n[", 1)[0]
        self.assertEqual(re.findall(r'pass => service \[label="set (State[.\w]+)', sequence),
                         re.findall(r"^(State[.\w]+) =", writes, re.M))

    def test_columns_of_a_terminal_stay_columns(self):
        lines = ["$ run", "   key     \"a\" → \"b\"", "", "   longer  <c> & d"]
        self.assertEqual(pictures.texts(pictures.terminal(lines)), [line.strip() for line in lines if line])


if __name__ == "__main__":
    unittest.main()
