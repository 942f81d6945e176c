"""A log line, and one whose level is off."""

import json
import subprocess

from work import Work, at_most

LIMIT_NS = 5


class LogLine(Work):
    """`series` is a benchmark of bench_log; standard error is a file, or a socket as the journal's."""

    unit = "ns CPU"
    samples = 9

    def __init__(self, name, series, bare, goal, floor_name, socket=False):
        self.name = name
        self.series = series
        self.bare = bare
        self.goal = goal
        self.floor_name = floor_name
        self.socket = socket

    def prepare(self, context):
        self.context = context
        self.seen = []

    def measured(self, series):
        with open(self.context.folder / "log-lines", "w", encoding="utf-8") as log:
            done = subprocess.run([self.context.program("bench_log"), f"--benchmark_filter=^{series}$",
                                   "--benchmark_format=json", "--benchmark_min_time=0.05",
                                   *(["socket"] if self.socket else [])],
                                  stdout=subprocess.PIPE, stderr=log, text=True, check=True)
        (row,) = json.loads(done.stdout)["benchmarks"]
        assert row["time_unit"] == "ns"
        return row["cpu_time"]

    def ours(self):
        return self.measured(self.series)

    def floor(self):
        return self.measured(self.bare)


class MaskedLine(LogLine):
    def floor(self):
        self.seen.append(self.measured(self.bare))
        return LIMIT_NS

    def notes(self):
        return [f"a branch takes {sorted(self.seen)[len(self.seen) // 2]:.2f} ns"]


WORKS = [LogLine("log line to a file", "line", "plainWrite", at_most(2), "write of the same bytes"),
         LogLine("log line to the journal's socket", "line", "plainWrite", at_most(2), "write of the same bytes", True),
         MaskedLine("log line that is masked", "maskedLine", "branch", at_most(1), f"the limit, {LIMIT_NS} ns")]
