"""What happens to one process: killed at random moments, a power cut, no memory, no threads, no descriptors, a full disk."""

import os
import resource
import shutil
import struct
import time

import case as cases
import faults
import phone
from bus_faults import Fault
from every_kind import EveryKind, empty_folders

LIBRARY = f"{os.environ['LAB_BUILD']}/tests/faulty.so"
CONTROL = f"{phone.HOME}/faulty"
DISK = f"{phone.HOME}/synced"
FIELDS = {"allocations": 0, "fail at": 1, "no threads": 2, "disk full": 3}


class Control:
    """The other side of faulty.cpp."""

    environment = {"LAB_PRELOAD": LIBRARY, "FAULTY": CONTROL}

    def __init__(self):
        with open(CONTROL, "wb") as file:
            file.write(bytes(8 * len(FIELDS)))

    @staticmethod
    def put(field, value):
        with open(CONTROL, "r+b") as file:
            file.seek(8 * FIELDS[field])
            file.write(struct.pack("q", value))

    @staticmethod
    def get(field):
        with open(CONTROL, "rb") as file:
            file.seek(8 * FIELDS[field])
            return struct.unpack("q", file.read(8))[0]


def start_with(case, environment):
    """An idle daemon of its own with this environment."""
    case.environment = environment
    case.start_daemon()
    case.settle_quietly()
    case.measure()
    case.environment = {}


def duration(case, job):
    """Seconds from the request for a pass to its end."""
    begin = time.monotonic()
    if job.run() != "success":
        raise cases.NotHeld("every kind", "success", case.tail())
    job.check_done()
    return time.monotonic() - begin


# Killed at random moments.

def restart(case):
    """The next daemon after one that was killed, as the service manager starts it; without the 90 s."""
    case.log.mark()
    phone.service("start", "daemon")
    case.log.wait("ZAV initialized.")
    phone.wait_until(lambda: not [path for path in case.files() if path.endswith((".part", ".tmp"))],
                     lambda: f"no partial files, there are {case.files()}")


def check_unlocked(case, what):
    seen = None

    def unlocked():
        nonlocal seen
        seen = case.bus.get(cases.LOCK)
        return seen == "0"

    try:
        phone.wait_until(unlocked, "an unlocked screen")
    except phone.Late:
        raise cases.NotHeld("unlocked", f"0 after {what}", f"{seen}; {case.tail()}") from None


def daemon_killed(times):
    """kill -9 at random moments of a pass; each next daemon finds whole files and unlocks the screen."""
    def run(case):
        case.start_idle()
        job = EveryKind(case)
        whole = duration(case, job)
        moments = []
        for _ in range(times):
            empty_folders(case)
            moment = case.random.uniform(0, whole)
            moments.append(moment)
            job.begin()
            time.sleep(moment)
            phone.service("kill", "daemon")
            restart(case)
            case.hold_whole_files("")
            check_unlocked(case, f"kill -9 after {moment * 1000:.0f} ms")
            case.settle_quietly()
        case.notes.append(f"a pass takes {whole * 1000:.0f} ms, killed after " + " ".join(f"{m * 1000:.0f}" for m in moments))
        case.pid_before = phone.service_pid()
        case.log.mark()
        result = job.run()
        if result != "success":
            raise cases.NotHeld("result", "success of the whole pass", f"{result}; {case.tail()}")
        job.check_done()

    return run


def service_killed(times):
    """kill -9 of the property service while sets arrive; every set that was answered is there afterwards."""
    def run(case):
        case.start_idle()
        case.configure(case.good)
        keys = [f"Directory.Online.{number % 4}.Name" for number in range(4)]
        for round_ in range(times):
            answered = write_until(case, keys, round_, case.random.uniform(0, 0.1))
            phone.service("kill", "properties")
            phone.service("start", "properties")
            check_values(case, answered, "kill -9")
            case.notes = [f"{times} times, the last after {answered['count']} sets"]
        case.log.mark()
        case.bus.mark()
        case.pid_before = phone.service_pid()

    return run


