"""What a process can run out of: memory, threads, descriptors, disk."""

import os
import resource
import time

import case as cases
import phone
from bus_faults import Fault
from every_kind import EveryKind, duration, empty_folders
from faulty import Control, start_with, with_environment
from random_faults import check_unlocked

QUIET = 0.7     # seconds of the machine's time without a line, after which nothing goes on

# Allocations whose failure a library does not survive: the function in the trace, and what it does then.
HOPELESS = {"xmlGetGlobalState": "libxml2 uses a thread's state without asking whether there was memory for it"}


def end_of_pass(case, number):
    """Waits for the end of a pass, or of the daemon. 1 if the request itself was lost: there was no memory to read it."""
    last = time.monotonic() + 3
    grown = (0, 0.0)    # the log's length, and when it was first seen

    def quiet():
        """The log has not grown for a while."""
        nonlocal grown
        length = len(case.log.lines())
        if length != grown[0]:
            grown = (length, time.monotonic())
        return time.monotonic() - grown[1] > QUIET

    # The line that a pass ends with may be what there was no memory for. The result tells, too, but may be that of the
    # pass before, which was written late: then the log goes on.
    def ended():
        is_quiet = quiet()
        return case.daemon_ended() or case.passes_ended() > 0 or (is_quiet and case.published()) or (
            time.monotonic() > last and case.log.count("Provisioning Started") == 0)

    case.wait_back(ended, f"the end of a pass whose allocation {number} fails")
    return int(not case.daemon_ended() and case.log.count("Provisioning Started") == 0)


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
        deaths, last_words, lost = [], "", 0
        for _ in range(samples):
            number = 1 + total * (part - 1) // parts + case.random.randrange(total // parts)
            empty_folders(case)
            control.put("allocations", 0)
            control.put("fail at", number)
            job.begin()
            lost += end_of_pass(case, number)
            control.put("fail at", 0)
            if case.daemon_ended():
                deaths.append(f"{number}: status {case.end_status()}")
                if not any(function in case.tail(60) for function in HOPELESS):
                    last_words = case.tail(60)
                case.environment = Control.environment
                case.bus.set("State.Provisioning.OnBootUp", "done")
                case.launch()
                case.environment = {}
                case.settle_quietly()
            case.hold_whole_files("")
            check_unlocked(case, f"a pass whose allocation {number} failed")
        case.figures.update({"allocations failed": samples, "requests lost": lost, "deaths": len(deaths)})
        case.notes.append(f"{samples} of {total} allocations, {lost} requests lost"
                          + (f", the daemon ended at {'; '.join(deaths)}" if deaths else ""))
        if last_words and case.row.argument("daemon stays") is not None:
            raise cases.NotHeld("daemon stays", "the same process", f"{'; '.join(deaths)}; {last_words}")
        case.pid_before = phone.service_pid()
        if case.passes_ended() == 0:  # the last request was lost, and the row speaks of a pass
            duration(case, job)

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
        with_environment(Control.environment, lambda: phone.service("start", "properties"))


class NoDescriptors(Fault):
    """No descriptor beyond those that a process has open."""

    def __init__(self, name="daemon"):
        self.name = name
        self.lasts = name == "daemon"  # the others answer, at the machine's pace
        self.seconds = 3

    def strike(self, case):
        if case.frozen is not None:
            case.thaw(case.frozen)
        self.pid = phone.service_pid(self.name)
        self.limits = limit_descriptors(self.pid, 3)

    def mend(self, case):
        if os.path.exists(f"/proc/{self.pid}"):
            resource.prlimit(self.pid, resource.RLIMIT_NOFILE, self.limits)


class FewDescriptors(Exhausted):
    """The daemon starts with a limit that it reaches before it has done so."""

    switch, few, usual = "descriptors", 6, 1024

    def strike(self, case):
        Control.put(self.switch, self.few)

    def mend(self, case):
        super().mend(case)
        if not case.daemon_ended():
            limit_descriptors(phone.service_pid(), self.usual)


def limit_descriptors(pid, count):
    """What the limit was before."""
    _, hard = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    return resource.prlimit(pid, resource.RLIMIT_NOFILE, (count, hard))


IN_STAGE = {"no threads": NoThreads, "no descriptors": NoDescriptors, "its disk full": DiskFull}


def find(fault):
    """no memory at 20 allocations, part 3 of 10"""
    words = fault.split()
    return no_memory(int(words[6]), int(words[8]), int(words[3]))
