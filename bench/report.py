"""Figures of a run: medians and spreads, the table, the record that is kept, and what became slower since the last one."""

import json
import math
import statistics

WORSE_BY = 1.15


def quartiles(values):
    """Lower quartile, median and upper quartile."""
    if len(values) == 1:
        return values[0], values[0], values[0]
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return low, middle, high


def divide(ours, floor):
    """A floor can be too small to be measured."""
    if floor == 0:
        return 1.0 if ours == 0 else math.inf
    return ours / floor


def result(work, ours, floor):
    """The record of one work. The ratio is the median of the pairs measured one after the other: a machine that becomes
    slower in between changes both of a pair."""
    pairs = [divide(mine, bare) for mine, bare in zip(ours, floor)]
    ratio = statistics.median(pairs)
    low, _, high = quartiles(pairs)
    return {
        "name": work.name,
        "unit": work.unit,
        "floor_name": work.floor_name,
        "ours": dict(zip(("low", "median", "high"), quartiles(ours))),
        "floor": dict(zip(("low", "median", "high"), quartiles(floor))),
        "ratio": ratio,
        "ratio_low": low,
        "ratio_high": high,
        "goal": str(work.goal) if work.goal else "",
        "at_least": bool(work.goal and work.goal.at_least),
        "met": work.goal.met_by(ratio) if work.goal else None,
        "samples": len(ours),
    }


def number(value):
    """Three significant digits, without an exponent."""
    if value == 0:
        return "0"
    digits = max(0, 2 - len(f"{abs(value):.0f}") + 1) if abs(value) >= 1 else 3
    return f"{value:,.{digits}f}"


def spread(figure):
    if figure["low"] == figure["high"]:
        return number(figure["median"])
    return f"{number(figure['median'])} ({number(figure['low'])}-{number(figure['high'])})"


def met_word(row):
    return {True: "yes", False: "NO", None: ""}[row["met"]]


def rows(results):
    table = [("work", "ours", "floor", "unit", "ratio", "goal", "met")]
    for row in results:
        if "failed" in row:
            table.append((row["name"], "failed", "", "", "", "", "NO"))
        else:
            table.append((row["name"], spread(row["ours"]), spread(row["floor"]), row["unit"], f"{row['ratio']:.2f}",
                          row["goal"], met_word(row)))
    return table


def text_table(results):
    table = rows(results)
    widths = [max(len(line[column]) for line in table) for column in range(len(table[0]))]
    right = {1, 2, 4}
    lines = []
    for line in table:
        cells = [cell.rjust(width) if column in right else cell.ljust(width)
                 for column, (cell, width) in enumerate(zip(line, widths))]
        lines.append("  ".join(cells).rstrip())
    lines.insert(1, "-" * max(map(len, lines)))
    return "\n".join(lines)


def markdown_table(results):
    table = rows(results)
    lines = ["| " + " | ".join(line) + " |" for line in table]
    lines.insert(1, "|---|--:|--:|---|--:|---|---|")
    return "\n".join(lines)


def regressions(results, before):
    """Names what became worse: by more than 15 %, and with spreads of the ratios that do not overlap."""
    known = {row["name"]: row for row in before["works"] if "failed" not in row}
    found = []
    for row in results:
        old = known.get(row["name"])
        if old is None or "failed" in row:
            continue
        if row["at_least"]:
            worse = row["ratio"] * WORSE_BY < old["ratio"] and row["ratio_high"] < old["ratio_low"]
        else:
            worse = row["ratio"] > old["ratio"] * WORSE_BY and row["ratio_low"] > old["ratio_high"]
        if worse:
            found.append(f"{row['name']}: ratio {old['ratio']:.2f} -> {row['ratio']:.2f}")
    return found


def last_kept(folder):
    """The newest record in the folder, or None."""
    records = [json.loads(path.read_text(encoding="utf-8")) for path in folder.glob("*.json")]
    return max(records, key=lambda record: record["date"], default=None)
