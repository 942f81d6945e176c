"""The zavctl program on the phone's own bus: what it prints, and every exit status."""

import array
import contextlib
import fcntl
import json
import os
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import termios
import time

import phone
from files import LABEL, direct

URL = "https://provisioning.test/"
HTTP = "State.Provisioning.HttpErrorCode"
F_SETPIPE_SZ = 1031


def zavctl(*words):
    """(exit status, standard output, standard error)"""
    done = subprocess.run(["zavctl", *words], capture_output=True, text=True, timeout=60, stdin=subprocess.DEVNULL)
    return done.returncode, done.stdout, done.stderr


class ZavctlTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": URL}

    def answer(self, *words, status=0):
        """The one object that --json prints; nothing else is said anywhere."""
        code, out, err = zavctl("--json", *words)
        self.assertEqual((code, err, out.count("\n")), (status, "", 1), (out, err))
        return json.loads(out)

    def result(self, status=0):
        """What `provision --wait` prints after the events."""
        code, out, err = zavctl("--json", "provision", "--wait")
        self.assertEqual((code, err), (status, ""), out)
        *events, answer = [json.loads(line) for line in out.splitlines()]
        self.assertEqual({one["event"] for one in events}, {"progress"})
        return answer

    def refused(self, *words, status, word):
        """With and without --json: the status, and the reason where it belongs."""
        code, out, err = zavctl(*words)
        self.assertEqual((code, out), (status, ""), err)
        self.assertRegex(err, r"\Azavctl: .+\n\Z")
        answer = self.answer(*words, status=status)
        self.assertEqual(set(answer), {"error", "reason"})
        self.assertEqual(answer["error"], word)
        return answer["reason"]

    def publish(self, text):
        shutil.rmtree(phone.WWW, ignore_errors=True)
        os.makedirs(phone.WWW)
        if text is not None:
            with open(os.path.join(phone.WWW, "provisioning.xml"), "w", encoding="utf-8") as file:
                file.write(text)

    def test_get_and_set(self):
        self.assertEqual(zavctl("set", LABEL, "a b"), (0, "", ""))
        self.assertEqual(zavctl("get", LABEL), (0, "a b\n", ""))
        self.assertEqual(self.answer("set", LABEL, "-1"), {"param": LABEL, "value": "-1"})
        self.assertEqual(self.answer("get", LABEL), {"param": LABEL, "value": "-1"})
        self.assertEqual(self.bus.get(LABEL), "-1")
        self.bus.wait_change(LABEL, "-1")

    def test_list(self):
        code, out, err = zavctl("list", "NET.MAC.")
        self.assertEqual((code, out, err), (0, f"NET.MAC.Address={phone.MAC}\n", ""))
        self.assertEqual(self.answer("list", "NET.MAC."), {"properties": [{"param": "NET.MAC.Address", "value": phone.MAC}]})
        code, out, _ = zavctl("list")
        keys = [line.split("=", 1)[0] for line in out.splitlines()]
        self.assertEqual(code, 0)
        self.assertEqual(keys, sorted(keys))
        self.assertIn("State.Provisioning", keys)

    def test_status(self):
        self.publish(direct([(LABEL, "status")]))
        self.provision()
        answer = self.answer("status")
        self.assertEqual({key: answer[key] for key in ("server", "result", "httpStatus", "uiLocked", "period")},
                         {"server": URL, "result": "success", "httpStatus": 200, "uiLocked": False, "period": "86400"})
        code, out, err = zavctl("status")
        self.assertEqual((code, err), (0, ""))
        self.assertRegex(out, r"(?m)^Last result +success$")

    def test_watch(self):
        for options in ([], ["--json"]):
            with subprocess.Popen(["zavctl", "watch", LABEL, *options], stdout=subprocess.PIPE, stderr=subprocess.PIPE) as watch:
                self.addCleanup(watch.kill)

                def seen():
                    self.bus.set(LABEL, "watched")
                    return select.select([watch.stdout], [], [], 0.05)[0]

                phone.wait_until(seen, "a change that is watched")
                line = watch.stdout.readline().decode()
                if options:
                    self.assertEqual(json.loads(line), {"param": LABEL, "value": "watched", "source": "test"})
                else:
                    self.assertEqual(line, f"{LABEL}=watched  (test)\n")
                watch.send_signal(signal.SIGINT)
                _, err = watch.communicate(timeout=phone.DEADLINE)
                self.assertEqual((watch.returncode, err), (0, b""))

    def test_provision(self):
        self.publish(direct([(LABEL, "asked for")]))
        self.assertEqual(zavctl("provision"), (0, "Provisioning requested.\n", ""))
        self.wait_pass_end()
        code, out, err = zavctl("provision", "--wait")
        self.assertEqual((code, err), (0, ""))
        self.assertRegex(out, r"\Asuccess \(HTTP 200, \d+\.\d s\)\n\Z")
        answer = self.result()
        self.assertEqual((answer["result"], answer["httpStatus"]), ("success", 200))
        self.assertEqual(self.bus.get(LABEL), "asked for")
        self.assertIn(("State.Provisioning", "request"), self.bus.changes())

    def test_partial_success_is_0_and_fail_is_1(self):
        self.publish(direct([(LABEL, "half"), ("No.Such", "1")]))
        code, out, _ = zavctl("provision", "--wait")
        self.assertEqual(code, 0)
        self.assertRegex(out, r"\ApartSuccess: .* \(HTTP 200, ")
        self.publish(None)
        code, out, _ = zavctl("provision", "--wait")
        self.assertEqual(code, 1)
        self.assertRegex(out, r"\Afail \(HTTP 404, ")
        answer = self.result(status=1)
        self.assertEqual((answer["result"], answer["httpStatus"]), ("fail", 404))

    def test_a_value_that_is_not_allowed_is_1(self):
        before = self.bus.get("Time.Format")
        self.assertIn("Time.Format", self.refused("set", "Time.Format", "25h", status=1, word="invalid-value"))
        self.assertEqual(self.bus.get("Time.Format"), before)

    def test_a_wrong_command_line_is_2(self):
        for words in ([], ["what"], ["get"], ["set", LABEL], ["get", LABEL, "more"], ["provision", "--timeout", "soon"]):
            with self.subTest(words):
                self.refused(*words, status=2, word="usage")
        self.assertEqual(self.bus.changes(), [])

    def test_nobody_there_is_3(self):
        self.refused("get", LABEL, "--host", "127.0.0.1:9", status=3, word="unreachable")
        phone.service("stop", "properties")
        try:
            for words in (["get", LABEL], ["set", LABEL, "x"], ["list"], ["status"], ["watch"], ["provision", "--wait"]):
                with self.subTest(words):
                    self.refused(*words, status=3, word="unreachable")
        finally:
            phone.service("start", "properties")

    def test_an_unknown_key_is_4(self):
        self.assertIn("No.Such", self.refused("get", "No.Such", status=4, word="not-found"))
        self.assertIn("No.Such", self.refused("set", "No.Such", "1", status=4, word="not-found"))

    def test_a_pass_that_does_not_come_is_5(self):
        phone.service("kill", "daemon")
        try:
            self.assertIn("no provisioning pass began",
                          self.refused("provision", "--wait", "--timeout", "0.2", status=5, word="timed-out"))
        finally:
            self.boot()

    def test_set_with_a_separator(self):
        for words in (["--", LABEL, "a"], [LABEL, "--", "a"], [LABEL, "a", "--"]):
            with self.subTest(words):
                self.bus.set(LABEL, "before")
                self.assertEqual(zavctl("set", *words), (0, "", ""))
                self.assertEqual(self.bus.get(LABEL), "a")
        self.refused("--", "set", LABEL, "b", status=2, word="usage")
        self.assertEqual(self.bus.get(LABEL), "a")

    def test_help(self):
        self.assertEqual(zavctl("help"), zavctl("--help"))
        code, out, _ = zavctl("help", "provision")
        self.assertEqual(code, 0)
        self.assertIn("zavctl provision --wait --timeout 120", out)
        self.assertIn("frob", self.refused("help", "frob", status=2, word="usage"))

    def test_output_that_cannot_be_written_is_1(self):
        for words in (["export"], ["list"], ["status"], ["get", LABEL], ["--help"], ["backup", "-"]):
            with self.subTest(words), open("/dev/full", "wb") as full:
                done = subprocess.run(["zavctl", *words], stdout=full, stderr=subprocess.PIPE, text=True, timeout=60)
                self.assertEqual(done.returncode, 1)
                self.assertIn("the output could not be written", done.stderr)

    def test_backup_onto_what_is_not_a_file(self):
        with tempfile.TemporaryDirectory() as folder:
            piped = subprocess.run(["bash", "-c", f"zavctl backup >(cat >{folder}/piped)"], capture_output=True, text=True)
            self.assertEqual((piped.returncode, piped.stderr), (0, ""))
            self.assertRegex(piped.stdout, r"^\d+ settings written to /dev/fd/\d+, including passwords\.$")
            self.assertEqual(zavctl("backup", f"{folder}/file")[0], 0)
            with open(f"{folder}/file", encoding="utf-8") as file:
                text = file.read()

            def copied():
                if not os.path.exists(f"{folder}/piped"):
                    return False
                with open(f"{folder}/piped", encoding="utf-8") as file:
                    return file.read() == text

            phone.wait_until(copied, "the backup behind the pipe")
            os.symlink(f"{folder}/file", f"{folder}/link")
            for path, reason in ((f"{folder}/link", "is a symbolic link"), (folder, "is a directory"),
                                 ("/dev/full", "No space left on device")):
                self.assertIn(f"{path}: {reason}" if path != "/dev/full" else reason,
                              self.refused("backup", "--force", path, status=1, word="bad-file"))
            self.assertTrue(os.path.islink(f"{folder}/link"))
            self.assertEqual(sorted(os.listdir(folder)), ["file", "link", "piped"])

    def test_no_pass_begins(self):
        phone.service("kill", "daemon")
        try:
            code, _, err = zavctl("provision", "--wait", "--timeout", "2.5")
            self.assertEqual(code, 5)
            self.assertRegex(err, r"\Azavctl: no provisioning pass has begun yet: zavd is not running, .+\n"
                                  r"zavctl: no provisioning pass began within 2\.5 s: .+\n\Z")
            self.assertRegex(zavctl("status")[1], r"(?m)^Last result +unknown: a request is pending$")
        finally:
            self.boot()

    @contextlib.contextmanager
    def waiting_for_a_pass(self):
        """`provision --wait` whose pass never begins, once its request is written."""
        phone.service("kill", "daemon")
        self.bus.mark()
        try:
            with subprocess.Popen(["zavctl", "provision", "--wait", "--timeout", "100"], stderr=subprocess.PIPE, text=True,
                                  stdout=subprocess.DEVNULL) as waiting:
                self.addCleanup(waiting.kill)
                self.bus.wait_change("State.Provisioning", "request")
                yield waiting
        finally:
            self.boot()

    def lost(self, waiting, reason):
        begin = time.monotonic()
        _, err = waiting.communicate(timeout=phone.DEADLINE)
        self.assertEqual(waiting.returncode, 3, err)
        self.assertIn(reason, err)
        self.assertLess(time.monotonic() - begin, 10, "not at once")

    def test_the_property_service_is_killed_while_waiting(self):
        with self.waiting_for_a_pass() as waiting:
            phone.service("kill", "properties")
            self.lost(waiting, "the property service went away")
            phone.service("start", "properties")

    def test_the_broker_is_killed_while_waiting(self):
        with self.waiting_for_a_pass() as waiting:
            self.bus.expect_reconnection()
            phone.service("kill", "broker")
            self.lost(waiting, "the connection to the broker was lost")
            phone.service("start", "broker")
            self.bus.wait_back()

    def interrupted(self, watch):
        """Ctrl-C ends it long before whatever it waits for would."""
        for name in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(name), watch() as process:
                begin = time.monotonic()
                process.send_signal(name)
                self.assertEqual(process.wait(phone.DEADLINE), 0)
                self.assertLess(time.monotonic() - begin, 4)
                process.kill()

    @staticmethod
    def catches(process):
        """Whether the interruption is blocked, for the program's own thread: before that it just ends the process."""
        with open(f"/proc/{process.pid}/status", encoding="ascii") as file:
            blocked = next(line for line in file if line.startswith("SigBlk:"))
        return int(blocked.split()[1], 16) & (1 << (signal.SIGTERM - 1))

    def test_watch_is_interrupted_while_it_connects(self):
        @contextlib.contextmanager
        def watch():
            with socket.create_server(("127.0.0.1", 0)) as silent, \
                    subprocess.Popen(["zavctl", "watch", "--host", f"127.0.0.1:{silent.getsockname()[1]}"]) as process:
                self.addCleanup(process.kill)
                while True:
                    connection, _ = silent.accept()
                    with connection:
                        # A first connection without a word only looks whether anything listens.
                        if connection.recv(1):
                            yield process
                            return

        self.interrupted(watch)

    def test_watch_is_interrupted_while_the_service_does_not_answer(self):
        @contextlib.contextmanager
        def watch():
            with subprocess.Popen(["zavctl", "watch"]) as process:
                self.addCleanup(process.kill)
                phone.wait_until(lambda: self.catches(process) and phone.asleep(process.pid), "a watch that waits")
                yield process

        phone.freeze(phone.service_pid("properties"))
        try:
            self.interrupted(watch)
        finally:
            os.kill(phone.service_pid("properties"), signal.SIGCONT)

    def test_watch_is_interrupted_while_nobody_reads(self):
        @contextlib.contextmanager
        def watch():
            with subprocess.Popen(["zavctl", "watch", HTTP], stdout=subprocess.PIPE) as process:
                self.addCleanup(process.kill)

                fcntl.fcntl(process.stdout, F_SETPIPE_SZ, 4096)

                def is_full():
                    self.bus.set(HTTP, "x" * 5000)
                    waiting = array.array("i", [0])
                    fcntl.ioctl(process.stdout, termios.FIONREAD, waiting)
                    return waiting[0] >= 4096

                phone.wait_until(is_full, "a pipe that is full")
                yield process

        self.interrupted(watch)


if __name__ == "__main__":
    phone.main()
