"""One row of the matrix on a phone: the daemon is brought into its stage, the fault strikes and is mended, and then every
promise of the row is looked at. Runs inside lab/phone."""

import os
import random
import time

import faults
import phone
from files import LABEL, direct, element, params, root
from raw_server import ok

STATE = "State.Provisioning"
LOCK = "State.Provisioning.LockUI"
RESULTS = ("success", "partSuccess", "fail")
FOLDERS = ("/var/volatile/provisioning", "/var/volatile/contacts", "/config/swupdate", "/custom/certs/_storage")
SETTINGS = faults.spread(150)
APPLIED = 20        # settings that are written before the daemon is caught in its settings job
IMAGE = random.Random(7).randbytes(300_000)
BOOK = b"<contacts/>"
LOCK_FILE = "zavd:lock"
ABORTED = "terminate called after throwing"  # the C++ library's words for an exception that ends the daemon
HEALTHY = "already done, skipping"  # a warning that each start without a pass after boot has
LIMIT = 10          # seconds of the machine's time from SIGTERM to the end
PATIENCE = 25       # that are waited for a daemon which does not keep it
STEP = 6            # seconds of the phone's time that pass at once while a fault is on: one time-out of a property call
LONGEST_FAULT = 90  # seconds of the phone's time that a fault lasts at most
THREADS_SPARE = 1
DESCRIPTORS_SPARE = 5  # libcurl keeps up to five connections for another download


class NotHeld(AssertionError):
    """A promise of the row that does not hold: its word, what was expected, what was seen."""

    def __init__(self, word, expected, seen):
        super().__init__(f"{word}: expected {expected}; seen {seen}")
        self.word, self.expected, self.seen = word, expected, seen


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def open_files(pid):
    return [os.readlink(f"/proc/{pid}/fd/{name}") for name in os.listdir(f"/proc/{pid}/fd")]


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def firmware(url="/image.bin"):
    return element("firmware", {}, [element("file", {"version": "2.14", "url": url})])


def custom(*steps):
    return element("custom", {}, [element("step", one) for one in steps])


def settings(values):
    return element("nvm", {}, params(values))


def initial(*jobs):
    return root("provisioning", jobs)


