"""Runs the works beside their floors: see scripts/bench."""

import argparse
import datetime
import importlib
import json
import os
import pathlib
import platform
import re
import signal
import subprocess
import sys
import time
import traceback

import page
import plot
import report
from context import ROOT, Context

HISTORY = ROOT / "bench/history"


def works_of_all_modules():
    found = []
    for path in sorted((ROOT / "bench/works").glob("*.py")):
        found += importlib.import_module(f"works.{path.stem}").WORKS
    names = [work.name for work in found]
    repeated = {name for name in names if names.count(name) > 1}
    if repeated:
        raise ValueError(f"several works have the same name: {sorted(repeated)}")
    # Works of the shared phone come last: it settles while the others run.
    return sorted(found, key=lambda work: work.needs_phone)


def measure(work, context, curves, notes):
    """The record of one work, from samples of ours and of the floor in turn."""
    try:
        work.prepare(context)
        samples = 1 if work.samples == 1 else 3 if context.quick else max(7, work.samples)
        ours, floor = [], []
        for _ in range(samples):
            ours.append(work.ours())
            floor.append(work.floor())
        record = report.result(work, ours, floor)
        points = work.curve()
        if points:
            record["curve"] = {"axis": work.curve_axis, "unit": work.curve_unit or work.unit, "points": points}
            curves[work.name] = record["curve"]
        said = work.notes()
        if said:
            record["notes"] = said
            notes += [f"{work.name}: {line}" for line in said]
        return record
    except Exception as error:
        traceback.print_exc()
        return {"name": work.name, "failed": f"{type(error).__name__}: {error}"}
    finally:
        try:
            work.close()
        except Exception:
            traceback.print_exc()


def output_of(*argv):
    return subprocess.run(argv, cwd=ROOT, capture_output=True, text=True, check=False).stdout.strip()


def machine():
    """One line about the machine: figures of different ones do not compare."""
    model = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    memory = int(re.search(r"MemTotal:\s*(\d+)", pathlib.Path("/proc/meminfo").read_text()).group(1)) / 1024 ** 2
    cpus = len(os.sched_getaffinity(0))
    return f"{model.group(1) if model else platform.machine()}, {cpus} CPUs, {memory:.0f} GiB, Linux {platform.release()}"


def write(folder, record, curves):
    folder.mkdir(parents=True, exist_ok=True)
    for old in folder.glob("*.svg"):
        old.unlink()
    (folder / "results.json").write_text(json.dumps(record, indent=1) + "\n", encoding="utf-8")
    (folder / "table.md").write_text(report.markdown_table(record["works"]) + "\n", encoding="utf-8")
    (folder / "works.svg").write_text(plot.bars(record["works"], report.number), encoding="utf-8")
    for name, curve in curves.items():
        file = "curve-" + re.sub(r"[^a-z0-9]+", "-", name.lower()).strip("-") + ".svg"
        (folder / file).write_text(plot.curve(name, curve["points"], curve["axis"], curve["unit"]), encoding="utf-8")


def compare(record):
    before = report.last_kept(HISTORY)
    if before is None:
        return
    print(f"\nSince {before['date']} ({before['commit']}):")
    if before["machine"] != record["machine"]:
        print(f"  that was another machine: {before['machine']}")
    worse = report.regressions(record["works"], before)
    for name in worse:
        print(f"  REGRESSION {name}")
    if not worse:
        print("  no work has become more than 15 % slower, compared with its floor")


def arguments():
    parser = argparse.ArgumentParser(prog="scripts/bench", description="Measures each work beside its floor.")
    parser.add_argument("--only", metavar="REGEX", default="", help="only works whose name matches")
    parser.add_argument("--quick", action="store_true", help="few samples and small sizes: tries the works, measures nothing")
    parser.add_argument("--no-history", action="store_true", help="does not compare with the last record in bench/history")
    parser.add_argument("--keep", action="store_true", help="adds the results to bench/history")
    parser.add_argument("--list", action="store_true", help="names the works and their floors")
    parser.add_argument("--build", metavar="DIR", default=str(ROOT / "build/release"), help=argparse.SUPPRESS)
    parser.add_argument("--output", metavar="DIR", default=str(ROOT / "build/bench"), help=argparse.SUPPRESS)
    given = parser.parse_args()
    if given.quick and given.keep:
        parser.error("the figures of --quick are not worth keeping")
    return given


def main():
    given = arguments()
    # An interrupted or terminated run stops the processes of its works, too.
    signal.signal(signal.SIGTERM, signal.default_int_handler)
    signal.signal(signal.SIGINT, signal.default_int_handler)
    works = [work for work in works_of_all_modules() if re.search(given.only, work.name, re.IGNORECASE)]
    works = [work for work in works if work.is_quick or not given.quick]
    if not works:
        print(f"scripts/bench: no work matches '{given.only}'; --list names them", file=sys.stderr)
        return 2
    if given.list:
        for work in works:
            print(f"{work.name} | floor: {work.floor_name} | goal: {work.goal or 'none'}")
        return 0
    started = time.monotonic()
    context = Context(given.build, given.quick)
    results, curves, notes = [], {}, []
    try:
        if any(work.needs_phone for work in works):
            context.start_settled_phone()
        for index, work in enumerate(works, 1):
            begin = time.monotonic()
            results.append(measure(work, context, curves, notes))
            print(f"[{index}/{len(works)}] {work.name}: {time.monotonic() - begin:.1f} s", file=sys.stderr, flush=True)
    finally:
        context.close()
    record = {
        "date": datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
        "commit": output_of("git", "-c", "safe.directory=*", "describe", "--always", "--dirty"),
        "machine": machine(),
        "works": results,
    }
    print(report.text_table(results))
    print(f"Medians (quartiles). ratio = ours / floor. {record['machine']}; {time.monotonic() - started:.0f} s")
    for line in notes:
        print(f"  {line}")
    output = pathlib.Path(given.output)
    write(output, record, curves)
    if not given.no_history and not given.quick:
        compare(record)
    if given.keep:
        HISTORY.mkdir(exist_ok=True)
        file = HISTORY / f"{record['date'][:10]}-{record['commit']}.json"
        file.write_text(json.dumps(record, indent=1) + "\n", encoding="utf-8")
        page.update(ROOT / "docs/performance.md", output, record, notes)
        print(f"Kept in {file.relative_to(ROOT)} and docs/performance.md")
    print(f"Details and plots: {output}")
    failed = [row for row in results if "failed" in row]
    for row in failed:
        print(f"scripts/bench: {row['name']} could not be measured: {row['failed']}", file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
