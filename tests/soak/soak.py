"""soak.py FOLDER SEED PASSES SECONDS RESTARTS: passes on one phone, one after the other, until there have been PASSES of
them or SECONDS have gone by. Runs inside lab/phone.

Each pass takes one of the contents at random and must end as that content says. Now and then the timer's time comes, and
once in RESTARTS passes (0: never) a service or the daemon is stopped or killed, in a pass or between two. The samples go to
FOLDER, one line of JSON each.
"""

import datetime
import json
import os
import pathlib
import random
import signal
import sys
import time
import traceback

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "system"), str(HERE.parent / "lives")]

import contents
import faults
import phone
from contents import FAIL, SUCCESS, Content
from invariants import FOLDERS, partial
from server import Answer, Server

STATE, LOCK = "State.Provisioning", "State.Provisioning.LockUI"
BOOTED = "State.Provisioning.OnBootUp"
SERVER = "System.Provision.ProvisioningServer"
RESULTS = ("success", "partSuccess", "fail")
PERIOD = 600         # seconds between two passes of the timer
TIMED = 300          # one pass in so many is the timer's
PATIENCE = 60        # seconds for a pass; it takes a hundredth of one
HELP = 3             # seconds without a result after which the clock moves over a pause
MOST_LOG = 1 << 24   # bytes of a log that are kept


def publish(one, number):
    """Puts the content on the lab's server, in a folder of its own; its address."""
    for path, body in one.answers.items():
        file = pathlib.Path(f"{phone.WWW}/{number}{path}")
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_bytes(body if isinstance(body, bytes) else body.encode())


def everything(server):
    """(address, content): files on the lab's server, answers of the test's own, and addresses that lead nowhere."""
    found = []
    for number, name in enumerate(one.name for one in contents.good_contents("") + contents.bad_contents("")):
        for scheme in ("http", "https"):
            address = f"{scheme}://provisioning.test/{number}/"
            one = {one.name: one for one in contents.good_contents(address) + contents.bad_contents(address)}[name]
            if not any(isinstance(answer, Answer) for answer in one.answers.values()):
                if scheme == "http":
                    publish(one, number)
                found += [(address, one)] * (3 if one.result == SUCCESS else 1)
            elif scheme == "http":
                server.answers.update({f"/{number}{path}": answer for path, answer in one.answers.items()})
                found.append((f"{server.url}{number}/", one))
    return found + [("http://no-such-host.invalid/", Content("an unknown host", FAIL)),
                    ("http://127.0.0.1:1/", Content("a refused connection", FAIL)),
                    ("https://elsewhere.test/", Content("an authority that is not trusted", FAIL))]


