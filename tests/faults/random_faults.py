"""kill -9 and power cuts at random moments: of the daemon in a pass of every kind, of the property service under sets."""

import json
import os
import shutil
import threading
import time

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes

import case as cases
import faults
import phone
from every_kind import EveryKind, duration, empty_folders
from faulty import DISK, LIBRARY, Control, start_with, with_environment


# Killed.


def restart(case):
    """The next daemon after one that was killed, as the service manager starts it; without the 90 s."""
    case.log.mark()
    phone.service("start", "daemon")
    case.log.wait("ZAV initialized.")
    phone.wait_until(lambda: not [path for path in case.files() if path.endswith((".part", ".tmp"))],
                     lambda: f"no partial files, there are {case.files()}")


def check_unlocked(case, what):
    seen = None

    def unlocked():
        nonlocal seen
        seen = case.bus.get(cases.LOCK)
        return seen == "0"

    try:
        phone.wait_until(unlocked, "an unlocked screen")
    except phone.Late:
        raise cases.NotHeld("unlocked", f"0 after {what}", f"{seen}; {case.tail()}") from None


def daemon_killed(times):
    """kill -9 at random moments of a pass; each next daemon finds whole files and unlocks the screen."""
    def run(case):
        case.start_idle()
        job = EveryKind(case)
        whole = duration(case, job)
        moments = []
        for _ in range(times):
            empty_folders(case)
            moment = case.random.uniform(0, whole)
            moments.append(moment)
            job.begin()
            time.sleep(moment)
            phone.service("kill", "daemon")
            restart(case)
            case.hold_whole_files("")
            check_unlocked(case, f"kill -9 after {moment * 1000:.0f} ms")
            case.settle_quietly()
        case.figures["daemon killed"] = times
        case.notes.append(f"a pass takes {whole * 1000:.0f} ms, killed after " + " ".join(f"{m * 1000:.0f}" for m in moments))
        case.pid_before = phone.service_pid()
        case.log.mark()
        result = job.run()
        if result != "success":
            raise cases.NotHeld("result", "success of the whole pass", f"{result}; {case.tail()}")
        job.check_done()

    return run


class Load:
    """Sets in a stream that does not wait for its answers; every value is a number larger than the ones before."""

    KEYS = [f"Directory.Online.{number}.Name" for number in range(4)]  # no pass writes these
    count = 0
    AHEAD = 200     # sets without an answer

    def __init__(self, first):
        self.number = self.first = first
        self.answered = {}      # key: (number, when)
        self.lock = threading.Condition()
        self.client = mqtt.Client(f"load-{first}", protocol=mqtt.MQTTv5)
        self.client.on_message = self.on_message
        self.client.connect("127.0.0.1", 1883)
        ready = threading.Event()
        self.client.on_subscribe = lambda *_: ready.set()
        self.client.loop_start()
        self.client.subscribe(f"load-{first}/answer", 0)
        if not ready.wait(phone.DEADLINE):
            raise AssertionError("the load is not on the bus")

    def on_message(self, _client, _data, message):
        answer = json.loads(message.payload)
        if "error" in answer:
            return
        with self.lock:
            self.answered[answer["param"]] = (int(answer["value"]), time.monotonic())
            self.lock.notify()

    def run(self, seconds):
        """Sets for so long, and at least one of each key."""
        properties = mqtt.Properties(PacketTypes.PUBLISH)
        properties.ResponseTopic = f"load-{self.first}/answer"
        end = time.monotonic() + seconds
        while time.monotonic() < end or self.number < self.first + len(self.KEYS):
            key = self.KEYS[self.number % len(self.KEYS)]
            self.client.publish("prop-service/set", json.dumps({"param": key, "value": str(self.number), "source": "load"}), 0,
                                properties=properties)
            self.number += 1
            with self.lock:
                done = self.lock.wait_for(lambda: self.number - max([self.first, *(number for number, _ in
                                                                    self.answered.values())]) < self.AHEAD, phone.DEADLINE)
            if not done:
                raise AssertionError("the property service answers nothing")

    def end(self):
        self.client.disconnect()
        self.client.loop_stop()

    def check(self, case, after, older=0.0):
        """What was answered `older` seconds before now or earlier is there, or a later value."""
        now = time.monotonic()
        for key, (number, when) in self.answered.items():
            if now - when >= older and int(case.bus.get(key) or 0) < number:
                raise cases.NotHeld("settings kept", f"{key} of {number} or later after {after}", case.bus.get(key))


def loaded(case, seconds, at_end):
    """Sets go on for so long until `at_end` has killed the service; the load that was on it."""
    Load.count += 1
    load = Load(Load.count * 1_000_000)
    try:
        load.run(seconds)
        at_end()
    finally:
        load.end()
    return load


