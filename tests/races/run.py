#!/usr/bin/python3
"""run.py [--build DIR] [--phones N] [--seed S] [--only-planted] [--only-storms] [STORMS]: looks for races.

A planted race, which must be found; the unit and flow tests; and STORMS (50) on several phones side by side: each starts the
daemon, floods it with messages and ends it. All programs have the thread sanitizer, and a preload library disturbs their
schedule as the printed seed says. The status is 0 if the sanitizer has reported the planted race and nothing else, and all
tests have passed. The reports are in BUILD/races.
"""

import argparse
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
SEEDS = 5  # with which the planted race is tried
LIMIT = 900  # seconds for a test program
SUMMARY = re.compile(r"SUMMARY: ThreadSanitizer: (.*)")


class Run:
    def __init__(self, build, seed):
        self.build, self.seed = build, seed
        self.folder = build / "races"
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        self.noise = build / "tests/noise.so"
        self.failed = []

    def environment(self, seed, log="stderr"):
        return {"NOISE_SEED": str(seed),
                "TSAN_OPTIONS": f"exitcode=66:second_deadlock_stack=1:log_path={log}:suppressions={HERE}/suppressions.txt"}

    def fail(self, what):
        self.failed.append(what)
        print(f"FAILED: {what}", flush=True)

    def planted(self):
        """The sanitizer must find this one."""
        for seed in range(self.seed, self.seed + SEEDS):
            done = subprocess.run([self.build / "tests/planted-race"], capture_output=True, text=True, timeout=LIMIT,
                                  env={**os.environ, **self.environment(seed), "LD_PRELOAD": str(self.noise)})
            if "WARNING: ThreadSanitizer: data race" in done.stderr and done.returncode == 66:
                print(f"planted race: found with seed {seed}", flush=True)
                return
        self.fail(f"the planted race was not found with {SEEDS} seeds")

    def programs(self):
        """(name, command before the program, program and arguments) of the unit and flow tests."""
        listed = subprocess.run(["ctest", "--test-dir", self.build, "--show-only=json-v1", "-L", "^(unit|flow)$"],
                                capture_output=True, text=True, check=True).stdout
        for test in json.loads(listed)["tests"]:
            command = test["command"]
            if command[0].endswith("/lab/sandbox"):
                at = command.index("--") + 1
                yield test["name"], command[:at], command[at:]

    def tests(self):
        for name, before, program in self.programs():
            begin = time.monotonic()
            output = ""
            for seed in (self.seed, self.seed + 1):  # a time-out of a test's own may be too short for the noise
                log = self.folder / f"{name}-{seed}.log"
                variables = [f"{key}={text}" for key, text in self.environment(seed).items()]
                with open(log, "w", encoding="utf-8") as file:
                    status = subprocess.run([*before, "env", f"LD_PRELOAD={self.noise}", *variables, *program], stdin=subprocess.DEVNULL,
                                            stdout=file, stderr=file, timeout=LIMIT).returncode
                output += log.read_text(encoding="utf-8", errors="replace")
                if status == 0 or SUMMARY.search(output):
                    break
            found = SUMMARY.findall(output)
            if found:
                self.fail(f"{name}: {len(found)} reports: {found[0]}; {log}")
            elif status != 0:
                self.fail(f"{name}: status {status} twice; {log}")
            print(f"{name}: {len(found)} reports, {time.monotonic() - begin:.0f} s", flush=True)

    def storms(self, count, phones):
        shares = [count // phones + (i < count % phones) for i in range(phones)]
        running = []
        for number, share in enumerate(shares):
            if not share:
                continue
            seed = self.seed + number
            folder = self.folder / f"phone-{number}"
            folder.mkdir()
            log = open(folder / "output.log", "wb")
            environment = {**os.environ, **self.environment(seed, folder / "report"), "LAB_PRELOAD": str(self.noise)}
            del environment["NOISE_SEED"]  # not while the phone boots
            running.append((folder, subprocess.Popen(
                [ROOT / "lab/phone", "--build", self.build, "--bind", folder, "--clock-by-hand", "--no-daemon", "--no-boot-pass",
                 "--device-services", "--", "/usr/bin/python3", "-B", HERE / "storms.py", folder, str(seed), str(share)],
                env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log)))
        totals = {"storms": 0, "messages": 0, "passes": 0}
        for folder, phone in running:
            status = phone.wait()
            figures = [json.loads(path.read_text()) for path in folder.glob("storms-*.json")]
            for name in totals:
                totals[name] += sum(one[name] for one in figures)
            failures = [text for one in figures for text in one["failures"]]
            if status != 0:
                failures.append(f"ended with status {status}")
            for failure in failures:
                self.fail(f"{folder.name}: {failure}; {folder}/output.log")
            reports = sorted(folder.glob("report.*"))
            for report in reports:
                for summary in SUMMARY.findall(report.read_text(errors="replace")):
                    self.fail(f"{folder.name}: {summary}; {report}")
        if totals["storms"] != count:
            self.fail(f"{totals['storms']} of {count} storms were run")
        print(f"{totals['storms']} storms: {totals['messages']} messages, {totals['passes']} passes", flush=True)


def main():
    arguments = argparse.ArgumentParser(prog="scripts/test races", description=__doc__)
    arguments.add_argument("--build", type=pathlib.Path, default=ROOT / "build/tsan")
    arguments.add_argument("--phones", type=int, default=2 * (os.cpu_count() or 1))
    arguments.add_argument("--seed", type=int, default=random.randrange(1, 1_000_000))
    arguments.add_argument("--only-planted", action="store_true")
    arguments.add_argument("--only-storms", action="store_true")
    arguments.add_argument("storms", type=int, nargs="?", default=50)
    chosen = arguments.parse_args()
    begin = time.monotonic()
    print(f"seed {chosen.seed}", flush=True)
    run = Run(chosen.build.resolve(), chosen.seed)
    run.planted()
    if not chosen.only_planted:
        if not chosen.only_storms:
            run.tests()
        run.storms(chosen.storms, chosen.phones)
    print(f"{len(run.failed)} failures, {time.monotonic() - begin:.0f} s, seed {chosen.seed}")
    return 1 if run.failed else 0


if __name__ == "__main__":
    sys.exit(main())
