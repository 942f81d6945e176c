"""Error messages of lab/phone when it cannot start a phone."""

import os
import subprocess
import tempfile
import unittest

PROJECT = os.path.abspath(os.path.join(os.path.dirname(__file__), "../../../.."))


def phone(*words):
    done = subprocess.run([f"{PROJECT}/lab/phone", *words], capture_output=True, text=True, timeout=30,
                          stdin=subprocess.DEVNULL)
    return done.returncode, done.stdout, done.stderr


class LabPhoneTest(unittest.TestCase):
    def test_programs_that_are_not_built_are_named(self):
        with tempfile.TemporaryDirectory() as build:
            os.mkdir(f"{build}/bin")
            self.assertEqual(phone("--build", build, "--", "true"),
                             (1, "", f"lab/phone: {build}/bin/prop-service is not built; scripts/build builds it\n"))
            for name in ("prop-service", "zavctl"):
                os.symlink("/bin/true", f"{build}/bin/{name}")
            self.assertEqual(phone("--build", build, "--", "true"),
                             (1, "", f"lab/phone: {build}/bin/zavd is not built; scripts/build builds it\n"))


if __name__ == "__main__":
    unittest.main()
