"""One life of a phone in the lab: what is broken at the moment, which passes are under way, and what is expected of them.
The steps are in rules.py, what must hold after each of them in invariants.py.

A pass is exact as long as nothing disturbs it: its result and its settings are those of its content. An outage of the
bus, the end of the daemon or time that passes makes the passes of that moment vague: they may end in any way, and do so
at the latest when the outage is over."""

import datetime
import os
import shutil
import subprocess
import threading

import contents
import invariants
import phone
from daemon import BOOTED, HELP, NO_NETWORK, PERIOD, Daemon
from faults import SERVER
from model import Settings, Timer
from server import Answer, Server

STATE = "State.Provisioning"
LOCK = "State.Provisioning.LockUI"
RESULTS = ("success", "partSuccess", "fail")
FOLDERS = ("/config/swupdate", "/custom/certs/_storage", "/var/volatile/contacts", "/var/volatile/provisioning")
BIRTH = {"NET.MAC.Address": phone.MAC, "System.Provision.FactoryAuthUsername": "phone",
         "System.Provision.FactoryAuthPassword": "factory", "FirmwareManagment.AutomaticCheckForUpdates": "1",
         "System.General.SoftwareVersion": "2.13.7", PERIOD: "86400", BOOTED: "done"}
READY = "Provisioning timer: Provisioning ready to go"
NO_BUS = {"broker", "properties", "broker frozen", "properties frozen"}


