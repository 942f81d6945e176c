#!/usr/bin/python3
"""N random lives (20) on several phones side by side, each with a seed of its own, counted from the one that is printed.
Prints the figures, and each life that failed, in its shortest form. The logs are in BUILD/lives."""

import argparse
import os
import pathlib
import random
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
PROJECT = HERE.parents[1]
FIGURES = re.compile(r"^seed \d+: (\d+) lives, (\d+) steps, (\d+) passes, (\d+) checks", re.M)


def start(build, kept, count, seed, steps):
    environment = {**os.environ, "LIVES": str(count), "LIVES_SEED": str(seed), "LIVES_STEPS": str(steps),
                   "LIVES_KEPT": str(kept / "kept")}
    with open(kept / f"{seed}.log", "wb") as log:
        return subprocess.Popen([PROJECT / "lab/phone", "--build", build, "--clock-by-hand", "--no-daemon", "--no-properties",
                                 "--no-broker", "--bind", kept, "--", "/usr/bin/python3", "-B", HERE / "test_lives.py"],
                                env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log)


def main():
    arguments = argparse.ArgumentParser(description=__doc__)
    arguments.add_argument("build", type=pathlib.Path)
    arguments.add_argument("lives", type=int, nargs="?", default=20)
    arguments.add_argument("--seed", type=int, default=random.randrange(1, 1_000_000))
    arguments.add_argument("--steps", type=int, default=60)
    arguments.add_argument("--phones", type=int, default=2 * (os.cpu_count() or 1))
    chosen = arguments.parse_args()
    kept = chosen.build.resolve() / "lives"
    kept.mkdir(exist_ok=True)
    phones = min(chosen.phones, chosen.lives)
    shares = [chosen.lives // phones + (i < chosen.lives % phones) for i in range(phones)]
    print(f"{chosen.lives} lives of {chosen.steps} steps on {phones} phones, --seed {chosen.seed}", flush=True)
    running = [(seed, start(chosen.build.resolve(), kept, share, seed, chosen.steps))
               for seed, share in enumerate(shares, chosen.seed)]
    failed, totals = 0, [0, 0, 0, 0]
    for seed, phone in running:
        status = phone.wait()
        text = (kept / f"{seed}.log").read_text(encoding="utf-8", errors="replace")
        for figures in FIGURES.findall(text):
            totals = [total + int(figure) for total, figure in zip(totals, figures)]
        if status:
            failed += 1
            print(f"A life failed; all of it in {kept}/{seed}.log\n" + "\n".join(
                line for line in text.splitlines() if line.startswith(("seed ", "NAME |", "it did not fail again"))), flush=True)
    print(f"{totals[0]} lives, {totals[1]} steps, {totals[2]} passes, {totals[3]} checks; on {failed} of {phones} phones a life "
          "failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
