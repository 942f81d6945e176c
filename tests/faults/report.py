"""Writes the figures of a complete run into docs/reliability.md."""

import datetime
import pathlib
import platform

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/reliability.md"
BEGIN, END = "<!-- figures -->\n", "<!-- end of figures -->\n"


def most(reports, figure):
    return max((report["figures"].get(figure, 0) for report in reports), default=0)


def table(rows, reports):
    lines = ["| What fails | Rows | Ways | Stages | Held | Known faults | Slowest end after SIGTERM | Most memory kept |",
             "|---|---|---|---|---|---|---|---|"]
    for what in dict.fromkeys(row.what for row in rows):
        mine = [row for row in rows if row.what == what]
        found = [reports[row.name] for row in mine]
        held = sum(not report["failed"] for report in found)
        lines.append(f"| {what} | {len(mine)} | {len({row.fault for row in mine})} | {len({row.stage for row in mine})} "
                     f"| {held} | {sum(bool(row.known) for row in mine)} | {most(found, 'stop'):.1f} s "
                     f"| {most(found, 'memory')} KiB |")
    return lines


def totals(reports, word):
    return sum(report["figures"].get(word, 0) for report in reports.values())


def figures(rows, reports, seconds, phones, seed):
    known = [f"- `{row.name}`: {row.known}" for row in rows if row.known]
    held = sum(not report["failed"] for report in reports.values())
    return "\n".join([
        f"`scripts/test faults --phones {phones} --seed {seed} --write-page`, {datetime.date.today():%d %B %Y}, "
        f"{platform.machine()}: {len(rows)} rows, {held} held, {len(known)} known faults, {seconds / 60:.0f} minutes.",
        "", *table(rows, reports), "",
        "\"Memory kept\" is what the daemon holds after the row beyond what it held before, private pages only.", "",
        f"- `kill -9` of the daemon at {totals(reports, 'daemon killed')} random moments of a pass of every kind, of the "
        f"property service at {totals(reports, 'service killed')} under {totals(reports, 'sets')} sets.",
        f"- Power cuts: {totals(reports, 'daemon power cuts')} in a pass, {totals(reports, 'service power cuts')} under sets.",
        f"- {totals(reports, 'allocations failed')} failed allocations, each in a pass of its own; "
        f"{totals(reports, 'requests lost')} requests were lost, for want of memory to read them, and "
        f"{totals(reports, 'deaths')} ended the daemon.",
        "", "Known faults:" if known else "No known faults.", *known]) + "\n"


def write(rows, reports, seconds, phones, seed):
    text = PAGE.read_text(encoding="utf-8")
    head, rest = text.split(BEGIN)
    _, tail = rest.split(END)
    PAGE.write_text(head + BEGIN + "\n" + figures(rows, reports, seconds, phones, seed) + "\n" + END + tail, encoding="utf-8")
