"""Faults of the machine: folders that cannot be written, an openssl that fails, a clock that is set, a network that goes."""

import ctypes
import os
import shutil
import subprocess

import case as cases
import phone
from bus_faults import Fault
from every_kind import EveryKind
from files import direct
from server import Server
from server_faults import run_pass
from raw_server import ok

FOLDERS = {"provisioning": "/var/volatile/provisioning", "contacts": "/var/volatile/contacts", "firmware": "/config/swupdate",
           "certificate": "/custom/certs/_storage"}


def mount(*words):
    subprocess.run(["mount", *words], check=True, timeout=10)


def unmount(folder):
    subprocess.run(["umount", folder], check=True, timeout=10)


class Folder:
    """Ways in which a folder can be spoiled; each is undone by `mend`."""

    def __init__(self, folder):
        self.folder, self.aside = folder, f"{folder}.aside"

    def full(self):
        mount("-t", "tmpfs", "-o", "size=4k", "tmpfs", self.folder)
        with open(f"{self.folder}/filler", "wb") as file:
            try:
                file.write(bytes(1 << 20))
            except OSError:
                pass  # it is full
        return lambda: unmount(self.folder)

    def read_only(self):
        mount("-t", "tmpfs", "-o", "ro", "tmpfs", self.folder)
        return lambda: unmount(self.folder)

    def missing(self):
        os.rename(self.folder, self.aside)
        return lambda: (shutil.rmtree(self.folder, ignore_errors=True), os.rename(self.aside, self.folder))

    def a_link(self):
        os.rename(self.folder, self.aside)
        os.makedirs("/tmp/elsewhere", exist_ok=True)
        os.symlink("/tmp/elsewhere", self.folder)
        return lambda: (os.remove(self.folder), os.rename(self.aside, self.folder))

    def a_file(self):
        os.rename(self.folder, self.aside)
        with open(self.folder, "wb"):
            pass
        return lambda: (os.remove(self.folder), os.rename(self.aside, self.folder))


def spoiled_folder(name, way):
    """A pass of every kind with a folder that is spoiled; it ends, and the next one on a mended folder succeeds."""
    def run(case):
        case.start_idle()
        case.pid_before = phone.service_pid()
        job = EveryKind(case)
        mend = getattr(Folder(FOLDERS[name]), way.replace(" ", "_"))()
        try:
            job.begin()
            case.wait_back(lambda: case.passes_ended() > 0, "the end of the pass")
            case.hold_result("")
        finally:
            mend()

    return run


def openssl(way):
    """An encrypted file, and an openssl that is missing, hangs, or is killed. `next pass` needs none."""
    def run(case):
        folder = "/tmp/programs"
        shutil.rmtree(folder, ignore_errors=True)
        os.makedirs(folder)
        if way != "missing":
            with open(f"{folder}/openssl", "w", encoding="ascii") as file:
                file.write({"hanging": "#!/bin/sh\nexec /bin/sleep 1000\n", "killed": "#!/bin/sh\nkill -9 $$\n",
                            "failing": "#!/bin/sh\nexit 1\n", "not a program": "garbage\n",
                            "writing garbage": "#!/bin/sh\nfor out; do :; done; echo garbage; exit 0\n"}[way])
            os.chmod(f"{folder}/openssl", 0o755)
        search = os.environ["PATH"]
        case.environment = {"PATH": folder if way == "missing" else f"{folder}:{search}"}
        if way == "missing":  # the lab's own programs still need theirs
            os.makedirs(f"{folder}/bin")
            for name in ("env", "zavd", "zavctl", "ldd", "sed", "rm", "mv", "wc", "touch", "sleep", "phone-clock", "tail",
                         "bash", "cat", "cmp", "cp", "grep", "sh", "dirname"):
                os.symlink(shutil.which(name), f"{folder}/{name}")
        case.start_daemon()
        case.settle_quietly()
        case.measure()
        case.pid_before = phone.service_pid()
        text = direct(cases.SETTINGS[:3])
        secret = phone.encrypt(text)
        case.known |= {secret, text.encode()}
        case.configure(case.serve({"/provisioning.xml": ok(secret)}))
        case.log.mark()
        case.bus.mark()
        case.request()
        case.wait_back(lambda: case.passes_ended() > 0, "the end of the pass", cases.STEP, 0.1)

    return run


