"""The daemon while nothing happens, beside a bare client of the same broker, with the same libraries and keep-alive."""

import itertools
import re
import time

from context import ROOT
from work import Work, at_most

ALLOWED_WAKE_UPS = 2  # a minute, besides those of the keep-alive
KEEP_ALIVE = 2        # wake-ups: a request and its response
INTERVAL = 10         # seconds from one keep-alive to the next; brokers allow no less
MINUTE = 60


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


class KeepAlives(Idle):
    """What both do beside a broker that wants a keep-alive every ten seconds instead of once a minute, so that there
    are several to compare; counted once for all works of this class."""

    is_quick = False
    counted = {}  # by context

    def prepare(self, context):
        self.restart_broker(context.settled_phone(), INTERVAL)
        super().prepare(context)
        if context not in self.counted:
            time.sleep(INTERVAL)  # what follows a connection is not idling
            samples = [self.counts()]
            for _ in range((self.samples + 1) * INTERVAL):
                time.sleep(1)  # what is measured, not a wait for something
                samples.append(self.counts())
            counted = {who: bursts([sample[who] for sample in samples]) for who in self.pids}
            require_keep_alives(counted)
            self.counted[context] = counted
        self.seen = self.counted[context]

    def close(self):
        super().close()
        if hasattr(self, "context"):
            self.restart_broker(self.phone)

    @staticmethod
    def restart_broker(phone, keep_alive=""):
        phone.run("env", f"LAB_KEEP_ALIVE={keep_alive}", ROOT / "lab/service", "restart", "broker")
        phone.settle()
        # A pass that is requested before the daemon is back on the bus does not begin.
        phone.run("sh", "-c", "until mosquitto_rr -V 5 -W 1 -t watchdog/prov-client -e prov-client/watchdog "
                              "-m '{\"param\":\"Are you alive?\"}'; do :; done")

    def counts(self):
        """Of both: wake-ups, and microseconds of processor time, of all threads."""
        script = "; ".join(f"cat /proc/{pid}/task/*/status /proc/{pid}/task/*/schedstat; echo end"
                           for pid in self.pids.values())
        texts = self.phone.run("sh", "-c", script).split("end\n")
        return {who: (sum(map(int, re.findall(r"^(?:non)?voluntary_ctxt_switches:\s*(\d+)", text, re.MULTILINE))),
                      sum(int(time) / 1000 for time in re.findall(r"^(\d+) \d+ \d+$", text, re.MULTILINE)))
                for who, text in zip(self.pids, texts)}


def bursts(samples):
    """What happens between one quiet second and the next, as (wake-ups, microseconds); not what is cut at the ends."""
    found, current = [], None
    for before, after in zip(samples, samples[1:]):
        if before == after:
            found += [current] if current else []
            current = (0, 0)
        elif current:
            current = tuple(sum(values) for values in zip(current, (after[0] - before[0], after[1] - before[1])))
    return [burst for burst in found if burst[0] > 0]


def require_keep_alives(counted):
    """Without one there is nothing to count or to divide by."""
    names = {"ours": "the daemon", "floor": "the bare client"}
    for who, seen in counted.items():
        if not any(wakes >= KEEP_ALIVE for wakes, _ in seen):
            raise RuntimeError(f"no keep-alive of {names[who]} was seen between two quiet seconds, "
                               f"only {len(seen)} smaller bursts of wake-ups")


class WakeUps(KeepAlives):
    name = "idle: wake-ups besides keep-alive"
    unit = "1/min"
    goal = at_most(1)
    floor_name = f"the limit, {ALLOWED_WAKE_UPS} a minute"

    def ours(self):
        return self.strays("ours")

    def floor(self):
        return ALLOWED_WAKE_UPS

    def strays(self, who):
        """A burst with the wake-ups of a keep-alive is one."""
        seen = self.seen[who]
        strays = sum(wakes - KEEP_ALIVE if wakes >= KEEP_ALIVE else wakes for wakes, _ in seen)
        return strays * MINUTE / (len(seen) * INTERVAL)

    def notes(self):
        return [f"the bare client: {self.strays('floor'):.1f} {self.unit}"]


class CpuTime(KeepAlives):
    name = "idle: CPU time of a keep-alive"
    unit = "us"
    goal = at_most(1.5)
    floor_name = "a bare client's"

    def prepare(self, context):
        super().prepare(context)
        self.left = {who: itertools.cycle([time for wakes, time in seen if wakes >= KEEP_ALIVE])
                     for who, seen in self.seen.items()}

    def ours(self):
        return next(self.left["ours"])

    def floor(self):
        return next(self.left["floor"])


WORKS = [Memory("dirty", "Private_Dirty"), Memory("proportional", "Pss"), WakeUps(), CpuTime()]
