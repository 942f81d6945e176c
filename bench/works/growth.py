"""How the cost of a pass grows with what the file lists, and that of the property service with its keys: straight lines,
so what one more costs at the end of the curve is what it costs before."""

import datetime
import json
import re

import published
from work import Work, at_most

PASS = re.compile(r"^(\S+) \S+ info \S+ Provisioning (?:Started|Finished)$", re.MULTILINE)


class Growth(Work):
    """`cost(x)` in ms. The sampled points are `end` and `middle`; the curve has `points` besides."""

    unit = "us each"
    curve_unit = "ms"
    goal = at_most(1.2)
    samples = 7

    def prepare(self, context):
        self.quick = context.quick
        self.seen = {}

    def each(self, x):
        cost = self.cost(x)
        self.seen.setdefault(x, []).append(cost)
        return cost * 1000 / x

    def ours(self):
        return self.each(self.end if not self.quick else self.middle)

    def floor(self):
        return self.each(self.middle)

    def curve(self):
        """The smallest of the costs at each point: on a busy machine the others say little."""
        for x in self.points if not self.quick else self.points[:2]:
            if x not in self.seen:
                self.each(x)
        return [(x, min(costs), None) for x, costs in sorted(self.seen.items())]


class PassGrowth(Growth):
    def __init__(self, name, points, middle, end, publish):
        self.name = f"growth: {name} of a pass"
        self.curve_axis = name
        self.points, self.middle, self.end = points, middle, end
        self.publish = publish
        self.floor_name = f"the same with {middle:,} instead of {end:,}"

    def prepare(self, context):
        super().prepare(context)
        self.phone = None
        self.phone = context.phone("--no-boot-pass").settle()

    def cost(self, x):
        self.publish(self.phone, x)
        self.phone.run("zavctl", "provision", "--wait", deadline=200)
        begin, end = PASS.findall(self.phone.run("sh", "-c", "grep -E 'Provisioning (Started|Finished)$' "
                                                 "/run/phone/daemon.log | tail -n 2"))
        return (datetime.datetime.fromisoformat(end) - datetime.datetime.fromisoformat(begin)).total_seconds() * 1000

    def close(self):
        if self.phone:
            self.phone.close()


def publish_settings(phone, count):
    phone.publish("provisioning.xml", published.settings(count))


def publish_jobs(phone, count):
    phone.publish("provisioning.xml", published.jobs(count))


def publish_includes(phone, count):
    phone.publish("settings.xml", published.root("settings", published.params(1), "1.0"))
    for index in range(count):
        phone.publish(f"level-{index}.xml",
                      published.root("nvm", ['  <file version="2026-01-01_00:00:00" url="/settings.xml"/>'], "1.0"))
    phone.publish("provisioning.xml", published.includes(count))


class Keys(Growth):
    """Property services with so many keys, on a broker of their own."""

    curve_axis = "keys"
    points = (700, 10000, 30000, 50000, 100000)
    middle = 10000
    end = 50000

    def prepare(self, context):
        super().prepare(context)
        self.context = context
        self.broker = None
        self.broker, self.port = context.broker()

    def catalogue(self, count):
        path = self.context.folder / f"keys-{count}.json"
        if not path.exists():
            keys = {f"Key.{index}": {"type": "text", "default": "", "description": "-"} for index in range(count)}
            path.write_text(json.dumps({"version": 1, "keys": keys}, separators=(",", ":")), encoding="utf-8")
        return path

    def close(self):
        if self.broker:
            self.broker.stop()


class ServiceStart(Keys):
    name = "growth: keys, start of the property service"
    floor_name = f"the same with {Keys.middle:,} keys instead of {Keys.end:,}"

    def cost(self, x):
        program = self.context.start(self.context.program("bench_startup"), "Serving", self.context.program("prop-service"),
                                     "--host", "127.0.0.1", "--port", self.port, "--store",
                                     self.context.folder / f"keys-{x}.db", "--catalogue", self.catalogue(x))
        try:
            return float(program.ask("")) / 1000
        finally:
            program.stop()


WORKS = [PassGrowth("settings", (10, 100, 1000, 10000, 100000), 1000, 10000, publish_settings),
         PassGrowth("jobs", (1, 10, 100, 300, 1000), 300, 1000, publish_jobs),
         PassGrowth("included files", (1, 10, 25, 50, 100), 25, 100, publish_includes),
         ServiceStart()]
