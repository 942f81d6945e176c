"""The table of rules: everything that can happen to a phone in a life. README.md shows it."""

import dataclasses
import os
import shutil
import signal
import subprocess

import paho.mqtt.client as mqtt

import contents
import phone
from daemon import NO_NETWORK, PERIOD
from faults import INITIAL
from files import LABEL, NAME
from life import NO_BUS, STATE

TRIGGER = "State.FirmwareUpdate.TriggerAuto"
UPDATE_BUNDLE = "State.Security.Certificates.UpdateCABundle"
MOST_FAULTS = 3   # at the same time
RULES = {}


@dataclasses.dataclass
class Rule:
    name: str
    text: str           # for the table
    arguments: tuple    # one is chosen; empty without
    allowed: object     # whether it can happen to this life now
    happen: object      # what happens
    weight: int = 1     # how often it is chosen beside the others
    mended: str = ""    # the rule that ends it; "" if it needs no end
    mends: str = ""     # the rule that it ends


def rule(name, text, arguments=(), allowed=lambda life: True, weight=1):
    def add(function):
        RULES[name] = Rule(name, text, tuple(arguments), allowed, function, weight)
        return function
    return add


def fault(name, text, mended, allowed=lambda life: True):
    """Something breaks; a rule of its own mends it. The function breaks it and returns what mends it."""
    def add(function):
        def begin(life):
            mend = function(life)
            if mend:
                life.broken[name] = mend
        RULES[name] = Rule(name, text, (), lambda life: name not in life.broken and len(life.broken) < MOST_FAULTS and
                           allowed(life), begin, mended=mended)
        RULES[mended] = Rule(mended, "", (), lambda life: name in life.broken and mendable(life, name),
                             lambda life: life.mend(name), mends=name)
        return function
    return add


def mendable(life, name):
    """A service needs the bus to start, and the daemon to take notice of its network."""
    if name == "daemon" or (name in NO_NETWORK and life.daemon == "waiting"):
        return life.bus_works()
    return name != "properties" or not {"broker", "broker frozen"} & set(life.broken)


def on_bus(life):
    return life.bus_works()


def in_hand(life):
    """A pass waits for its server."""
    return life.held() and life.owed > 0 and not life.vague and life.up() and life.bus_works()


# What users and administrators do.

@rule("request", "somebody asks for a pass", ("request", "request-check-sync", "trigger"),
      lambda life: life.bus_works() and life.daemon == "up" and life.owed < 3, 8)
def request(life, word):
    life.hear()
    life.bus.set(*((TRIGGER, "request") if word == "trigger" else (STATE, word)))
    life.asked_for_pass(life.result if word == "trigger" else word)


@rule("serve", "the administrator publishes other files, or the setting leads to another server", contents.NAMES,
      lambda life: on_bus(life) and life.owed == 0, 6)
def serve(life, name):
    life.serve(name)


@rule("set", "a user changes a setting", ("one", "two", "three"), on_bus)
def set_(life, value):
    for key in (LABEL, NAME):
        life.bus.set(key, value)
        life.model.set(key, value)


@rule("period", "the time between two passes is set", ("0", "600", "86400", "soon"),
      lambda life: on_bus(life) and life.daemon != "down" and "daemon frozen" not in life.broken and not life.vague, 3)
def period(life, text):
    begun = life.timer.now()
    life.log.mark()
    life.bus.set(PERIOD, text)
    life.log.wait("Timer setting done" if text.isdigit() else "Wrong time format", 1, life.patience)
    if text.isdigit():
        life.timer.start(int(text), begun)


@rule("certificates", "the trusted certificates are read again", (), lambda life: life.calm())
def certificates(life):
    life.bus.set(UPDATE_BUNDLE, "1")
    life.wait(lambda: life.bus.get(UPDATE_BUNDLE) == "", "the new certificates taken over")


@rule("watchdog", "the watchdog asks while a pass waits for its server", (), in_hand)
def watchdog(life):
    life.bus.publish("watchdog/prov-client", {"param": "Are you alive?"})
    life.unanswered += 1


