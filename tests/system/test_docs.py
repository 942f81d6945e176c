"""What the pages show is what happens: every example of README.md and docs/*.md, tried on one phone.

Runs inside lab/phone with a daemon whose clock skips the wait for the network. How a page says what a block is, and what
becomes of it: examples.py. What runs on the machine itself is tried by test_docs_commands.py.
"""

import configparser
import itertools
import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import examples
import phone

WWW = phone.WWW
ELSEWHERE = "/srv/elsewhere"
SETTINGS = "/tmp/settings.json"
FIXTURES = f"{phone.PROJECT}/lab/fixtures"


def execute(command, deadline=60):
    """(exit status, lines printed) of a command as a reader pastes it, in the folder that the server publishes."""
    with tempfile.TemporaryFile() as output:
        done = subprocess.run(["bash", "-c", command], cwd=WWW, stdin=subprocess.DEVNULL, stdout=output,
                              stderr=subprocess.STDOUT, timeout=deadline, check=False)
        output.seek(0)
        return done.returncode, output.read().decode(errors="replace").splitlines()


def succeed(command):
    status, lines = execute(command)
    if status != 0:
        raise AssertionError(f"{command}: exit status {status}\n" + "\n".join(lines))
    return lines


def publish(files):
    """Empties both servers and publishes these {name: text}."""
    for folder in (WWW, ELSEWHERE):
        for entry in os.scandir(folder):
            shutil.rmtree(entry.path) if entry.is_dir() else os.remove(entry.path)
    for name, text in files.items():
        add(name, text.encode())


def add(name, content):
    path = f"{ELSEWHERE}/{name.removeprefix('elsewhere.test/')}" if name.startswith("elsewhere.test/") else f"{WWW}/{name}"
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(content)


def supply(name):
    """A file that no page can show in full."""
    if name.endswith(".img"):
        add(name, os.urandom(1 << 20))
        return
    source = f"{phone.HOME}/elsewhere-authority.crt" if name.endswith(".pem") else f"{FIXTURES}/fleet/{name}"
    with open(source, "rb") as file:
        add(name, file.read())


