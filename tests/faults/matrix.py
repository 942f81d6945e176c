"""Reads the table of faults: matrix.txt says what its columns and words mean."""

import dataclasses
import fnmatch
import pathlib
import re

# Promises, each with a method hold_... of case.Case that looks at it, in the order in which they are looked at.
WORDS = ("pass ends", "daemon stays", "unlocked", "result", "all settings", "code", "log", "no log", "felt", "peak", "whole files", "no partial file",
         "next pass", "memory", "stops")
TABLE = pathlib.Path(__file__).with_name("matrix.txt")


@dataclasses.dataclass(frozen=True)
class Row:
    what: str
    fault: str
    stage: str
    holds: tuple    # what must hold, in the order of the table: ("result", "success|fail"), ("unlocked", "")
    known: str      # why the row fails today, or nothing

    @property
    def name(self):
        return f"{self.what}/{self.fault}/{self.stage}"

    @property
    def file(self):
        """Its name as that of a file."""
        return re.sub(r"[^A-Za-z0-9.,-]+", "_", self.name)

    def argument(self, word):
        """What stands behind the word, or None where the row does not have it."""
        return next((argument for one, argument in self.holds if one == word), None)


def split(promise):
    """The word, and what stands behind it."""
    word = next((word for word in (*WORDS, "known") if f"{promise} ".startswith(f"{word} ")), None)
    if word is None:
        raise ValueError(f"unknown promise {promise!r}")
    return word, promise[len(word):].strip()


def promises(text, sets):
    """The words of a "must hold" column, those of a named set in its place; a later word replaces an earlier one."""
    held = {}
    for one in filter(None, (part.strip() for part in text.split(";"))):
        held.update(sets[one] if one in sets else [split(one)])
    known = held.pop("known", "")
    return tuple(sorted(held.items(), key=lambda one: WORDS.index(one[0]))), known


def parse(text):
    sets, rows = {}, []
    for number, line in enumerate(text.splitlines(), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        if line.startswith("set "):
            name, _, words = line[4:].partition("=")
            sets[name.strip()] = promises(words, sets)[0]
            continue
        columns = [column.strip() for column in line.split("|")]
        if len(columns) != 4 or not all(columns):
            raise ValueError(f"line {number}: a row has four columns: {line}")
        rows.append(Row(*columns[:3], *promises(columns[3], sets)))
    names = [row.name for row in rows]
    twice = sorted({name for name in names if names.count(name) > 1})
    if twice:
        raise ValueError(f"rows that stand twice: {', '.join(twice)}")
    return rows


def load():
    return parse(TABLE.read_text(encoding="utf-8"))


def select(rows, patterns):
    """Rows whose name is, matches or contains one of the patterns; all without patterns."""
    def chosen(row):
        return any(row.name == one or fnmatch.fnmatchcase(row.name, one) or one in row.name for one in patterns)

    exact = [row for row in rows if row.name in patterns]
    if exact and len(exact) == len(patterns):
        return exact
    return [row for row in rows if not patterns or chosen(row)]