class Life(Daemon):
    patience = 15   # seconds that a step may take to settle
    server = None   # keeps its port, and its connections, over all lives

    def __init__(self):
        Life.server = Life.server or Server()
        self.contents = contents.contents(Life.server.url)
        self.log = phone.Log()
        self.model = Settings()
        self.timer = Timer(self.wall)
        self.gate = threading.Event()   # open unless the server holds its answers back
        self.gate.set()
        self.servers = []               # of contents that bring their own
        self.broken = {}                # fault: how it is mended
        self.bus = None
        self.asked_before = 0           # timer's requests heard on earlier connections
        self.daemon = "down"            # or "up", or "waiting" for the network
        self.owed = 0                   # passes asked for that have not ended, while they are exact
        self.unanswered = 0             # the watchdog's questions during these
        self.vague = False
        self.asking = False             # the timer may wait for an answer, so its next time is not known
        self.unstarted = False          # an address that starts no pass has left the daemon busy, as it promises
        self.cut_off = 0                # requests of the timer that ended with their daemon
        self.lost = False               # a vague pass may have been lost without a result
        self.unsure = []                # contents that vague passes may have applied
        self.result = ""                # State.Provisioning as the last pass left it, or the request that started none
        self.booting = False            # the pass after boot has begun and is not known to be done
        self.locked = True              # the daemon holds the lock against a second one
        self.content = self.idle = None
        self.checks = self.passes = 0

    # Birth and end.

    def begin(self):
        for name in ("daemon", "properties", "broker"):
            self.end_process(name)
        for folder in FOLDERS:
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
        for path in [f"/config/{name}" for name in os.listdir("/config") if name.startswith("properties.db")] + [
                f"{phone.HOME}/daemon.log", f"{phone.HOME}/clock"]:
            if os.path.exists(path):
                os.remove(path)
        subprocess.run(["phone-clock", f"{phone.HOME}/clock", "create"], check=True, timeout=10)
        self.date(1)
        phone.service("start", "broker")
        phone.service("start", "properties")
        self.connect()
        for key, value in BIRTH.items():
            self.bus.set(key, value)
        self.model.possible = {key: {value} for key, value in invariants.values(self).items()}
        self.serve("one setting")
        self.start_daemon()
        self.check()

    def end(self):
        """The last recovery, unless the life has failed before."""
        self.mend()
        self.after_step()

    def close(self):
        """Leaves nothing behind that the next life would meet."""
        self.gate.set()
        for name in [name for name in self.broken if name in ("disk full", "place taken", "key", *NO_NETWORK)]:
            self.broken.pop(name)()
        for server in self.servers:
            server.close()
        if self.bus:
            self.bus.close()

    @staticmethod
    def end_process(name):
        if os.path.exists(f"{phone.HOME}/{name}.pid") and phone.service("status", name, check=False) == 0:
            phone.service("kill", name)

    def connect(self):
        """A connection of the test's own, on a broker that is new."""
        self.bus = phone.Bus()
        self.since = 0
        self.wait_online()

    def disconnect(self):
        self.asked_before += self.asked()
        self.bus.close()
        self.bus = None

    def wait(self, condition, what, seconds=None):
        return phone.wait_until(condition, lambda: f"{what}\n{self.story()}", seconds or self.patience)

    def story(self):
        """For a failure: what was heard last, and the end of the log."""
        heard = [f"{source} {key}={value}" for source, key, value in self.changes(0)[-12:]] if self.bus else []
        return (f"owed {self.owed}, vague {self.vague}, broken {list(self.broken)}, content {self.content.name}\n" +
                "\n".join(heard) + "\n" + "\n".join(self.log.lines()[-40:]))

    # Time.

    @staticmethod
    def date(days):
        day = datetime.date.today() + datetime.timedelta(days=days)
        phone.clock("date", f"{day} 12:00:00")

    @staticmethod
    def wall():
        shown = subprocess.run(["phone-clock", f"{phone.HOME}/clock", "show"], check=True, capture_output=True, text=True,
                               timeout=10).stdout
        return datetime.datetime.strptime(shown[:19], "%Y-%m-%d %H:%M:%S")

    def jump(self, seconds):
        """Moves the daemon's clock, whose threads wait. Tells whether the timer's time came: True, False or "maybe"."""
        if self.daemon != "down":
            self.wait(lambda: phone.asleep(phone.service_pid()), "all threads of the daemon asleep")
        fired = self.timer.window and self.logged(READY)
        phone.clock("jump", seconds)
        due = self.timer.jumped(seconds)
        if due is True and self.daemon != "down":
            self.wait(lambda: self.logged(READY) > fired, "the timer awake")
        return due

    @staticmethod
    def logged(text):
        """In the logs of all daemons of this life."""
        return phone.Log().count(text)

    def unfinished(self):
        """Requests of this daemon's timer that are under way: it has not asked yet, nor found that it cannot."""
        return self.logged(READY) - self.logged("Provisioning timer: Preparing to restart timer") - self.cut_off

    def skip(self, seconds):
        """Over a pause. If the timer's time comes meanwhile, its pass is a vague one."""
        if self.jump(seconds):
            self.vague = True
            self.unsure.append(self.content)

    # What is the case.

    def bus_works(self):
        return not NO_BUS & set(self.broken)

    def up(self):
        return self.daemon == "up" and "daemon frozen" not in self.broken

    def held(self):
        return bool({"answers", "half answers"} & set(self.broken))

    def calm(self):
        return self.bus_works() and self.up() and not self.vague and self.owed == 0

    def expected(self):
        """The result of an exact pass; "" if none starts."""
        if not self.content.result:
            return ""
        fails = ({"disk full", "place taken"} & set(self.broken) or (self.content.key and "key" in self.broken) or
                 (self.content.certificate and not contents.BEGUN < self.wall() < contents.BEGUN + contents.VALID))
        return contents.FAIL if fails else self.content.result

    def changes(self, since=None):
        """(source, key, value) of the changes heard since the first pass that is owed was asked for."""
        messages = self.bus.messages()[self.since if since is None else since:]
        found = [phone.json.loads(text) for topic, text in messages if topic.startswith("prop-service-state/State.")]
        return [(one["source"], one["param"], one["value"]) for one in found]

    def results(self):
        return [value for source, key, value in self.changes()
                if (source, key) == ("prov-client", STATE) and value in RESULTS]

    def asked(self):
        """The timer's requests."""
        return self.changes(0).count(("prov-client", STATE, "request"))

    # Passes.

    def serve(self, name):
        """The content, and the setting that leads to it. A setting that the property service refuses changes nothing."""
        content = self.contents[name]
        address, server = content.place() if content.place else (Life.server.url, None)
        try:
            self.bus.set(SERVER, address)
        except KeyError:
            return
        if server:
            self.servers.append(server)
        Life.server.requests.clear()
        Life.server.answers = {path: answer if isinstance(answer, Answer) else Answer(answer)
                               for path, answer in content.answers.items()}
        self.content = content
        self.hold_back()
        if self.vague:
            self.unsure.append(content)

    def hold_back(self):
        """One answer of the content waits for the gate: before it begins, or in its middle. One that is cut never waits."""
        answers = Life.server.answers
        answer = answers.get(self.content.held)
        if answer and not answer.cut:
            half = len(answer.body) // 2 if "half answers" in self.broken else None
            answers[self.content.held] = Answer(answer.body, answer.status, self.gate, half)

    def is_held(self):
        return self.held() and self.content.held in Life.server.answers and not Life.server.answers[self.content.held].cut

    def hear(self):
        """What is heard from here on belongs to the passes that are about to be asked for."""
        if self.owed == 0:
            self.since = len(self.bus.messages())
            Life.server.requests.clear()

    def asked_for_pass(self, word="request"):
        """Waits for the end of an exact pass, or until its server holds it back."""
        self.unstarted = self.unstarted or not self.expected()
        if self.vague:
            self.lost = True  # a daemon that is not back on the bus does not hear it
            return self.unsure.append(self.content)
        if not self.expected():
            self.result = word
            return None if "daemon frozen" in self.broken else self.settle()
        self.owed += 1
        if self.owed > 1 or "daemon frozen" in self.broken:
            return None
        if self.is_held():
            self.wait(lambda: self.content.held in Life.server.requests or self.results(), "the pass's download")
            if not self.results():
                return None
        return self.finish()

    def finish(self):
        """All owed passes end as their content says."""
        jumped = 0

        def ended():
            nonlocal jumped
            jumped = phone.jump_pauses(self.log, jumped) if self.content.pauses else 0
            return len(self.results()) >= self.owed

        expected = [self.expected()] * self.owed
        self.wait(ended, f"{self.owed} result(s)")
        self.wait(lambda: len(self.bus.messages("prov-client/watchdog")) >= self.unanswered, "the answers to the watchdog")
        self.settle()
        if self.results() != expected:
            raise AssertionError(f"passes ended as {self.results()}, not as {expected}\n{self.story()}")
        self.passes += self.owed
        self.owed = self.unanswered = 0
        self.unstarted = False
        self.result = self.expected()
        if self.result == self.content.result:
            for key, value in self.content.settings:
                self.model.set(key, value)

    def disturb(self, lost=False):
        """An outage. The passes under way are vague from now on. A request that is heard during one starts none."""
        if self.owed:
            self.vague = True
            self.unsure.append(self.content)
        waiting = self.owed > 1 or (self.owed and "daemon frozen" in self.broken)
        self.lost = self.lost or lost or waiting
        self.owed = self.unanswered = 0

    def settle(self, helped=False):
        """Until no pass runs and none waits: asked on the way that requests go, the daemon says alive and not busy. An
        address that no pass can start with leaves it busy; that is what it promises."""
        def quiet():
            busy = self.ask(helped)
            if busy is None:
                self.skip(2)
            return busy is False or (busy and not self.expected())

        self.wait(quiet, "the end of all passes", 3 * self.patience if helped else None)

    def ask(self, helped):
        """Whether the daemon is busy; None without an answer."""
        count = len(self.bus.messages("prov-client/watchdog"))
        busy = len(self.bus.messages("prov-client/auto-reboot"))
        for text in ("State.System.QA.AutomaticReboot.IsBusyQuery", "Are you alive?"):
            self.bus.publish("prop-service-state/x", {"param": text, "value": ""})
        try:
            self.wait(lambda: len(self.bus.messages("prov-client/watchdog")) > count, "an answer to the watchdog",
                      HELP if helped else None)
        except phone.Late:
            if not helped:
                raise
            return None
        return len(self.bus.messages("prov-client/auto-reboot")) > busy

    def back(self):
        """The bus works again, and the daemon with it, after its back-off. A pass that is held back says nothing."""
        if self.daemon == "down" or not self.bus_works():
            return
        if self.held() and (self.owed or self.vague):
            return
        if self.daemon == "waiting":
            self.settle(helped=True)
        else:
            self.disturb()
            self.vague = True

    def recover(self):
        """After the outage: the vague passes end, unlock the screen and publish a result."""
        allowed = {*RESULTS, self.result} | ({"", "request", "request-check-sync"} if self.lost else set())
        if not self.expected():
            allowed |= {"request", "request-check-sync"}
        self.wait_helped(lambda: self.unfinished() == 0, "the timer waiting again")
        if self.unstarted and self.expected():
            # The address that starts no pass has left the daemon busy, and the next request may have been lost.
            self.wait_helped(lambda: self.ask(helped=True) is not None, "the daemon on the bus")
            self.bus.set(STATE, "request")
        self.settle(helped=True)
        self.wait_helped(lambda: self.bus.get(LOCK) == "0", "the user interface unlocked")
        self.wait_helped(lambda: self.bus.get(STATE) in allowed, f"the result as one of {allowed}")
        self.settle(helped=True)
        for content in self.unsure:
            for key, value in content.settings:
                self.model.maybe(key, value)
        self.vague = self.lost = self.asking = False
        self.unstarted = not self.expected()
        self.unsure = []
        self.result = self.bus.get(STATE)

    def wait_online(self):
        """Unless another fault still keeps the word away: its end waits instead."""
        if not self.bus_works():
            return
        self.wait(lambda: self.bus.messages("prop-service/status")[-1:] == [("prop-service/status", "online")],
                  "the property service online")

    def wait_helped(self, condition, what):
        for _ in range(10):
            try:
                return self.wait(condition, what, HELP)
            except phone.Late:
                self.skip(2)
        return self.wait(condition, what)

    # After a step.

    def mend(self, *names):
        """Ends these faults, or all, in the order in which a phone comes back."""
        order = ["broker frozen", "properties frozen", "broker", "properties", "daemon frozen", "answers", "half answers",
                 "key", "disk full",
                 "place taken", "clock at 1970", "clock in 2030", "web server", "interface", "daemon"]
        for name in order:
            if name in self.broken and (not names or name in names):
                self.broken.pop(name)()
                if self.owed and self.bus_works() and self.up() and not self.held():
                    self.finish()  # while the other faults still decide its result
        if not names and self.expected() != contents.SUCCESS:
            self.serve("two settings")

    def after_step(self):
        if self.bus_works() and self.up() and not self.held():
            if self.vague:
                self.recover()
            elif self.owed:
                self.finish()
        if self.calm():
            invariants.standing(self)
            if not self.broken and self.expected() == contents.SUCCESS:
                self.check()

    def check(self):
        """Nothing is broken: the next request succeeds, and all invariants hold."""
        self.hear()
        self.bus.set(STATE, "request")
        self.asked_for_pass()
        invariants.standing(self)
        invariants.healthy(self)
        self.checks += 1
