"""The property service's protocol as another client sees it on a real broker: what is retained, and what is not said."""

import json
import threading
import unittest
import uuid

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes

import phone

KEY = "PhoneUI.Keys.FunctionKeys.0.Label"
STATE = "State.Provisioning"


class Listener:
    """Hears every topic, the retain flag as its publisher set it."""

    def __init__(self):
        self.name = f"listener-{uuid.uuid4().hex[:12]}"
        self.heard = []      # (topic, text, retained, quality)
        self.changed = threading.Condition()
        self.ready = threading.Event()
        self.client = mqtt.Client(self.name, protocol=mqtt.MQTTv5)
        self.client.on_connect = lambda client, *_: client.subscribe(
            [("#", mqtt.SubscribeOptions(qos=2, retainAsPublished=True))])
        self.client.on_subscribe = lambda *_: self.ready.set()
        self.client.on_message = self.arrived
        self.client.connect("127.0.0.1", 1883)
        self.client.loop_start()
        assert self.ready.wait(phone.DEADLINE)

    def close(self):
        self.client.disconnect()
        self.client.loop_stop()

    def arrived(self, _client, _data, message):
        with self.changed:
            self.heard.append((message.topic, message.payload.decode(), message.retain, message.qos))
            self.changed.notify_all()

    def wait(self, condition, what, count=1):
        """The messages for which the condition holds, once there are as many."""
        def found():
            return [one for one in self.heard if condition(one)]

        with self.changed:
            if not self.changed.wait_for(lambda: len(found()) >= count, phone.DEADLINE):
                raise phone.Late(f"{what} in {self.heard}")
            return found()

    def ask(self, operation, request, qos=1):
        return self.ask_text(operation, json.dumps(request), qos)

    def ask_text(self, operation, request, qos=1):
        """The answer as it was heard."""
        topic = f"{self.name}/{uuid.uuid4().hex}"
        properties = mqtt.Properties(PacketTypes.PUBLISH)
        properties.ResponseTopic = topic
        properties.CorrelationData = b"c"
        self.client.publish(f"prop-service/{operation}", request.encode(), qos, properties=properties)
        return self.wait(lambda one: one[0] == topic, f"answer to {operation} {request}")[0]

    def all_retained(self):
        """What the broker keeps: all of that comes before this client's own message. A change that was still on its way
        when this client subscribed may come too, without the retain flag."""
        mark = f"{self.name}/mark"
        self.client.publish(mark, "", 1)
        self.wait(lambda one: one[0] == mark, "the own message")
        return [one[:2] for one in self.heard if one[2]]

    def changes(self):
        return [one for one in self.heard if one[0].startswith("prop-service-")]


class PropertiesProtocolTest(unittest.TestCase):
    def setUp(self):
        self.listener = self.listen()

    def listen(self):
        listener = Listener()
        self.addCleanup(listener.close)
        return listener

    def test_answers_and_changes_are_not_retained(self):
        qualities = (0, 1)
        for qos in qualities:
            for operation, request in (("get", {"param": KEY}), ("get", {"param": "No.Such"}), ("list", {"prefix": "NET."}),
                                       ("set", {"param": KEY, "value": f"quality {qos}"}),
                                       ("set", {"param": STATE, "value": "fail"})):
                with self.subTest(operation, request=request, qos=qos):
                    _, _, retained, quality = self.listener.ask(operation, request, qos)
                    self.assertFalse(retained)
                    self.assertEqual(quality, qos)
        for key in (KEY, STATE):
            changes = self.listener.wait(lambda one, key=key: one[0].startswith("prop-service-") and one[0].endswith(key),
                                         f"changes of {key}", len(qualities))
            self.assertEqual([(one[2], one[3]) for one in changes], [(False, 1)] * len(qualities))
        self.assertEqual(self.listen().all_retained(), [("prop-service/status", "online")])

    def test_requests_are_strict_json(self):
        for payload in (f'{{"param":"{KEY}","x":01}}', f'{{"param":"{KEY}","x":2.}}', f'{{"param":"{KEY}","x":"\\udc00"}}',
                        f'\ufeff{{"param":"{KEY}"}}', f'{{"param":"{KEY}"}} x', f'{{"param":"{KEY}",}}'):
            with self.subTest(payload):
                answer = json.loads(self.listener.ask_text("get", payload)[1])
                self.assertEqual(answer, {"param": "", "error": "bad-request", "reason": "the payload is not JSON in UTF-8"})
        answer = json.loads(self.listener.ask_text("get", f'{{"param":"{KEY}","x":1,"x":2}}')[1])
        self.assertEqual(answer["reason"], "the payload has a duplicate member")
        answer = json.loads(self.listener.ask_text("get", f' {{"x":[-0.5e+1,null,"\\u0000"],"param":"{KEY}"}} ')[1])
        self.assertEqual(answer["param"], KEY)

    def test_its_start_publishes_no_changes(self):
        self.listener.ask("set", {"param": STATE, "value": "success"})
        self.listener.wait(lambda one: one[0].endswith(STATE) and "success" in one[1], "the change")
        phone.service("stop", "properties")
        with self.listener.changed:
            self.listener.heard.clear()
        phone.service("start", "properties")
        self.assertEqual(json.loads(self.listener.ask("get", {"param": STATE})[1])["value"], "", "it is at its default again")
        self.listener.ask("set", {"param": KEY, "value": "the first change"})
        changes = self.listener.wait(lambda one: one[0].startswith("prop-service-") and "the first change" in one[1],
                                     "the first change")
        self.assertEqual(self.listener.changes(), changes)


if __name__ == "__main__":
    phone.main()
