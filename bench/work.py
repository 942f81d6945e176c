"""A work: something the programs do, beside the bare probe that does only the unavoidable part of it.

The modules in bench/works list their works in WORKS. The runner calls `prepare` once, then `ours` and `floor` in turn
`samples` times, then `curve` and `notes`, and `close` whatever happened. A work that cannot be measured raises.
"""

import dataclasses


@dataclasses.dataclass(frozen=True)
class Goal:
    """A limit for ours / floor."""

    limit: float
    at_least: bool = False

    def met_by(self, ratio):
        return ratio >= self.limit if self.at_least else ratio <= self.limit

    def __str__(self):
        return f"{'>=' if self.at_least else '<='} {self.limit:g}"


def at_most(limit):
    return Goal(limit)


def at_least(limit):
    return Goal(limit, True)


class Work:
    name = ""
    unit = ""
    goal = None          # at_most(...) or at_least(...); None if only shown
    floor_name = ""      # what the floor does, on one line
    samples = 9          # at least 7; 1 for what takes too long to be repeated
    needs_phone = False  # uses context.settled_phone(), which takes a while to settle: the runner starts it first
    is_quick = True      # takes no more than seconds with context.quick, and is left out of --quick otherwise
    curve_axis = ""      # what the x values of the curve count
    curve_unit = ""      # the unit of its y values, if it is not `unit`

    def prepare(self, context):
        """Starts and makes what both need. Runs once."""

    def ours(self):
        """One sample, in `unit`."""
        raise NotImplementedError

    def floor(self):
        """One sample of the bare probe, in `unit`."""
        raise NotImplementedError

    def curve(self):
        """Points (x, ours, floor) that show how the cost grows; `floor` may be None."""
        return []

    def notes(self):
        """Lines to print under the table."""
        return []

    def close(self):
        """Ends and removes what `prepare` started. Runs even if `prepare` failed half-way."""
