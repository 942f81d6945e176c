"""The property service by itself, on a real broker: killed, without room, without a broker, and under load.

It runs here without the daemon, its store where the test can fill up or lock the disk.
"""

import json
import os
import random
import subprocess
import threading
import unittest
import uuid

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes

import phone

KEYS = [f"PhoneUI.Keys.FunctionKeys.{index}.Label" for index in range(8)]
ROUNDS = 200
BURST = 40


class Client:
    """Sends without waiting and counts what comes back: requests, answers and changes in the order of their arrival."""

    def __init__(self):
        self.name = f"load-{uuid.uuid4().hex[:12]}"
        self.changed = threading.Condition()
        self.answers = []
        self.asked = {}
        self.changes = []
        self.qualities = []  # of the answers
        self.status = None
        self.ready = threading.Event()
        self.client = mqtt.Client(self.name, protocol=mqtt.MQTTv5)
        self.client.on_connect = lambda client, *_: client.subscribe(
            [(topic, mqtt.SubscribeOptions(qos=2))
             for topic in (self.name, "prop-service/status", "prop-service-state/#", "prop-service-phoneui/#")])
        self.client.on_subscribe = lambda *_: self.ready.set()
        self.client.on_message = self.arrived
        self.client.reconnect_delay_set(1, 1)
        self.client.connect("127.0.0.1", 1883)
        self.client.loop_start()
        assert self.ready.wait(phone.DEADLINE)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()

    def arrived(self, _client, _data, message):
        with self.changed:
            if message.topic == self.name:
                self.qualities.append(message.qos)
                answer = json.loads(message.payload)
                asked = getattr(message.properties, "CorrelationData", None)
                if asked:
                    self.asked[asked] = answer
                else:
                    self.answers.append(answer)
            elif message.topic == "prop-service/status":
                self.status = message.payload.decode()
            else:
                self.changes.append(json.loads(message.payload))
            self.changed.notify_all()

    def forget(self):
        with self.changed:
            self.answers.clear()
            self.changes.clear()

    def wait(self, condition, what):
        with self.changed:
            if not self.changed.wait_for(condition, phone.DEADLINE):
                raise phone.Late(f"{what}; status {self.status}, {len(self.answers)} answers, "
                                 f"{len(self.changes)} changes")

    def wait_status(self, status):
        self.wait(lambda: self.status == status, f"status {status}")

    def send(self, operation, correlation=None, quality=0, **request):
        properties = mqtt.Properties(PacketTypes.PUBLISH)
        properties.ResponseTopic = self.name
        if correlation:
            properties.CorrelationData = correlation
        self.client.publish(f"prop-service/{operation}", json.dumps(request), quality, properties=properties)

    def ask(self, operation, **request):
        """Its own answer: those to sets that were still on their way may come in between."""
        correlation = uuid.uuid4().bytes
        self.send(operation, correlation, **request)
        self.wait(lambda: correlation in self.asked, f"answer to {operation} {request}")
        return self.asked.pop(correlation)

    def get(self, key):
        return self.ask("get", param=key)["value"]

    def set(self, key, value):
        """The error code, or nothing."""
        return self.ask("set", param=key, value=value).get("error")


