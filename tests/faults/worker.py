"""worker.py FOLDER SEED NAME...: runs rows of the matrix on this phone, each that no other phone has begun.

A row is claimed by making FOLDER/claims/NAME, and leaves FOLDER/results/NAME.json. After a row that failed, this phone
ends with status 3, because nobody knows what the failure has left; the caller starts another.
"""

import json
import os
import pathlib
import re
import sys
import time
import traceback

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "system"))
# pylint: disable=wrong-import-position
import matrix
import phone
from case import Case, NotHeld
from raw_server import RawServer
from scenarios import find

FAILED = 3


def claim(folder, row):
    try:
        os.mkdir(f"{folder}/claims/{row.file}")
        return True
    except FileExistsError:
        return False


def run(row, seed):
    """The row's report."""
    case = Case(row, seed)
    begin = time.monotonic()
    report = {"name": row.name, "known": row.known, "failed": "", "expected": "", "seen": ""}
    try:
        case.setUp()
        find(row)(case)
        case.finish()
    except NotHeld as failure:
        report.update(failed=failure.word, expected=failure.expected, seen=str(failure.seen))
    except phone.Late as failure:
        report.update(failed="in time", expected="what the row waits for", seen=f"{failure}; {case.tail()}")
    except Exception as failure:
        report.update(failed="the row itself", expected="a row that runs", seen="".join(
            traceback.format_exception(failure)) + case.tail())
    finally:
        try:
            case.doCleanups()
        except Exception as failure:
            report.update(failed=report["failed"] or "the row itself", seen=report["seen"] + repr(failure))
    report.update(seconds=round(time.monotonic() - begin, 2), notes=case.notes, figures=case.figures,
                  complaints=sorted({re.sub(r"^.* ZAV (warning|error) ", "", line) for line in case.complaints()})[:20])
    return report


def main(folder, seed, *names):
    rows = {row.name: row for row in matrix.load()}
    Case.good = RawServer()
    Case.bus, Case.log = phone.Bus(), phone.Log()
    for name in names:
        if not claim(folder, rows[name]):
            continue
        report = run(rows[name], seed)
        path = f"{folder}/results/{rows[name].file}.json"
        with open(path + ".new", "w", encoding="utf-8") as file:
            json.dump(report, file, indent=1)
        os.rename(path + ".new", path)
        if report["failed"]:
            return FAILED
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
