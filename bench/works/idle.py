"""The daemon while nothing happens, beside a bare client of the same broker, with the same libraries and keep-alive."""

import re
import time

from work import Work, at_most

ALLOWED_WAKE_UPS = 2  # a minute, besides those of the keep-alive
KEEP_ALIVE = 2        # a request and its response, once a minute
LEAST_CPU_US = 50     # about one keep-alive: in some minutes the bare client sends none


class Idle(Work):
    needs_phone = True
    samples = 7

    def prepare(self, context):
        self.context = context
        self.phone = context.settled_phone()
        self.pids = {"ours": self.phone.pid()}
        self.client = self.phone.start(context.program("floor_client"))
        self.pids["floor"] = self.client.pid
        self.phone.run("sh", "-c", f"until grep -q poll /proc/{self.client.pid}/wchan; do sleep 0.01; done")

    def close(self):
        if hasattr(self, "client"):
            self.client.stop()


class Memory(Idle):
    unit = "MB"
    goal = at_most(1.5)
    floor_name = "a bare client, same libraries"

    def __init__(self, name, row):
        self.name = f"idle: {name} memory"
        self.row = row

    def amount(self, who):
        line = self.phone.run("grep", f"^{self.row}:", f"/proc/{self.pids[who]}/smaps_rollup")
        return int(line.split()[1]) * 1024 / 1e6

    def ours(self):
        return self.amount("ours")

    def floor(self):
        return self.amount("floor")


class Minute(Idle):
    """What both do in the same minute, counted once: nothing is left of a rare wake-up in shorter samples."""

    counted = {}  # by context: what the works of this class share

    def prepare(self, context):
        super().prepare(context)
        if context not in self.counted:
            seconds = 2 if context.quick else 60
            before = {who: self.count(pid) for who, pid in self.pids.items()}
            time.sleep(seconds)  # what is measured, not a wait for something
            self.counted[context] = {
                who: [(now - then) * 60 / seconds for now, then in zip(self.count(pid), before[who])]
                for who, pid in self.pids.items()}
        self.wake_ups, self.cpu_time = ({who: counts[index] for who, counts in self.counted[context].items()}
                                        for index in range(2))

    def count(self, pid):
        """Wake-ups, and microseconds of processor time, of all threads."""
        switches = re.findall(r"^(?:non)?voluntary_ctxt_switches:\s*(\d+)", self.read(pid, "status"), re.MULTILINE)
        times = [int(line.split()[0]) / 1000 for line in self.read(pid, "schedstat").splitlines()]
        return sum(map(int, switches)), sum(times)

    def read(self, pid, file):
        return self.phone.run("sh", "-c", f"cat /proc/{pid}/task/*/{file}")


class WakeUps(Minute):
    name = "idle: wake-ups a minute"
    unit = "1/min"
    goal = at_most(1)
    floor_name = f"the limit, {ALLOWED_WAKE_UPS}, and {KEEP_ALIVE} for a keep-alive"

    def ours(self):
        return self.wake_ups["ours"]

    def floor(self):
        return ALLOWED_WAKE_UPS + KEEP_ALIVE

    def notes(self):
        return [f"the bare client woke up {self.wake_ups['floor']:.0f} times"]


class CpuTime(Minute):
    name = "idle: CPU time a minute"
    unit = "us"
    goal = at_most(1.5)
    floor_name = f"a bare client, same keep-alive; {LEAST_CPU_US} us at least"

    def ours(self):
        return self.cpu_time["ours"]

    def floor(self):
        return max(self.cpu_time["floor"], LEAST_CPU_US)

    def notes(self):
        return [f"the bare client took {self.cpu_time['floor']:.0f} us"]


WORKS = [WakeUps(), CpuTime(), Memory("dirty", "Private_Dirty"), Memory("proportional", "Pss")]