def write_until(case, keys, round_, seconds):
    """Sets these keys in turn for so long. What was answered, the number of sets, and when the last began."""
    answered, number, end = {}, 0, time.monotonic() + seconds
    while time.monotonic() < end or number < len(keys):
        key, value = keys[number % len(keys)], f"round {round_} set {number}"
        case.bus.set(key, value)
        answered[key] = value
        number += 1
    return {"values": answered, "count": number}


def check_values(case, answered, after):
    for key, value in answered["values"].items():
        if (seen := case.bus.get(key)) != value:
            raise cases.NotHeld("settings kept", f"{key} = {value!r} after {after}", repr(seen))


# A power cut.

def lose_unsynced(folders):
    """What the process wrote and had not synced is gone: each file goes back to what it was when it was synced last."""
    lost = []
    for folder in folders:
        for name in faults.files_below(folder):
            path = f"{folder}/{name}"
            kept = f"{DISK}/{os.stat(path).st_ino}"
            if os.path.exists(kept):
                with open(path, "rb") as now, open(kept, "rb") as synced:
                    if now.read() != synced.read():
                        lost.append(path)
                shutil.copyfile(kept, path)
    return lost


def fresh_disk():
    shutil.rmtree(DISK, ignore_errors=True)
    os.makedirs(DISK)


def daemon_power_cut(times):
    def run(case):
        Control()
        fresh_disk()
        start_with(case, {**Control.environment, "FAULTY_DISK": DISK})
        job = EveryKind(case)
        whole = duration(case, job)
        lost = 0
        for _ in range(times):
            empty_folders(case)
            moment = case.random.uniform(0, whole)
            job.begin()
            time.sleep(moment)
            phone.service("kill", "daemon")
            lost += len([path for path in lose_unsynced(cases.FOLDERS)])
            check_finals(case, moment)
            fresh_disk()
            case.environment = {**Control.environment, "FAULTY_DISK": DISK}
            case.bus.set("State.Provisioning.OnBootUp", "done")
            case.launch()
            case.environment = {}
            case.settle_quietly()
            check_unlocked(case, f"a power cut after {moment * 1000:.0f} ms")
        case.notes.append(f"{times} times, {lost} files lost what was not synced")
        case.pid_before = phone.service_pid()
        case.log.mark()
        case.bus.mark()
        result = job.run()
        if result != "success":
            raise cases.NotHeld("result", "success of the whole pass", f"{result}; {case.tail()}")

    return run


def check_finals(case, moment):
    """Only what bears a file's own name counts: partial files are the next daemon's to remove."""
    for path in case.files():
        if path.endswith((".part", ".tmp")) or os.path.basename(path) == cases.LOCK_FILE:
            continue
        with open(path, "rb") as file:
            content = file.read()
        if content not in case.known:
            raise cases.NotHeld("whole files", f"{path} whole after a power cut after {moment * 1000:.0f} ms",
                                f"{len(content)} bytes {content[:40]!r}")


def service_power_cut(times):
    """What was answered more than a second before the cut is there afterwards."""
    def run(case):
        case.start_idle()
        case.configure(case.good)
        keys = [f"Directory.Online.{number}.Name" for number in range(4)]
        late = [f"Telephony.Accounts.{number}.Label" for number in range(4)]
        kept = 0
        for round_ in range(times):
            phone.service("stop", "properties")
            fresh_disk()
            os.environ.update({"LAB_PRELOAD": LIBRARY, "FAULTY_DISK": DISK})
            phone.service("start", "properties")
            for name in ("LAB_PRELOAD", "FAULTY_DISK"):
                os.environ.pop(name)
            answered = write_until(case, keys, round_, case.random.uniform(0, 0.2))
            old = time.monotonic() + 1
            while time.monotonic() < old:
                write_until(case, late, round_, 0.02)
            phone.service("kill", "properties")
            lost = lose_unsynced(["/config"])
            phone.service("start", "properties")
            kept += len(lost)
            check_values(case, answered, "a power cut a second later")
        case.notes.append(f"{times} times, {kept} files lost what was not synced")
        case.log.mark()
        case.bus.mark()
        case.pid_before = phone.service_pid()

    return run


