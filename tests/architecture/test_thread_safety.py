"""Locking that the compiler checks: clang refuses each misuse of common/ThreadSafety.h, and the
programs use no other locks."""

import re
import subprocess
import unittest

import tree

PRODUCT = ("src", "platform", "services", "tools", "lab")
BARE_LOCK = re.compile(r"std::(\w*mutex|condition_variable\w*|\w+_lock|lock_guard)\b")

COUNTER = """
#include "common/ThreadSafety.h"
class Counter {
 public:
    %s
    void addHeld() REQUIRES(mutex_) { ++count_; }
    void wait() REQUIRES(mutex_) {
        changed_.wait(mutex_, [this]() REQUIRES(mutex_) { return count_ > 0; });
    }
    common::Mutex mutex_;
    common::ConditionVariable changed_;
    int count_ GUARDED_BY(mutex_) = 0;
};
"""
RIGHT = [
    "void add() { const common::LockGuard lock(mutex_); ++count_; }",
    "void add() { const common::LockGuard lock(mutex_); addHeld(); wait(); }",
    "void add() { common::UniqueLock lock(mutex_); lock.unlock(); lock.lock(); ++count_; }",
    "void add() REQUIRES(mutex_) { { const common::UnlockGuard unlocked(mutex_); } ++count_; }",
]
WRONG = [
    "void add() { ++count_; }",
    "int get() const { return count_; }",
    "void add() { addHeld(); }",
    "void waitUnlocked() { wait(); }",
    "void add() { const common::LockGuard lock(mutex_); const common::LockGuard again(mutex_); ++count_; }",
    "void add() { common::UniqueLock lock(mutex_); lock.unlock(); ++count_; }",
    "void add() REQUIRES(mutex_) { const common::UnlockGuard unlocked(mutex_); ++count_; }",
    "void add() { mutex_.lock(); ++count_; }",
    "void add() { const common::LockGuard lock(mutex_); changed_.wait(mutex_, [this] { return count_ > 0; }); }",
]


def findings(member):
    """What clang says of the member function; empty if nothing."""
    result = subprocess.run(
        ["clang++-14", "-std=c++17", "-fsyntax-only", "-Wthread-safety", "-Werror", "-I",
         str(tree.ROOT / "platform/common/include"), "-x", "c++", "-"],
        input=COUNTER % member, capture_output=True, text=True)
    return result.stderr


class ThreadSafety(unittest.TestCase):
    def test_right_uses_are_accepted(self):
        for member in RIGHT:
            self.assertEqual(findings(member), "", member)

    def test_misuses_are_refused(self):
        for member in WRONG:
            self.assertIn("-Wthread-safety", findings(member), member)

    def test_programs_use_annotated_locks_only(self):
        wrong = [f"{name}: {match}" for name in tree.sources(*PRODUCT) if not name.endswith("/ThreadSafety.h")
                 for match in BARE_LOCK.findall((tree.ROOT / name).read_text())]
        self.assertEqual(wrong, [])


if __name__ == "__main__":
    unittest.main()
