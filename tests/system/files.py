"""Provisioning files, written the way a server's administrator would."""

from xml.sax.saxutils import quoteattr

PRODUCT = "kd4v"


def element(name, attributes, children=()):
    head = name + "".join(f" {key}={quoteattr(value)}" for key, value in attributes.items() if value is not None)
    return f"<{head}>" + "".join(children) + f"</{name}>" if children else f"<{head}/>"


def root(name, children, version="1.1", product=PRODUCT, mac=None):
    return '<?xml version="1.0" encoding="UTF-8"?>\n' + element(
        name, {"version": version, "productID": product, "macAddress": mac}, children)


def params(settings):
    return [element("param", {"name": name, "value": value}) for name, value in settings]


def direct(settings, **attributes):
    """Format 1.1: the settings stand in the initial file."""
    return root("provisioning", [element("nvm", {}, params(settings))], **attributes)


def categories(urls, version="1.0", **attributes):
    """Format 1.0, first level: (type, url) of the job files."""
    return root("provisioning", [element("category", {"type": kind, "url": url}) for kind, url in urls],
                version=version, **attributes)


def versions(kind, entries, version="1.0"):
    """Format 1.0, second level: (version or None, url) of the published files."""
    return root(kind, [element("file", {"version": published, "url": url}) for published, url in entries],
                version=version)


def settings_file(settings, version="1.0"):
    return root("settings", params(settings), version=version)


LABEL = "Telephony.Accounts.0.Label"
NAME = "Telephony.Accounts.0.DisplayName"
KEY = "PhoneUI.Keys.FunctionKeys."


def spread(count, word="value"):
    """So many settings, over 180 keys."""
    return [(f"PhoneUI.Expansion.{i % 3}.Keys.{i % 20}.{('Label', 'Type', 'Value')[i // 60 % 3]}", f"{word} {i}")
            for i in range(count)]
