"""storms.py FOLDER SEED COUNT: storms on one phone, whose programs have the thread sanitizer. Runs inside lab/phone.

A storm is one life of the daemon: it starts, bursts of messages of every kind arrive on all of its topics while passes
run, services restart, the clock jumps, and SIGTERM ends it at any moment, with the messages still coming. Status 0 is the
only good end, of the property service as well. What the sanitizer has to say lands in FOLDER.

In every other storm the daemon logs nothing: the log's lock would put the threads in an order that hides races. One pass
after the other begins there while messages of one other kind keep coming.
"""

import contextlib
import json
import os
import pathlib
import random
import sys
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "system"), str(HERE.parent / "lives")]

import contents
import phone
from server import Answer, Server

STATE = "State.Provisioning"
SERVER = "System.Provision.ProvisioningServer"
BOOTED = "State.Provisioning.OnBootUp"
PERIOD = "System.Provision.Period"
BUNDLE = "State.Security.Certificates.UpdateCABundle"
TRIGGER = "State.FirmwareUpdate.TriggerAuto"
MASK = "System.Debug.LevelMask.ZAV"
RESULTS = ("success", "partSuccess", "fail")
MEETING = 2.5  # seconds for which passes begin while one kind of message keeps coming
LIMIT = 120   # seconds for each wait: the programs are slow with the sanitizer
REPORTED = 66  # the sanitizer's exit status, see run.py


def value(key, text):
    return "prop-service/set", {"param": key, "value": text, "source": "storm"}


def query(topic, key):
    return topic, {"param": key, "value": ""}


MESSAGES = ([value(STATE, "request")] * 6 + [value(STATE, "request-check-sync"), value(TRIGGER, "request")] * 2 + [
    *(value(PERIOD, text) for text in ("0", "600", "86400", "soon")),
    value(BUNDLE, "1"),
    *(value(MASK, text) for text in ("7", "6", "none")),
    value("Telephony.Accounts.0.Label", "storm"),
    query("prop-service/get", STATE),
    ("prop-service/list", {"prefix": "State."}),
    ("prop-service-state/x", "not JSON"),
] + [query("watchdog/prov-client", "Are you alive?"),
     query("auto-reboot/prov-client", "State.System.QA.AutomaticReboot.IsBusyQuery")] * 3)


