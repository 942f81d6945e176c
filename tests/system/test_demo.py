"""What people start first, as a test starts it: the demonstration without a terminal, lab/phone, and both without root.

Runs on the machine itself, not inside lab/phone: test_demo.py BUILD_DIRECTORY
"""

import functools
import os
import shutil
import subprocess
import sys
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = sys.argv.pop() if len(sys.argv) > 1 else os.path.join(PROJECT, "build", "release")
sys.path.insert(0, os.path.join(PROJECT, "docs", "pictures"))
import pictures  # noqa: E402

NOTHING = ("--no-broker", "--no-properties", "--no-server", "--no-daemon")


def phone(options, command, before=()):
    """(exit status, what was said)"""
    done = subprocess.run([*before, f"{PROJECT}/lab/phone", "--build", BUILD, *options, "--", *command],
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=150)
    return done.returncode, done.stdout.decode()


@functools.lru_cache(maxsize=1)
def demonstration():
    return phone(["--no-boot-pass", "--device-services"], ["/usr/bin/python3", "-B", "lab/demonstration.py"])


class DemoTest(unittest.TestCase):
    def test_without_a_terminal(self):
        status, said = demonstration()
        self.assertEqual(status, 0, said)
        self.assertNotIn("\x1b", said)
        self.assertNotIn("\r", said)
        self.assertTrue(said.endswith("All as promised.\n"), said)

    def test_the_picture_shows_what_it_prints(self):
        with open(os.path.join(PROJECT, "docs", "pictures", "demo.svg"), encoding="utf-8") as file:
            picture = pictures.texts(file.read())
        status, said = demonstration()
        self.assertEqual(status, 0, said)
        printed = [line.strip() for line in pictures.shown(said) if line.strip()]
        self.assertEqual(pictures.timeless(picture), pictures.timeless(["$ scripts/demo", *printed]),
                         "scripts/pictures demo mends this")


class LabTest(unittest.TestCase):
    def test_its_exit_status_is_the_commands(self):
        for status in (0, 1, 37, 255):
            self.assertEqual(phone(NOTHING, ["/bin/sh", "-c", f"exit {status}"])[0], status)

    @unittest.skipIf(os.geteuid() != 0, "only root can become another user; and everybody else already is one")
    def test_an_ordinary_user_has_a_phone_too(self):
        user = 65534
        become = [shutil.which("setpriv"), f"--reuid={user}", f"--regid={user}", "--clear-groups"]
        readable = subprocess.run([*become, "test", "-x", f"{PROJECT}/lab/phone"], check=False).returncode == 0
        if not readable:
            self.skipTest(f"no ordinary user can read {PROJECT}")
        status, said = phone(["--no-boot-pass"],
                             ["/bin/sh", "-c", "service ready daemon && zavctl get System.General.DeviceID"], become)
        self.assertEqual((status, said.splitlines()[-1:]), (0, ["kd4v"]), said)


if __name__ == "__main__":
    unittest.main(verbosity=2)
