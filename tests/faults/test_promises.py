"""Each promise of the matrix on a phone where it does not hold: whoever looks must say so. Runs inside lab/phone."""

import contextlib
import io
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "system"))
# pylint: disable=wrong-import-position
import case as cases
import faults
import faulty
import matrix
import phone
import random_faults
import run
import scenarios
from raw_server import RawServer

LEFT_OVER = "/var/volatile/provisioning/.provisioning.xml.part"


class IgnoresWrites(dict):
    def __setitem__(self, key, value):
        pass


class PromisesTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cases.Case.good = RawServer()
        cases.Case.bus, cases.Case.log = phone.Bus(), phone.Log()
        cases.Case.patience = 1  # what does not hold here never will

    @classmethod
    def tearDownClass(cls):
        cases.Case.bus.close()
        cases.Case.good.close()

    def setUp(self):
        self.case = cases.Case(matrix.Row("what", "fault", "stage", (), ""), 1)
        self.addCleanup(self.case.doCleanups)
        self.case.setUp()
        self.case.start_idle()
        self.case.pid_before = phone.service_pid()
        self.case.log_at_end = self.case.log.lines()

    def look(self, promise, argument=""):
        """One promise, the way a row has it looked at."""
        self.case.row = matrix.Row("what", "fault", "stage", ((promise, argument),), "")
        self.case.check()

    def assert_broken(self, promise, argument=""):
        with self.assertRaises(cases.NotHeld) as caught:
            self.look(promise, argument)
        self.assertEqual(caught.exception.word, promise)

    def test_every_promise_holds_on_a_healthy_phone(self):
        self.case.run_good_pass()
        self.case.log_at_end = self.case.log.lines()
        for promise in ("pass ends", "daemon stays", "unlocked", "result", "whole files", "no partial file", "next pass",
                        "memory"):
            self.look(promise)
        self.look("result", "success")
        self.look("code", "200")
        self.look("log", "Provisioning succeeded. ")
        self.look("no log", "no such line")
        self.look("peak", "100")
        self.look("stops")

    def test_a_pass_that_does_not_end(self):
        self.case.log.mark()
        self.assert_broken("pass ends")

    def test_a_daemon_that_has_ended(self):
        phone.service("kill", "daemon")
        self.assert_broken("daemon stays")

    def test_a_daemon_that_was_replaced(self):
        self.case.start_daemon()
        self.assert_broken("daemon stays")

    def test_a_locked_screen(self):
        self.case.bus.set(cases.LOCK, "1")
        self.addCleanup(self.case.bus.set, cases.LOCK, "0")
        self.assert_broken("unlocked")

    def test_a_result_that_is_none(self):
        self.case.bus.set(cases.STATE, "perhaps")
        self.assert_broken("result")

    def test_another_result_and_another_code(self):
        self.case.run_good_pass()
        self.assert_broken("result", "fail")
        self.assert_broken("code", "404")

    def test_lines_of_the_log(self):
        self.case.log_at_end = ["2026 ZAV info main:1 all is well"]
        self.assert_broken("log", "not there")
        self.assert_broken("no log", "all is well")
        self.assert_broken("felt")
        self.case.log_at_end = [f"2026 ZAV warning Core/Dispatcher:1 Provisioning on boot up {cases.HEALTHY}"]
        self.assert_broken("felt")

    def test_a_fault_that_is_felt_before_the_daemon_starts_anew(self):
        for line in ("2026 ZAV error main:1 no bus", f"{cases.ABORTED} an instance of 'std::bad_alloc'"):
            self.case.log_in_fault = [line]
            self.case.hold_felt("")

    def test_a_partial_file(self):
        with open(LEFT_OVER, "wb") as file:
            file.write(b"half")
        self.addCleanup(os.remove, LEFT_OVER)
        self.assert_broken("no partial file")
        with self.assertRaises(cases.NotHeld):
            self.look("whole files")

    def test_a_file_that_no_server_sent(self):
        with open("/config/swupdate/image.bin", "wb") as file:
            file.write(cases.IMAGE[:-1])
        self.addCleanup(os.remove, "/config/swupdate/image.bin")
        self.assert_broken("whole files")

    def test_a_next_pass_that_fails(self):
        kept, self.case.good.answers = self.case.good.answers, IgnoresWrites()
        try:
            self.assert_broken("next pass")
        finally:
            self.case.good.answers = kept

    def test_a_process_that_has_grown(self):
        cls = cases.Case
        for name in ("idle", "idle_threads", "idle_descriptors"):
            with self.subTest(name):
                kept = getattr(cls, name)
                setattr(cls, name, -faults.SPARE if name == "idle" else 0)
                try:
                    self.assert_broken("memory")
                finally:
                    setattr(cls, name, kept)
        self.assert_broken("peak", "1")

    def test_a_daemon_that_does_not_stop(self):
        pid = phone.service_pid()
        phone.freeze(pid)
        cases.PATIENCE, kept = 1, cases.PATIENCE
        try:
            self.assert_broken("stops")
        finally:
            cases.PATIENCE = kept
            os.kill(pid, signal.SIGCONT)
            phone.service("kill", "daemon")

    def test_a_daemon_that_stops_with_another_status(self):
        os.kill(phone.service_pid(), signal.SIGKILL)
        phone.wait_until(self.case.daemon_ended, "the daemon's end")
        took, status = self.case.wait_daemon_end(0)
        self.assertEqual((status, took > 0), ("137", True))