# No memory.

def no_memory(part, parts, samples):
    """One allocation of a pass fails; in the next pass another. `part` of `parts` of the pass's allocations."""
    def run(case):
        control = Control()
        start_with(case, Control.environment)
        job = EveryKind(case)
        duration(case, job)
        control.put("fail at", 1 << 60)
        control.put("allocations", 0)
        duration(case, job)
        total = control.get("allocations")
        control.put("fail at", 0)
        deaths = []
        for sample in range(samples):
            number = 1 + total * (part - 1) // parts + case.random.randrange(total // parts)
            empty_folders(case)
            control.put("allocations", 0)
            control.put("fail at", number)
            job.begin()
            phone.wait_until(lambda: case.daemon_ended() or case.passes_ended() > 0,
                             lambda: f"the end of a pass whose allocation {number} fails; {case.tail()}")
            control.put("fail at", 0)
            if case.daemon_ended():
                with open(f"{phone.HOME}/daemon.status", encoding="ascii") as file:
                    deaths.append(f"{number}: status {file.read().strip()}")
                case.environment = Control.environment
                case.bus.set("State.Provisioning.OnBootUp", "done")
                case.launch()
                case.environment = {}
                case.settle_quietly()
            case.hold_whole_files("")
            check_unlocked(case, f"a pass whose allocation {number} failed")
        case.notes.append(f"{samples} of {total} allocations" + (f", the daemon ended at {'; '.join(deaths)}" if deaths else ""))
        if deaths and case.row.argument("daemon stays") is not None:
            raise cases.NotHeld("daemon stays", "the same process", "; ".join(deaths))
        case.pid_before = phone.service_pid()

    return run


# Faults in a stage.


class Exhausted(Fault):
    """The daemon finds no more of something; faulty.cpp's switch says of what."""

    switch = ""

    def prepare(self, case):
        Control()
        case.environment = Control.environment
        type(case).usable = False

    def strike(self, case):
        if case.frozen is not None:
            case.thaw(case.frozen)
        Control.put(self.switch, 1)

    def mend(self, case):
        Control.put(self.switch, 0)


class NoThreads(Exhausted):
    switch = "no threads"


class DiskFull(Exhausted):
    switch = "disk full"


class StoreFull(Exhausted):
    """The property service cannot write to its disk."""

    switch = "disk full"

    def prepare(self, case):
        Control()
        phone.service("stop", "properties")
        os.environ.update(Control.environment)
        try:
            phone.service("start", "properties")
        finally:
            for name in Control.environment:
                os.environ.pop(name)


class NoDescriptors(Fault):
    """No descriptor beyond those that are open."""

    def strike(self, case):
        if case.frozen is not None:
            case.thaw(case.frozen)
        self.pid = phone.service_pid()
        _, hard = resource.prlimit(self.pid, resource.RLIMIT_NOFILE)
        self.limits = resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (3, hard))

    def mend(self, case):
        if os.path.exists(f"/proc/{self.pid}"):
            resource.prlimit(self.pid, resource.RLIMIT_NOFILE, self.limits)


IN_STAGE = {"no threads": NoThreads, "no descriptors": NoDescriptors, "its disk full": DiskFull}


def find(what, fault, stage):
    """The scenario of a row in which something happens to the daemon or the property service as a process."""
    words = fault.split()
    if fault.startswith("killed at"):
        return daemon_killed(int(words[2])) if what == "daemon" else service_killed(int(words[2]))
    if fault.startswith("power cut at"):
        return daemon_power_cut(int(words[3])) if what == "daemon" else service_power_cut(int(words[3]))
    if fault.startswith("no memory"):  # no memory at 20 allocations, part 3 of 10
        return no_memory(int(words[6]), int(words[8]), int(words[3]))
    return None
