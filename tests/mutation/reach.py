"""The tests of the mutated programs, and which mutants each of them reaches: a mutant meets only those tests, those first
that are most likely to notice it."""

import concurrent.futures
import hashlib
import json
import os
import re
import signal
import subprocess
import tempfile
import time
from dataclasses import dataclass

HANGING = 4  # times as long as the unbroken program: then it hangs
MARGIN = 5  # seconds more, because the machine may be busy


@dataclass(frozen=True)
class Test:
    program: str
    name: str
    seconds: float
    reached: frozenset


def run(command, names, limit, mutant=None, reached=None):
    """The test that did not pass, of those named, or None. One that hangs or crashes does not pass."""
    environment = {**os.environ, "GTEST_FAIL_FAST": "1"}
    for variable in ("MUTANT", "MUTANTS_REACHED"):
        environment.pop(variable, None)
    if mutant is not None:
        environment["MUTANT"] = str(mutant)
    if reached is not None:
        environment["MUTANTS_REACHED"] = str(reached)
        command = [command[0], "--bind", str(reached.parent), *command[1:]] if command[0].endswith("/sandbox") else command
    with tempfile.TemporaryFile() as output:
        with subprocess.Popen([*command, f"--gtest_filter={':'.join(names)}"], env=environment, stdin=subprocess.DEVNULL,
                              stdout=output, stderr=subprocess.DEVNULL, start_new_session=True) as process:
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                status = None
        if status == 0:
            return None
        output.seek(0)
        text = output.read().decode(errors="replace")
    failed = re.search(r"^\[  FAILED  \] ([\w./]+)", text, re.M) or (re.findall(r"^\[ RUN      \] ([\w./]+)", text, re.M) or [names[0]])[-1]
    return failed if isinstance(failed, str) else failed.group(1)


def names_of(command):
    listing = subprocess.run([*command, "--gtest_list_tests"], check=True, capture_output=True, text=True).stdout
    names, suite = [], ""
    for line in listing.splitlines():
        word = line.split("#")[0].strip()
        if line.startswith(" "):
            if not word.startswith("DISABLED_"):
                names.append(suite + word)
        elif re.fullmatch(r"[\w/]+\.", word):
            suite = word
    return names


def measure(folder, program, command, name, mutants):
    """Runs one test alone without a mutant."""
    with tempfile.TemporaryDirectory(dir=folder) as place:
        reached = folder.__class__(place) / "reached"
        reached.write_bytes(bytes(mutants))
        begin = time.monotonic()
        if run(command, [name], 600, reached=reached) is not None:
            raise RuntimeError(f"{program}: {name} fails without a mutant")
        seconds = time.monotonic() - begin
        places = frozenset(n for n, byte in enumerate(reached.read_bytes()) if byte)
    return Test(program, name, seconds, places)


def tests(folder, commands, mutants, data, jobs):
    """All tests of the programs. What is known of a program that is still the same is not measured again; `data` is a
    digest of the files that tests read."""
    record = folder / "reached.json"
    known = json.loads(record.read_text()) if record.exists() else {}
    found = []
    for program, command in commands.items():
        digest = f"{mutants} {data} " + hashlib.sha256(open(command[-1], "rb").read()).hexdigest()
        if known.get(program, {}).get("digest") != digest:
            with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
                measured = list(pool.map(lambda name: measure(folder, program, command, name, mutants), names_of(command)))
            known[program] = {"digest": digest, "tests": [[t.name, t.seconds, sorted(t.reached)] for t in measured]}
            record.write_text(json.dumps(known))
        found += [Test(program, name, seconds, frozenset(places)) for name, seconds, places in known[program]["tests"]]
    if not any(test.reached for test in found):
        raise RuntimeError("no test reaches any place")
    return found


def batches(tests_, number, path):
    """The tests that reach a mutant, in groups of one program each: first those whose suite has the source's name, then
    those that reach little else."""
    stem = os.path.splitext(os.path.basename(path))[0]
    ranked = sorted((test for test in tests_ if number in test.reached),
                    key=lambda test: (stem not in test.name, len(test.reached), test.seconds))
    groups, seconds, limit = [[]], 0, 0.5
    for test in ranked:
        if seconds > limit:
            groups.append([])
            seconds, limit = 0, 4 * limit
        groups[-1].append(test)
        seconds += test.seconds
    for group in groups:
        programs = dict.fromkeys(test.program for test in group)
        for program in programs:
            yield program, [test for test in group if test.program == program]


def killer(commands, tests_, number, path, remembered):
    """PROGRAM TEST that notices the mutant, or "". `remembered` noticed it in another run, or is None."""
    by_name = {f"{test.program} {test.name}": test for test in tests_}
    groups = list(batches(tests_, number, path))
    if remembered in by_name:
        groups.insert(0, (by_name[remembered].program, [by_name[remembered]]))
    for program, group in groups:
        limit = HANGING * sum(test.seconds for test in group) + MARGIN
        failed = run(commands[program], [test.name for test in group], limit, mutant=number)
        if failed is not None:
            return f"{program} {failed}"
    return ""
