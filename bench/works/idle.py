"""The daemon while nothing happens, beside a bare client of the same broker, with the same libraries and keep-alive."""

import re
import time

from work import Work, at_most

ALLOWED_WAKE_UPS = 2  # a minute, besides those of the keep-alive
KEEP_ALIVE = 2        # a request and its response, once a minute
MINUTE = 60
MARGIN = 10           # seconds among which the minute may begin


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
    """What both do in a minute, which holds one keep-alive of each; counted once for all works of this class."""

    counted = {}  # by context
    index = 0     # among the counts

    def prepare(self, context):
        super().prepare(context)
        if context not in self.counted:
            samples = [self.counts()]
            for _ in range(2 if context.quick else MINUTE + MARGIN):
                time.sleep(1)  # what is measured, not a wait for something
                samples.append(self.counts())
            self.counted[context] = {who: difference([sample[who] for sample in samples], context.quick)
                                     for who in self.pids}
        self.seen = {who: counts[self.index] for who, counts in self.counted[context].items()}

    def counts(self):
        """Of both: wake-ups, and microseconds of processor time, of all threads."""
        script = "; ".join(f"cat /proc/{pid}/task/*/status /proc/{pid}/task/*/schedstat; echo end"
                           for pid in self.pids.values())
        texts = self.phone.run("sh", "-c", script).split("end\n")
        return {who: (sum(map(int, re.findall(r"^(?:non)?voluntary_ctxt_switches:\s*(\d+)", text, re.MULTILINE))),
                      sum(int(time) / 1000 for time in re.findall(r"^(\d+) \d+ \d+$", text, re.MULTILINE)))
                for who, text in zip(self.pids, texts)}

    def ours(self):
        return self.seen["ours"]

    def floor(self):
        return self.seen["floor"]

    def notes(self):
        return [f"the bare client: {self.seen['floor']:.0f} {self.unit}"]


def difference(samples, quick):
    """Of the first minute that begins and ends while nothing happens: else a keep-alive might be cut or missing."""
    if quick:
        return [(last - first) * MINUTE / (len(samples) - 1) for first, last in zip(samples[0], samples[-1])]
    for start in range(1, MARGIN - 1):
        if all(samples[edge - 1] == samples[edge + 1] for edge in (start, start + MINUTE)):
            return [last - first for first, last in zip(samples[start], samples[start + MINUTE])]
    raise RuntimeError(f"it does not idle: {samples}")


class WakeUps(Minute):
    name = "idle: wake-ups a minute"
    unit = "1/min"
    goal = at_most(1)
    floor_name = f"the limit, {ALLOWED_WAKE_UPS}, and {KEEP_ALIVE} for a keep-alive"

    def floor(self):
        return ALLOWED_WAKE_UPS + KEEP_ALIVE


class CpuTime(Minute):
    name = "idle: CPU time a minute"
    unit = "us"
    index = 1
    goal = at_most(1.5)
    floor_name = "a bare client, same keep-alive"


WORKS = [WakeUps(), CpuTime(), Memory("dirty", "Private_Dirty"), Memory("proportional", "Pss")]
