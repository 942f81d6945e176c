"""The examples of README.md, docs/*.md and docs/man/*.md: every block of code, what it is, and how its output is compared.

The info string says what a block is:

    ```xml NAME         a file that the provisioning server publishes; provisioning.xml begins a new example
    ```console          commands, each behind "$ ", and all that they print
    ```sh               commands that succeed; those below lab/, scripts/ and build/, ctest and cmake run on the machine
    ```log              lines of the daemon's log, in this order, since the example began
    ```json             a catalogue (it has "keys"), with which the property service starts
    ```ini              a part of a systemd unit
    ```conf             a configuration of the broker
    ```nginx, apache, dnsmasq    a server's configuration

A comment on the line before the block says more:

    <!-- figure -->              not an example: a picture, or a list of names
    <!-- published: FILE... -->  further files on the server: images, certificates, phone books
    <!-- meanwhile: COMMAND -->  the block's last command listens; COMMAND is what it hears of
"""

import json
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
KINDS = ("xml", "console", "sh", "log", "json", "ini", "conf", "nginx", "apache", "dnsmasq")
ON_THE_MACHINE = re.compile(r"^(lab|scripts|build/unix-bus)/|^(ctest|cmake) ")
FENCE = re.compile(r"^ {0,3}(```+|~~~+)(.*)$")
COMMENT = re.compile(r"^<!-- *(figure|published|meanwhile)(?:: *(.*?))? *-->$")


class Block:
    """One block of code: where it stands, its text, and what its info string and its comment say."""

    def __init__(self, page, line, info, text, comment):
        self.page, self.line, self.text, self.comment = page, line, text, comment
        self.info, _, self.name = info.strip().partition(" ")

    def __str__(self):
        return f"{self.page}:{self.line}"

    @property
    def kind(self):
        """One of KINDS, "figure", or "" if it is unknown."""
        if self.comment and self.comment[0] == "figure":
            return "figure"
        if self.info in ("", "console") and self.text.startswith("$ "):
            return "console"
        if self.info == "xml":
            return "xml" if self.name else ""
        if self.info == "json" and "keys" not in self.text:
            return ""
        return self.info if self.info in KINDS and self.info != "console" else ""

    def commands(self):
        """[(command, lines that it prints)] of a console; [(command, None)] of shell commands."""
        found = []
        lines = iter(self.text.splitlines())
        for line in lines:
            if self.kind == "console" and not line.startswith("$ "):
                found[-1][1].append(line)
                continue
            if self.kind == "sh" and not line.strip():
                continue
            command = line.removeprefix("$ ") if self.kind == "console" else line
            while command.endswith("\\"):
                command += "\n" + next(lines)
            found.append((command, [] if self.kind == "console" else None))
        return found

    def on_the_machine(self):
        return self.kind == "sh" and any(ON_THE_MACHINE.match(command) for command, _ in self.commands())


def pages():
    return ["README.md", *sorted(str(path.relative_to(ROOT)) for folder in ("docs", "docs/man") for path in (ROOT / folder).glob("*.md"))]


def documents():
    """The pages, and those beside README.md, whose blocks are not examples."""
    return pages() + ["ARCHITECTURE.md", "CHANGELOG.md", "CONTRIBUTING.md"]


def blocks(page, text=None):
    """All blocks of a page, also those made by indentation, whose kind is always unknown."""
    lines = (text if text is not None else (ROOT / page).read_text(encoding="utf-8")).splitlines()
    found, comment, number = [], None, 0
    while number < len(lines):
        line = lines[number]
        fence = FENCE.match(line)
        indented = line.startswith("    ") and line.strip() and (number == 0 or not lines[number - 1].strip())
        begin = number
        if fence:
            number += 1
            while number < len(lines) and not lines[number].lstrip().startswith(fence[1]):
                number += 1
            found.append(Block(page, begin + 1, fence[2], "\n".join(lines[begin + 1:number]), comment))
        elif indented:
            while number + 1 < len(lines) and lines[number + 1].startswith("    "):
                number += 1
            found.append(Block(page, begin + 1, "indented", "\n".join(lines[begin:number + 1]), comment))
        mark = COMMENT.match(line)
        comment = (mark[1], mark[2]) if mark else comment if not line.strip() and comment else None
        number += 1
    return found


def links(page):
    """The page's links to files of the tree and to headings."""
    text = re.sub(r"```.*?```|`[^`\n]*`", "", (ROOT / page).read_text(encoding="utf-8"), flags=re.S)
    return [link for link in re.findall(r"\]\(([^)\s]+)\)", text) if "://" not in link]


def exists(page, link):
    name, _, anchor = link.partition("#")
    target = (ROOT / page).parent / name if name else ROOT / page
    if not anchor:
        return target.exists()
    headings = re.findall(r"^#+ (.*)$", target.read_text(encoding="utf-8"), re.M) if target.is_file() else []
    return anchor in [re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings]


def table(page, heading):
    """The rows, as lists of cells, of the table whose first column has that heading."""
    rows, inside = [], False
    for line in (ROOT / page).read_text(encoding="utf-8").splitlines():
        cells = [cell.strip() for cell in line.split("|")[1:-1]]
        inside = bool(cells) and (inside or cells[0] == heading)
        if inside and cells[0] != heading and not line.startswith("|--"):
            rows.append(cells)
    return rows


def mistakes(page):
    """[(line, files, changes, result, texts that the tool prints)]: the rows of each table that begins with the columns "Right" and
    "Wrong". The files are {name: text} of the example before the table, the changes are [(right, wrong)] in them."""
    found, inside = [], False
    known = blocks(page)
    for number, line in enumerate((ROOT / page).read_text(encoding="utf-8").splitlines(), 1):
        cells = [cell.strip() for cell in line.split(" | ")]
        if not line.startswith("|"):
            inside = False
        elif cells[0] == "| Right":
            inside = True
        elif inside and not line.startswith("|--"):
            files = {}
            for block in (one for one in known if one.kind == "xml" and one.line < number):
                files = {} if block.name == "provisioning.xml" else files
                files[block.name] = block.text
            right, wrong, log = (re.findall(r"`([^`]+)`", cells[column]) for column in (0, 1, 3))
            changes = list(zip(right, wrong or [""], strict=True))
            found.append((number, files, changes, cells[2], log))
    return found


def comparable(line):
    """The line without what differs from run to run: times, dates, free space, line numbers of the source, width of
    blanks."""
    line = re.sub(r"\b\d+\.\d+ s\b", "# s", line)
    line = re.sub(r"\b\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d(\.\d+)?Z?", "TIME", line)
    line = re.sub(r"\b\d{4}-\d\d-\d\d\b", "DATE", line)
    line = re.sub(r"\b\d+ MiB free", "# MiB free", line)
    line = re.sub(r"(?<=[A-Za-z]):\d+(?= )", ":#", line)
    return re.sub(r"\s+", " ", line).strip()


def same(expected, printed):
    """Whether a command printed what the page says; JSON may be wrapped there."""
    left, right = ([comparable(line) for line in lines if line.strip()] for lines in (expected, printed))
    if left == right:
        return True
    try:
        return json.loads("\n".join(expected)) == json.loads("\n".join(printed))
    except ValueError:
        return False


def in_order(expected, lines):
    """The first of the expected lines that does not stand behind the ones before it; None if all do."""
    rest = iter(comparable(line) for line in lines)
    for line in expected:
        if not any(comparable(line) in one for one in rest):
            return line
    return None
