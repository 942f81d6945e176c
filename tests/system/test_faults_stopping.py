"""SIGTERM ends the daemon within ten seconds of real time whatever hangs at that moment, and a daemon that was killed
or started without its standard streams leaves nothing broken behind."""

import contextlib
import fcntl
import os
import shutil
import signal
import struct
import subprocess
import termios
import time

import faults
import phone
from faults import GOOD, INITIAL
from files import categories, direct, element, root, spread
from raw_server import HEAD, ok
from server import Answer

LIMIT = 10      # seconds of the machine's time
PATIENCE = 25   # that the test waits for a daemon which does not keep it
LOCK = "State.Provisioning.LockUI"
STATE = "State.Provisioning"
PIPE = 16384    # bytes that nobody reads
FIRMWARE = root("provisioning", [element("firmware", {}, [element("file", {"version": "2.14", "url": "/image.bin"})])])


def by_hand(redirections="", **streams):
    """A daemon with the lab's clock and with these streams; no service of the lab."""
    preload = f"{os.environ['LAB_BUILD']}/lab/phone-clock.so"
    return subprocess.Popen(["/bin/sh", "-c", f"exec env PHONE_CLOCK={phone.HOME}/clock LD_PRELOAD={preload} zavd {redirections}"],
                            **streams)


def unread(pipe):
    """Bytes that stand in the pipe."""
    return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, struct.pack("i", 0)))[0]


