"""The daemon's entry: order of creation and destruction, failures and SIGTERM. Usage: test_entry.py ENTRY-PROBE"""

import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

PROBE = sys.argv.pop()
DEADLINE = 30

STARTING = ["ZAV starting up...", "created lock", "created xml library",
            "bus client prov-client localhost, SIGTERM is blocked", "created bus", "property client prov-client",
            "created properties", "created timer", "created security", "curl_global_init 3", "created http client",
            "created dispatcher", "owners of the http client: 1", "start listening", "created init", "run init",
            "start handling", "ZAV initialized.", "created mediator", "start mediator", "cleaned up"]
STOPPING = ["properties: shutdown begins", "stop listening", "curl_global_cleanup", "ZAV exited"]
DESTROYED = ["destroyed mediator", "destroyed init", "destroyed http client", "destroyed dispatcher",
             "destroyed security", "destroyed timer", "destroyed properties", "destroyed bus", "destroyed xml library",
             "destroyed lock"]


def wait_until(condition, what):
    end = time.monotonic() + DEADLINE
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"not within {DEADLINE} s: {what()}")
        time.sleep(0.002)


class Probe:
    """One run of the entry with additional environment variables."""

    def __init__(self, **environment):
        self.log = tempfile.TemporaryFile()
        self.process = subprocess.Popen([PROBE], env={**os.environ, **environment}, stdin=subprocess.PIPE,
                                        stderr=self.log)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        self.log.close()

    def text(self):
        return os.pread(self.log.fileno(), 1 << 20, 0).decode()

    def lines(self):
        """The texts of the log lines, without time, channel, level and source."""
        lines = [line.split(" ", 4) for line in self.text().splitlines()]
        return [words[4] for words in lines if len(words) == 5 and words[1] == "ZAV"]

    def wait_for(self, line):
        wait_until(lambda: line in self.lines(), self.text)

    def is_idle(self):
        """Whether every thread sleeps and no signal is pending, or the process has ended."""
        if self.process.poll() is not None:
            return True
        try:
            for task in os.listdir(f"/proc/{self.process.pid}/task"):
                with open(f"/proc/{self.process.pid}/task/{task}/status", encoding="ascii") as file:
                    status = dict(line.split(":", 1) for line in file)
                if status["State"].split()[0] != "S" or int(status["ShdPnd"], 16) or int(status["SigPnd"], 16):
                    return False
        except FileNotFoundError:
            return False  # a thread has ended meanwhile
        return True

    def terminate(self):
        """Sends SIGTERM until the process ends: a signal before the wait for it is lost."""
        def ended():
            if "stop listening" not in self.lines():
                self.process.send_signal(signal.SIGTERM)
            return self.process.poll() is not None

        wait_until(ended, self.text)
        return self.process.returncode


class EntryTest(unittest.TestCase):
    maxDiff = None

    def test_objects_are_created_in_order_and_destroyed_in_reverse(self):
        with Probe() as probe:
            probe.wait_for(STARTING[-1])
            self.assertEqual(probe.terminate(), 0)
            self.assertEqual(probe.lines(), STARTING + STOPPING + DESTROYED)

    def failure(self, step):
        """The lines logged after the step that throws."""
        with Probe(FAILS=step) as probe:
            wait_until(lambda: probe.process.poll() is not None, probe.text)
            self.assertEqual(probe.process.returncode, -signal.SIGABRT)
            lines = probe.lines()
            self.assertEqual(lines[:lines.index(step) + 1], STARTING[:STARTING.index(step) + 1])
            return lines[lines.index(step) + 1:]

    def test_an_exception_destroys_what_was_created_and_aborts(self):
        self.assertEqual(self.failure("start listening"), DESTROYED[2:])
        self.assertEqual(self.failure("run init"), DESTROYED[1:])
        self.assertEqual(self.failure("start handling"), DESTROYED[1:])
        self.assertEqual(self.failure("start mediator"), DESTROYED)

    def test_a_sigterm_before_the_wait_is_lost(self):
        with Probe(HOLD="run init") as probe:
            probe.wait_for("run init")
            probe.process.send_signal(signal.SIGTERM)
            wait_until(probe.is_idle, probe.text)
            probe.process.stdin.close()
            probe.wait_for(STARTING[-1])
            wait_until(probe.is_idle, probe.text)
            self.assertEqual(probe.lines(), STARTING)
            self.assertIsNone(probe.process.poll())
            self.assertEqual(probe.terminate(), 0)

    def test_a_second_daemon_ends_before_it_connects(self):
        with Probe(LOCK="taken") as probe:
            wait_until(lambda: probe.process.poll() is not None, probe.text)
            self.assertEqual(probe.process.returncode, 1)
            self.assertEqual(probe.lines(), ["ZAV starting up...", "created lock", "another zavd is running",
                                             "destroyed lock"])


if __name__ == "__main__":
    unittest.main(verbosity=2)
