"""What the test expects of the property store and of the daemon's timer, independent of both."""

import datetime
import time

NIGHT = datetime.time(3, 53, 15)
MARGIN = 30     # seconds of the phone's time: nobody sees the moment at which a wait begins


class Settings:
    """The property store in ten lines: the last value that was written, or several where an outage left it open."""

    def __init__(self):
        self.possible = {}

    def set(self, key, value):
        self.possible[key] = {value}

    def maybe(self, key, value):
        self.possible[key].add(value)

    def wrong(self, found):
        """Of the values that were found, those that nobody has written. The others are certain from now on."""
        wrong = {key: (value, sorted(self.possible[key])) for key, value in found.items() if value not in self.possible[key]}
        self.possible = {key: {value} for key, value in found.items()}
        return wrong


class Timer:
    """When the daemon asks for a pass by itself. `window` holds the first and the last moment, in seconds of its own
    clock, at which it may; `least` and `most` count the requests."""

    def __init__(self, wall):
        self.wall = wall        # reads the phone's date
        self.moved = 0          # seconds by which the clock has jumped
        self.period = None      # seconds; 0 is every night; None is off
        self.window = None
        self.least = self.most = 0

    def now(self):
        return time.monotonic() + self.moved

    def start(self, period, begun):
        """The daemon began its wait between `begun` and now."""
        self.period = period
        if period is None:
            return self.stop()
        length = period or self.until_night()
        self.window = (begun + length - 2, self.now() + length + 2)

    def until_night(self):
        date = self.wall()
        night = datetime.datetime.combine(date.date(), NIGHT)
        return (night - date).total_seconds() + (86400 if night < date else 0)

    def stop(self):
        self.window = None

    def safe(self, seconds):
        """So many seconds, or a few more: after them it is certain whether a request was due."""
        if self.window is None or self.now() + seconds < self.window[0] - MARGIN:
            return seconds
        return max(seconds, int(self.window[1] - self.now()) + MARGIN)

    def jumped(self, seconds):
        """The clock was moved. Whether a request came due: True, False or "maybe"; the next one is a period later."""
        begun = self.now()
        self.moved += seconds
        if self.window is None or self.now() < self.window[0]:
            return False
        certain = begun + seconds >= self.window[1]
        self.most += 1
        self.start(self.period, begun + seconds if certain else begun)
        if not certain:
            self.window = (self.window[0], self.window[1] + (self.period or 86400) + seconds)
        return True if certain else "maybe"
