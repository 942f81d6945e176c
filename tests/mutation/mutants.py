"""scripts/test mutants [N] [--seed S] [--all] [--only REGEX] [--jobs N]: breaks the daemon's core and the comparison of firmware
versions in N places (default: 200, drawn with seed 1), one at a time, and runs their unit and flow tests against each.
A mutant that no test notices survives: write the test, or give the reason in tests/mutation/equivalents.txt. --only
takes the places whose names match REGEX. A run that was interrupted goes on where it stopped, unless a source has
changed. Fails if a mutant without a reason survives."""

import argparse
import collections
import concurrent.futures
import hashlib
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import time

import reach
import sites

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDER = ROOT / "build/mutants"
TREE = FOLDER / "tree"
BUILD = TREE / "build"
PLACES = ("src/Core/", "platform/version/src/")
CODE = ("src/", "platform/", "cmake/", "tests/unit/", "tests/fakes/", "tests/flow/", "tests/data/")
TESTS = ("version_test", "job_handlers_test", "job_kinds_test", "core_test", "flow_test", "worker_test",
         "explain_test")
READ_BY_TESTS = ("tests/data/", "tests/flow/rows/")


def run(*command, **options):
    return subprocess.run([str(word) for word in command], check=True, **options)


def tracked():
    names = run("git", "-c", "safe.directory=*", "ls-files", "-co", "--exclude-standard", "-z", cwd=ROOT,
                capture_output=True).stdout.decode().split("\0")
    return [name for name in names if name and (ROOT / name).is_file()]


def digest(names, folders):
    result = hashlib.sha256()
    for name in sorted(names):
        if name.startswith(folders):
            result.update(name.encode() + b"\0" + (ROOT / name).read_bytes())
    return result.hexdigest()


def copy_tree(names):
    """A copy of the tree whose unchanged files keep their time stamps."""
    wanted = set(names)
    for path in [p for p in TREE.rglob("*") if p.is_file() and BUILD not in p.parents and str(p.relative_to(TREE)) not in wanted]:
        path.unlink()
    for name in names:
        put(TREE / name, (ROOT / name).read_bytes(), (ROOT / name).stat().st_mode)


def put(path, content, mode=0o644):
    if path.exists() and path.read_bytes() == content:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(content)
    path.chmod(mode & 0o777)


def configure():
    run("cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O1",
        f"-DCMAKE_CXX_FLAGS=-include {TREE}/tests/mutation/Mutation.h -w", "-DZAV_BENCH=OFF", "-DZAV_LAB=ON",
        "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON", stdout=subprocess.DEVNULL)


def places(names):
    """All places, and the sources they stand in."""
    commands = {entry["file"]: entry["command"].split() for entry in json.loads((BUILD / "compile_commands.json").read_text())}
    found = []
    for name in sorted(names):
        if not name.startswith(PLACES) or not name.endswith(".cpp"):
            continue
        command = commands[str(TREE / name)]
        arguments = [word for word in command[1:] if word.startswith(("-I", "-D", "-std"))]
        arguments += [word for i, flag in enumerate(command) if flag == "-isystem" for word in ("-isystem", command[i + 1])]
        found += sites.find(name, str(TREE / name), ["-xc++", *arguments])
    times = collections.Counter()
    for site in sorted(found, key=lambda s: (s.path, s.line, s.column)):
        times[site.line, *site.key()] += 1
        site.number = times[site.line, *site.key()]
    return found


def compile_mutants(numbered):
    """Writes the mutants into the tree and builds the tests. Drops, and returns, those that the compiler refuses."""
    refused = {}
    while True:
        for name in {site.path for site in numbered.values()} | {site.path for site in refused.values()}:
            put(TREE / name, sites.write((ROOT / name).read_bytes(),
                                         {n: s for n, s in numbered.items() if s.path == name}))
        result = subprocess.run(["ninja", "-j", str(os.cpu_count()), "-k", "0", "-C", str(BUILD), *TESTS],
                                capture_output=True, text=True)
        if result.returncode == 0:
            return refused
        wrong = set()
        places = re.findall(r"^(?:\S*/)?((?:src|platform)/\S+?):(\d+):\d+: (error|note): (.*)", result.stdout, re.M)
        for path, line, kind, text in set(places):
            if kind == "note" and "was not initialized with a constant expression" not in text:
                continue
            for margin in (0, 1, 3, 10) if kind == "error" else (0,):
                near = {n for n, s in numbered.items() if s.path == path and abs(s.line - int(line)) <= margin}
                if near:
                    wrong |= near
                    break
        if not wrong:
            sys.exit(f"the tree does not compile:\n{result.stdout[-4000:]}{result.stderr[-1000:]}")
        for number in wrong:
            refused[number] = numbered.pop(number)