class StoppingFaultsTest(faults.PassFaultTest):
    settings = {"FirmwareManagment.AutomaticCheckForUpdates": "1", "System.General.SoftwareVersion": "2.13.7"}

    @contextlib.contextmanager
    def stopping(self, name):
        """A fault; SIGTERM, which ends the daemon in time; the next daemon's good pass."""
        with self.fault(name):
            yield
            self.check_stops()
            for service in ("properties", "broker"):
                self.thaw(phone.service_pid(service))
            self.boot()

    def check_stops(self):
        begin = time.monotonic()
        os.kill(phone.service_pid(), signal.SIGTERM)
        phone.wait_until(lambda: os.path.exists(f"{phone.HOME}/daemon.status"),
                         lambda: "end of the daemon:\n" + "\n".join(self.log.lines()[-20:]), PATIENCE)
        took = time.monotonic() - begin
        with open(f"{phone.HOME}/daemon.status", encoding="ascii") as file:
            self.assertEqual(int(file.read()), 0)
        self.log.in_order(["IPC listening terminated", "ZAV exited"])
        print(f"{self.id().rsplit('.', 1)[1]}: {took:.1f} s")
        self.assertLess(took, LIMIT)

    def check_unlocked(self):
        """With a property service that answers, the pass that SIGTERM cut short has unlocked and published."""
        phone.wait_until(lambda: self.bus.get(LOCK) == "0", "the user interface unlocked")
        self.assertIn(self.bus.get(STATE), ("success", "partSuccess", "fail"))

    # The bus.

    def test_property_service_frozen_in_a_settings_job(self):
        with self.stopping("frozen"):
            self.begin_settings()

    def test_broker_frozen_in_a_settings_job(self):
        with self.stopping("frozen"):
            service = self.begin_settings()
            self.freeze("broker")
            self.thaw(service)

    def test_property_service_frozen_when_a_download_ends(self):
        with self.stopping("frozen"):
            self.begin(Answer(direct(spread(60)), gate=self.gate))
            self.freeze("properties")
            self.gate.set()
            self.log.wait("is verifiable")
            phone.wait_until(lambda: phone.asleep(phone.service_pid()), "the daemon waiting for the service")

    def test_a_hundred_thousand_settings(self):
        with self.stopping("settings"):
            frozen = self.begin_settings(spread(100_000))
            self.thaw(frozen)
        self.check_unlocked()

    # Transfers.

    def test_a_firmware_download_between_two_attempts(self):
        with self.stopping("waiting"):
            server = self.serve()
            server.answers = {
                "/provisioning.xml": ok(FIRMWARE.encode()),
                "/image.bin": lambda connection: connection.sendall(HEAD + b'ETag: "e1"\r\nContent-Length: 400000\r\n\r\nx')}
            self.configure(server)
            self.request()

            def attempts():
                return sum(path == "/image.bin" for path, _ in server.requests)

            for pause in (1, 2, 4, 8, 16, 30):
                self.log.wait(f"going on in {pause} s")
                phone.jump(pause)
            # The pause after the eighth attempt is far longer than the daemon may take to end.
            self.log.wait("going on in 30 s", 2)
            self.assertEqual((attempts(), self.log.count("Provisioning Finished")), (8, 0))
        self.check_unlocked()

    def test_a_stalled_transfer(self):
        with self.stopping("stalled"):
            self.begin(Answer(GOOD, gate=self.gate, part=10))
        self.check_unlocked()

    def test_a_slow_transfer(self):
        with self.stopping("slow"):
            self.begin(Answer(GOOD + b"\n" * 100_000, gate=self.gate, flow=(50, 0.01)))
        self.check_unlocked()

    def test_a_server_that_does_not_answer(self):
        with self.stopping("silent"):
            self.begin(Answer(GOOD, gate=self.gate))
        self.check_unlocked()

    def test_a_server_that_does_not_accept_tls(self):
        with self.stopping("silent"):
            accepted = []
            server = self.serve(accept=lambda connection: (accepted.append(1), connection.recv(1), server.wait_close()))
            self.configure(server.url.replace("http:", "https:"))
            self.request()
            phone.wait_until(lambda: accepted, "the daemon's connection")
        self.check_unlocked()

    # Commands.

    def hang(self, path):
        """Puts a program that sleeps at the path; where it says that it runs."""
        told = f"{path}.runs"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="ascii") as file:
            file.write(f"#!/bin/sh\necho $$ >{told}\nexec sleep 1000\n")
        os.chmod(path, 0o755)
        return told

    def test_a_hanging_decryption(self):
        search = os.environ["PATH"]
        told = self.hang("/tmp/hanging/openssl")
        phone.service("stop", "daemon")
        os.environ["PATH"] = f"/tmp/hanging:{search}"
        self.addCleanup(os.environ.update, PATH=search)
        self.boot()
        with self.stopping("hanging"):
            self.server.answers["/list.xml"] = Answer(root("nvm", [element("file", {"url": "/x.xml"})], version="1.0"))
            self.begin(Answer(categories([("nvm", "/list.xml")])))
            phone.wait_until(lambda: os.path.exists(told), "the hanging openssl")
            os.environ["PATH"] = search
        self.check_unlocked()

    def test_a_hanging_clean_up(self):
        script = "/config/bin/clean-up-utils.sh"
        shutil.copy2(script, f"{script}.kept")
        self.addCleanup(os.replace, f"{script}.kept", script)
        told = self.hang(script)
        # The command's own limit of ten seconds on the daemon's clock is no help then.
        phone.clock("factor", 0.8)
        self.addCleanup(phone.clock, "factor", 1)
        with self.stopping("hanging"):
            self.begin(Answer(FIRMWARE))
            phone.wait_until(lambda: os.path.exists(told), "the hanging script")
        self.check_unlocked()

    # The log.

    @contextlib.contextmanager
    def in_place_of_the_daemon(self, name):
        with self.fault(name):
            phone.service("stop", "daemon")
            try:
                yield
            finally:
                self.boot()

    def test_a_log_that_is_not_read(self):
        with self.in_place_of_the_daemon("full"):
            with by_hand(stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE) as daemon:
                try:
                    self.check_stops_unread(daemon)
                finally:
                    daemon.kill()

    def check_stops_unread(self, daemon):
        fcntl.fcntl(daemon.stderr, fcntl.F_SETPIPE_SZ, PIPE)
        for line in daemon.stderr:
            if b"for stabilization." in line:
                break
        phone.wait_until(lambda: self.fill(daemon.stderr), lambda: f"a full pipe, it holds {unread(daemon.stderr)}")
        begin = time.monotonic()
        daemon.send_signal(signal.SIGTERM)
        try:
            status = daemon.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.fail("it waits for the reader of its log")
        self.assertEqual(status, 0)
        self.assertLess(time.monotonic() - begin, LIMIT)

    def fill(self, pipe):
        """Each message is a line or two of the log; full is when another changes nothing."""
        before = unread(pipe)
        for _ in range(20):
            self.bus.publish("watchdog/prov-client", "x" * 500)
        return before if before == unread(pipe) and before > PIPE // 2 else 0

    def test_closed_standard_streams(self):
        self.configure(self.good)
        with self.in_place_of_the_daemon("closed"):
            self.bus.set("State.Provisioning.OnBootUp", "")
            self.bus.mark()
            shutil.rmtree(os.path.dirname(INITIAL))
            with by_hand("<&- >&- 2>&-") as daemon:
                try:
                    self.check_pass_without_streams(daemon.pid)
                    daemon.send_signal(signal.SIGTERM)
                    self.assertEqual(daemon.wait(PATIENCE), 0)
                finally:
                    daemon.kill()

    def check_pass_without_streams(self, pid):
        phone.wait_until(lambda: len(os.listdir(f"/proc/{pid}/fd")) > 4, "the daemon's connections")
        self.assertEqual([os.readlink(f"/proc/{pid}/fd/{number}") for number in range(3)], ["/dev/null"] * 3)

        def done():
            phone.jump(90, pid)
            try:
                self.bus.wait_change(STATE, "success", deadline=2)
                return True
            except phone.Late:
                return False

        phone.wait_until(done, "the pass after boot")
        with open(INITIAL, "rb") as file:
            self.assertEqual(file.read(), GOOD)

    # What a killed daemon leaves.

    def test_killed_in_a_pass(self):
        with self.fault("killed"):
            self.begin(Answer(GOOD, gate=self.gate))
            self.bus.wait_change(LOCK, "1")
            phone.service("kill", "daemon")
            self.gate.set()
            self.assertEqual(self.bus.get(LOCK), "1")
            self.bus.set("State.Provisioning.OnBootUp", "done")
            self.log.mark()
            self.bus.mark()
            phone.service("start", "daemon")
            try:
                self.log.wait("for stabilization.")
                self.bus.wait_change(LOCK, "0", deadline=20)  # no clock was moved: the 90 s have not passed
                self.log.none(["Enabling provisioning function."])
                lines = self.log.lines()
                begun = next(i for i, line in enumerate(lines) if "ZAV initialized." in line)
                self.assertTrue([line for line in lines[begun:] if " ZAV warning " in line], lines[begun:])
            finally:
                self.settle()
                self.log.wait("Provisioning on boot up already done, skipping")


if __name__ == "__main__":
    phone.main()
