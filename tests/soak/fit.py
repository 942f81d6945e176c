"""Whether the samples of a soak are flat: the slope of each measure, and the line below which it must stay."""

import dataclasses
import math
import statistics

WARM_UP = 400   # passes after a process's start that do not count: caches fill, the heap finds its size
LONG_WARM_UP = {("store", "size"): 4000}   # the database's log grows to 4 MiB, and is used again from its beginning then
OWNER = {"store": "properties"}   # a restart of the property service shortens the log
PER = 10_000    # passes
ENOUGH = 2000   # passes without which a slope says nothing
MOST_POINTS = 200   # of a life, whose pairs are compared
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
    error: float    # its standard error, as far as single peaks do not count
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
    found = statistics.median(slope for points in parts for slope in pairwise(points))
    residuals = [abs(one - statistics.median(level)) for level in levels(parts, found) for one in level]
    spread = 1.4826 * statistics.median(residuals)   # as a standard deviation
    sxx = sum((x - statistics.fmean(x for x, _ in points)) ** 2 for points in parts for x, _ in points)
    values = [y for points in parts for _, y in points]
    return Slope(where, measure, unit, limit, found * PER, spread / math.sqrt(sxx) * PER, min(values), max(values), span)


def pairwise(points):
    """The slopes between all pairs: their median ignores a step, as where the heap returns memory, and single peaks."""
    points = points[::max(1, len(points) // MOST_POINTS)]
    return [(y - b) / (x - a) for number, (a, b) in enumerate(points) for x, y in points[number + 1:]]


def levels(parts, found):
    return [[y - found * x for x, y in points] for points in parts]


def slopes(phones):
    """Of everything that has had enough passes."""
    found = [slope(phones, *what, limit) for what, limit in LIMITS.items()]
    return [one for one in found if one]
