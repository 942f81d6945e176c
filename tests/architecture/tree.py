"""What the architecture tests see of the tree: its files, and the includes of each."""

import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCE_ENDINGS = {".h", ".cpp"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)


def files(*folders):
    """Paths of the tree's files, relative to its root: those that git knows or would add."""
    listing = subprocess.run(
        ["git", "-c", "safe.directory=*", "ls-files", "--cached", "--others", "--exclude-standard", "--", *folders],
        cwd=ROOT, capture_output=True, text=True)
    if listing.returncode == 0:
        names = listing.stdout.splitlines()
    else:  # a tree without its history
        names = [str(p.relative_to(ROOT)) for p in ROOT.rglob("*") if "build" not in p.relative_to(ROOT).parts[:1]]
        names = [n for n in names if not folders or n.startswith(tuple(f"{f}/" for f in folders))]
    return [name for name in sorted(names) if (ROOT / name).is_file()]


def sources(*folders):
    return [name for name in files(*folders) if pathlib.Path(name).suffix in SOURCE_ENDINGS]


def includes(name):
    """(kind, target) of every include of the file: kind '"' or '<'."""
    return INCLUDE.findall((ROOT / name).read_text(encoding="utf-8"))