class Page:
    """One page from top to bottom; `wrong` collects what is not as the page says."""

    def __init__(self, name):
        self.name, self.wrong, self.untried = name, [], None
        self.log = phone.Log()
        self.log.mark()

    def run(self):
        for block in examples.blocks(self.name):
            if block.kind in ("", "figure") or block.on_the_machine():
                continue
            try:
                getattr(self, f"try_{block.kind}")(block)
            except (AssertionError, OSError, subprocess.SubprocessError) as error:
                self.wrong.append(f"{block}: {error}")
        self.finish_example()
        return self.wrong

    def finish_example(self):
        if self.untried:
            self.wrong.append(f"{self.untried}: no `zavctl provision --wait`, `zavctl lint` or `zavctl explain` behind this example says what comes of it")
        self.untried = None

    def try_xml(self, block):
        if block.name.lower().endswith("provisioning.xml") and not block.name.startswith("elsewhere.test/"):
            self.finish_example()
            publish({})
            self.log.mark()
            self.untried = block
        if block.comment and block.comment[0] == "published":
            for name in block.comment[1].split():
                supply(name)
        add(block.name, (block.text + "\n").encode())

    def try_console(self, block):
        commands = block.commands()
        if block.comment and block.comment[0] == "meanwhile":
            self.listen(block, *commands.pop())
        for command, expected in commands:
            if re.search("zavctl (provision --wait|lint|explain)", command):
                self.untried = None
            _, printed = execute(command)
            if not examples.same(expected, printed):
                self.wrong.append(f"{block}: $ {command}\n  the page:\n    " + "\n    ".join(expected) + "\n  the phone:\n    "
                                  + "\n    ".join(printed))

    def listen(self, block, command, expected):
        """The event is repeated until it is heard: nothing says when a subscription holds."""
        with tempfile.NamedTemporaryFile() as output, subprocess.Popen(
                ["bash", "-c", f"exec {command}"], cwd=WWW, stdin=subprocess.DEVNULL, stdout=output, stderr=output) as listener:
            def heard():
                succeed(block.comment[1])
                with open(output.name, encoding="utf-8") as file:
                    return examples.in_order(expected, file.read().splitlines()) is None
            try:
                phone.wait_until(heard, lambda: f"{expected} from {command}")
            finally:
                listener.terminate()

    def try_sh(self, block):
        succeed("set -e\n" + block.text)

    def try_log(self, block):
        """They may come a moment behind the result."""
        wanted = block.text.splitlines()
        phone.wait_until(lambda: examples.in_order(wanted, self.log.lines()) is None,
                         lambda: f"{examples.in_order(wanted, self.log.lines())!r} in:\n" + "\n".join(self.log.lines()))

    def try_json(self, block):
        """A catalogue: the property service starts with it and knows its keys."""
        with open("/tmp/catalogue.json", "w", encoding="utf-8") as file:
            file.write(block.text)
        phone.service("stop", "properties")
        service = subprocess.Popen(["prop-service", "--store", "/tmp/catalogue.db", "--catalogue", file.name],
                                   stderr=subprocess.PIPE, text=True)
        try:
            phone.wait_until(lambda: service.poll() is not None or execute("zavctl keys")[0] == 0, "the property service")
            for key, definition in json.loads(block.text)["keys"].items():
                first = key.replace("{0-7}", "0")
                shown = succeed(f"zavctl get {first}")
                if "\n".join(shown) != definition["default"]:
                    raise AssertionError(f"{first} is {shown}, not {definition['default']!r}")
        finally:
            service.terminate()
            service.communicate()
            phone.service("start", "properties")

    def try_ini(self, block):
        """A drop-in of the daemon's unit: systemd has no complaint about it, where there is a systemd to ask."""
        configparser.ConfigParser(strict=False).read_string(block.text)
        if shutil.which("systemd-analyze") is None:
            return
        with tempfile.TemporaryDirectory() as folder:
            with open(f"{folder}/zavd.service", "w", encoding="utf-8") as file:
                file.write(block.text + "\n[Service]\nExecStart=/bin/true\n")
            done = subprocess.run(["systemd-analyze", "verify", "--man=no", file.name], capture_output=True, text=True, check=False)
            complaints = [line for line in done.stderr.splitlines() if "zavd.service" in line]
            if complaints:
                raise AssertionError("\n".join(complaints))

    def try_conf(self, block):
        """PasswordTest in test_access.py tries the one that there is, on the broker as it is shipped."""
        if self.name != "docs/security.md":
            raise AssertionError("no test knows this configuration")

    def try_nginx(self, block):
        """test_server.py and test_dhcp.py try them: each needs the ports or the network of this phone for itself."""
        if self.name != "docs/server.md":
            raise AssertionError("no test knows this configuration")

    try_apache = try_dnsmasq = try_nginx


