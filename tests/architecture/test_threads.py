"""docs/threads.md against the sources: every place that starts a thread has a row, and so does every lock."""

import functools
import re
import unittest

import tree

PAGE = "docs/threads.md"
PRODUCT = ("src", "platform", "services", "tools", "lab")
# Where a thread begins: an object that is given something to run. platform/ipc starts its own through `startThread`,
# whose body is not a thread of its own.
STARTS = re.compile(r"\bstd::j?thread\s*[({]\s*(?!std::move\b)[^\s)}]"
                    r"|\bstd::j?thread\s+(?!startThread\b)\w+\s*[({]\s*(?!std::move\b)[^\s)}]"
                    r"|\bthread_\s*[({]\s*\[|\bthreads?_?\.emplace_back\(|\bstd::async\b|\bpthread_create\b"
                    r"|\bstartThread\(\s*\"")
LOCK = re.compile(r"^\s*(?:static\s+|mutable\s+)*"
                  r"(?:std::(?:recursive_|shared_|timed_)*mutex|(?:common::)?(?:Recursive)?Mutex)\s+(\w+)\s*(?:;|\{\}|=)", re.M)
CODE = re.compile(r"`([^`]+)`")


def text(name):
    return (tree.ROOT / name).read_text(encoding="utf-8")


def table(heading):
    """The rows below a heading of the page, as lists of cells."""
    section = text(PAGE).split(f"\n## {heading}\n", 1)[1].split("\n## ", 1)[0]
    rows = [line for line in section.splitlines() if line.startswith("|")]
    return [[cell.strip() for cell in row.strip("|").split("|")] for row in rows[2:]]


@functools.lru_cache(maxsize=1)
def locks():
    """(owner, lock) of every lock: the owner is the file's name without its ending, as a rule a class. The mutex inside
    the annotated one is not a lock of its own."""
    return [(name.rsplit("/", 1)[1].rsplit(".", 1)[0], lock)
            for name in tree.sources(*PRODUCT) if not name.endswith("/ThreadSafety.h")
            for lock in LOCK.findall(text(name))]


def names(cell, word):
    return re.search(rf"\b{word}\b", cell) is not None


def drawn():
    """What the picture's source draws: the names of files behind each component, and all arrows."""
    source = text("docs/pictures/threads.dot")
    components = {node: [label] for node, label in re.findall(r'^\s*(\w+) \[label="([A-Z]\w+)"\]', source, re.M)}
    components["handlers"] = [r"\w+Handler", "JobHandlerFactory"]
    return components, re.findall(r"^\s*(\w+) -> (\w+)", source, re.M)


class Threads(unittest.TestCase):
    def test_every_place_that_starts_a_thread_has_a_row_and_the_reverse(self):
        starting = {name for name in tree.sources(*PRODUCT) if STARTS.search(text(name))}
        named = {path for row in table("Threads") for path in CODE.findall(row[2]) if "/" in path}
        self.assertEqual(named, starting)

    def test_the_picture_has_every_thread_of_the_table(self):
        picture = text("docs/pictures/threads.dot").lower()
        missing = [row[0] for row in table("Threads")
                   if re.search(r"zavd|prop-service", row[1]) and row[0].lower() not in picture]
        self.assertEqual(missing, [])

    def test_an_arrow_between_components_is_an_include(self):
        components, arrows = drawn()
        wrong = []
        for begin, end in arrows:
            if begin in components and end in components:
                header = re.compile(rf"(^|/)I?({'|'.join(components[end])})\.h$")
                if not any(header.search(target) for name in tree.sources(*PRODUCT)
                           if re.search(rf"/({'|'.join(components[begin])})\.\w+$", name)
                           for _, target in tree.includes(name)):
                    wrong.append(f"{begin} -> {end}")
        self.assertGreater(len(arrows), 20)
        self.assertEqual(wrong, [])

    def test_every_lock_has_a_row(self):
        rows = [row[0] for row in table("Locks")]
        missing = [f"{owner}: {lock}" for owner, lock in locks()
                   if not any(names(row, owner) and names(row, lock) for row in rows)]
        self.assertEqual(missing, [])

    def test_every_row_names_a_lock_that_exists(self):
        gone = []
        for row in table("Locks"):
            for name in re.findall(r"(?:::|`)(\w+)`", row[0]):
                if not any(lock == name and names(row[0], owner) for owner, lock in locks()):
                    gone.append(f"{row[0]}: {name}")
        self.assertEqual(gone, [])


if __name__ == "__main__":
    unittest.main()
