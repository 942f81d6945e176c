"""report.py REPORT: coverage by folder from llvm-cov's JSON file, and the lines of src that no test reaches.

The status is 0 if each folder reaches its goals, and the lines of src that are not reached are those that uncovered.txt
names: a line that is missing there, and one that is there without need, are failures.
"""

import collections
import json
import os
import pathlib
import sys

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parents[1]
# Folder: least percentage of lines and of branches. A branch is one of the two outcomes of a condition of the source, of
# each operand of && and || too, or a case of a switch.
GOALS = {"src": (98, 92), "platform": (98, 92), "services": (98, 92), "tools": (98, 92)}


# Counts are differences of counters. One that is negative, as behind a fork, appears as the greatest number there is.
NEGATIVE = 2**63 - 1


class File:
    """One source: how often each line and each branch was reached."""

    def __init__(self):
        self.lines = {}
        self.branches = collections.Counter()


def line_counts(segments):
    """{line: how often it was reached}, from where the count changes: [line, column, count, counted, begins, gap].

    As llvm-cov counts, except for the line behind a block that may return or throw. There it takes the space between the
    two for the line, and the line for one that is never reached.
    """
    counts, before = {}, None
    lines = collections.defaultdict(list)
    for line, _, count, counted, begins, gap in segments:
        lines[line].append((count, counted, begins, gap))
    for line in range(min(lines, default=0), max(lines, default=-1) + 1):
        here = lines.get(line, [])
        found = [count for count, counted, begins, gap in here if counted and begins and not gap]
        if before and before[1]:
            behind_gap = before[3] and here and not here[0][2] and not here[0][3]
            found.append(here[0][0] if behind_gap else before[0])
        if found and not (here and here[0][2] and not here[0][1]):
            counts[line] = max(found)
        before = here[-1] if here else before
    return counts


def read(path, root=ROOT):
    """{path below root: File} of a report."""
    files = {}
    for each in json.loads(path.read_text(encoding="utf-8"))["data"][0]["files"]:
        one = files[os.path.relpath(os.path.realpath(each["filename"]), root)] = File()
        one.lines = line_counts(each["segments"])
        # A condition in a template is there once for each type.
        for *place, true, false, _, _, _ in each["branches"]:
            one.branches[(*place, True)] += true % NEGATIVE
            one.branches[(*place, False)] += false % NEGATIVE
    return files


def named(path=HERE / "uncovered.txt"):
    """{(file, text of the line): times} of the lines that need no test."""
    found = collections.Counter()
    for line in path.read_text(encoding="utf-8").splitlines():
        if not line or line.startswith("#"):
            continue
        parts = [part.strip() for part in line.split(" | ")]
        if len(parts) != 3 or not all(parts):
            raise SystemExit(f"{path}: not 'FILE | TEXT | REASON': {line!r}")
        found[parts[0], parts[1]] += 1
    return found


def counts(files, folder):
    """How often each line and each branch of a folder was reached."""
    found = [one for file, one in files.items() if file.split("/")[0] == folder]
    return [count for one in found for count in one.lines.values()], [count for one in found for count in one.branches.values()]


def unreached(files, root=ROOT):
    """[(file, number, text)] of src. The end of a block is left out: what stands in the block is named."""
    found = []
    for file, one in sorted(files.items()):
        if file.startswith("src/"):
            text = (root / file).read_text(encoding="utf-8").splitlines()
            lines = [(number, text[number - 1].strip()) for number, count in sorted(one.lines.items())
                     if not 0 < count < NEGATIVE]
            found += [(file, number, line) for number, line in lines if line != "}"]
    return found


def percent(counted):
    return 100.0 * sum(0 < count < NEGATIVE for count in counted) / len(counted) if counted else 100.0


def judge(files, allowed, root=ROOT):
    """What is wrong, one line each."""
    wrong = []
    for folder, goals in GOALS.items():
        lines, branches = counts(files, folder)
        print(f"{folder:9} lines {percent(lines):5.1f} % of {len(lines)}, branches {percent(branches):5.1f} % of {len(branches)}")
        wrong += [f"{folder}: {percent(counted):.1f} % of the {what}, the goal is {least} %"
                  for what, counted, least in zip(("lines", "branches"), (lines, branches), goals) if percent(counted) < least]
    left = allowed.copy()
    for file, number, text in unreached(files, root):
        if left[file, text]:
            left[file, text] -= 1
        else:
            wrong.append(f"{file}:{number}: no test reaches it: {text}")
    wrong += [f"uncovered.txt names a line that a test reaches, or that is gone: {file}: {text}"
              for (file, text), times in left.items() for _ in range(times)]
    return wrong


def main():
    wrong = judge(read(pathlib.Path(sys.argv[1])), named())
    for line in wrong:
        print(f"FAILED: {line}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
