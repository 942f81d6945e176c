"""report.py LINES BRANCHES: coverage by folder from llvm-cov's LCOV file and its JSON file, and the lines of src that no test
reaches.

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
GOALS = {"src": (98, 92), "platform": (98, 92), "services": (98, 92), "tools": (90, 70)}


class File:
    """One source: how often each line and each branch was reached."""

    def __init__(self):
        self.lines = {}
        self.branches = collections.Counter()


def read(lines, branches, root=ROOT):
    """{path below root: File} of the two files."""
    files = collections.defaultdict(File)

    def at(path):
        return files[os.path.relpath(os.path.realpath(path), root)]

    for line in lines.read_text(encoding="utf-8").splitlines():
        kind, _, rest = line.partition(":")
        if kind == "SF":
            one = at(rest)
        elif kind == "DA":
            number, count = map(int, rest.split(",")[:2])
            one.lines[number] = count
    for each in json.loads(branches.read_text(encoding="utf-8"))["data"][0]["files"]:
        one = at(each["filename"])
        # A condition in a template is there once for each type.
        for *place, true, false, _, _, _ in each["branches"]:
            one.branches[(*place, True)] += true
            one.branches[(*place, False)] += false
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
    """[(file, number, text)] of src."""
    found = []
    for file, one in sorted(files.items()):
        if file.startswith("src/"):
            text = (root / file).read_text(encoding="utf-8").splitlines()
            found += [(file, number, text[number - 1].strip()) for number, count in sorted(one.lines.items()) if not count]
    return found


def percent(counted):
    return 100.0 * sum(count > 0 for count in counted) / len(counted) if counted else 100.0


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
    wrong = judge(read(*map(pathlib.Path, sys.argv[1:3])), named())
    for line in wrong:
        print(f"FAILED: {line}")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
