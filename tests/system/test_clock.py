"""The clock that the lab shows to the daemon: waits follow it, nothing else does."""

import os
import subprocess
import sys
import tempfile
import time
import unittest

import phone

BUILD = os.environ["LAB_BUILD"]
WAYS = ("wait_for", "wait_until", "sleep", "poll", "select", "epoll", "timer")


class ClockTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)
        self.file = os.path.join(self.folder.name, "clock")
        self.environment = {**os.environ, "TZ": "UTC"}
        self.clock("create")

    def clock(self, *words):
        return subprocess.run([f"{BUILD}/lab/phone-clock", self.file, *map(str, words)], check=True, timeout=10,
                              env=self.environment, capture_output=True, text=True).stdout

    def probe(self, *words):
        environment = {**os.environ, "LD_PRELOAD": f"{BUILD}/lab/phone-clock.so", "PHONE_CLOCK": self.file}
        probe = subprocess.Popen([f"{BUILD}/tests/clock-probe", *map(str, words)], env=environment, text=True,
                                 stdout=subprocess.PIPE)
        self.addCleanup(probe.stdout.close)
        self.addCleanup(probe.wait)
        self.addCleanup(probe.kill)
        return probe

    def begun(self, *words):
        """A probe that has fallen asleep in its wait: not before that is the wait's end fixed."""
        probe = self.probe(*words)
        self.assertEqual(probe.stdout.readline(), "begin\n")
        phone.wait_until(lambda: phone.asleep(probe.pid), "the probe asleep")
        return probe

    def finish(self, probe):
        out, _ = probe.communicate(timeout=30)
        self.assertEqual(probe.returncode, 0, out)
        return out.split()

    def test_a_wait_under_way_follows_a_faster_clock(self):
        for way in WAYS:
            with self.subTest(way):
                self.clock("factor", 1)
                probe = self.begun(way, 900)
                begin = time.monotonic()
                self.clock("factor", 1000)
                end, seconds = self.finish(probe)
                self.assertEqual(end, "timeout")
                self.assertGreaterEqual(float(seconds), 900)
                self.assertLess(float(seconds), 1800)
                self.assertGreater(time.monotonic() - begin, 0.7)

    def test_a_jump_ends_a_wait_under_way_only_when_it_reaches_its_end(self):
        for way in WAYS:
            with self.subTest(way):
                self.clock("factor", 1)
                probe = self.begun(way, 900)
                self.clock("jump", 700)
                with self.assertRaises(subprocess.TimeoutExpired):
                    probe.wait(0.2)
                self.clock("jump", 200)
                end, seconds = self.finish(probe)
                self.assertEqual(end, "timeout")
                self.assertGreaterEqual(float(seconds), 900)
                self.assertLess(float(seconds), 930)

    def test_no_signal_is_lost_between_slices(self):
        (idle,) = self.finish(self.probe("turns", 200))
        # A signal that meets a wait just ending may wake its thread again: the C library's right, and rare.
        self.assertLess(int(idle), 20)

    def test_programs_it_starts_keep_the_machines_time(self):
        self.clock("jump", 1_000_000)
        own, childs, preload, file = self.finish(self.probe("child"))
        self.assertAlmostEqual(int(own), time.time() + 1_000_000, delta=5)
        self.assertAlmostEqual(int(childs), time.time(), delta=5)
        self.assertEqual((preload, file), ("none", "none"))

    def test_a_date_moves_the_date_and_no_wait(self):
        probe = self.begun("wait_for", 900)
        self.clock("date", "2030-01-02 03:04:05.250")
        with self.assertRaises(subprocess.TimeoutExpired):
            probe.wait(0.2)
        self.assertTrue(self.clock("show").startswith("2030-01-02 03:04:0"))

    def test_the_first_and_the_last_date(self):
        for day in ("1970-01-01", "2199-12-31"):
            self.clock("date", f"{day} 00:00:00")
            self.assertTrue(self.clock("show").startswith(f"{day} 00:0"))

    def test_what_no_phones_clock_shows_is_refused_and_changes_nothing(self):
        self.clock("date", "2030-01-02 03:04:05")
        for words, reason in [(("date", "1969-12-31 23:59:59"), "is before 1970-01-01 00:00:00 UTC"),
                              (("date", "0001-01-01 00:00:00"), "is before 1970-01-01 00:00:00 UTC"),
                              (("date", "2200-01-01 00:00:00"), "is after the year 2199"),
                              (("date", "2030-02-30 00:00:00"), "the month has no such day"),
                              (("date", "tomorrow"), "is not a date of the form"), (("factor", "fast"), "'fast' is not a number"),
                              (("factor", "0"), "'0' is out of range"), (("jump", "-1"), "'-1' is out of range")]:
            with self.subTest(words):
                done = subprocess.run([f"{BUILD}/lab/phone-clock", self.file, *words], env=self.environment, capture_output=True,
                                      text=True, timeout=10, check=False)
                self.assertEqual(done.returncode, 2)
                self.assertRegex(done.stderr, rf"\Aphone-clock: .*{reason}.*\n\Z")
                self.assertTrue(self.clock("show").startswith("2030-01-02 03:04:"))


if __name__ == "__main__":
    sys.exit(unittest.main(verbosity=2))
