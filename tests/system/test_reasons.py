"""What `zavctl provision --wait` says of a pass that was not a success, and while it lasts. Runs inside lab/phone with a
daemon whose clock runs."""

import itertools
import json
import os
import pathlib
import re
import shutil
import subprocess
import threading
import time
import unittest

import phone
from files import direct, element, root, spread
from server import Answer, Server

ROWS = pathlib.Path(__file__).with_name("mistakes.txt")
SERVER = "System.Provision.ProvisioningServer"
URL = "https://provisioning.test/"


def rows():
    """[(title, [(name, content)], [command], result, [line])]"""
    found, target = [], None
    for line in ROWS.read_text(encoding="utf-8").splitlines():
        if line.startswith("== "):
            found.append((line[3:], [], [], [], []))
            target = None
        elif line.startswith("-- run "):
            found[-1][2].append(line[7:])
        elif line.startswith("-- says "):
            found[-1][3].append(line[8:])
            target = found[-1][4]
        elif line.startswith("-- "):
            target = []
            found[-1][1].append((line[3:], target))
        elif line and target is not None:
            target.append(line)
    return [(title, files, commands, *results, lines) for title, files, commands, results, lines in found]


def provision(*words, **options):
    """(exit status, lines of standard output) of a pass."""
    done = subprocess.run(["zavctl", "provision", "--wait", *words], capture_output=True, text=True, timeout=60, check=False, **options)
    if done.stderr:
        raise AssertionError(done.stderr)
    return done.returncode, done.stdout.splitlines()


def publish(files=()):
    for entry in os.scandir(phone.WWW):
        shutil.rmtree(entry.path) if entry.is_dir() else os.remove(entry.path)
    for name, lines in files:
        pathlib.Path(phone.WWW, name).write_text("\n".join(lines), encoding="utf-8")


def fits(expected, printed):
    return re.fullmatch(".*".join(re.escape(piece) for piece in expected.split("…")), printed)


class ReasonsTest(unittest.TestCase):
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        phone.service("ready", "daemon")
        cls.server = Server()
        cls.addClassCleanup(cls.server.close)

    def setUp(self):
        self.set_server(URL)

    def set_server(self, url):
        subprocess.run(["zavctl", "set", SERVER, url], check=True, capture_output=True)

    def serve(self, **answers):
        self.server.answers = {f"/{name}.{'img' if name == 'image' else 'xml'}": answer for name, answer in answers.items()}
        self.set_server(self.server.url)

    def test_every_mistake_is_named(self):
        known = rows()
        self.assertGreater(len(known), 20)
        for title, files, commands, result, lines in known:
            with self.subTest(title):
                publish(files)
                for command in commands:
                    subprocess.run(command, shell=True, cwd=phone.WWW, check=True)
                _, printed = provision()
                self.assertEqual(re.split("[: ]", printed[0])[0], result, printed)
                self.assertEqual(len(printed) - 1, len(lines), printed)
                for expected, line in zip(lines, printed[1:]):
                    self.assertTrue(fits(expected, line), f"{line!r} is not {expected!r}")

    def test_a_pass_behind_another_shows_its_own_reasons(self):
        gate = threading.Event()
        self.addCleanup(gate.set)
        self.serve(provisioning=Answer(direct([("First", "1")]), gate=gate))
        subprocess.run(["zavctl", "provision"], check=True, capture_output=True)
        phone.wait_until(lambda: len(self.server.requests) > 0, "the first pass's request")
        log = phone.Log()
        log.mark()
        with subprocess.Popen(["zavctl", "provision", "--wait"], stdout=subprocess.PIPE, text=True) as waiting:
            log.wait("Previous provisioning is not finished yet. Waiting...")
            self.server.answers["/provisioning.xml"] = Answer(direct([("Second", "1")]))
            gate.set()
            printed, _ = waiting.communicate(timeout=60)
        self.assertEqual(printed.splitlines()[1:], ["warning  Property 'Second': unknown key: the catalogue has no such key",
                                                    "         correct the key, or its number; zavctl keys PREFIX lists the keys"])

    def test_a_log_without_information(self):
        publish([("provisioning.xml", [direct([("Wrong", "1")])])])
        subprocess.run(["zavctl", "set", "System.Debug.LevelMask.ZAV", "3"], check=True, capture_output=True)
        self.addCleanup(lambda: subprocess.run(["zavctl", "set", "System.Debug.LevelMask.ZAV", "7"], check=True, capture_output=True))
        phone.wait_until(lambda: provision()[1][1:2] == ["warning  Property 'Wrong': unknown key: the catalogue has no such key"], lambda: provision()[1])

    def test_a_log_that_cannot_be_read(self):
        publish()
        code, printed = provision("--log", "/nowhere/log")
        self.assertEqual((code, printed[1:]), (1, ["unknown  the log /nowhere/log cannot be read: No such file or directory"]))
        code, printed = provision(env={**os.environ, "ZAVD_LOG": ""})  # no journal in this phone
        self.assertEqual(code, 1)
        self.assertEqual(len(printed), 2)
        self.assertIn("or name the daemon's log with --log FILE", printed[1])

    def events(self, *words):
        """The progress events of a pass, and when each came."""
        with subprocess.Popen(["zavctl", "provision", "--wait", "--json", *words], stdout=subprocess.PIPE, text=True) as waiting:
            lines = [(json.loads(line), time.monotonic()) for line in waiting.stdout]
        self.assertEqual(waiting.returncode, 0, lines)
        self.assertEqual(lines[-1][0]["result"], "success")
        self.assertEqual({one["event"] for one, _ in lines[:-1]}, {"progress"})
        return [(one["job"], one["done"], one["total"], one["unit"]) for one, _ in lines[:-1]]

    def check_progress(self, events, most):
        """Of one job: from nothing on, ever more, and no more than so many events. The last one may come behind the result."""
        done = [one[1] for one in events]
        self.assertEqual(done[0], 0, events)
        self.assertEqual(done, sorted(done))
        self.assertLessEqual(done[-1], events[-1][2])
        self.assertLessEqual(len(events), most)

    def test_progress_of_many_settings(self):
        count = 5000
        publish([("provisioning.xml", [direct(spread(count))])])
        begin = time.monotonic()
        events = self.events()
        took = time.monotonic() - begin
        jobs = {job: list(group) for job, group in itertools.groupby(events, key=lambda one: one[0])}
        self.assertEqual(list(jobs), ["provisioning", "nvm"])
        self.assertTrue(0 < events[-1][1] <= count, events)
        self.assertEqual({one[2:] for one in jobs["nvm"]}, {(count, "items")})
        self.check_progress(jobs["nvm"], 2 * took + 2)
        self.check_progress(jobs["provisioning"], 2 * took + 2)

    def test_progress_of_an_image(self):
        size = 1500000
        gate = threading.Event()
        self.serve(provisioning=Answer(root("provisioning", [element("firmware", {}, [
            element("file", {"url": self.server.url + "image.img", "version": "99.1", "flags": "FORCE_ACCEPT"})])])),
                   image=Answer(os.urandom(size), flow=(size // 20, 0.1), gate=gate))
        firmware = [one for one in self.events() if one[0] == "firmware"]
        self.check_progress(firmware, 7)
        self.assertGreaterEqual(len(firmware), 3)  # two seconds
        self.assertEqual(firmware[-1][2:], (size, "bytes"))


if __name__ == "__main__":
    phone.main()
