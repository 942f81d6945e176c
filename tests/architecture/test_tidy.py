"""scripts/tidy --changed: which sources it checks, tried in a small tree whose build is a stand-in."""

import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

import tree

# Which source includes what, as ninja prints it.
DEPENDENCIES = """\
a.dir/Own.cpp.o: #deps 3, deps mtime 1 (VALID)
    ../../src/Own.cpp
    ../../src/Shared.h
    /usr/include/string.h

a.dir/Shared.cpp.o: #deps 2, deps mtime 1 (VALID)
    ../../src/Shared.cpp
    ../../src/Shared.h

a.dir/Last.cpp.o: #deps 3, deps mtime 1 (VALID)
    ../../src/Last.cpp
    ../../src/Shared.h
    ../../src/Alone.h

"""
SOURCES = ("src/Own.cpp", "src/Shared.cpp", "src/Shared.h", "src/Last.cpp", "src/Alone.h", "src/Unbuilt.cpp")


class Tidy(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name) / "tree"
        self.write("scripts/build", 'echo "build $*"\n')
        self.write("bin/ninja", f"cat <<'END'\n{DEPENDENCIES}END\n")
        shutil.copy(tree.ROOT / "scripts/tidy", self.root / "scripts")
        self.git("init", "-q", "-b", "main")
        self.commit(*SOURCES)

    def write(self, name, script):
        (self.root / name).parent.mkdir(parents=True, exist_ok=True)
        (self.root / name).write_text(f"#!/bin/bash\n{script}")
        (self.root / name).chmod(0o755)

    def git(self, *arguments):
        subprocess.run(["git", "-c", "user.name=n", "-c", "user.email=e", *arguments], cwd=self.root, check=True)

    def commit(self, *names):
        for name in names:
            (self.root / name).parent.mkdir(exist_ok=True)
            with open(self.root / name, "a", encoding="utf-8") as file:
                file.write("// changed\n")
        self.git("add", "-A")
        self.git("commit", "-qm", f"change {' '.join(names)}")

    def tidied(self, status=0, limit=()):
        """What it says, and the sources that it hands to the build."""
        path = f"{self.root}/bin:{os.environ['PATH']}"
        done = subprocess.run([self.root / "scripts/tidy", "--changed", *limit], env={**os.environ, "PATH": path},
                              capture_output=True, text=True)
        self.assertEqual(done.returncode, status, done.stderr)
        builds = [line for line in done.stdout.splitlines() if line.startswith("build tidy ")]
        targets = [target for build in builds for target in build.split()[4:]]
        return done.stdout, [target.removeprefix(f"{self.root}/").removesuffix("^") for target in targets]

    def test_a_commit_without_a_parent_is_not_checked_and_says_so(self):
        said, sources = self.tidied()
        self.assertIn("not run, because the last commit has no parent", said)
        self.assertEqual(sources, [])

    def test_a_changed_source_is_checked(self):
        self.commit("src/Own.cpp")
        self.assertEqual(self.tidied()[1], ["src/Own.cpp"])

    def test_a_changed_header_is_checked_in_the_source_of_its_name(self):
        self.commit("src/Shared.h")
        self.assertEqual(self.tidied()[1], ["src/Shared.cpp"])

    def test_a_changed_header_without_a_source_is_checked_where_it_is_included(self):
        self.commit("src/Alone.h")
        self.assertEqual(self.tidied()[1], ["src/Last.cpp"])

    def test_a_merge_is_compared_with_its_first_parent(self):
        self.git("checkout", "-qb", "branch")
        self.commit("src/Own.cpp")
        self.commit("src/Last.cpp")
        self.git("checkout", "-q", "main")
        self.commit("src/Shared.cpp")
        self.git("merge", "-q", "--no-ff", "-m", "merge", "branch")
        self.assertEqual(self.tidied()[1], ["src/Last.cpp", "src/Own.cpp"])

    def test_a_commit_without_sources_needs_no_check(self):
        self.commit("README.md")
        said, sources = self.tidied()
        self.assertIn("clang-tidy: 0 sources", said)
        self.assertEqual(sources, [])

    def test_a_source_outside_the_build_is_named(self):
        self.commit("src/Unbuilt.cpp")
        self.assertIn("src/Unbuilt.cpp is not part of the build", self.tidied()[0])

    def test_the_rest_is_left_when_the_time_is_up(self):
        self.commit("src/Own.cpp")
        said, sources = self.tidied(limit=["0"])
        self.assertIn("clang-tidy: checked 0 of 1 sources", said)
        self.assertIn("the time is up", said)
        self.assertEqual(sources, [])

    def test_findings_are_its_exit_status(self):
        self.write("scripts/build", '[ "$1" != tidy ]\n')
        self.commit("src/Own.cpp")
        self.tidied(status=1)


if __name__ == "__main__":
    unittest.main()
