#!/usr/bin/env python3
"""Rewrites what the manual pages take from elsewhere. With --check it only compares, and fails if a page differs.

generate.py properties [--check]        zav-properties.7.md, from the property service's catalogue
generate.py commands ZAVCTL [--check]   the commands in zavctl.1.md, from the help of that zavctl
"""

import json
import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
CATALOGUE = HERE.parents[1] / "services" / "property-service" / "catalogue.json"
BEGIN, END = "<!-- generated from zavctl help -->\n", "<!-- end of the generated part -->\n"
SOURCES = {"provisioning": "provisioning files"}
# Exit statuses that mean the same for every command are described once, in the section about them.
EVERYWHERE = ("the command line is wrong", "the broker or the property service cannot be reached",
              "the property service did not answer in time")
PROPERTIES = """# zav-properties(7)

## NAME

zav-properties - settings and states of a desk phone

## DESCRIPTION

Every key that [**prop-service**(8)](prop-service.8.md) knows, with its default. A range such as *{{0-7}}* stands for one key
for each number in it. Keys that begin with *State.* start at their default with each start of the service; all others are
permanent. [**zavctl**(1)](zavctl.1.md) reads and writes them:

```console
$ zavctl get Time.Format
24h
```

Any client of the bus may write a key, provisioning files ([**zav-provisioning**(5)](zav-provisioning.5.md)) included, unless
its entry says otherwise.

{groups}
## FILES

*/usr/share/zav/catalogue.json*
: the definitions, from which this page is made

## SEE ALSO

[**zavctl**(1)](zavctl.1.md), [**zav-provisioning**(5)](zav-provisioning.5.md), [**prop-service**(8)](prop-service.8.md)
"""


def allowed(definition):
    """The values that a definition allows, in words."""
    kind = definition["type"]
    if kind == "enum":
        return "one of " + ", ".join(f"`{value}`" if value else "the empty text" for value in definition["values"])
    words = [{"text": "text", "secret": "secret text", "boolean": "0, 1, false or true", "mac": "MAC address", "url": "URL",
              "pattern": "text", "integer": "integer"}[kind]]
    if "pattern" in definition:
        words.append(f"that matches `{definition['pattern']}`")
    if "min" in definition or "max" in definition:
        words.append(f"from {definition.get('min', 'any')} to {definition.get('max', 'any')}")
    if "schemes" in definition:
        words.append("with " + " or ".join(definition["schemes"]))
    if "maxLength" in definition:
        words.append(f"of at most {definition['maxLength']} bytes")
    return " ".join(words)


def writers(definition):
    """Who may not write the key; nothing if all may."""
    if definition.get("readOnly"):
        return " No client may write it."
    refused = [SOURCES.get(source, source) for source in definition.get("refusedSources", [])]
    return f" May not be written by {' and '.join(refused)}." if refused else ""


def entry(key, definition):
    default = f"default `{definition['default']}`" if definition["default"] else "empty by default"
    kept = " Lost at a restart." if definition.get("volatile") and not key.startswith("State.") else ""
    values = allowed(definition)
    return (f"**{key}**\n: {definition['description']}. {values[0].upper()}{values[1:]}; {default}."
            f"{writers(definition)}{kept}\n")


def properties_page():
    groups = {}
    for key, definition in json.loads(CATALOGUE.read_text(encoding="utf-8"))["keys"].items():
        groups.setdefault(key.split(".")[0].upper(), []).append(entry(key, definition))
    return PROPERTIES.format(groups="".join(f"## {name}\n\n" + "\n".join(entries) + "\n" for name, entries in groups.items()))


def help_text(zavctl, *command):
    return subprocess.run([zavctl, "help", *command], capture_output=True, text=True, check=True).stdout


def paragraph(text, heading):
    """The lines behind a heading of a help text; what stands below its term is joined to it."""
    found = re.search(rf"^{heading}:\n((?:  .*\n)+)", text, re.M)
    lines = re.sub(r"\n {20,}", "  ", found[1].rstrip("\n")).splitlines() if found else []
    return [tuple(re.split(r" {2,}", line.strip(), maxsplit=1)) for line in lines]


def argument(term):
    """An argument or option in the notation of manual pages: `--timeout FLOAT:…=300` is --timeout S, default 300."""
    name, _, rest = term.partition(" ")
    name = name.replace("-h,", "")
    if not name.startswith("-"):
        return f"*{name}*", ""
    value = re.match(r"(TEXT|FLOAT)[^=]*(?:=(.*))?$", rest)
    return f"**{name}**" + (f" *{'SECONDS' if value[1] == 'FLOAT' else value[1]}*" if value else ""), value[2] if value else None


def command_section(name, text):
    usage = re.search(r"^Usage: zavctl (.*)$", text, re.M)[1].replace("[OPTIONS]", "[*options*]")
    words = [f"### {name}", "", re.sub(rf"^{name}", f"**zavctl {name}**", usage), "", text.splitlines()[0] + ".", ""]
    for term, *meaning in paragraph(text, "Positionals") + paragraph(text, "Options"):
        shown, default = argument(term)
        if shown != "**--help**":
            words += [shown, ": " + "".join(meaning) + (f"; default: {default}" if default else ""), ""]
    statuses = [f"{status}: {meaning}" for status, meaning in paragraph(text, "Exit status") if meaning not in EVERYWHERE]
    words += ["Exit status " + "; ".join(statuses) + ".", "", "<!-- figure -->", "```sh",
              *(example[0] for example in paragraph(re.sub(r"(?<=\S)  +(?=\S)", " ", text), "Examples")), "```", ""]
    return "\n".join(words) + "\n"


def commands_page(zavctl, page):
    names = [name for name, _ in paragraph(help_text(zavctl), "Subcommands")]
    before, rest = page.split(BEGIN)
    behind = rest.split(END)[1]
    return before + BEGIN + "\n" + "".join(command_section(name, help_text(zavctl, name)) for name in names) + END + behind


def main(arguments):
    check = arguments[-1:] == ["--check"]
    words = arguments[:len(arguments) - check]
    if words == ["properties"]:
        page = HERE / "zav-properties.7.md"
        wanted = properties_page()
    elif len(words) == 2 and words[0] == "commands":
        page = HERE / "zavctl.1.md"
        wanted = commands_page(words[1], page.read_text(encoding="utf-8"))
    else:
        print(__doc__, file=sys.stderr)
        return 2
    if not check:
        page.write_text(wanted, encoding="utf-8")
    elif not page.exists() or page.read_text(encoding="utf-8") != wanted:
        print(f"docs/man/{page.name} is out of date; write it with: docs/man/generate.py {' '.join(words)}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