class LibraryTest(unittest.TestCase):
    """faulty.cpp does what its rows believe."""

    def run_with(self, program, **environment):
        return subprocess.run(["/usr/bin/python3", "-c", program], env={
            **os.environ, "LD_PRELOAD": faulty.LIBRARY, **environment}, capture_output=True, timeout=30, check=False)

    def test_a_power_cut_takes_what_was_not_synced(self):
        folder = "/config/power"
        os.makedirs(folder)
        self.addCleanup(shutil.rmtree, folder)
        random_faults.fresh_disk()
        done = self.run_with(
            "import os\n"
            f"for name, sync in (('synced', 1), ('lost', 0), ('half', 1)):\n"
            f"    file = os.open('{folder}/' + name, os.O_WRONLY | os.O_CREAT)\n"
            "    os.write(file, b'first')\n"
            "    sync and os.fsync(file)\n"
            "    name == 'half' and os.write(file, b' second')\n", FAULTY_DISK=faulty.DISK)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(sorted(random_faults.lose_unsynced([folder])), [f"{folder}/half", f"{folder}/lost"])
        found = {name: pathlib.Path(folder, name).read_bytes() for name in os.listdir(folder)}
        self.assertEqual(found, {"synced": b"first", "lost": b"", "half": b"first"})

    def test_an_allocation_fails(self):
        control = faulty.Control()
        control.put("fail at", 1 << 60)
        self.assertEqual(self.run_with("pass", FAULTY=faulty.CONTROL).returncode, 0)
        total = control.get("allocations")
        self.assertGreater(total, 100)
        control.put("allocations", 0)
        control.put("fail at", 3)
        self.assertIn(b"This allocation fails", self.run_with("pass", FAULTY=faulty.CONTROL).stderr)

    def test_threads_and_the_disk(self):
        control = faulty.Control()
        for switch, program in (("no threads", "import threading; threading.Thread(target=print).start()"),
                                ("disk full", "import os; os.write(os.open('/config/x', os.O_WRONLY | os.O_CREAT), b'x')")):
            with self.subTest(switch):
                self.assertEqual(self.run_with(program, FAULTY=faulty.CONTROL).returncode, 0)
                control.put(switch, 1)
                self.assertEqual(self.run_with(program, FAULTY=faulty.CONTROL).returncode, 1)
                control.put(switch, 0)
        os.remove("/config/x")


class TableTest(unittest.TestCase):
    def test_every_row_has_a_scenario_and_promises_that_are_looked_at(self):
        rows = matrix.load()
        self.assertGreaterEqual(len(rows), 300)
        for row in rows:
            with self.subTest(row.name):
                self.assertTrue(callable(scenarios.find(row)))
                self.assertTrue(row.holds)
                for word, _ in row.holds:
                    self.assertTrue(callable(getattr(cases.Case, "hold_" + word.replace(" ", "_"))))

    def test_a_table_that_is_wrong(self):
        for text, what in (("a | b | c", "four columns"), ("a | b | c | nonsense", "unknown promise"),
                           ("a | b | c | stops\na | b | c | stops", "twice")):
            with self.subTest(text), self.assertRaisesRegex(ValueError, what):
                matrix.parse(text)

    def test_sets_and_later_words(self):
        row, = matrix.parse("set S = stops; result\na | b | c | S; result fail; known it is broken")
        self.assertEqual((row.name, row.holds, row.known), ("a/b/c", (("result", "fail"), ("stops", "")), "it is broken"))

    def test_a_known_fault_must_fail(self):
        self.assertTrue(run.held({"failed": "stops", "known": "why"}))
        self.assertFalse(run.held({"failed": "", "known": "why"}))
        self.assertTrue(run.held({"failed": "", "known": ""}))
        self.assertFalse(run.held({"failed": "stops", "known": ""}))

    def test_a_failure_says_what_was_expected_and_how_to_repeat_it(self):
        text = io.StringIO()
        with contextlib.redirect_stdout(text):
            run.describe({"name": "a/it's/c", "known": "", "failed": "stops", "expected": "0", "seen": "1", "seconds": 1,
                          "notes": []}, 1, 1, 7)
        for part in ("FAILED", "promise:  stops", "expected: 0", "seen:     1", "scripts/test faults --seed 7 'a/it'\"'\"'s/c'"):
            self.assertIn(part, text.getvalue())


if __name__ == "__main__":
    unittest.main(verbosity=2)
