"""The commands of README.md and docs/*.md that run on a developer's machine: those of lab/, of scripts/, and ctest.

Runs on the machine itself: test_docs_commands.py BUILD_DIRECTORY. What scripts/ does is tried in a copy of the tree that
holds this build's programs and stand-ins for cmake, ninja and ctest: building and testing everything has tests enough.
"""

import glob
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import examples

BUILD = os.path.realpath(sys.argv.pop() if len(sys.argv) > 1 else examples.ROOT / "build" / "release")
STANDINS = {
    "dpkg-query": 'echo installed',
    "apt-get": 'echo "Debian deb http://packages.test/debian/ stable main"',
    "mmdebstrap": 'tar -cf - --files-from=/dev/null',
    "cmake": '[ "$1" != --list-presets ] || exec /usr/bin/cmake "$@"; mkdir -p "build/$2" && touch "build/$2/build.ninja"',
    "ninja": 'echo "ninja: no work to do."',
    "dpkg-buildpackage": "touch ../zavd_$(sed -n '1s/^zav (\\(.*\\)) .*/\\1/p' debian/changelog)_all.deb",
    "blhc": ":",
    "lintian": ":",
    "ctest": 'while [ $# -gt 0 ]; do [ "$1" != --output-junit ] || '
             'echo \'<testsuite tests="3" failures="0" skipped="0">\' >"$2"; shift; done',
}


def commands():
    """(block, command), without the comment behind it."""
    return [(block, command) for page in examples.pages() for block in examples.blocks(page) if block.on_the_machine()
            for command, _ in block.commands()]


class Copy:
    """A copy of the tree in which the release build is made, and `calls` of the programs that stand in for others."""

    def __init__(self):
        self.folder = tempfile.TemporaryDirectory()
        self.root = f"{self.folder.name}/tree"
        shutil.copytree(examples.ROOT, self.root, symlinks=True, ignore=lambda folder, names: [
            name for name in names if folder == str(examples.ROOT) and name in (".git", "build")])
        for part in ("bin", "lab"):
            shutil.copytree(f"{BUILD}/{part}", f"{self.root}/build/release/{part}",
                            ignore=lambda folder, names: [n for n in names if n.startswith("bench_") or n == "CMakeFiles"])
        os.makedirs(f"{self.folder.name}/bin")
        self.version = re.search(r"project\(zav VERSION (\S+)", (examples.ROOT / "CMakeLists.txt").read_text()).group(1)
        for words in ("init --quiet", "add --all", "commit --quiet --message x", f"tag v{self.version}"):
            subprocess.run(["git", "-c", "user.name=x", "-c", "user.email=x", *words.split()], cwd=self.root, check=True)
        for name, script in STANDINS.items():
            with open(f"{self.folder.name}/bin/{name}", "w", encoding="utf-8") as file:
                file.write(f'#!/bin/bash\necho "{name} $*" >>"{self.folder.name}/calls"\n{script}\n')
            os.chmod(file.name, 0o755)

    def run(self, command):
        environment = {**os.environ, "PATH": f"{self.folder.name}/bin:{os.environ['PATH']}"}
        return run(command, self.root, environment)

    def calls(self):
        with open(f"{self.folder.name}/calls", encoding="utf-8") as file:
            return file.read()


def test_lists():
    """A folder with the build's lists of tests only: ctest overwrites the log of the last run wherever it lists tests."""
    folder = tempfile.TemporaryDirectory()
    for name in glob.glob("**/CTestTestfile.cmake", root_dir=BUILD, recursive=True):
        os.makedirs(os.path.dirname(f"{folder.name}/{name}"), exist_ok=True)
        shutil.copy(f"{BUILD}/{name}", f"{folder.name}/{name}")
    return folder


def run(command, folder, environment=None):
    """(exit status, what was said); a shell that is asked for ends at once."""
    done = subprocess.run(["bash", "-c", command], cwd=folder, env=environment, input=b"exit 0\n",
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=150, check=False)
    return done.returncode, done.stdout.decode(errors="replace")


class CommandsTest(unittest.TestCase):
    def with_first_word(self, first):
        found = [(block, command) for block, command in commands() if re.match(first, command)]
        self.assertTrue(found)
        return found

    def test_every_command_is_tried_somewhere(self):
        # tests/build/test_replacement.py tries those of the build with another bus.
        rest = [f"{block}: {command}" for block, command in commands()
                if not re.match(r"(lab|scripts)/|ctest ", command) and "build/unix-bus" not in command]
        self.assertEqual(rest, [])

    def test_commands_of_the_lab(self):
        for block, command in self.with_first_word("lab/"):
            with self.subTest(f"{block}: {command}"):
                here = re.sub(r"^lab/phone", f"lab/phone --build {BUILD}", command)
                status, said = run(here.replace("build/release", os.path.relpath(BUILD, examples.ROOT)), examples.ROOT)
                self.assertEqual(status, 0, said)
                if "--gtest_filter" in command:
                    self.assertRegex(said, r"\[  PASSED  \] [1-9]")

    def test_selections_of_tests_find_some(self):
        lists = test_lists()
        self.addCleanup(lists.cleanup)
        for block, command in self.with_first_word("ctest "):
            with self.subTest(f"{block}: {command}"):
                here = re.sub(r"--preset \S+", f"--test-dir {lists.name} -N", re.sub(r" #.*", "", command))
                status, said = run(here, examples.ROOT)
                self.assertEqual(status, 0, said)
                self.assertRegex(said, r"Total Tests: [1-9]")
        self.assertTrue(os.path.exists(f"{lists.name}/Testing/Temporary/LastTest.log"), "written elsewhere")

    def test_scripts_refuse_arguments_that_they_do_not_know(self):
        copy = Copy()
        self.addCleanup(copy.folder.cleanup)
        for name in ("build", "demo", "docs", "format", "pictures", "setup", "sysroot", "test", "tidy"):
            with self.subTest(name):
                status, said = copy.run(f"scripts/{name} --nothing")
                self.assertEqual(status, 2, said)
                self.assertIn(f"scripts/{name}", said)
                self.assertFalse(os.path.exists(f"{copy.folder.name}/calls"))

    def test_commands_of_scripts(self):
        copy = Copy()
        self.addCleanup(copy.folder.cleanup)
        for block, command in self.with_first_word("scripts/"):
            with self.subTest(f"{block}: {command}"):
                if command.startswith("scripts/bench"):  # what it would measure: nothing is built here
                    command = re.sub(r" *#.*", "", command) + " --list"
                status, said = copy.run(re.sub(r"\d+\.\d+\.\d+", copy.version, command))
                self.assertEqual(status, 0, said)
                if command.startswith("scripts/demo"):
                    self.assertIn("All as promised.", said)
                if re.match(r"scripts/test *(#|$)", command):
                    self.assertIn("9 passed, 0 failed, 0 skipped", said)
                    for preset in ("release", "asan-ubsan", "tsan"):
                        self.assertIn(f"ctest --preset {preset} ", copy.calls())
                    self.assertIn("ninja -C build/clang ", copy.calls())


if __name__ == "__main__":
    unittest.main(verbosity=2)