class DocsTest(unittest.TestCase):
    """One daemon for all pages; each page begins with the settings of a new phone and the server's first example."""

    @classmethod
    def setUpClass(cls):
        phone.service("ready", "daemon")
        succeed(f"zavctl backup {SETTINGS}")

    def setUp(self):
        self.new_phone()

    def new_phone(self):
        succeed(f"zavctl restore {SETTINGS}")
        with open(f"{FIXTURES}/direct/provisioning.xml", encoding="utf-8") as file:
            publish({"provisioning.xml": file.read()})

    def test_every_block_is_known(self):
        unknown = [f"{block}: {block.info or 'no info string'}" for page in examples.pages()
                   for block in examples.blocks(page) if not block.kind]
        self.assertEqual(unknown, [])

    def test_examples_are_complete(self):
        cut = [str(block) for page in examples.pages() for block in examples.blocks(page)
               if block.kind in ("xml", "console", "sh") and re.search(r"…|\.\.\.(?!$)", block.text, re.M)]
        self.assertEqual(cut, [])

    def test_links_lead_somewhere(self):
        broken = [f"{page}: {link}" for page in examples.documents() for link in examples.links(page) if not examples.exists(page, link)]
        self.assertEqual(broken, [])

    def test_every_example_does_what_its_page_says(self):
        for page in examples.pages():
            with self.subTest(page):
                self.new_phone()
                self.assertEqual("\n".join(Page(page).run()), "")

    def test_every_mistake_shows_what_its_row_says(self):
        rows = examples.mistakes("docs/common-errors.md")
        self.assertGreater(len(rows), 15)
        log = phone.Log()
        for line, files, changes, result, texts in rows:
            with self.subTest(f"line {line}: {changes}"):
                self.new_phone()
                for right, wrong in changes:
                    self.assertEqual(sum(text.count(right) for text in files.values()), 1, right)
                    files = {name: text.replace(right, wrong) for name, text in files.items()}
                publish(files)
                log.mark()
                _, printed = execute("zavctl provision --wait")
                self.assertEqual(printed[0].split()[0].rstrip(":"), result, "\n".join(log.lines()))
                self.assertIn(len(printed), (2, 3, 4), printed)
                for text in texts:
                    self.assertIn(text, "\n".join(printed))

    def test_a_byte_order_mark_is_harmless(self):
        publish({"provisioning.xml": '\ufeff<?xml version="1.0" encoding="utf-8"?><provisioning version="1.1" productID="kd4v">'
                                     '<nvm><param name="Audio.Ringer.Volume" value="9"/></nvm></provisioning>'})
        succeed("zavctl provision --wait")
        self.assertEqual(succeed("zavctl get Audio.Ringer.Volume"), ["9"])

    def offer(self, running, offered, flags="", request=False):
        """("success" or "fail", the daemon's log) of a pass that offers a firmware version to a phone that runs another. A
        request for an update starts the pass by itself."""
        publish({"provisioning.xml": '<provisioning version="1.1" productID="kd4v"><firmware><file url="/kd4v.img" '
                                     f'version="{offered}"{flags}/></firmware></provisioning>', "kd4v.img": "an image"})
        log = phone.Log()
        log.mark()
        succeed(f"zavctl set System.General.SoftwareVersion '{running}'")
        succeed("zavctl set State.FirmwareUpdate.TriggerAuto request" if request else "zavctl provision")
        phone.wait_until(lambda: log.count("Provisioning succeeded. ") + log.count("Provisioning failed. "), lambda: log.lines())
        return "success" if log.count("Provisioning succeeded. ") else "fail", log

    def test_firmware_versions_compare_as_their_page_says(self):
        lines = {"0": "Found upgradable version", "1": "is older than", "2": "is equal to", "3": "is invalid!",
                 "4": "is not upgradeable to"}
        words = {"nothing": "", "over 128 bytes": "1" * 129}
        rows = examples.table("docs/firmware-versions.md", "Running")
        self.assertGreater(len(rows), 7)
        for running, offered, outcome, _ in rows:
            for here, there in itertools.product(running.split(", "), offered.split(", ")):
                with self.subTest(f"{here} {there}"):
                    _, log = self.offer(words.get(here, here.strip("`")), words.get(there, there.strip("`")))
                    self.assertEqual([digit for digit, line in lines.items() if log.count(line)], [outcome[0]])

    def test_firmware_is_installed_as_its_page_says(self):
        offers = {"newer": ["2.14"], "older": ["2.12"], "equal, malformed, no upgrade path": ["2.13", "latest", "kd5-2.14"]}
        flags = ' flags="FORCE_ACCEPT"'
        rows = examples.table("docs/firmware-versions.md", "Outcome")
        self.assertEqual([row[0] for row in rows], list(offers))
        for outcome, unforced, forced, both in rows:
            for offered in offers[outcome]:
                for automatic, requested, flag, wanted in [("1", False, "", unforced), ("0", True, "", unforced), ("0", False, flags, forced),
                                                           ("0", True, flags, both)]:
                    with self.subTest(f"{offered} {automatic} {requested} {flag}"):
                        succeed(f"zavctl set FirmwareManagment.AutomaticCheckForUpdates {automatic}")
                        succeed("zavctl set State.FirmwareUpdate.TriggerAuto ''")
                        result, _ = self.offer("kd4v-2.13", offered, flag, requested)
                        self.assertEqual(result, {"installs": "success", "refuses": "fail"}[wanted])
                        phone.wait_until(lambda: (execute("zavctl get State.FirmwareUpdate.TriggerAuto")[1] == [
                            "" if not requested else "success" if result == "success" else "no_version"]), "the answer to the request")

    def test_no_proxy_is_used(self):
        proxies = {name: "http://127.0.0.1:9/" for name in ("http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY")}
        os.environ.update(proxies)
        self.addCleanup(lambda: [os.environ.pop(name) for name in proxies])
        phone.service("restart", "daemon")
        phone.service("ready", "daemon")
        succeed("zavctl set NET.Proxy.HTTP http://127.0.0.1:9/")
        for scheme in ("http", "https"):
            succeed(f"zavctl set System.Provision.ProvisioningServer {scheme}://provisioning.test/")
            status, printed = execute("zavctl provision --wait")
            self.assertEqual((status, printed[-1].split()[0]), (0, "success"), printed)


if __name__ == "__main__":
    phone.main()
