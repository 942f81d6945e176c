"""The pictures of the documentation. scripts/pictures makes them, tests/architecture/test_pictures.py checks them.

The diagrams are made from the text sources beside this file, by programs that Debian has. The terminal of README.md is
made from what scripts/demo prints, line by line. Nothing in a picture depends on the fonts of the machine that made it
but the distances.
"""

import hashlib
import pathlib
import re
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape

FOLDER = pathlib.Path(__file__).resolve().parent
ROOT = FOLDER.parents[1]
COMMANDS = {".dot": ["dot", "-Tsvg"], ".msc": ["mscgen", "-T", "svg", "-i", "-", "-o", "-"]}
TERMINAL = "demo"
MADE_FROM = re.compile(r"<!-- made by scripts/pictures from (\S+), sha256 ([0-9a-f]{64}) -->")


def sources():
    return sorted(path for path in FOLDER.iterdir() if path.suffix in COMMANDS)


def digest(source):
    return hashlib.sha256(source.read_bytes()).hexdigest()


def picture(source):
    return source.with_suffix(".svg")


def draw(source):
    """The source as SVG, without what differs between versions of the program that draws it."""
    drawn = subprocess.run(COMMANDS[source.suffix], input=source.read_text(encoding="utf-8"), capture_output=True,
                           text=True, check=True).stdout
    drawn = re.sub(r"<\?xml.*?\?>|<!DOCTYPE.*?>|<!--.*?-->", "", drawn, flags=re.S)
    if source.suffix == ".msc":  # the program writes texts on their lines
        drawn = re.sub(r'(<text x="\d+" y=)"(\d+)"', lambda at: f'{at[1]}"{int(at[2]) - 2}"', drawn)
    drawn = re.sub(r'font-family="Helvetica[^"]*"', 'font-family="Helvetica, Arial, sans-serif"', drawn)
    drawn = "\n".join(line.rstrip() for line in drawn.splitlines() if line.strip())
    return f"<!-- made by scripts/pictures from {source.name}, sha256 {digest(source)} -->\n{drawn}\n"


def texts(svg):
    """Every text of the picture in its order, the names of its nodes and edges included."""
    elements = ElementTree.fromstring(svg).iter()
    return ["".join(element.itertext()) for element in elements if element.tag.split("}")[-1] in ("text", "title")]


def shown(output):
    """The lines of scripts/demo that its picture has: the first act."""
    lines = output.splitlines()
    begin = next(number for number, line in enumerate(lines) if line.startswith("A phone:"))
    end = next(number for number, line in enumerate(lines) if line.startswith("Second act:"))
    return "\n".join(line.rstrip() for line in lines[begin:end]).rstrip().splitlines()


def timeless(lines):
    return [re.sub(r"\d+\.\d+ s\b", "N s", line) for line in lines]


def terminal(lines):
    """Lines of a terminal as SVG. Each has its width, so that columns stay columns in any font."""
    column, row, margin = 7.8, 18, 16
    width = max(map(len, lines)) * column + 2 * margin
    height = len(lines) * row + 2 * margin
    body = []
    for number, line in enumerate(lines):
        indent = len(line) - len(line.lstrip())
        text = line.strip()
        if text:
            body.append(f'<text x="{margin + indent * column:g}" y="{margin + (number + 0.75) * row:g}" '
                        f'textLength="{len(text) * column:g}" lengthAdjust="spacingAndGlyphs">{escape(text)}</text>')
    return "\n".join([
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{width:g}" height="{height:g}" '
        f'viewBox="0 0 {width:g} {height:g}">',
        f'<rect width="{width:g}" height="{height:g}" rx="8" fill="#1e2430"/>',
        '<g font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="13" fill="#d8dee9" '
        'xml:space="preserve">',
        *body, "</g>", "</svg>", ""])


def demo_lines():
    done = subprocess.run([ROOT / "scripts" / "demo"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          check=True)
    return ["$ scripts/demo", *shown(done.stdout)]


def main(names):
    """Draws the named pictures, without names all of them."""
    for source in sources():
        if not names or source.stem in names:
            picture(source).write_text(draw(source), encoding="utf-8")
    if not names or TERMINAL in names:
        (FOLDER / f"{TERMINAL}.svg").write_text(terminal(demo_lines()), encoding="utf-8")


if __name__ == "__main__":
    main(sys.argv[1:])
