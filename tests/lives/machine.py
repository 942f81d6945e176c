"""The table of rules as a state machine of hypothesis, and a life as text: steps that are repeated without it."""

import subprocess
import sys
import time

import hypothesis
import hypothesis.stateful as stateful
import hypothesis.strategies as strategies

from life import Life
from rules import RULES


WEIGHTED = [one.name for one in RULES.values() for _ in range(one.weight)]


class Machine(stateful.RuleBasedStateMachine):
    """One random life."""

    told = None     # a function that is told (life, steps, whether it failed) after each life
    failure = None  # of the first life that failed
    least = 0       # steps; a shorter life that did not fail does not count. Hypothesis would begin with many of these

    def __init__(self):
        if Machine.failure:     # hypothesis wants to see it again
            raise Machine.failure
        super().__init__()
        self.steps = []
        self.failed = False
        self.life = Life()
        try:
            self.life.begin()
        except BaseException:
            self.life.close()
            raise

    @stateful.rule(data=strategies.data())
    def happen(self, data):
        """One of the rules that are allowed now. A rule of hypothesis for each of ours would end most lives early: it gives
        a life up that allows none of the few which it has chosen for it."""
        rule = RULES[data.draw(strategies.sampled_from(WEIGHTED).filter(lambda name: RULES[name].allowed(self.life)))]
        self.take(rule.name, data.draw(strategies.sampled_from(rule.arguments)) if rule.arguments else None)

    def take(self, name, argument):
        self.steps.append(name if argument is None else f"{name}: {argument}")
        self.failed = True
        step(self.life, name, argument)
        self.failed = False

    def teardown(self):
        ended = sys.exc_info()[0] is None   # otherwise a step has failed, or hypothesis gives this life up
        try:
            if ended:
                self.failed = True
                self.life.end()
                self.failed = False
        finally:
            if self.failed:
                Machine.failure = sys.exc_info()[1]
            self.life.close()
            Machine.told(self.life, self.steps, self.failed)
        if ended:
            hypothesis.assume(len(self.steps) >= Machine.least)


def step(life, name, argument=None):
    rule = RULES[name]
    rule.happen(life, *([argument] if rule.arguments else []))
    life.after_step()


class Failed(Exception):
    """A life failed; `steps` are those that happened, the last one failed."""

    def __init__(self, steps):
        super().__init__("; ".join(steps))
        self.steps = steps


def live(steps, strict=True):
    """A life of these steps, written "rule" or "rule: argument". Where it is not strict, steps that cannot happen are left
    out."""
    life, taken = Life(), []
    try:
        life.begin()
        for text in steps:
            name, _, argument = text.partition(": ")
            if RULES[name].allowed(life):
                taken.append(text)
                step(life, name, argument)
            elif strict:
                raise ValueError(f"{text!r} cannot happen here")
        life.end()
    except (AssertionError, KeyError, OSError, subprocess.SubprocessError) as failure:
        raise Failed(taken) from failure
    finally:
        life.close()
    return life


def shorten(steps, seconds):
    """The shortest life that still fails and that is found in this time, and its failure: ever smaller pieces are left
    out. Nothing if the life does not fail again."""
    def failure(candidate):
        try:
            live(candidate, strict=False)
        except Failed as failed:
            return failed
        return None

    end = time.monotonic() + seconds
    shortest = failure(steps)
    piece = len(steps) // 2
    while shortest and piece and time.monotonic() < end:
        at = len(shortest.steps) - piece
        while at > -piece and time.monotonic() < end:
            kept = shortest.steps[:max(at, 0)] + shortest.steps[at + piece:]
            shortest = failure(kept) or shortest
            at = min(at, len(shortest.steps)) - piece
        piece = min(piece // 2, len(shortest.steps) // 2) if piece > 1 else 0
    return shortest
