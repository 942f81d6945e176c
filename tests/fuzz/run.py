#!/usr/bin/python3 -B
"""Runs the fuzz targets of a build, one after the other, or N at a time:
run.py [--minimise] [--minutes N] [--quiet N] [--jobs N] BUILD [TARGET...].

Each starts with the corpus in the tree and what earlier runs found, which BUILD/corpus keeps. The table at the end has
a row for each target; with --quiet, a target ends early when an input last covered a new edge N minutes of its processor
time ago. Inputs that broke a promise or crash are in BUILD/found. With --minimise, each target's
corpus in the tree is replaced by the fewest inputs with the same coverage; files with names that a person gave them stay.
"""

import argparse
import concurrent.futures
import math
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

FOLDER = pathlib.Path(__file__).resolve().parent
SECONDS_PER_INPUT = 60  # of real time, and the machine may be busy
MEGABYTES = 1024
INTERRUPTED = 72  # libFuzzer's status after SIGINT
HASHED = re.compile(r"[0-9a-f]{12}|[0-9a-f]{40}")  # the name of an input that libFuzzer made
STATUS = re.compile(r"^#(\d+)\s+\w+\s+cov: (\d+) ft: (\d+) corp: (\d+)")


class Target:
    def __init__(self, build, name):
        self.name = name
        self.program = build / "bin" / f"fuzz_{name}"
        self.tree = FOLDER / "corpus" / name
        self.dictionary = FOLDER / "dictionaries" / f"{name}.dict"
        self.corpus = build / "corpus" / name
        self.log = build / "logs" / f"{name}.log"
        self.found = build / "found"
        for folder in (self.corpus, self.log.parent, self.found):
            folder.mkdir(parents=True, exist_ok=True)

    def command(self, *arguments):
        dictionary = [f"-dict={self.dictionary}"] if self.dictionary.exists() else []
        return [self.program, f"-timeout={SECONDS_PER_INPUT}", f"-report_slow_units={SECONDS_PER_INPUT}",
                f"-rss_limit_mb={MEGABYTES}", *dictionary, *arguments]

    def findings(self):
        return {path.name for path in self.found.glob(f"{self.name}-*")}

    def run(self, seconds, enough=math.inf):
        """Fuzzes until time is up or no new edge was covered for `enough` seconds; returns a row of the table."""
        before = self.findings()
        row = {"executions": 0, "coverage": 0, "features": 0, "quiet": 0, "last_new": 0}
        begin, ended = time.monotonic(), threading.Event()
        process = subprocess.Popen(
            self.command(f"-max_total_time={seconds}", f"-artifact_prefix={self.found}/{self.name}-",
                         "-print_final_stats=1", self.corpus, self.tree),
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, errors="replace",
            env=environment())
        watcher = threading.Thread(target=end_when_quiet, args=(process, row, enough, ended))
        watcher.start()
        with open(self.log, "w", encoding="utf-8") as log:
            for line in process.stderr:
                log.write(line)
                if match := STATUS.match(line):
                    if int(match[2]) > row["coverage"]:
                        row["last_new"] = processor_time(process.pid)
                    row["executions"], row["coverage"], row["features"] = (int(match[i]) for i in (1, 2, 3))
                elif line.startswith("stat::number_of_executed_units:"):
                    row["executions"] = int(line.split()[-1])
        ended.set()
        watcher.join()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        row["failed"] = process.returncode not in (0, INTERRUPTED)
        row["seconds"] = time.monotonic() - begin
        row["processor"] = usage.ru_utime + usage.ru_stime
        row["quiet"] = row["processor"] - row["last_new"]
        row["inputs"] = len({path.name for folder in (self.corpus, self.tree) for path in folder.iterdir()})
        row["found"] = sorted(self.findings() - before)
        return row

    def minimise(self):
        """Replaces the corpus in the tree: one input for each edge of the program that any input reaches."""
        self.tree.mkdir(exist_ok=True)
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(self.command("-merge=1", "-use_counters=0", folder, self.tree, self.corpus), check=True,
                           stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                           env=environment())
            for path in self.tree.iterdir():
                if HASHED.fullmatch(path.name):
                    path.unlink()
            for path in pathlib.Path(folder).iterdir():
                shutil.copy(path, self.tree / path.name[:12])
        size = sum(path.stat().st_size for path in self.tree.iterdir())
        print(f"{self.name}: {len(list(self.tree.iterdir()))} inputs, {size} bytes")


def end_when_quiet(process, row, enough, ended):
    """Ends libFuzzer as Ctrl-C does: it prints its figures."""
    while not ended.wait(5):
        if processor_time(process.pid) - row["last_new"] >= enough:
            process.send_signal(signal.SIGINT)
            return


def processor_time(pid):
    """Seconds: on a busy machine, real time says little."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def environment():
    """Files of inputs belong in memory."""
    return {**os.environ, **({"TMPDIR": "/dev/shm"} if os.access("/dev/shm", os.W_OK) else {})}


def show(name, row):
    rate = row["executions"] / max(row["processor"], 1)
    print(f"{name:18} {row['executions']:>11,} {rate:>8,.0f} {row['coverage']:>8,} {row['features']:>8,} "
          f"{row['inputs']:>7,} {row['processor'] / 60:>9.1f} {row['quiet'] / 60:>9.1f}  {'FAILED' if row['failed'] else 'ok'}",
          flush=True)


def main():
    parser = argparse.ArgumentParser(prog="scripts/test fuzz")
    parser.add_argument("--minimise", action="store_true")
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--quiet", type=float, default=math.inf)
    parser.add_argument("--jobs", type=int, default=1)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("targets", nargs="*")
    arguments = parser.parse_intermixed_args()
    build = arguments.build.resolve()
    known = sorted(path.name.removeprefix("fuzz_") for path in (build / "bin").glob("fuzz_*")
                   if not path.name.endswith("_test"))
    if unknown := [name for name in arguments.targets if name not in known]:
        sys.exit(f"scripts/test fuzz: there is no target '{unknown[0]}'; there are: {' '.join(known)}")
    targets = [Target(build, name) for name in arguments.targets or known]
    pool = concurrent.futures.ThreadPoolExecutor(arguments.jobs)
    if arguments.minimise:
        list(pool.map(Target.minimise, targets))
        return 0
    print(f"{'target':18} {'executions':>11} {'a second':>8} {'edges':>8} {'features':>8} {'inputs':>7} "
          f"{'CPU min.':>9} {'quiet':>9}  result", flush=True)
    failures = []
    running = {pool.submit(target.run, round(arguments.minutes * 60), arguments.quiet * 60): target for target in targets}
    for done in concurrent.futures.as_completed(running):
        target, row = running[done], done.result()
        show(target.name, row)
        if row["failed"]:
            failures.append((target, row["found"]))
    for target, found in failures:
        print(f"\n{target.name}: see {target.log}")
        for name in found:
            print(f"  again: {target.program} {target.found / name}")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
