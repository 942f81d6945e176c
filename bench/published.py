"""Files that a bench's provisioning server publishes."""

HEAD = '<?xml version="1.0" encoding="UTF-8"?>\n'
# 180 keys of the catalogue.
KEYS = [f"PhoneUI.Expansion.{module}.Keys.{key}.{name}" for name in ("Label", "Type", "Value") for module in range(3)
        for key in range(20)]


def root(name, children, version="1.1"):
    return f'{HEAD}<{name} version="{version}" productID="kd4v">\n' + "\n".join(children) + f"\n</{name}>\n"


def params(count):
    return [f'    <param name="{KEYS[index % len(KEYS)]}" value="value {index}"/>' for index in range(count)]


def settings(count, version="1.1"):
    """One job with so many settings. A phone reads a file of version 1.05 in full, but runs none of its jobs."""
    return root("provisioning", ["  <nvm>", *params(count), "  </nvm>"], version)


def jobs(count):
    """So many jobs with one setting each."""
    return root("provisioning", [f"  <nvm>\n{one}\n  </nvm>" for one in params(count)])


def includes(count):
    """A file that includes settings-0.xml, settings-1.xml and so on."""
    return root("provisioning", [f'  <category type="nvm" url="/level-{index}.xml"/>' for index in range(count)], "1.0")