class ClockSet(Fault):
    """The date changes in mid-stage, and stays."""

    lasts = False
    brief = True
    DATES = {"a year back": "2025-11-22 12:00:00", "a year ahead": "2027-11-22 12:00:00", "to 1970": "1970-01-02 00:00:00",
             "to 2199": "2199-12-30 00:00:00"}

    def __init__(self, date):
        self.date = date

    def strike(self, case):
        if case.frozen is not None:
            case.thaw(case.frozen)
        phone.clock("date", self.DATES[self.date])

    def mend(self, case):
        case.addCleanup(subprocess.run, ["phone-clock", f"{phone.HOME}/clock", "date", now()], check=True, timeout=10)


def now():
    return subprocess.run(["date", "+%Y-%m-%d %H:%M:%S"], capture_output=True, text=True, check=True).stdout.strip()


class DaylightSaving(ClockSet):
    """The night in which the clocks change, in the daemon's time zone: a second before it, and then across it."""

    # Seconds before the change, in UTC, which is what the lab's tool reads.
    DATES = {"into summer": "2026-03-29 00:59:59", "out of summer": "2026-10-25 00:59:59"}

    def prepare(self, case):
        case.environment = {"TZ": "Europe/Berlin"}
        type(case).usable = False

    def strike(self, case):
        if case.frozen is not None:
            case.thaw(case.frozen)
        subprocess.run(["phone-clock", f"{phone.HOME}/clock", "date", self.DATES[self.date]], check=True, timeout=10,
                       env={**os.environ, "TZ": "UTC"})
        phone.clock("jump", 2)


class Network:
    """The phone's eth0 with a server at the other end of its cable, in a network of its own."""

    ADDRESS = "192.0.2.1"

    def __init__(self):
        self.far = subprocess.Popen(["unshare", "-n", "sleep", "infinity"])
        own = os.readlink("/proc/self/ns/net")
        phone.wait_until(lambda: os.readlink(f"/proc/{self.far.pid}/ns/net") != own, "the far network")
        self.ip("link", "set", "uplink0", "netns", str(self.far.pid))
        far = ["nsenter", "-t", str(self.far.pid), "-n"]
        for words in (["address", "add", f"{self.ADDRESS}/24", "dev", "uplink0"], ["link", "set", "uplink0", "up"]):
            subprocess.run([*far, "ip", *words], check=True, timeout=10)
        self.set("up")

    @staticmethod
    def ip(*words):
        subprocess.run(["ip", *words], check=True, timeout=10)

    def set(self, state):
        self.ip("link", "set", "eth0", state)
        if state == "up":
            phone.wait_until(lambda: "state UP" in subprocess.run(["ip", "-o", "link", "show", "eth0"], capture_output=True,
                                                                  text=True, check=True).stdout, "eth0 up")

    def serve(self):
        """A server whose socket is in the far network: a thread makes it there and comes back."""
        libc = ctypes.CDLL(None, use_errno=True)
        with open("/proc/self/ns/net", "rb") as here, open(f"/proc/{self.far.pid}/ns/net", "rb") as there:
            if libc.setns(there.fileno(), 0) != 0:
                raise OSError(ctypes.get_errno(), "setns")
            try:
                return Server(host=self.ADDRESS)
            finally:
                libc.setns(here.fileno(), 0)


class InterfaceDown(Fault):
    """The cable is pulled in the stage, and put back once the stage is over or the time for it is up."""

    network = None

    def prepare(self, case):
        if InterfaceDown.network is None:
            InterfaceDown.network = Network()
        server = self.network.serve()
        case.addCleanup(server.close)
        case.server = server

    def strike(self, case):
        if case.frozen is not None:
            case.thaw(case.frozen)
        self.network.set("down")

    def mend(self, case):
        self.network.set("up")


class InterfaceBounced(InterfaceDown):
    """Down for a moment and up again: the transfer goes on."""

    lasts = False
    brief = True

    def strike(self, case):
        super().strike(case)
        self.network.set("up")


def find(what, fault):
    if what.endswith(" folder"):
        return spoiled_folder(what.removesuffix(" folder"), fault)
    if what == "openssl":
        return openssl(fault)
    raise KeyError(f"{what}: {fault}")


def in_stage(what, fault):
    if what == "clock":
        return DaylightSaving(fault) if fault in DaylightSaving.DATES else ClockSet(fault)
    if what == "network":
        return {"down": InterfaceDown, "bounced": InterfaceBounced}[fault]()
    return None
