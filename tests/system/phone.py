"""What the system tests see of the phone: its bus, its properties, its daemon's log, clock and services.

Runs inside lab/phone. Every wait is for a condition and has a deadline far beyond what the condition needs; a deadline
that passes is a failure that shows what was there instead.
"""

import json
import os
import re
import signal
import socket
import subprocess
import threading
import time
import unittest
import uuid

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes

from server import Server

DEADLINE = 30
HOME = os.environ["PHONE"]
PROJECT = os.environ["LAB_PROJECT"]
WWW = "/srv/www"
MAC = "02:00:5E:10:00:01"
KEY_FILE = "/etc/zav.d/key"


class Late(AssertionError):
    """What was waited for did not come."""


def wait_until(condition, what, deadline=DEADLINE):
    """Asks until the condition holds and hands back what it answered. Asked again every few milliseconds."""
    end = time.monotonic() + deadline
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > end:
            raise Late(f"not within {deadline} s: {what() if callable(what) else what}")
        time.sleep(0.005)


def service(action, name, check=True):
    done = subprocess.run([f"{PROJECT}/lab/service", action, name], capture_output=True, text=True, timeout=90)
    if check and done.returncode != 0:
        raise AssertionError(f"service {action} {name}: {done.returncode} {done.stdout}{done.stderr}")
    return done.returncode


def clock(*words):
    """Sets the daemon's clock: ("factor", 100), ("date", "2026-11-20 03:50:00.4")."""
    subprocess.run(["phone-clock", f"{HOME}/clock", *map(str, words)], check=True, timeout=10)


def all_threads_are(state, pid):
    """Whether every thread of the process is in this state: "S" sleeps, "T" is stopped."""
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/stat", encoding="ascii") as file:
                if file.read().rsplit(")", 1)[1].split()[0] != state:
                    return False
        except (FileNotFoundError, ProcessLookupError):
            pass  # a thread that has ended meanwhile
    return True


def asleep(pid):
    return all_threads_are("S", pid)


def freeze(pid):
    """Stops the process. On a busy machine other threads still run for a moment after the signal was sent."""
    os.kill(pid, signal.SIGSTOP)
    wait_until(lambda: all_threads_are("T", pid), f"all threads of process {pid} stopped")


def service_pid(name="daemon"):
    with open(f"{HOME}/{name}.pid", encoding="ascii") as file:
        return int(file.read())


def jump(seconds, pid=None):
    """Moves the daemon's clock ahead, once its threads wait: a wait that has not begun would begin after the jump."""
    pid = pid or service_pid()
    wait_until(lambda: asleep(pid), "all threads of the daemon asleep")
    clock("jump", seconds)


def jump_pauses(log, jumped):
    """Jumps over the pauses between a download's attempts, each once it is announced; `jumped` of them have been.
    Returns how many have been by now. Any other jump could end a wait that has just begun on a busy machine."""
    announced = re.findall(r"(?:going on|starting again) in (\d+) s", "\n".join(log.lines()))
    for seconds in announced[jumped:]:
        jump(int(seconds))
    return len(announced)


class Log:
    """The daemon's log as text, from a mark on."""

    def __init__(self, path=f"{HOME}/daemon.log"):
        self.path = path
        self.start = 0

    def mark(self):
        """Forgets what was logged until now."""
        self.start = os.path.getsize(self.path) if os.path.exists(self.path) else 0

    def lines(self):
        if not os.path.exists(self.path):
            return []
        with open(self.path, "rb") as file:
            file.seek(self.start)
            return file.read().decode(errors="replace").splitlines()

    def count(self, text):
        return sum(text in line for line in self.lines())

    def wait(self, text, count=1, deadline=DEADLINE):
        wait_until(lambda: self.count(text) >= count,
                   lambda: f"{count} log line(s) with {text!r} in:\n" + "\n".join(self.lines()[-60:]), deadline)

    def in_order(self, texts):
        """Asserts that the lines holding these texts stand in this order (others may stand between)."""
        lines = self.lines()
        at = 0
        for text in texts:
            found = next((i for i in range(at, len(lines)) if text in lines[i]), None)
            if found is None:
                raise AssertionError(f"no line {text!r} from line {at} on in:\n" + "\n".join(
                    f"{i:4} {line}" for i, line in enumerate(lines)))
            at = found + 1

    def none(self, texts):
        for text in texts:
            found = [line for line in self.lines() if text in line]
            if found:
                raise AssertionError(f"unexpected log line {found[0]!r}")