@rule("busy", "the automatic restart asks while a pass waits for its server", (), in_hand)
def busy(life):
    count = len(life.bus.messages("prov-client/auto-reboot"))
    life.bus.publish("auto-reboot/prov-client", {"param": "State.System.QA.AutomaticReboot.IsBusyQuery", "value": ""})
    life.wait(lambda: len(life.bus.messages("prov-client/auto-reboot")) > count, "the word that it is busy")


# Time.

@rule("time", "time passes", ("ten minutes", "an hour", "a day", "three days"),
      lambda life: "daemon frozen" not in life.broken and not life.asking, 4)
def time_(life, span):
    seconds = {"ten minutes": 600, "an hour": 3600, "a day": 86400, "three days": 259200}[span]
    if life.owed:
        life.disturb()  # longer than a server may be silent
    if life.bus:
        life.hear()
    due = life.jump(life.timer.safe(seconds))
    if not due:
        return
    if due == "maybe" or not life.bus_works() or life.vague:
        life.vague = life.asking = True
        life.unstarted = life.unstarted or not life.expected()
        life.unsure.append(life.content)
    elif life.daemon == "waiting":
        life.wait(lambda: life.bus.get(STATE) == "request", "the timer's request, which is refused")
        life.result = "request"
        life.timer.least += 1
    else:
        life.timer.least += 1
        life.wait(lambda: life.changes().count(("prov-client", STATE, "request")), "the timer's request")
        life.asked_for_pass()


@fault("clock at 1970", "the clock shows 1970", "the clock is right", lambda life: "daemon frozen" not in life.broken)
def lose_date(life):
    phone.clock("date", "1970-06-01 12:00:00")
    return lambda: life.date(1)


# The daemon.

@fault("daemon", "the daemon is killed", "start the daemon", lambda life: life.daemon != "down")
def kill(life):
    life.kill_daemon()
    return life.start_daemon


@rule("stop", "SIGTERM, and a start", (), lambda life: life.daemon == "up" and on_bus(life) and
      "daemon frozen" not in life.broken)
def stop(life):
    life.stop_daemon()
    life.start_daemon()


@fault("daemon frozen", "the daemon hangs", "thaw the daemon", lambda life: life.daemon == "up")
def freeze_daemon(life):
    return freeze(life, "daemon")


@rule("second daemon", "somebody starts a second daemon", (),
      lambda life: life.up() and life.locked and "disk full" not in life.broken)
def second(life):
    path = f"{phone.HOME}/second.log"
    with open(path, "wb") as output:
        status = subprocess.run([shutil.which("zavd")], stdin=subprocess.DEVNULL, stdout=output, stderr=output, timeout=20,
                                check=False).returncode
    if status != 1:
        raise AssertionError(f"a second daemon ended with {status}")


@rule("reboot", "the phone loses its power", (), lambda life: not NO_BUS & set(life.broken) and not
      {"disk full", "place taken"} & set(life.broken))
def reboot(life):
    if life.daemon != "down":
        life.kill_daemon()
    life.broken.pop("daemon", None)
    for break_ in (kill_properties, kill_broker):
        life.broken[{kill_properties: "properties", kill_broker: "broker"}[break_]] = break_(life)
    for folder in ("/var/volatile/contacts", "/var/volatile/provisioning"):
        shutil.rmtree(folder)
        os.makedirs(folder)
    life.mend("broker", "properties")
    life.start_daemon()


# The bus.

def freeze(life, name):
    pid = phone.service_pid(name)
    phone.freeze(pid)
    life.booting = False

    def thaw():
        os.kill(pid, signal.SIGCONT)
        life.wait_online()
        life.back()
    return thaw


@fault("properties", "the property service is killed", "start the property service",
       lambda life: "properties frozen" not in life.broken)
def kill_properties(life):
    life.booting = False  # what says that it is done may be lost
    works = "broker" not in life.broken and "broker frozen" not in life.broken
    life.disturb()
    phone.service("kill", "properties")
    if works:
        life.wait(lambda: life.bus.messages("prop-service/status")[-1:] == [("prop-service/status", "offline")],
                  "the word that the property service is gone")

    def start():
        phone.service("start", "properties")
        life.wait_online()
        life.back()
        if not life.vague:
            life.result = ""
        life.lost = life.lost or life.vague
    return start