class Case(faults.PassFaultTest):
    """A phone and its daemon. `struck_at` and what follows belong to the row that runs."""

    settings = {"FirmwareManagment.AutomaticCheckForUpdates": "1", "System.General.SoftwareVersion": "2.13.7"}
    boot_pass = None
    patience = phone.DEADLINE  # seconds that a promise may take to hold
    environment = {}   # of the daemon, besides the lab's
    count = 0

    def __init__(self, row, seed):
        super().__init__()
        self.row = row
        self.random = random.Random(f"{seed}:{row.name}")
        self.log_in_fault = []                    # what was logged until the fault was mended: a new daemon has a new log
        self.log_at_end = []
        self.expected = []
        self.known = {BOOK, IMAGE, faults.GOOD}   # whole contents of files that may stand in the folders
        self.notes = []                           # what the row did, for who reads its report
        self.figures = {}                         # what it measured: docs/reliability.md adds them up
        self.frozen = None                        # process that the stage has frozen
        self.took = self.status = None            # of the daemon's last end

    def setUp(self):
        super().setUp()
        for path in self.files():
            if os.path.basename(path) != LOCK_FILE:
                os.remove(path)

    def new_settings(self, count):
        """Settings with values that no row before this one has set; "all settings" looks for them."""
        Case.count += 1
        self.expected = faults.spread(count, f"{self.row.name} {Case.count},")
        return self.expected

    # The daemon

    def start_idle(self):
        """A daemon past its boot that has run a good pass, the one of the last row if it is still there."""
        if phone.service("status", "daemon", check=False) == 0 and getattr(type(self), "usable", False):
            return
        self.start_daemon()
        self.settle_quietly()
        self.measure()

    def start_daemon(self, boot_pass=False):
        if phone.service("status", "daemon", check=False) == 0:
            phone.service("kill", "daemon")
        type(self).usable = False
        for key, value in self.settings.items():
            self.bus.set(key, value)
        self.bus.set("State.Provisioning.OnBootUp", "" if boot_pass else "done")
        self.launch()

    def launch(self):
        self.log.mark()
        kept = {key: os.environ.get(key) for key in self.environment}
        os.environ.update(self.environment)
        try:
            phone.service("start", "daemon")
        finally:
            for key, value in kept.items():
                os.environ.pop(key) if value is None else os.environ.update({key: value})

    def settle_quietly(self):
        """Past the wait for the network; a pass after boot has ended."""
        self.log.wait("for stabilization.")
        phone.jump(90)
        self.log.wait("Enabling provisioning function.")
        phone.wait_until(lambda: self.log.count("already done, skipping") or self.passes_ended(),
                         lambda: "the end of the boot in:\n" + "\n".join(self.log.lines()[-40:]))

    def measure(self):
        """What the idle daemon has after a good pass: the least of which later promises speak."""
        self.run_good_pass()
        pid = phone.service_pid()
        self.wait_calm(pid)
        cls = type(self)
        cls.idle, cls.idle_threads, cls.idle_descriptors = faults.dirty(pid), threads(pid), descriptors(pid)
        cls.usable = True

    @staticmethod
    def wait_calm(pid):
        phone.wait_until(lambda: phone.asleep(pid), "the daemon asleep")

    def run_good_pass(self):
        """A pass that must succeed and apply a value that no pass before it had."""
        Case.count += 1
        value = f"pass {Case.count}"
        text = direct([(LABEL, value)]).encode()
        self.known.add(text)
        self.good.answers["/provisioning.xml"] = ok(text)
        self.configure(self.good)
        result = self.provision()
        applied = self.bus.get(LABEL)
        if (result, applied) != ("success", value):
            raise NotHeld("next pass", f"success and {value!r}", f"{result} and {applied!r}; {self.tail()}")

    def published(self):
        """The result of the pass that was requested last; nothing before there is one."""
        values = [value for _, value in self.bus.changes(STATE)]
        requests = [place for place, value in enumerate(values) if "request" in value]
        return values[-1] if requests and requests[-1] < len(values) - 1 else None

    def daemon_ended(self):
        return os.path.exists(f"{phone.HOME}/daemon.status")

    def tail(self, lines=30):
        return "log:\n" + "\n".join(self.log.lines()[-lines:])

    # Time

    def drive(self, condition, step=STEP, longest=LONGEST_FAULT, pause=0.05):
        """Lets the phone's time pass in steps until the condition holds; whether it did within `longest` seconds."""
        passed, end = 0, time.monotonic() + self.patience
        while not condition():
            if passed > longest or time.monotonic() > end:
                return False
            waited = time.monotonic() + pause
            while time.monotonic() < waited and not condition():
                time.sleep(0.005)
            if self.daemon_waits() and not condition():
                phone.clock("jump", step)
                passed += step
        return True

    def daemon_waits(self):
        try:
            return not self.daemon_ended() and phone.asleep(phone.service_pid())
        except FileNotFoundError:
            return False  # it has just ended

    def wait_back(self, condition, what, step=1, pause=0.3):
        """After the fault: the phone's time passes slowly enough for answers that come at the machine's pace."""
        if not self.drive(condition, step, longest=10_000, pause=pause):
            raise NotHeld("pass ends", what, self.tail())

    # Promises

    def check(self):
        """Looks at every promise of the row."""
        for word, argument in self.row.holds:
            getattr(self, "hold_" + word.replace(" ", "_"))(argument)

    def hold_pass_ends(self, _):
        self.wait_back(lambda: self.passes_ended() > 0, "the line that a pass ends with")

    def eventually(self, word, expected, look):
        """`look` hands back what it sees and whether that is right; the daemon may first have to connect anew."""
        seen = None

        def right():
            nonlocal seen
            seen, is_right = look()
            return is_right

        if not self.drive(right, step=1, longest=10_000, pause=0.3):
            raise NotHeld(word, expected, f"{seen}; {self.tail()}")

    def hold_unlocked(self, _):
        self.eventually("unlocked", f"{LOCK} = 0", lambda: ((value := self.bus.get(LOCK)), value == "0"))

    def hold_result(self, argument):
        allowed = argument.split("/") if argument else RESULTS
        self.eventually("result", " or ".join(allowed), lambda: ((value := self.bus.get(STATE)), value in allowed))

    def hold_all_settings(self, _):
        wrong = {key: (value, seen) for key, value in dict(self.expected).items() if (seen := self.bus.get(key)) != value}
        if wrong:
            raise NotHeld("all settings", f"{len(dict(self.expected))} settings", f"{len(wrong)} wrong, such as {min(wrong.items())}")

    def hold_code(self, argument):
        seen = self.bus.get("State.Provisioning.HttpErrorCode")
        if seen not in argument.split("/"):
            raise NotHeld("code", argument, seen)

    @staticmethod
    def files():
        """Paths of all files that passes have left."""
        return [f"{folder}/{name}" for folder in FOLDERS for name in faults.files_below(folder)]

    def hold_no_partial_file(self, _):
        partial = [path for path in self.files() if path.endswith((".part", ".tmp"))]
        if partial:
            raise NotHeld("no partial file", "none", partial)

    def hold_whole_files(self, _):
        """No part of a file anywhere, and under a file's own name only what a server sent as a whole."""
        self.hold_no_partial_file(_)
        for path in self.files():
            if os.path.basename(path) != LOCK_FILE and not os.path.islink(path):
                with open(path, "rb") as file:
                    content = file.read()
                if content not in self.known:
                    raise NotHeld("whole files", "a file as a server sent it", f"{path}: {len(content)} bytes {content[:60]!r}")

    def hold_peak(self, argument):
        if not faults.is_sanitized(phone.service_pid()) and (seen := faults.peak(phone.service_pid())) > int(argument) << 10:
            raise NotHeld("peak", f"at most {argument} MiB", f"{seen} KiB")

    def hold_daemon_stays(self, _):
        if self.daemon_ended():
            raise NotHeld("daemon stays", "the same process", f"it ended with status {self.end_status()}; {self.tail()}")
        if (pid := phone.service_pid()) != self.pid_before:
            raise NotHeld("daemon stays", f"process {self.pid_before}", f"process {pid}; {self.tail()}")

    @staticmethod
    def end_status():
        with open(f"{phone.HOME}/daemon.status", encoding="ascii") as file:
            return file.read().strip()

    def hold_next_pass(self, _):
        self.wait_daemon_on_bus()
        self.run_good_pass()

    def hold_log(self, argument):
        lines = self.log_at_end
        if not any(argument in line for line in lines):
            raise NotHeld("log", f"a line with {argument!r}", "log:\n" + "\n".join(lines[-40:]))

    def hold_felt(self, _):
        """The log says that something was wrong: a fault that nobody feels tests nothing."""
        if not self.complaints():
            raise NotHeld("felt", "a warning or an error", "log:\n" + "\n".join((self.log_in_fault + self.log_at_end)[-40:]))

    def complaints(self):
        return [line for line in dict.fromkeys(self.log_in_fault + self.log_at_end)
                if line.startswith(ABORTED) or (" ZAV warning " in line or " ZAV error " in line) and HEALTHY not in line]

    def hold_no_log(self, argument):
        found = [line for line in self.log_at_end if argument in line]
        if found:
            raise NotHeld("no log", f"no line with {argument!r}", found[0])

    def hold_memory(self, _):
        pid = phone.service_pid()
        if faults.is_sanitized(pid):
            return
        limit = self.idle * 3 // 2 + faults.SPARE
        self.settled("memory", f"at most {limit} KiB", lambda: faults.dirty(pid), limit)
        self.figures["memory"] = max(0, faults.dirty(pid) - self.idle)
        self.settled("memory", f"at most {self.idle_threads + THREADS_SPARE} threads", lambda: threads(pid),
                     self.idle_threads + THREADS_SPARE)
        most = self.idle_descriptors + DESCRIPTORS_SPARE
        self.settled("memory", f"at most {most} descriptors", lambda: descriptors(pid), most, lambda: open_files(pid))

    def settled(self, word, expected, look, limit, detail=lambda: ""):
        try:
            phone.wait_until(lambda: look() <= limit, expected, min(5, self.patience))
        except phone.Late:
            raise NotHeld(word, expected, f"{look()} {detail()}") from None

    def hold_stops(self, _):
        """SIGTERM, then the end within ten seconds with status 0. The daemon of the next row is a new one."""
        self.took, self.status = self.stop_daemon()
        self.figures["stop"] = max(self.took, self.figures.get("stop", 0))
        self.hold_ended_in_time()

    def hold_ended_in_time(self):
        if self.status != "0" or self.took > LIMIT:
            raise NotHeld("stops", f"status 0 within {LIMIT} s", f"status {self.status} after {self.took:.1f} s; {self.tail()}")

    def stop_daemon(self):
        type(self).usable = False
        begin = time.monotonic()
        os.kill(phone.service_pid(), 15)
        return self.wait_daemon_end(begin)

    def wait_daemon_end(self, begin):
        """Seconds that it took, and the status; nothing if the daemon still runs."""
        end = begin + PATIENCE
        while not self.daemon_ended() and time.monotonic() < end:
            time.sleep(0.01)
        took = time.monotonic() - begin
        return took, self.end_status() if self.daemon_ended() else None

    def finish(self):
        """After the fault: what the daemon has logged, and every promise. It is kept for the next row if it still runs."""
        self.log_at_end = self.log.lines()
        self.check()
        if not self.daemon_ended():
            type(self).usable = not self.environment and "memory" in dict(self.row.holds)
