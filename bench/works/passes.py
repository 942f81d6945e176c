"""Passes, from the request on the bus to the result on the bus: the file is encrypted, the phone on one CPU."""

import datetime
import math
import statistics

from work import Work, at_most

# The daemon's log lines that end the phases of a pass. Their times are in milliseconds; the mean of many passes is finer.
PHASES = [
    ('State.Provisioning content: {"param":"State.Provisioning","value":"request"', None),
    ("Start provisioning thread", "request to thread"),
    ("Provisioning Started", "read the configuration"),
    ("Provisioning XML from", "lock the screen"),
    ("is verifiable", "GET, fsync, openssl, parse"),
    ("Applying param", "verify, collect jobs"),
    ("-----Finishing", "settings"),
    ("Provisioning Finished", "unlock the screen"),
    ("Provisioning succeeded", "result"),
]


def waterfall(log):
    """(phase, mean milliseconds) of the passes in the log, without the slowest tenth: the result is on the bus before its
    line is in the log, which may have to wait until the floor, started next, leaves the CPU."""
    passes, times = [], []
    for line in log.splitlines():
        if PHASES[0][0] in line:
            times = []
        if len(times) < len(PHASES) and PHASES[len(times)][0] in line:
            times.append(datetime.datetime.fromisoformat(line.split()[0]).timestamp() * 1000)
            if len(times) == len(PHASES):
                passes.append([after - before for before, after in zip(times, times[1:])])
    if not passes:
        raise RuntimeError("the log has no whole pass")
    usual = sorted(passes, key=sum)[:math.ceil(len(passes) * 0.9)]
    return [(phase, statistics.fmean(phases)) for (_, phase), phases in zip(PHASES[1:], zip(*usual))]


def file_of(settings):
    params = "".join(f'<param name="PhoneUI.Expansion.{i % 3}.Keys.{i % 20}.{("Label", "Type", "Value")[i // 60 % 3]}" '
                     f'value="value {i}"/>\n' for i in range(settings))
    return f'<provisioning version="1.1" productID="kd4v">\n<nvm>\n{params}</nvm>\n</provisioning>\n'


class Pass(Work):
    unit = "ms"
    needs_phone = True

    def __init__(self, settings, goal=1.3):
        self.settings = settings
        self.name = "pass of one setting: fixed cost" if settings == 1 else f"pass of {settings:,} settings"
        self.goal = at_most(goal)
        self.floor_name = f"GET + fsync + openssl by sh + parse + {settings:,} bare sets on the same service"
        self.parts = []
        self.samples = 31 if settings <= 10 else 9 if settings <= 1000 else 7
        self.started = []

    def prepare(self, context):
        settings = min(self.settings, 2000) if context.quick else self.settings
        phone = context.settled_phone()
        phone.pin(context.cpu(0))
        phone.set("System.Provision.ProvisioningServer", "http://provisioning.test/")
        name = f"pass-{settings}.xml"
        phone.publish(name, file_of(settings))
        phone.run("openssl", "enc", "-aes-128-cbc", "-salt", "-pass", "file:/etc/zav.d/key", "-in", f"/srv/www/{name}",
                  "-out", phone.folder / "encrypted")
        (phone.folder / "encrypted").replace(phone.www / "provisioning.xml")
        self.passes = phone.start(context.program("bench_pass"), 1883)
        self.bare = phone.start(context.program("floor_pass"), 1883)
        self.started = [self.passes, self.bare]
        self.request = f"http://provisioning.test/provisioning.xml {settings}"
        self.phone = phone
        if self.settings <= 1000:  # a first time for both; a long pass needs none
            self.ours()
            self.floor()
        self.before = len(phone.log())

    def ours(self):
        time, result = self.passes.ask("pass").split()
        if result != "success":
            raise RuntimeError(f"the pass ended with {result}")
        return float(time)

    def floor(self):
        total, *parts = map(float, self.bare.ask(self.request).split())
        self.parts.append(parts)
        return total

    def notes(self):
        if self.settings != 1:
            return []
        ours = waterfall(self.phone.log()[self.before:])
        floor = zip(("GET, fsync", "openssl by sh", "parse", "set"), map(statistics.median, zip(*self.parts)))
        return ["ours, ms: " + "; ".join(f"{phase} {time:.2f}" for phase, time in ours),
                "floor, ms: " + "; ".join(f"{phase} {time:.2f}" for phase, time in floor)]

    def close(self):
        for program in self.started:
            program.stop()


WORKS = [Pass(1), Pass(10), Pass(1000), Pass(100_000)]