def killed_in_stage(stage):
    """kill -9 in mid-stage; what the daemon was downloading is half there, and the next daemon removes it."""
    def run(case):
        stage.reach(case)
        phone.service("kill", "daemon")
        case.gate.set()
        if case.frozen is not None:
            case.thaw(case.frozen)
        restart(case)
        check_unlocked(case, "kill -9")
        case.bus.set("State.Provisioning.OnBootUp", "done")
        case.settle_quietly()
        case.pid_before = phone.service_pid()

    return run


def service_killed(times):
    """kill -9 of the property service while sets arrive; every set that was answered is there afterwards."""
    def run(case):
        case.start_idle()
        case.configure(case.good)
        total = 0
        for _ in range(times):
            load = loaded(case, case.random.uniform(0, 0.3), lambda: os.kill(phone.service_pid("properties"), 9))
            phone.service("kill", "properties")
            phone.service("start", "properties")
            load.check(case, "kill -9")
            total += load.number - load.first
        case.figures.update({"service killed": times, "sets": total})
        case.notes.append(f"{times} times under {total} sets in all")
        quiet_after(case)

    return run


def quiet_after(case):
    case.log.mark()
    case.bus.mark()
    case.pid_before = phone.service_pid()


# A power cut.

def lose_unsynced(folders):
    """What the process wrote and had not synced is gone: each file goes back to what it was when it was synced last."""
    lost = []
    for folder in folders:
        for name in faults.files_below(folder):
            path = f"{folder}/{name}"
            status = os.stat(path)
            kept = f"{DISK}/{status.st_dev}-{status.st_ino}"
            if os.path.exists(kept):
                with open(path, "rb") as now, open(kept, "rb") as synced:
                    if now.read() != synced.read():
                        lost.append(path)
                shutil.copyfile(kept, path)
    return lost


def fresh_disk():
    shutil.rmtree(DISK, ignore_errors=True)
    os.makedirs(DISK)


def daemon_power_cut(times):
    def run(case):
        Control()
        fresh_disk()
        start_with(case, {**Control.environment, "FAULTY_DISK": DISK})
        job = EveryKind(case)
        whole = duration(case, job)
        lost = 0
        for _ in range(times):
            empty_folders(case)
            moment = case.random.uniform(0, whole)
            job.begin()
            time.sleep(moment)
            phone.service("kill", "daemon")
            lost += len([path for path in lose_unsynced(cases.FOLDERS)])
            check_finals(case, moment)
            fresh_disk()
            case.environment = {**Control.environment, "FAULTY_DISK": DISK}
            case.bus.set("State.Provisioning.OnBootUp", "done")
            case.launch()
            case.environment = {}
            case.settle_quietly()
            check_unlocked(case, f"a power cut after {moment * 1000:.0f} ms")
        case.figures["daemon power cuts"] = times
        case.notes.append(f"{times} times, {lost} files lost what was not synced")
        case.pid_before = phone.service_pid()
        case.log.mark()
        case.bus.mark()
        result = job.run()
        if result != "success":
            raise cases.NotHeld("result", "success of the whole pass", f"{result}; {case.tail()}")

    return run


def check_finals(case, moment):
    """Only what bears a file's own name counts: partial files are the next daemon's to remove."""
    for path in case.files():
        if path.endswith((".part", ".tmp")) or os.path.basename(path) == cases.LOCK_FILE:
            continue
        with open(path, "rb") as file:
            content = file.read()
        if content not in case.known:
            raise cases.NotHeld("whole files", f"{path} whole after a power cut after {moment * 1000:.0f} ms",
                                f"{len(content)} bytes {content[:40]!r}")


def service_power_cut(times):
    """What was answered more than a second before the cut is there afterwards, and the store opens."""
    def run(case):
        case.start_idle()
        case.configure(case.good)
        lost = total = 0
        for _ in range(times):
            phone.service("stop", "properties")
            fresh_disk()
            with_environment({"LAB_PRELOAD": LIBRARY, "FAULTY_DISK": DISK}, lambda: phone.service("start", "properties"))
            early = loaded(case, case.random.uniform(0, 0.3), lambda: None)
            later = loaded(case, 1.1, lambda: os.kill(phone.service_pid("properties"), 9))
            phone.service("kill", "properties")
            lost += len(lose_unsynced(["/config"]))
            phone.service("start", "properties")
            # The later load has written the same keys: what it had answered a second before the cut must be there.
            early.check(case, "a power cut a second later")
            total += early.number - early.first + later.number - later.first
        case.figures["service power cuts"] = times
        case.notes.append(f"{times} times, {lost} files lost what was not synced, {total} sets")
        if lost == 0:
            raise cases.NotHeld("the row itself", "a power cut that loses something", "all was synced")
        quiet_after(case)

    return run


def find(what, fault):
    """killed at 20 moments, ...; power cut at 10 moments, ..."""
    kind, times = fault.split(" at ")[0], int(fault.split(" at ")[1].split()[0])
    return {("daemon", "killed"): daemon_killed, ("daemon", "power cut"): daemon_power_cut,
            ("property service", "killed"): service_killed, ("property service", "power cut"): service_power_cut}[
                what, kind](times)