def test_commands():
    listing = json.loads(run("ctest", "--test-dir", BUILD, "--show-only=json-v1", "-R", f"^({'|'.join(TESTS)})$",
                             capture_output=True).stdout)
    commands = {test["name"]: test["command"] for test in listing["tests"]}
    return {name: commands[name] for name in TESTS}


def equivalents():
    """Reasons, by path, function, line with single spaces, and change."""
    reasons = {}
    for number, line in enumerate((ROOT / "tests/mutation/equivalents.txt").read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        parts = [part.strip() for part in line.split(" | ")]
        if len(parts) < 5:
            sys.exit(f"tests/mutation/equivalents.txt:{number}: not PATH | FUNCTION | LINE | CHANGE | REASON")
        reasons[parts[0], parts[1], " | ".join(parts[2:-2]), parts[-2]] = parts[-1]
    return reasons


def reason_key(site):
    number = "" if site.number == 1 else f" #{site.number}"
    return site.path, site.function, " ".join(site.source.split()), f"{site.kind}: {site.change}{number}"


def draw(found, arguments):
    if arguments.only:
        return [site for site in found if re.search(arguments.only, site.name)]
    if arguments.all:
        return found
    # The seed and the text decide, not the number of places: one more line changes one mutant.
    def rank(site):
        return hashlib.sha256(f"{arguments.seed} {site.key()}".encode()).digest()
    return sorted(sorted(found, key=rank)[:arguments.number], key=lambda s: (s.path, s.line, s.column, s.kind))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("number", nargs="?", type=int, default=200)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--all", action="store_true")
    parser.add_argument("--only", default="")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    arguments = parser.parse_args()
    names = tracked()
    copy_tree(names)
    configure()
    found = places(names)
    reasons = equivalents()
    if stale := reasons.keys() - {reason_key(site) for site in found}:
        sys.exit("tests/mutation/equivalents.txt: no such place:\n" + "\n".join(" | ".join(key) for key in sorted(stale)))
    chosen = draw(found, arguments)
    numbered = dict(enumerate(chosen))
    print(f"{len(found)} places, {len(chosen)} chosen (seed {arguments.seed}); building ...", flush=True)
    refused = compile_mutants(numbered)
    commands = test_commands()
    tests = reach.tests(FOLDER, commands, len(chosen), digest(names, READ_BY_TESTS), arguments.jobs)
    print(f"{len(numbered)} mutants, {len(refused)} more do not compile; {len(tests)} tests pass without any", flush=True)

    record = FOLDER / "results.json"
    state = {"digest": "", "killed": {}, "killers": {}, **(json.loads(record.read_text()) if record.exists() else {})}
    if state["digest"] != digest(names, CODE):
        state.update(digest=digest(names, CODE), killed={})
    killed, killers = state["killed"], state["killers"]  # name -> test, or "" for a survivor

    def judge(number):
        site = numbered[number]
        if site.name not in killed:
            return number, reach.killer(commands, tests, number, site.path, killers.get(site.name))
        return number, killed[site.name]

    survivors, begin = [], time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        for done, (number, test) in enumerate(pool.map(judge, random.Random(0).sample(sorted(numbered), len(numbered))), 1):
            site = numbered[number]
            killed[site.name] = test
            if test:
                killers[site.name] = test
            record.write_text(json.dumps(state))
            if not test:
                survivors.append(site)
                reason = reasons.get(reason_key(site))
                print(f"survived: {site.name} in {site.function}\n    {site.source.strip()}" + (f"\n    equivalent: {reason}" if reason else ""),
                      flush=True)
            elif done % 25 == 0:
                print(f"{done} of {len(numbered)}, {len(survivors)} survived, {time.monotonic() - begin:.0f} s", flush=True)
    unexplained = [site for site in survivors if reason_key(site) not in reasons]
    by_kind = {}
    for site in numbered.values():
        counts = by_kind.setdefault(site.kind, [0, 0])
        counts[0] += 1
        counts[1] += bool(killed[site.name])
    for kind, (all_, dead) in sorted(by_kind.items()):
        print(f"{kind}: {dead} of {all_} killed")
    print(f"{len(numbered)} mutants: {len(numbered) - len(survivors)} killed, {len(survivors) - len(unexplained)} equivalent, "
          f"{len(unexplained)} survived")
    sys.exit(1 if unexplained else 0)


if __name__ == "__main__":
    main()