class Bus:
    """A bus client of another make: hears every change, asks and sets properties, plays watchdog and auto-reboot."""

    TOPICS = ("prop-service-state/#", "prop-service-system/#", "prop-service-telephony/#", "prop-service-phoneui/#",
              "prop-service-functionkeys/#", "prov-client/#", "prop-service/status")

    def __init__(self):
        self._lock = threading.Lock()
        self._messages = []
        self._answers = {}
        self._ready = threading.Event()
        self._me = f"system-test-{uuid.uuid4().hex[:12]}"
        self._client = mqtt.Client(self._me, protocol=mqtt.MQTTv5)
        self._client.on_connect = self._on_connect
        # Otherwise each message waits up to 40 ms for the acknowledgement of the one before.
        self._client.on_socket_open = lambda _client, _data, sock: sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self._client.on_subscribe = lambda *_: self._ready.set()
        self._client.on_message = self._on_message
        self._client.reconnect_delay_set(1, 1)
        self._client.connect("127.0.0.1", 1883)
        self._client.loop_start()
        self.wait_ready()

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()

    def wait_ready(self):
        if not self._ready.wait(DEADLINE):
            raise AssertionError("the test's own bus connection is not there")

    def expect_reconnection(self):
        """Call it before the broker goes away, and wait_back() once it has been started again."""
        self._ready.clear()
        with self._lock:
            self._messages = [message for message in self._messages if message[0] != "prop-service/status"]

    def wait_back(self):
        """This client and the property service are on the new broker."""
        self.wait_ready()
        self.wait_message("prop-service/status")

    def _on_connect(self, client, *_):
        client.subscribe([(topic, mqtt.SubscribeOptions(qos=1)) for topic in (*self.TOPICS, self._me + "/#")])

    def _on_message(self, _client, _data, message):
        text = message.payload.decode()
        with self._lock:
            if message.topic.startswith(self._me):
                self._answers[message.properties.CorrelationData] = json.loads(text)
            else:
                self._messages.append((message.topic, text))

    # Messages

    def mark(self):
        with self._lock:
            self._messages.clear()

    def messages(self, prefix=""):
        with self._lock:
            return [message for message in self._messages if message[0].startswith(prefix)]

    def changes(self, *keys):
        """(key, value) of every change heard, in order; of these keys only if any are given."""
        heard = [json.loads(text) for _, text in self.messages("prop-service-")]
        return [(one["param"], one["value"]) for one in heard if not keys or one["param"] in keys]

    def wait_message(self, topic, count=1, deadline=DEADLINE):
        return wait_until(lambda: len(found := self.messages(topic)) >= count and found,
                          lambda: f"{count} message(s) on {topic} in {self.messages()}", deadline)

    def wait_change(self, key, value=None, deadline=DEADLINE):
        wait_until(lambda: [c for c in self.changes(key) if value is None or c[1] == value],
                   lambda: f"change of {key} to {value} in {self.changes()}", deadline)

    def listen(self, topic):
        """Hears one more topic; holds once the broker has said so."""
        self._ready.clear()
        self._client.subscribe(topic, 1)
        self.wait_ready()

    def publish(self, topic, payload, qos=1):
        text = payload if isinstance(payload, (str, bytes)) else json.dumps(payload)
        self._client.publish(topic, text, qos).wait_for_publish(DEADLINE)

    # Properties

    def _ask(self, operation, request, deadline=DEADLINE):
        correlation = uuid.uuid4().bytes
        properties = mqtt.Properties(PacketTypes.PUBLISH)
        properties.ResponseTopic = f"{self._me}/answer"
        properties.CorrelationData = correlation
        self._client.publish(f"prop-service/{operation}", json.dumps(request), 1, properties=properties)
        answer = wait_until(lambda: self._answers.pop(correlation, None), f"answer to {operation} {request}", deadline)
        if "error" in answer:
            raise KeyError(f"{operation} {request}: {answer}")
        return answer

    def get(self, key):
        # A question that meets a service on its way back to the bus is asked again; a set is an event and is not.
        for deadline in (3, 3):
            try:
                return self._ask("get", {"param": key}, deadline)["value"]
            except Late:
                pass
        return self._ask("get", {"param": key})["value"]

    def list(self, prefix):
        """All properties whose keys begin so."""
        found, after = {}, {}
        while True:
            page = self._ask("list", {"prefix": prefix, **after})
            found.update((one["param"], one["value"]) for one in page["properties"])
            if "next" not in page:
                return found
            after = {"after": page["next"]}

    def set(self, key, value):
        """Returns when its change was heard too, which may come a moment behind the answer."""
        topic = f"prop-service-{key.split('.')[0].lower()}/"
        change = {"param": key, "value": value, "source": "test"}

        def heard():
            return sum(json.loads(text) == change for _, text in self.messages(topic + key))

        before = heard()
        self._ask("set", change)
        if topic + "#" in self.TOPICS:
            wait_until(lambda: heard() > before, lambda: f"change {change} in {self.messages(topic)}")


