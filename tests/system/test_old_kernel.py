"""The phone of the demonstration on the oldest supported kernel, Linux 4.9: later system calls fail as they would there.

Runs on the machine itself, not inside lab/phone: test_old_kernel.py BUILD_DIRECTORY
"""

import ctypes
import errno
import os
import platform
import struct
import subprocess
import sys
import unittest

PROJECT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = sys.argv.pop() if len(sys.argv) > 1 else os.path.join(PROJECT, "build", "release")

# x86-64: the last call of Linux 4.9 is pkey_free; far above begin the numbers of x32.
LAST_CALL = 331
X32_CALLS = 0x40000000
ARCHITECTURE = 0xC000003E
LOAD, IF_EQUAL, IF_GREATER, IF_AT_LEAST, RETURN = 0x20, 0x15, 0x25, 0x35, 0x06
NUMBER_OFFSET, ARCHITECTURE_OFFSET = 0, 4
ALLOW, FAIL = 0x7FFF0000, 0x00050000 | errno.ENOSYS
NO_NEW_PRIVILEGES, SET_FILTER, FILTER = 38, 22, 2

PROGRAM = b"".join(struct.pack("=HBBI", *instruction) for instruction in (
    (LOAD, 0, 0, ARCHITECTURE_OFFSET),
    (IF_EQUAL, 0, 4, ARCHITECTURE),
    (LOAD, 0, 0, NUMBER_OFFSET),
    (IF_AT_LEAST, 2, 0, X32_CALLS),
    (IF_GREATER, 0, 1, LAST_CALL),
    (RETURN, 0, 0, FAIL),
    (RETURN, 0, 0, ALLOW),
))


class Filter(ctypes.Structure):
    _fields_ = [("length", ctypes.c_ushort), ("program", ctypes.c_char_p)]


def become_old():
    """From here on this process and its children see the old kernel."""
    library = ctypes.CDLL(None, use_errno=True)
    program = Filter(len(PROGRAM) // 8, PROGRAM)
    if library.prctl(NO_NEW_PRIVILEGES, 1, 0, 0, 0) or library.prctl(SET_FILTER, FILTER, ctypes.byref(program), 0, 0):
        raise OSError(ctypes.get_errno(), "the filter of system calls is refused")


def run(*command):
    done = subprocess.run(command, preexec_fn=become_old, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=150, text=True)
    return done.returncode, done.stdout


@unittest.skipUnless(platform.machine() == "x86_64", "system calls have other numbers here")
class OldKernelTest(unittest.TestCase):
    def test_later_system_calls_are_refused(self):
        status, said = run(sys.executable, "-c", "import os; os.pidfd_open(os.getpid())")
        self.assertEqual(status, 1, said)
        self.assertIn("Function not implemented", said)

    def test_commands(self):
        status, said = run(f"{PROJECT}/lab/sandbox", "--", f"{BUILD}/tests/common_test", "--gtest_filter=ExecuteTest.*")
        self.assertEqual(status, 0, said)
        self.assertIn("ExecuteTest.ATimeOutEndsTheWholeGroup", said)

    def test_every_pass_of_the_demonstration(self):
        status, said = run(f"{PROJECT}/lab/phone", "--build", BUILD, "--no-boot-pass", "--device-services", "--",
                           "/usr/bin/python3", "-B", "lab/demonstration.py")
        self.assertEqual(status, 0, said)
        self.assertTrue(said.endswith("All as promised.\n"), said)


if __name__ == "__main__":
    unittest.main(verbosity=2)