class Soak:
    def __init__(self, folder, seed, restarts):
        self.folder, self.restarts = folder, restarts
        self.random = random.Random(seed)
        self.bus, self.log = phone.Bus(), phone.Log()
        self.server = Server()
        self.everything = everything(self.server)
        self.good = next(pair for pair in self.everything if pair[1].name == "one setting")
        self.address = ""
        self.passes = self.restarted = self.timed = 0
        self.kinds = {}
        self.begun = time.monotonic()
        self.samples = open(folder / "samples.jsonl", "w", encoding="utf-8", buffering=1)
        self.bus.set("System.Provision.Period", str(PERIOD))
        self.bus.set("FirmwareManagment.AutomaticCheckForUpdates", "1")
        self.start_daemon()

    # The daemon.

    def start_daemon(self):
        self.bus.set(BOOTED, "done")
        self.log.mark()
        phone.service("start", "daemon")
        self.log.wait("for stabilization.")
        phone.jump(90)
        self.log.wait("Enabling provisioning function.")
        self.log.wait("Provisioning on boot up already done, skipping")

    def results(self):
        return [one["value"] for _, text in self.bus.messages(f"prop-service-state/{STATE}")
                if (one := json.loads(text))["source"] == "prov-client" and one["param"] == STATE and one["value"] in RESULTS]

    def unlocked(self):
        return self.bus.changes(LOCK)[-1:] == [(LOCK, "0")]

    def over(self):
        return self.results() and self.unlocked()

    def serve(self, address):
        if address != self.address:
            self.bus.set(SERVER, address)
            self.address = address

    def story(self, what):
        return f"{what}; heard {self.bus.changes()}\n" + "\n".join(self.log.lines()[-60:])

    def one_pass(self):
        address, content = self.random.choice(self.everything)
        self.serve(address)
        self.bus.mark()
        self.log.mark()
        self.bus._client.publish("prop-service/set", json.dumps({"param": STATE, "value": "request", "source": "soak"}), 1)
        phone.wait_until(self.over, lambda: self.story(f"the end of a pass, {content.name}"), PATIENCE)
        self.check(content)

    def timed_pass(self):
        """The timer's, once its time has come."""
        content = self.good[1]
        self.serve(self.good[0])
        self.bus.mark()
        self.log.mark()
        phone.jump(PERIOD)
        phone.wait_until(self.over, lambda: self.story("the end of the timer's pass"), PATIENCE)
        # The certificates of the lab's servers are for two days.
        phone.clock("date", datetime.datetime.now().strftime("%Y-%m-%d %H:%M:%S"))
        self.timed += 1
        self.check(content)

    def check(self, content):
        self.passes += 1
        self.kinds[content.name] = self.kinds.get(content.name, 0) + 1
        if self.results() != [content.result]:
            raise AssertionError(self.story(f"{content.name} at {self.address} ended as {self.results()}"))

    # Restarts.

    def restart(self):
        """Something ends, in the middle of a pass or between two, and is started again."""
        self.restarted += 1
        self.bus.mark()
        self.log.mark()
        if self.random.random() < 0.5:
            self.serve(self.random.choice(self.everything)[0])
            self.bus.set(STATE, "request")
            time.sleep(self.random.uniform(0, 0.03))  # any moment of the pass
        victim = self.random.choice(["daemon", "daemon", "properties", "properties", "broker", "server"])
        how = self.random.choice(["stop", "kill"])
        if victim == "broker":
            self.bus.expect_reconnection()
        pid = phone.service_pid(victim)
        os.kill(pid, signal.SIGTERM if how == "stop" else signal.SIGKILL)
        phone.wait_until(lambda: os.path.exists(f"{phone.HOME}/{victim}.status"), f"the end of {victim}", PATIENCE)
        if victim == "daemon":
            self.start_daemon()
        else:
            phone.service("start", victim)
        if victim == "broker":
            self.bus.wait_back()
        self.recover()

    def recover(self):
        """The next pass that is heard succeeds, and afterwards all is quiet."""
        self.address = ""
        self.serve(self.good[0])
        end = time.monotonic() + PATIENCE
        while True:
            self.bus.mark()
            self.bus.set(STATE, "request")
            try:
                phone.wait_until(lambda: self.over() and self.results()[-1] == SUCCESS, "", HELP)
                break
            except phone.Late:
                if time.monotonic() > end:
                    raise AssertionError(self.story("a pass after a restart")) from None
                phone.clock("jump", 6)  # over a time-out, or a pause before a reconnection
        phone.wait_until(self.quiet, lambda: self.story("the end of all passes"), PATIENCE)

    def quiet(self):
        """No pass runs and none waits: asked on the way that requests go, the daemon says alive and not busy."""
        self.bus.mark()
        for text in ("State.System.QA.AutomaticReboot.IsBusyQuery", "Are you alive?"):
            self.bus.publish("prop-service-state/x", {"param": text, "value": ""})
        try:
            self.bus.wait_message("prov-client/watchdog", deadline=HELP)
        except phone.Late:
            phone.clock("jump", 6)
            return False
        return not self.bus.messages("prov-client/auto-reboot")

    # Figures.

    def sample(self):
        """Between two passes. Each life of a process has its own number, the process id."""
        line = {"passes": self.passes, "seconds": round(time.monotonic() - self.begun, 1)}
        for name in ("daemon", "properties"):
            pid = phone.service_pid(name)
            phone.wait_until(lambda: phone.asleep(pid), f"all threads of {name} asleep")
            line[name] = {"life": pid, "memory": faults.dirty(pid), "descriptors": len(os.listdir(f"/proc/{pid}/fd")),
                          "threads": len(os.listdir(f"/proc/{pid}/task"))}
        store = [path for path in pathlib.Path("/config").iterdir() if path.name.startswith("properties.db")]
        line["store"] = {"size": sum(path.stat().st_size for path in store) // 1024,
                         "files": sum(len(names) for folder in FOLDERS for _, _, names in os.walk(folder))}
        if partial():
            raise AssertionError(f"partial files: {partial()}")
        self.samples.write(json.dumps(line) + "\n")
        for name in os.listdir(phone.HOME):
            if name.endswith(".log") and os.path.getsize(f"{phone.HOME}/{name}") > MOST_LOG:
                os.truncate(f"{phone.HOME}/{name}", 0)
        self.log.mark()

    def run(self, passes, seconds):
        every = max(10, min(250, passes // 40)) if passes else 250
        while (not passes or self.passes < passes) and time.monotonic() - self.begun < seconds:
            if self.restarts and self.random.random() * self.restarts < 1:
                self.restart()
            if self.random.random() * TIMED < 1:
                self.timed_pass()
            else:
                self.one_pass()
            if self.passes % every == 0:
                self.sample()

    def tell(self, failure):
        figures = {"passes": self.passes, "restarts": self.restarted, "timed": self.timed, "kinds": self.kinds,
                   "seconds": round(time.monotonic() - self.begun), "failure": failure}
        (self.folder / "figures.json").write_text(json.dumps(figures), encoding="utf-8")


def main():
    folder, (seed, passes, seconds, restarts) = pathlib.Path(sys.argv[1]), map(int, sys.argv[2:])
    soak = Soak(folder, seed, restarts)
    failure = ""
    try:
        soak.run(passes, seconds)
    except Exception:  # of any kind ends the phone, and is the runner's to show
        failure = traceback.format_exc()
    soak.tell(failure)
    return 1 if failure else 0


if __name__ == "__main__":
    sys.exit(main())