def encrypt(text):
    """The text as a server publishes it for this phone: in openssl's container, under the phone's pass phrase."""
    return subprocess.run(["openssl", "enc", "-aes-128-cbc", "-salt", "-pass", f"file:{KEY_FILE}"], input=text.encode(),
                          capture_output=True, check=True).stdout


class PhoneTest(unittest.TestCase):
    """One daemon for a class of cases, past its boot and with no pass under way.

    `settings` are set before the daemon starts; `boot_pass` False skips the pass after boot.
    """

    settings = {}
    boot_pass = False
    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.bus = Bus()
        cls.log = Log()
        if cls.boot_pass is not None:
            cls.boot()

    @classmethod
    def tearDownClass(cls):
        cls.bus.close()
        if os.path.exists(f"{HOME}/daemon.pid") and service("status", "daemon", check=False) == 0:
            service("kill", "daemon")

    @classmethod
    def boot(cls):
        """Starts the daemon and lets it skip the wait for the network to settle."""
        for key, value in cls.settings.items():
            cls.bus.set(key, value)
        cls.bus.set("State.Provisioning.OnBootUp", "" if cls.boot_pass else "done")
        cls.log.mark()
        service("start", "daemon")
        cls.settle()
        if not cls.boot_pass:
            cls.log.wait("Provisioning on boot up already done, skipping")

    @classmethod
    def settle(cls):
        cls.log.wait("for stabilization.")
        jump(90)
        cls.log.wait("Enabling provisioning function.")

    def setUp(self):
        self.log.mark()
        self.bus.mark()

    def request(self, word="request", key="State.Provisioning"):
        self.bus.set(key, word)

    def passes_ended(self):
        """By the last line that a pass on the configured server writes."""
        return self.log.count("Provisioning succeeded. ") + self.log.count("Provisioning failed. ")

    def wait_pass_end(self, count=1, deadline=DEADLINE):
        wait_until(lambda: self.passes_ended() >= count,
                   lambda: f"end of {count} pass(es) in:\n" + "\n".join(self.log.lines()[-60:]), deadline)

    def provision(self, word="request"):
        """One pass from request to end, result and lock as the bus told them."""
        self.log.mark()
        self.bus.mark()
        self.request(word)
        self.wait_pass_end()
        self.bus.wait_change("State.Provisioning.LockUI", "0")
        wait_until(lambda: [v for k, v in self.bus.changes("State.Provisioning") if "request" not in v],
                   lambda: f"the pass's result in {self.bus.changes()}")
        return self.bus.changes("State.Provisioning")[-1][1]

    def busy(self):
        """Asks what the auto-reboot service asks."""
        self.bus.publish("auto-reboot/prov-client", {"param": "State.System.QA.AutomaticReboot.IsBusyQuery", "value": ""})

    def alive(self):
        """Asks what the watchdog asks."""
        self.bus.publish("watchdog/prov-client", {"param": "Are you alive?"})

    def terminate(self):
        """SIGTERM until the daemon ends (one that comes before it waits for it is lost); its exit status."""
        pid = service_pid()
        status = f"{HOME}/daemon.status"

        def ended():
            if os.path.exists(status):
                return True
            if self.log.count("IPC listening terminated") == 0:
                try:
                    os.kill(pid, 15)
                except ProcessLookupError:
                    pass
            return False

        wait_until(ended, lambda: "end of the daemon:\n" + "\n".join(self.log.lines()[-40:]))
        with open(status) as file:
            return int(file.read())


class ServedPhoneTest(PhoneTest):
    """A phone whose server is the test's own: it begins with the `answers` of the class."""

    answers = {}

    @classmethod
    def setUpClass(cls):
        cls.server = Server(cls.answers)
        cls.settings = {**cls.settings, "System.Provision.ProvisioningServer": cls.server.url}
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.server.close()


def main():
    unittest.main(verbosity=2)
