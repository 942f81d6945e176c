"""What every test of faults checks beside the fault's own outcome: the next pass of the same daemon succeeds, and the
daemon's memory is back where it was."""

import contextlib
import os
import re
import signal
import threading

import phone
from files import LABEL, direct, spread
from raw_server import RawServer, ok
from server import Answer, Server

SERVER = "System.Provision.ProvisioningServer"
INITIAL = "/var/volatile/provisioning/provisioning.xml"
GOOD = direct([(LABEL, "good")]).encode()
SETTINGS = spread(5000)
SPARE = 1 << 10  # KiB that a phone may keep besides half of what it takes when idle


def dirty(pid):
    """KiB that belong to this process alone and that no other can take from it."""
    with open(f"/proc/{pid}/smaps_rollup", encoding="ascii") as file:
        return int(re.search(r"Private_Dirty:\s+(\d+) kB", file.read())[1])


def peak(pid):
    """The most KiB the process has had in memory since reset_peak."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        return int(re.search(r"VmHWM:\s+(\d+) kB", file.read())[1])


def reset_peak(pid):
    with open(f"/proc/{pid}/clear_refs", "w", encoding="ascii") as file:
        file.write("5")


def is_sanitized(pid):
    """A sanitizer keeps what is freed; its memory says nothing."""
    with open(f"/proc/{pid}/maps", encoding="utf-8") as file:
        return re.search(r"/lib[at]san\.", file.read()) is not None


class FaultTest(phone.PhoneTest):
    """One daemon, which has run a good pass before its first fault. `idle` is its memory then, in KiB."""

    @classmethod
    def setUpClass(cls):
        cls.good = RawServer({"/provisioning.xml": ok(GOOD)})
        super().setUpClass()
        if cls.boot_pass is not None:
            cls.measure_idle()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.good.close()

    @classmethod
    def measure_idle(cls):
        """Runs the first good pass; `provision` is an operation of a case, of which there is none yet."""
        case = cls()
        case.configure(cls.good)
        case.assertEqual(case.provision(), "success")
        cls.idle = dirty(phone.service_pid())

    def runTest(self):
        """For measure_idle."""

    def serve(self, answers=None, answer=None, certificate=None, accept=None, **options):
        server = RawServer(answers, answer, certificate, accept, **options)
        self.addCleanup(server.close)
        return server

    def configure(self, server):
        self.bus.set(SERVER, server if isinstance(server, str) else server.url)

    def check_alive(self):
        """The pass after the fault: success, and as little memory as before."""
        self.configure(self.good)
        self.assertEqual(self.provision(), "success", "the pass after the fault")
        self.check_memory()

    def check_memory(self, deadline=5):
        pid = phone.service_pid()
        if is_sanitized(pid):
            return
        limit = self.idle * 3 // 2 + SPARE
        phone.wait_until(lambda: dirty(pid) <= limit,
                         lambda: f"the daemon back at {limit} KiB, it has {dirty(pid)}, idle {self.idle}", deadline)

    @contextlib.contextmanager
    def fault(self, name):
        """One case of many on one daemon. Where it fails, the next begins with a new daemon and is judged by itself."""
        with self.subTest(name):
            try:
                yield
                self.check_alive()
            except Exception:
                self.replace_daemon()
                raise

    def replace_daemon(self):
        phone.service("kill", "daemon")
        type(self).boot()
        type(self).measure_idle()


class PassFaultTest(FaultTest):
    """Catches a pass where the fault is to come. Its server is the case's own, answers wait for `gate`."""

    def setUp(self):
        self.gate = threading.Event()
        self.server = Server()
        self.addCleanup(self.server.close)
        self.addCleanup(self.gate.set)
        super().setUp()

    def begin(self, answer):
        """A pass that has asked the test's server for its file."""
        self.server.requests.clear()
        self.server.answers["/provisioning.xml"] = answer
        self.configure(self.server)
        self.request()
        phone.wait_until(lambda: self.server.requests, "the pass's download")

    def begin_settings(self, settings=SETTINGS, applied=100):
        """A pass that is in the middle of many settings. The property service is frozen; its process id."""
        def caught():
            self.log.mark()
            self.begin(Answer(direct(settings)))
            self.log.wait("Applying ", applied)
            pid = self.freeze("properties")
            phone.wait_until(lambda: phone.asleep(phone.service_pid()), "the daemon waiting for the service")
            if self.log.count("-----Finishing NVMJobHandler") == 0:
                return pid
            self.thaw(pid)  # too late
            return self.wait_pass_end()

        return phone.wait_until(caught, "a pass caught in its settings")

    def wait_daemon_on_bus(self):
        """It answers the watchdog. A daemon that backs off before it connects anew is helped over its pause."""
        self.bus.mark()

        def answered():
            self.alive()
            try:
                return self.bus.wait_message("prov-client/watchdog", deadline=0.3)
            except phone.Late:
                phone.jump(5)
                return False

        phone.wait_until(answered, lambda: "the daemon on the bus:\n" + "\n".join(self.log.lines()[-20:]))

    def freeze(self, name):
        pid = phone.service_pid(name)
        phone.freeze(pid)
        self.addCleanup(self.thaw, pid)
        return pid

    @staticmethod
    def thaw(pid):
        try:
            os.kill(pid, signal.SIGCONT)
        except ProcessLookupError:
            pass

    def replace_daemon(self):
        self.gate.set()
        phone.clock("factor", 1)
        for name in ("properties", "broker"):
            self.thaw(phone.service_pid(name))
        phone.service("restart", "properties")
        super().replace_daemon()


def files_below(folder):
    """Every path below the folder, relative to it."""
    return {os.path.relpath(os.path.join(top, name), folder) for top, _, names in os.walk(folder) for name in names}
