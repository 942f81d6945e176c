"""Lives that failed once, and a sample of random lives with a fixed seed.

With LIVES=N in the environment N random lives instead (LIVES_SEED, LIVES_STEPS): scripts/test lives N starts it so."""

import os
import pathlib
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "system"))

import hypothesis
import hypothesis.core
import hypothesis.database
import hypothesis.stateful
import machine
import rules
from life import Life

ROWS = pathlib.Path(__file__).with_name("rows.txt")
SAMPLE, SAMPLE_STEPS, SEED = 5, 30, 1
STEPS = 60
SHORTEN = 240   # seconds in which a life that failed is shortened
QUICK = 3   # seconds of patience while a failure is shortened


def rows():
    lines = [line for line in ROWS.read_text(encoding="utf-8").splitlines() if line and not line.startswith("#")]
    return [(name.strip(), [step.strip() for step in steps.split(";")]) for name, steps in (line.split("|") for line in lines)]


class Figures:
    """Counts what was lived, and keeps the steps of the last life that failed."""

    def __init__(self):
        self.lives = self.steps = self.passes = self.checks = 0
        self.rules = {}
        self.failure = None
        self.begun = time.monotonic()

    def told(self, life, steps, failed):
        self.lives += len(steps) >= machine.Machine.least or failed  # hypothesis gives up a few after a step
        self.steps += len(steps)
        self.passes += life.passes
        self.checks += life.checks
        for one in steps:
            name = one.partition(": ")[0]
            self.rules[name] = self.rules.get(name, 0) + 1
        if failed:
            self.failure = self.failure or steps

    def __str__(self):
        return (f"{self.lives} lives, {self.steps} steps, {self.passes} passes, {self.checks} checks of a phone with nothing "
                f"broken, {time.monotonic() - self.begun:.0f} s")


def live_randomly(count, seed, steps, kept):
    """Random lives. One that fails is shortened."""
    figures = Figures()
    machine.Machine.told, machine.Machine.least = figures.told, steps
    hypothesis.core.global_force_seed = seed
    settings = hypothesis.settings(max_examples=count, stateful_step_count=steps, deadline=None, print_blob=False,
                                   database=kept, report_multiple_bugs=False,
                                   suppress_health_check=list(hypothesis.HealthCheck),
                                   phases=[hypothesis.Phase.reuse, hypothesis.Phase.generate])
    try:
        hypothesis.stateful.run_state_machine_as_test(machine.Machine, settings=settings)
    except Exception:
        if not machine.Machine.failure:
            raise
        report(figures.failure, seed, machine.Machine.failure)
        raise machine.Machine.failure from None
    finally:
        print(f"seed {seed}: {figures}", flush=True)
        print("rules: " + ", ".join(f"{name} {count}" for name, count in sorted(figures.rules.items())), flush=True)
    return figures


def report(steps, seed, failure):
    print(f"seed {seed}: this life failed: {'; '.join(steps or [])}\n{failure}", flush=True)
    Life.patience = QUICK
    shortest = machine.shorten(steps or [], SHORTEN)
    if shortest:
        print(f"{shortest.__cause__}\nthe shortest life that fails, as a row:\nNAME | {'; '.join(shortest.steps)}", flush=True)
    else:
        print("it did not fail again", flush=True)


class LivesTest(unittest.TestCase):
    def test_lives_that_failed_once(self):
        for name, steps in rows():
            with self.subTest(name):
                machine.live(steps)

    def test_the_page_has_the_rules(self):
        page = ROWS.with_name("README.md").read_text(encoding="utf-8")
        self.assertIn(rules.table(), page, f"README.md must have this table:\n{rules.table()}")

    def test_random_lives(self):
        live_randomly(SAMPLE, SEED, SAMPLE_STEPS, None)


if __name__ == "__main__":
    if "LIVES" in os.environ:
        folder = os.environ.get("LIVES_KEPT")
        database = hypothesis.database.DirectoryBasedExampleDatabase(folder) if folder else None
        live_randomly(int(os.environ["LIVES"]), int(os.environ["LIVES_SEED"]), int(os.environ.get("LIVES_STEPS", STEPS)), database)
    else:
        unittest.main(verbosity=2)