class PropertiesTest(unittest.TestCase):
    folder = "/run/store"

    def setUp(self):
        self.process = None
        os.makedirs(self.folder, exist_ok=True)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=1m,mode=700", "tmpfs", self.folder], check=True)
        self.addCleanup(subprocess.run, ["umount", "-l", self.folder], check=True)
        self.client = Client()
        self.addCleanup(self.client.close)
        self.addCleanup(self.end, 9)

    def start(self):
        self.client.status = None
        catalogue = f"{phone.PROJECT}/services/property-service/catalogue.json"
        with open("/run/phone/prop-service.log", "ab") as log:
            self.process = subprocess.Popen(
                ["prop-service", "--catalogue", catalogue, "--store", f"{self.folder}/properties.db"],
                stdout=log, stderr=log)
        self.client.wait_status("online")

    def end(self, signal):
        if self.process is None:
            return
        self.process.send_signal(signal)
        self.process.wait()
        self.process = None

    def fill(self):
        """Leaves no byte of the disk."""
        with open(f"{self.folder}/filler", "wb", buffering=0) as file:
            for size in (65536, 4096, 512, 1):
                try:
                    while file.write(b"x" * size) == size:
                        pass
                except OSError:
                    pass

    def make_room(self):
        os.unlink(f"{self.folder}/filler")

    def fail_set(self):
        """A set that finds no room: what the log still takes is used up first."""
        for number in range(100):
            value = f"{number:03}" + "x" * 50
            error = self.client.set(KEYS[1], value)
            if error:
                return error
            self.last = value
        self.fail("a full disk takes everything")

    def test_what_was_answered_survives_kill_9(self):
        numbers = random.Random(1)
        sent = dict.fromkeys(KEYS, 0)
        self.start()
        for key in KEYS:
            self.assertIsNone(self.client.set(key, "0"))
        number = 0
        partial = 0
        for _ in range(ROUNDS):
            self.client.forget()
            for _ in range(BURST):
                number += 1
                key = numbers.choice(KEYS)
                sent[key] = number
                self.client.send("set", param=key, value=str(number))
            enough = numbers.randrange(BURST + 1)
            self.client.wait(lambda count=enough: len(self.client.answers) >= count, "answers")
            self.end(9)
            # The last will comes after all that was answered.
            self.client.wait_status("offline")
            answered = {}
            for answer in self.client.answers:
                self.assertNotIn("error", answer)
                answered[answer["param"]] = int(answer["value"])
            partial += len(self.client.answers) < BURST
            self.start()
            for key in KEYS:
                found = int(self.client.get(key))
                self.assertGreaterEqual(found, answered.get(key, 0), key)
                self.assertLessEqual(found, sent[key], key)
        self.assertGreater(partial, 0, "it was never killed with sets in hand")
        with open("/run/phone/prop-service.log", encoding="utf-8", errors="replace") as log:
            self.assertNotIn("damaged", log.read())

    def test_full_disk(self):
        self.start()
        self.assertIsNone(self.client.set(KEYS[0], "before"))
        self.fill()
        self.last = self.client.get(KEYS[1])
        self.assertEqual(self.fail_set(), "storage")
        self.assertEqual(self.client.get(KEYS[1]), self.last)
        self.assertIsNone(self.client.set("State.Provisioning", "request"))
        self.make_room()
        self.assertIsNone(self.client.set(KEYS[1], "after"))
        self.end(9)
        self.start()
        self.assertEqual([self.client.get(key) for key in KEYS[:2]], ["before", "after"])

    def test_disk_that_is_full_when_the_service_starts(self):
        self.start()
        self.assertIsNone(self.client.set(KEYS[0], "before"))
        self.end(9)
        self.fill()
        self.start()
        self.assertEqual(self.client.get(KEYS[0]), "before")
        self.last = ""
        self.assertEqual(self.fail_set(), "storage")
        self.assertEqual(self.client.get(KEYS[1]), self.last)
        self.make_room()
        self.assertIsNone(self.client.set(KEYS[1], "after"))
        self.end(9)
        self.start()
        self.assertEqual([self.client.get(key) for key in KEYS[:2]], ["before", "after"])

    def test_disk_that_can_only_be_read(self):
        self.start()
        self.assertIsNone(self.client.set(KEYS[0], "before"))
        self.end(9)
        subprocess.run(["mount", "-o", "remount,ro", self.folder], check=True)
        self.start()
        self.assertEqual(self.client.get(KEYS[0]), "before")
        self.assertEqual(self.client.set(KEYS[0], "lost"), "storage")
        self.assertEqual(self.client.get(KEYS[0]), "before")
        self.assertIsNone(self.client.set("State.Provisioning", "request"))
        subprocess.run(["mount", "-o", "remount,rw", self.folder], check=True)
        self.assertIsNone(self.client.set(KEYS[0], "after"))
        self.end(9)
        self.start()
        self.assertEqual(self.client.get(KEYS[0]), "after")

    def test_first_start_on_a_disk_that_takes_nothing(self):
        mounts = {"read-only": (lambda: self.remount("ro"), lambda: self.remount("rw")),
                  "full": (self.fill, self.make_room)}
        for name, (spoil, mend) in mounts.items():
            with self.subTest(name):
                spoil()
                self.start()
                self.assertEqual(self.client.get("System.General.DeviceID"), "kd4v")
                self.assertEqual(self.client.set(KEYS[0], "lost"), "storage")
                self.assertEqual(self.client.get(KEYS[0]), "")
                self.assertIsNone(self.client.set("State.Provisioning", "request"))
                mend()
                self.assertIsNone(self.client.set(KEYS[0], "after"))
                self.end(9)
                self.start()
                self.assertEqual(self.client.get(KEYS[0]), "after")
                self.end(15)
                for file in os.listdir(self.folder):
                    os.unlink(f"{self.folder}/{file}")

    def test_files_deleted_while_it_runs(self):
        self.start()
        self.assertIsNone(self.client.set(KEYS[0], "before"))
        for signal in (9, 15):
            with self.subTest(signal):
                for file in os.listdir(self.folder):
                    os.unlink(f"{self.folder}/{file}")
                if signal == 9:  # an orderly end needs no set to notice
                    self.assertIsNone(self.client.set(KEYS[1], "after"))
                self.end(signal)
                self.start()
                self.assertEqual([self.client.get(key) for key in KEYS[:2]], ["before", "after"])
        with open("/run/phone/prop-service.log", encoding="utf-8", errors="replace") as log:
            self.assertEqual(log.read().count("properties.db: was deleted while in use; the settings were rewritten: "), 2)

    def remount(self, mode):
        subprocess.run(["mount", "-o", f"remount,{mode}", self.folder], check=True)

    def test_presence_over_kills_and_brokers(self):
        self.start()
        self.end(9)
        self.client.wait_status("offline")
        self.start()
        self.end(15)
        self.client.wait_status("offline")
        self.start()
        for _ in range(2):
            self.client.status = None
            phone.service("kill", "broker")
            phone.service("start", "broker")
            self.client.wait_status("online")
            self.assertEqual(self.client.get("System.General.DeviceID"), "kd4v")
            self.assertIsNone(self.client.set(KEYS[0], "again"))
            self.client.wait(lambda: any(one["value"] == "again" for one in self.client.changes), "the change")

    def test_an_answer_has_the_quality_of_its_request(self):
        self.start()
        for quality in (0, 1, 2):
            with self.subTest(quality):
                self.client.qualities.clear()
                self.client.ask("set", quality=quality, param=KEYS[0], value=str(quality))
                self.assertEqual(self.client.qualities, [quality])
                self.assertEqual(self.client.get(KEYS[0]), str(quality))

    def test_changes_come_in_the_order_of_the_sets(self):
        self.start()
        writers = [Client() for _ in range(3)]
        for writer in writers:
            self.addCleanup(writer.close)

        def write(index):
            for number in range(500):
                key = KEYS[number % 8] if number % 3 else "State.Provisioning"
                writers[index].send("set", param=key, value=str(number), source=str(index))

        threads = [threading.Thread(target=write, args=(index,)) for index in range(3)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for writer in writers:
            writer.wait(lambda one=writer: len(one.answers) == 500, "500 answers")
            writer.wait(lambda one=writer: len(one.changes) == 1500, "1500 changes")
        self.client.wait(lambda: len(self.client.changes) == 1500, "1500 changes")
        for index in range(3):
            self.assertEqual([one["value"] for one in self.client.changes if one["source"] == str(index)],
                             [str(number) for number in range(500)])
        self.assertEqual(writers[0].changes, self.client.changes)
        for key in (*KEYS, "State.Provisioning"):
            self.assertEqual(self.client.get(key),
                             [one["value"] for one in self.client.changes if one["param"] == key][-1])


if __name__ == "__main__":
    phone.main()
