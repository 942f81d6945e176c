#!/usr/bin/python3
"""run.py [--build DIR] [--passes N] [--phones N] [--seed S] [--restarts N] [--redo] [HOURS]: many passes on several phones side
by side, for HOURS (1) or, with --passes, until there have been N of them together.

On the first phone, and on every other one after it, nothing restarts; on the others, everything does. The status is 0 if
every pass ended as it must, and memory, descriptors, threads and the store have not grown: fit.py says what that means.
Samples, figures and the picture are in BUILD/soak; --redo judges those of the last run again.
"""

import argparse
import json
import os
import pathlib
import random
import shutil
import subprocess
import sys

import fit
import plot

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]


def start(build, folder, number, seed, passes, seconds, restarts):
    own = folder / f"phone-{number}"
    own.mkdir(parents=True)
    command = [ROOT / "lab/phone", "--build", build, "--bind", own, "--clock-by-hand", "--no-daemon", "--no-boot-pass", "--",
               "/usr/bin/python3", "-B", HERE / "soak.py", own, seed + number, passes, seconds, restarts * (number % 2)]
    with open(own / "output.log", "wb") as log:
        return subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def run(chosen, folder):
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    share = -(-chosen.passes // chosen.phones)
    seconds = round(chosen.hours * 3600) if chosen.hours or not chosen.passes else 1 << 30
    print(f"{chosen.phones} phones, seed {chosen.seed}", flush=True)
    running = [start(chosen.build.resolve(), folder, number, chosen.seed, share, seconds, chosen.restarts)
               for number in range(chosen.phones)]
    for phone in running:
        phone.wait()


def judge(folder):
    """Prints what there was; the number of failures."""
    phones, names, failed, total, kinds = [], [], 0, 0, {}
    for own in sorted(folder.glob("phone-*")):
        samples = [json.loads(line) for line in (own / "samples.jsonl").read_text().splitlines()] \
            if (own / "samples.jsonl").exists() else []
        if not (own / "figures.json").exists():
            failed += 1
            print(f"FAILED: {own.name} came to no end, see {own}/output.log")
            continue
        figures = json.loads((own / "figures.json").read_text())
        phones.append(samples)
        names.append(f"{figures['passes']:,} passes, {figures['restarts']} restarts")
        print(f"{own.name}: {names[-1]}, {figures['timed']} by the timer, {figures['seconds']} s")
        total += figures["passes"]
        for name, count in figures["kinds"].items():
            kinds[name] = kinds.get(name, 0) + count
        if figures["failure"]:
            failed += 1
            print(f"FAILED: {own.name}: {figures['failure']}")
    slopes = fit.slopes(phones)
    for slope in slopes:
        print(slope)
    failed += sum(not slope.held for slope in slopes)
    if len(slopes) < len(fit.LIMITS):
        print(f"{len(fit.LIMITS) - len(slopes)} of {len(fit.LIMITS)} measures have no slope: too few passes")
    (folder / "soak.svg").write_text(plot.picture(phones, names), encoding="utf-8")
    print(f"{total:,} passes of {len(kinds)} kinds, {failed} failures; {folder}/soak.svg")
    return failed


def main():
    arguments = argparse.ArgumentParser(prog="scripts/test soak", description=__doc__)
    arguments.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release")
    arguments.add_argument("--folder", type=pathlib.Path)
    arguments.add_argument("--passes", type=int, default=0)
    arguments.add_argument("--phones", type=int, default=os.cpu_count() or 2)
    arguments.add_argument("--restarts", type=int, default=400, help="passes between two restarts")
    arguments.add_argument("--seed", type=int, default=random.randrange(1, 1_000_000))
    arguments.add_argument("--redo", action="store_true")
    arguments.add_argument("hours", type=float, nargs="?")
    chosen = arguments.parse_args()
    if chosen.hours is None:
        chosen.hours = 0 if chosen.passes else 1
    folder = (chosen.folder or chosen.build / "soak").resolve()
    if not chosen.redo:
        run(chosen, folder)
    return 1 if judge(folder) else 0


if __name__ == "__main__":
    sys.exit(main())
