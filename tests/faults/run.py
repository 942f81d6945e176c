"""run.py [--build DIR] [--folder DIR] [--phones N] [--seed N] [--repeat N] [--resume] [--list] [--write-page] [PATTERN...]:
the matrix of faults.

A pattern is a row's name, a part of one, or has wildcards; without one every row runs. Several phones run side by side.
--resume leaves out the rows that have passed since the last start without it. The random moments come from the seed,
which is printed. --write-page puts the figures of a complete run into docs/reliability.md. The status is 0 if every row
held what it promises.
"""

import argparse
import json
import pathlib
import random
import shlex
import shutil
import subprocess
import sys
import threading
import time

import matrix
import report

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
FAILED = 3   # of a phone on which a row failed
LATE = 1200  # seconds after which a phone is given up


class Run:
    def __init__(self, folder, build, seed, rows, phones):
        self.folder, self.build, self.seed, self.rows, self.phones = folder, build, seed, rows, phones
        self.printed = set()
        self.printing = threading.Lock()

    def claimed(self):
        return {path.name for path in (self.folder / "claims").iterdir()}

    def left(self):
        claimed = self.claimed()
        return [row for row in self.rows if row.file not in claimed]

    def reports(self):
        found = {}
        for row in self.rows:
            path = self.folder / "results" / f"{row.file}.json"
            if path.exists():
                found[row.name] = json.loads(path.read_text(encoding="utf-8"))
        return found

    def show(self):
        """Prints the rows that have ended since the last call."""
        with self.printing:
            reports = self.reports()
            for name in [name for name in reports if name not in self.printed]:
                self.printed.add(name)
                describe(reports[name], len(self.printed), len(self.rows), self.seed)

    def phone(self, number):
        """Phones one after the other, until no row is left."""
        while rows := self.left():
            log = self.folder / f"phone-{number}.log"
            with open(log, "ab") as output:
                phone = subprocess.Popen(
                    [ROOT / "lab/phone", "--build", self.build, "--bind", self.folder, "--clock-by-hand", "--no-daemon",
                     "--no-boot-pass", "--", "/usr/bin/python3", "-B", HERE / "worker.py", self.folder, str(self.seed),
                     *(row.name for row in rows)], stdin=subprocess.DEVNULL, stdout=output, stderr=output)
            self.wait(phone)
            if phone.returncode not in (0, FAILED):
                print(f"phone {number} ended with status {phone.returncode}, see {log}", flush=True)
                if not self.claimed() or phone.returncode in (1, 2, 70):
                    return

    def wait(self, phone):
        end = time.monotonic() + LATE
        while True:
            try:
                phone.wait(0.5)
            except subprocess.TimeoutExpired:
                if time.monotonic() > end:
                    phone.kill()
            self.show()
            if phone.returncode is not None:
                return

    def run(self):
        threads = [threading.Thread(target=self.phone, args=(number,)) for number in range(self.phones)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.show()
        return self.reports()


def held(report):
    """A row that is known to fail must fail: otherwise the table is out of date."""
    return bool(report["failed"]) == bool(report["known"])


def describe(report, number, of, seed):
    word = "ok" if held(report) else "FAILED"
    if report["known"]:
        word = "known fault" if report["failed"] else "FAILED: a known fault that is gone"
    print(f"{number:4}/{of} {report['name']}: {word} ({report['seconds']} s)"
          + "".join(f"; {note}" for note in report["notes"]), flush=True)
    if not held(report):
        print(f"     promise:  {report['failed']}\n     expected: {report['expected']}\n     seen:     {report['seen']}\n"
              f"     again:    scripts/test faults --seed {seed} {shlex.quote(report['name'])}", flush=True)


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/test faults")
    parser.add_argument("--build", default=str(ROOT / "build/release"))
    parser.add_argument("--folder", help="of the reports; default: faults in the build's folder")
    parser.add_argument("--phones", type=int, default=3)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--resume", action="store_true")
    parser.add_argument("--list", action="store_true", help="prints the names of the rows")
    parser.add_argument("--write-page", action="store_true")
    parser.add_argument("--repeat", type=int, default=1)
    parser.add_argument("pattern", nargs="*")
    return parser.parse_args()


def prepare(folder, rows, resume):
    """Forgets earlier reports; with `resume` those of rows that failed."""
    if not resume:
        shutil.rmtree(folder, ignore_errors=True)
    for name in ("claims", "results"):
        (folder / name).mkdir(parents=True, exist_ok=True)
    for row in rows:
        path = folder / "results" / f"{row.file}.json"
        passed = path.exists() and held(json.loads(path.read_text(encoding="utf-8")))
        if not passed and (folder / "claims" / row.file).exists():
            (folder / "claims" / row.file).rmdir()
            path.unlink(missing_ok=True)


def once(options, rows):
    seed = options.seed if options.seed is not None else random.randrange(1 << 30)
    folder = pathlib.Path(options.folder or f"{options.build}/faults")
    prepare(folder, rows, options.resume)
    print(f"{len(rows)} rows on {options.phones} phones, seed {seed}", flush=True)
    begin = time.monotonic()
    reports = Run(folder, options.build, seed, rows, min(options.phones, len(rows))).run()
    seconds = time.monotonic() - begin
    missing = [row.name for row in rows if row.name not in reports]
    failed = [name for name, report in reports.items() if not held(report)]
    known = [name for name, report in reports.items() if report["known"]]
    for name in missing:
        print(f"not run to its end: {name}")
    for name in failed:
        print(f"failed: {name}")
    print(f"{len(reports) - len(failed)} held, {len(failed)} failed, {len(known)} known faults, {len(missing)} not run, "
          f"{seconds:.0f} s, seed {seed}")
    if options.write_page and not missing:
        report.write(rows, reports, seconds, options.phones, seed)
    return not missing and not failed


def main():
    options = arguments()
    rows = matrix.select(matrix.load(), options.pattern)
    if not rows:
        print("scripts/test faults: no row has this name", file=sys.stderr)
        return 2
    if options.write_page and (options.pattern or options.resume):
        print("scripts/test faults: --write-page is for a complete run", file=sys.stderr)
        return 2
    if options.list:
        print("\n".join(row.name for row in rows))
        return 0
    return 0 if all([once(options, rows) for _ in range(options.repeat)]) else 1


if __name__ == "__main__":
    sys.exit(main())