class Storms:
    def __init__(self, folder, seed):
        self.folder, self.seed = folder, seed
        self.bus, self.log = phone.Bus(), phone.Log()
        self.server = Server()
        self.contents = contents.good_contents(self.server.url) + contents.bad_contents(self.server.url)
        self.messages = MESSAGES + [value(SERVER, self.server.url)] * 2
        # What a pass may meet, each as likely as the other; the daemon stays quiet.
        self.meetings = [message for number, message in enumerate(self.messages) if message not in self.messages[:number]
                         and MASK not in str(message) and message != value(STATE, "request")]
        self.sent = self.passes = 0
        self.failures = []
        self.begun = time.monotonic()
        self.random = random.Random(seed)
        self.bus.set(SERVER, self.server.url)

    def wait(self, text):
        self.log.wait(text, deadline=LIMIT)

    def send(self, chosen):
        self.publish(*chosen.choice(self.messages))

    def publish(self, topic, message):
        """Without waiting for anything."""
        self.bus._client.publish(topic, message if isinstance(message, str) else json.dumps(message), 1)
        self.sent += 1

    def burst(self):
        for _ in range(self.random.randint(5, 40)):
            self.send(self.random)

    def storm(self, number):
        """Starts the daemon, and ends it somewhere on its way."""
        self.random = random.Random(f"{self.seed}/{number}")
        os.environ["NOISE_SEED"] = str(self.random.randrange(1 << 30))  # of what starts from here on
        one = self.random.choice(self.contents)
        self.server.answers = {path: answer if isinstance(answer, Answer) else Answer(answer)
                               for path, answer in one.answers.items()}
        self.bus.mark()
        self.bus.set(PERIOD, "86400")  # with "soon" the daemon would start only after ten attempts to read it
        self.bus.set(BOOTED, self.random.choice(["", "done"]))
        self.log.mark()
        phone.service("start", "daemon")
        early = self.random.random() < 0.1
        self.wait("ZAV initialized." if early else "for stabilization.")
        if not early:
            self.settle()
            if number % 2:
                self.meet()
            else:
                for _ in range(self.random.randint(1, 3)):
                    self.burst()
                    self.disturb()
        self.end()
        self.passes += self.log.count("Start provisioning thread")
        self.bus.set(MASK, "7")

    def meet(self):
        """Passes begin and end while messages of one kind keep coming; nothing is logged."""
        other = self.random.choice(self.meetings)
        self.server.answers = {}  # passes that end soon
        self.bus.set(MASK, "0")
        self.bus.mark()
        end, results = time.monotonic() + MEETING, -1
        while time.monotonic() < end:
            ended = self.results()
            if ended != results:
                results = ended
                self.publish(*value(STATE, "request"))
            self.publish(*other)
            time.sleep(0.003)
        self.passes += results

    def results(self):
        """How many passes have ended since the mark."""
        return sum(json.loads(text)["value"] in RESULTS for topic, text in self.bus.messages("prop-service-state/")
                   if topic.endswith("/" + STATE))

    def settle(self):
        """Over the wait for the network. A thread that the noise has put to sleep looks as if it waited already."""
        def enabled():
            try:
                self.log.wait("Enabling provisioning function.", deadline=0.5)
                return True
            except phone.Late:
                return phone.clock("jump", 90)

        phone.clock("jump", 90)
        phone.wait_until(enabled, lambda: "\n".join(self.log.lines()[-40:]), LIMIT)

    def disturb(self):
        kind = self.random.choice(["pass", "pass", "pass", "pass", "properties", "broker", "time", "nothing", "nothing"])
        if kind == "pass":
            with contextlib.suppress(phone.Late):  # the burst may have had no request
                self.log.wait("Provisioning Finished", self.log.count("Provisioning Finished") + 1, 3)
        elif kind == "time":
            phone.clock("jump", self.random.choice([1, 600, 86400]))
        elif kind == "properties":
            self.bus.mark()
            self.ended("properties", phone.service("stop", "properties", check=False))
            phone.service("start", "properties")
        elif kind == "broker":
            self.bus.close()
            phone.service("restart", "broker")
            self.bus = phone.Bus()  # without the messages that the old one still had to send
            phone.wait_until(lambda: self.bus.messages("prop-service/status")[-1:] == [("prop-service/status", "online")],
                             "the property service online", LIMIT)

    def end(self):
        """SIGTERM, while the messages go on."""
        over = threading.Event()
        chosen = random.Random(self.random.random())

        def go_on():
            while not over.wait(0.002):
                self.send(chosen)

        sender = threading.Thread(target=go_on)
        sender.start()
        try:
            self.ended("daemon", self.terminate())
        finally:
            over.set()
            sender.join()

    def terminate(self):
        """SIGTERM until it is heard: before the daemon waits for it, it is lost."""
        status = f"{phone.HOME}/daemon.status"
        pid = phone.service_pid()

        def ended():
            if os.path.exists(status):
                return True
            if not self.log.count("IPC listening terminated"):
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, 15)
                time.sleep(0.02)
            return False

        phone.wait_until(ended, lambda: "end of the daemon:\n" + "\n".join(self.log.lines()[-40:]), LIMIT)
        with open(status, encoding="ascii") as file:
            return int(file.read())

    def ended(self, name, status):
        if status not in (0, REPORTED):  # a report is counted by its file
            self.failures.append(f"{name} ended with status {status}")

    def run(self, count):
        for number in range(count):
            try:
                self.storm(number)
            except Exception as failure:
                self.failures.append(f"storm {number}: {failure}")
                phone.service("kill", "daemon", check=False)
            print(f"{time.monotonic() - self.begun:.1f} s: storm {number} over", flush=True)
            self.tell(number + 1)
        self.ended("properties", phone.service("stop", "properties", check=False))
        self.tell(count)

    def tell(self, storms):
        figures = {"storms": storms, "messages": self.sent, "passes": self.passes, "failures": self.failures}
        (self.folder / f"storms-{self.seed}.json").write_text(json.dumps(figures), encoding="utf-8")


def main():
    folder, seed, count = pathlib.Path(sys.argv[1]), sys.argv[2], int(sys.argv[3])
    os.environ["NOISE_SEED"] = seed
    phone.service("restart", "properties")  # with the noise, which `boot` does not have
    Storms(folder, seed).run(count)


if __name__ == "__main__":
    main()
