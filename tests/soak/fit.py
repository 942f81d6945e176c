"""Whether the samples of a soak are flat: the slope of each measure, and the line below which it must stay."""

import dataclasses
import math

WARM_UP = 400   # passes after a process's start that do not count: caches fill, the heap finds its size
LONG_WARM_UP = {("store", "size"): 4000}   # the database's log grows to 4 MiB, and is used again from its beginning then
OWNER = {"store": "properties"}   # a restart of the property service shortens the log
PER = 10_000    # passes
ENOUGH = 2000   # passes without which a slope says nothing
# (where, measure, unit): the most that it may rise in PER passes. A leak of ten bytes a pass is 98 KiB.
LIMITS = {
    ("daemon", "memory", "KiB"): 64,
    ("daemon", "descriptors", ""): 0.5,
    ("daemon", "threads", ""): 0.5,
    ("properties", "memory", "KiB"): 64,
    ("properties", "descriptors", ""): 0.5,
    ("properties", "threads", ""): 0.5,
    ("store", "size", "KiB"): 64,
    ("store", "files", ""): 0.5,
}


@dataclasses.dataclass
class Slope:
    where: str
    measure: str
    unit: str
    limit: float
    slope: float    # in PER passes
    error: float    # its standard error
    least: float
    most: float
    span: int       # passes that count, of all lives together

    @property
    def held(self):
        """Not above the line, as far as its error lets one say."""
        return self.slope - 2 * self.error <= self.limit

    def __str__(self):
        return (f"{self.where} {self.measure}: {self.least:g} to {self.most:g} {self.unit}, {self.slope:+.2f} ± {self.error:.2f} "
                f"in {PER:,} passes, at most {self.limit:g}: {'held' if self.held else 'FAILED'}")


def lives(phones, where, measure):
    """Per phone and life of the process: [(passes, value)], without the warm-up."""
    found = {}
    for number, samples in enumerate(phones):
        begun = {}
        for sample in samples:
            life = (number, sample[OWNER.get(where, where)]["life"])
            first = begun.setdefault(life, sample["passes"])
            if sample["passes"] >= first + LONG_WARM_UP.get((where, measure), WARM_UP):
                found.setdefault(life, []).append((sample["passes"], sample[where][measure]))
    return [points for points in found.values() if len(points) > 2]


def slope(phones, where, measure, unit, limit):
    """One slope for all lives, each with a level of its own. None without enough passes."""
    parts = lives(phones, where, measure)
    span = sum(points[-1][0] - points[0][0] for points in parts)
    if span < ENOUGH:
        return None
    sxx = sxy = syy = 0.0
    count = 0
    for points in parts:
        x_mean = sum(x for x, _ in points) / len(points)
        y_mean = sum(y for _, y in points) / len(points)
        sxx += sum((x - x_mean) ** 2 for x, _ in points)
        sxy += sum((x - x_mean) * (y - y_mean) for x, y in points)
        syy += sum((y - y_mean) ** 2 for _, y in points)
        count += len(points)
    found = sxy / sxx
    left = max(syy - found * sxy, 0.0) / max(count - len(parts) - 1, 1)
    values = [y for points in parts for _, y in points]
    return Slope(where, measure, unit, limit, found * PER, math.sqrt(left / sxx) * PER, min(values), max(values), span)


def slopes(phones):
    """Of everything that has had enough passes."""
    found = [slope(phones, *what, limit) for what, limit in LIMITS.items()]
    return [one for one in found if one]
