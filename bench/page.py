"""The figures of the last run that was kept, in docs/performance.md and docs/plots."""

import re
import shutil

import report

BEGIN, END = "<!-- figures of the last run that was kept -->", "<!-- end of the figures -->"


def title(svg):
    return re.search(r"<text[^>]*>([^<]*)</text>", svg.read_text(encoding="utf-8")).group(1)


def block(record, plots, notes):
    lines = [BEGIN, "", f"{record['date'][:10]}, {record['commit']}. {record['machine']}.", "",
             report.markdown_table(record["works"]), ""]
    lines += [f"- {note}" for note in notes] + [""] * bool(notes)
    lines += [f"![{title(plot)}](plots/{plot.name})\n" for plot in plots]
    return "\n".join(lines + [END])


def update(path, output, record, notes):
    """Replaces the figures on the page, and the plots beside it, by those of this run."""
    folder = path.parent / "plots"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    plots = []
    for made in sorted(output.glob("*.svg"), key=lambda svg: (svg.name != "works.svg", svg.name)):
        plots.append(folder / f"bench-{made.name}")
        shutil.copy(made, plots[-1])
    before, rest = path.read_text(encoding="utf-8").split(BEGIN)
    path.write_text(before + block(record, plots, notes) + rest.split(END)[1], encoding="utf-8")
