"""Faults of the broker and of the property service. `strike` begins one, `mend` ends it; one that `lasts` stays until the
stage is over or the phone's time for it is up."""

import json
import os
import signal
import socket
import threading


import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes

import phone

STOPPED, RUNNING = 0.03, 0.002   # seconds in which a slow process is stopped, and runs
NAMES = {"broker": "broker", "property service": "properties"}


class Fault:
    lasts = True
    brief = False   # over as soon as it has struck
    seconds = 0     # one that does not last: of the machine's time, in which answers come, until it is mended

    def prepare(self, case):
        """Before the stage is reached."""

    def strike(self, case):
        pass

    def mend(self, case):
        pass


class ServiceFault(Fault):
    def __init__(self, name):
        self.name = name

    def thaw_stage(self, case):
        """The stage may have frozen the property service so that it can be caught."""
        if case.frozen is not None:
            case.thaw(case.frozen)

    def start(self, case):
        """The test's own client leaves the bus before, so that it never meets what takes a service's place."""
        if phone.service("status", self.name, check=False) != 0:
            phone.service("start", self.name)
        type(case).bus = phone.Bus()
        case.bus.wait_message("prop-service/status")
        phone.wait_until(lambda: case.bus.messages("prop-service/status")[-1][1] == "online",
                         "the property service on the broker")


class Killed(ServiceFault):
    def strike(self, case):
        case.bus.close()
        phone.service("kill", self.name)
        self.thaw_stage(case) if self.name == "broker" else None

    def mend(self, case):
        self.start(case)


class Restarted(Killed):
    lasts = False
    brief = True

    def strike(self, case):
        super().strike(case)
        self.start(case)

    def mend(self, case):
        pass


class Frozen(ServiceFault):
    def strike(self, case):
        if self.name == "broker":
            case.freeze(self.name)
            self.thaw_stage(case)
        elif case.frozen is None:
            case.freeze(self.name)

    def mend(self, case):
        case.thaw(phone.service_pid(self.name))


class Slow(ServiceFault):
    """The process is stopped most of the time, until the stage is over at the machine's pace, or for three seconds."""

    lasts = False
    seconds = 3

    def strike(self, case):
        self.pid = phone.service_pid(self.name)
        self.ending = threading.Event()
        self.thread = threading.Thread(target=self.hamper, daemon=True)
        self.thread.start()
        if self.name == "broker":
            self.thaw_stage(case)

    def hamper(self):
        while not self.ending.wait(RUNNING):
            os.kill(self.pid, signal.SIGSTOP)
            self.ending.wait(STOPPED)
            os.kill(self.pid, signal.SIGCONT)

    def mend(self, case):
        self.ending.set()
        self.thread.join()
        os.kill(self.pid, signal.SIGCONT)



class FalseBroker(Killed):
    """Another program on the broker's port says `greeting` to each connection."""

    greeting = b""

    def strike(self, case):
        super().strike(case)
        self.listening = phone.wait_until(self.listen, "the broker's port")
        self.open = []
        threading.Thread(target=self.serve, daemon=True).start()

    @staticmethod
    def listen():
        try:
            return socket.create_server(("127.0.0.1", 1883))
        except OSError:
            return None

    def serve(self):
        while True:
            try:
                connection, _ = self.listening.accept()
                self.open.append(connection)
                connection.sendall(self.greeting)
            except OSError:
                if self.listening.fileno() < 0:
                    return

    def mend(self, case):
        self.listening.shutdown(socket.SHUT_RDWR)
        self.listening.close()
        for connection in self.open:
            connection.close()
        super().mend(case)


class RefusingBroker(FalseBroker):
    greeting = bytes((0x20, 3, 0, 0x88, 0))    # CONNACK: server unavailable


class GarbageBroker(FalseBroker):
    greeting = bytes(range(255, -1, -1)) * 64


class FalseService(Killed):
    """Another client answers in the property service's place: `answer(request)` is what it says."""

    def strike(self, case):
        super().strike(case)
        self.client = mqtt.Client("false-service", protocol=mqtt.MQTTv5)
        ready = threading.Event()
        self.client.on_subscribe = lambda *_: ready.set()
        self.client.on_message = self.on_message
        self.client.connect("127.0.0.1", 1883)
        self.client.loop_start()
        self.client.subscribe([("prop-service/get", 1), ("prop-service/set", 1)])
        if not ready.wait(phone.DEADLINE):
            raise AssertionError("the false service is not on the bus")
        self.client.publish("prop-service/status", "online", 1, retain=True).wait_for_publish(phone.DEADLINE)

    def on_message(self, client, _data, message):
        topic = getattr(message.properties, "ResponseTopic", None)
        if topic:
            properties = mqtt.Properties(PacketTypes.PUBLISH)
            properties.CorrelationData = message.properties.CorrelationData
            client.publish(topic, self.answer(message.payload), message.qos, properties=properties)

    def answer(self, request):
        raise NotImplementedError

    def mend(self, case):
        self.client.publish("prop-service/status", "offline", 1, retain=True).wait_for_publish(phone.DEADLINE)
        self.client.disconnect()
        self.client.loop_stop()
        super().mend(case)


class RefusingService(FalseService):
    def answer(self, request):
        key = json.loads(request)["param"]
        return json.dumps({"param": key, "error": "storage", "reason": "the disk is on fire"})


class GarbageService(FalseService):
    def answer(self, request):
        return b"\xff\x00{[" + request[::-1]


COMMON = {"killed": Killed, "restarted": Restarted, "frozen": Frozen, "slow": Slow}
BROKER = {**COMMON, "errors": RefusingBroker, "garbage": GarbageBroker}
SERVICE = {**COMMON, "errors": RefusingService, "garbage": GarbageService}


def find(what, fault):
    return BROKER[fault]("broker") if what == "broker" else SERVICE[fault]("properties")