@fault("properties frozen", "the property service hangs", "thaw the property service",
       lambda life: "properties" not in life.broken)
def freeze_properties(life):
    return freeze(life, "properties")


@fault("broker", "the broker is killed", "start the broker", lambda life: "broker frozen" not in life.broken)
def kill_broker(life):
    # A frozen property service may still hold the timer's request, and announce it before the daemon is back.
    life.disturb(lost=life.asking)
    life.booting = False
    life.disconnect()
    phone.service("kill", "broker")

    def start():
        phone.service("start", "broker")
        life.connect()
        life.back()
    return start


@fault("broker frozen", "the broker hangs", "thaw the broker", lambda life: "broker" not in life.broken)
def freeze_broker(life):
    return freeze(life, "broker")


@rule("take over", "another client takes the daemon's name on the bus", (),
      lambda life: life.up() and on_bus(life) and not life.vague)
def take_over(life):
    life.disturb()
    life.log.mark()
    foreign = mqtt.Client("prov-client", protocol=mqtt.MQTTv5)
    foreign.reconnect_delay_set(3600, 3600)
    foreign.connect("127.0.0.1", 1883)
    foreign.loop_start()
    life.log.wait("IPC connection lost: ", 1, life.patience)
    life.booting = False
    foreign.disconnect()
    foreign.loop_stop()
    life.vague = True


# The phone around it.

@fault("disk full", "the disk is full", "room on the disk",
       lambda life: "place taken" not in life.broken and life.owed == 0 and not life.vague)
def fill_disk(life):
    folder = os.path.dirname(INITIAL)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=4k,nr_inodes=1", "tmpfs", folder], check=True)
    return lambda: subprocess.run(["umount", "-l", folder], check=True)


@fault("place taken", "a folder stands where the file goes", "the folder is gone",
       lambda life: "disk full" not in life.broken)
def take_place(life):
    life.disturb()
    if os.path.exists(INITIAL):
        os.remove(INITIAL)
    os.makedirs(f"{INITIAL}/below")
    return lambda: shutil.rmtree(INITIAL)


@fault("key", "the phone's key is lost", "the key is back")
def lose_key(life):
    life.disturb()
    os.rename(phone.KEY_FILE, f"{phone.KEY_FILE}.aside")
    return lambda: os.rename(f"{phone.KEY_FILE}.aside", phone.KEY_FILE)


@fault("web server", "the phone's own web server is down", "start the web server")
def stop_web_server(life):
    phone.service("kill", "server")

    def start():
        phone.service("start", "server")
        network_back(life)
    return start


@fault("interface", "the cable is pulled", "plug the cable in")
def pull_cable(life):
    subprocess.run(["ip", "link", "set", "eth0", "down"], check=True)

    def plug():
        subprocess.run(["ip", "link", "set", "eth0", "up"], check=True)
        network_back(life)
    return plug


def network_back(life):
    if life.daemon == "waiting" and not NO_NETWORK & set(life.broken) and life.bus_works():
        life.enable()


# The server.

@fault("answers", "the server holds its answers back", "the server answers",
       lambda life: life.owed == 0 and "half answers" not in life.broken)
def hold(life):
    life.gate.clear()
    return lambda: release(life)


@fault("half answers", "the server stops in the middle of its answers", "the server goes on",
       lambda life: life.owed == 0 and "answers" not in life.broken)
def hold_half(life):
    life.gate.clear()
    life.broken["half answers"] = None
    life.hold_back()
    return lambda: release(life)


def release(life):
    if not life.bus_works():
        life.disturb()
    life.gate.set()
    life.hold_back()


@rule("mend", "everything is mended", weight=3)
def mend(life):
    life.mend()


def table():
    """For README.md."""
    def arguments(one):
        return ", ".join(one.arguments) if len(one.arguments) < 12 else f"one of {len(set(one.arguments))} contents"

    return "\n".join(["| Rule | What happens | With | Ended by |", "|---|---|---|---|"] + [
        f"| {one.name} | {one.text} | {arguments(one)} | {one.mended} |" for one in RULES.values() if not one.mends])
