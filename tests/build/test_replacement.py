"""A bus library of one's own instead of platform/ipc, and a library file instead of platform/propertyapi: the programs
link them, the kit passes, and a pass succeeds.

test_replacement.py BUILD_DIRECTORY
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from configure import ROOT

BUILD = pathlib.Path(os.path.realpath(sys.argv.pop() if len(sys.argv) > 1 else ROOT / "build" / "release"))
PAGE = (ROOT / "docs/porting.md").read_text(encoding="utf-8")
FOLDER_OF_THE_PAGE = "build/unix-bus"


def run(command, **environment):
    """(exit status, what was said) of a command, as pasted into a shell in the tree's root."""
    done = subprocess.run(["bash", "-c", command], cwd=ROOT, env={**os.environ, **environment}, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return done.returncode, done.stdout


def folder():
    # Beside the other builds: the compiler cache knows its objects by their relative paths.
    return tempfile.TemporaryDirectory(prefix="replaced-", dir=BUILD.parent)


def commands_of_the_page():
    blocks = re.findall(r"^```sh\n(.*?)^```$", PAGE, re.M | re.S)
    return [command for block in blocks if FOLDER_OF_THE_PAGE in block
            for command in block.replace("\\\n", " ").splitlines()]


class Replacement(unittest.TestCase):
    """The commands of the page, in its order, with a folder of their own."""

    @classmethod
    def setUpClass(cls):
        keeper = folder()
        cls.addClassCleanup(keeper.cleanup)
        cls.build = keeper.name
        cls.configure, cls.compile, cls.check = (
            command.replace(FOLDER_OF_THE_PAGE, cls.build) for command in commands_of_the_page())
        # Besides: what the lab needs.
        for command in (f"{cls.configure} -DZAV_LAB=ON", f"{cls.compile} phone-clock phone-clock-preload"):
            status, said = run(command)
            if status != 0:
                raise AssertionError(f"{command}\n{said[-4000:]}")

    def test_the_kit_passes(self):
        """In four parts, as it mostly waits."""
        def part(number):
            return run(f"lab/sandbox --net -- {self.check}", GTEST_TOTAL_SHARDS="4", GTEST_SHARD_INDEX=str(number))
        kept = 0
        with concurrent.futures.ThreadPoolExecutor(4) as pool:
            for status, said in pool.map(part, range(4)):
                self.assertEqual(status, 0, said[-6000:])
                skipped = [line for line in said.splitlines() if line.startswith("skipped: ") and not line.endswith("needs --tcp")]
                self.assertEqual(skipped, [])
                kept += int(re.search(r"(\d+) promises kept", said).group(1))
        self.assertGreater(kept, 90)

    def test_a_pass_succeeds(self):
        status, said = run(f"lab/phone --build {self.build} --no-broker --no-properties --no-daemon -- "
                           f"{ROOT}/tests/build/replaced_bus_pass.sh {self.build}/bin")
        self.assertEqual(status, 0, said)
        self.assertIn("success (HTTP 200", said)
        self.assertIn("the name is Front desk", said)

    def test_no_program_has_the_other_bus(self):
        for name in ("zavd", "prop-service", "zavctl", "zav-platform-tests"):
            status, said = run(f"ldd {self.build}/bin/{name}")
            self.assertEqual(status, 0, said)
            self.assertNotIn("mosquitto", said)

    def test_library_files_are_linked(self):
        files = {"ZAV_IPC_LIBRARY": f"{self.build}/platform/ipc-replacement/libipc.a",
                 "ZAV_PROPERTYAPI_LIBRARY": f"{BUILD}/platform/propertyapi/libzav-propertyapi.a"}
        with folder() as other:
            options = " ".join(f"-D{name}={path}" for name, path in files.items())
            status, said = run(f"cmake --preset release -B {other} {options} -DZAV_TESTS=OFF && cmake --build {other} --target zavd")
            self.assertEqual(status, 0, said[-4000:])
            self.assertEqual(run(f"ldd {other}/bin/zavd | grep mosquitto"), (1, ""))

    def test_mistakes_are_named(self):
        with folder() as empty:
            (pathlib.Path(empty) / "CMakeLists.txt").write_text("")
            self.check_refusal("/nonexistent/libbus.a", "ZAV_IPC_LIBRARY: there is no file or folder /nonexistent/libbus.a")
            self.check_refusal(empty, f"{empty}/CMakeLists.txt defines no library 'ipc'")

    def check_refusal(self, value, reason):
        with self.subTest(value), folder() as other:
            status, said = run(f"cmake --preset release -B {other} -DZAV_IPC_LIBRARY={value}")
            self.assertEqual(status, 1, said)
            self.assertIn(reason, " ".join(said.split()))


if __name__ == "__main__":
    unittest.main(verbosity=2)
