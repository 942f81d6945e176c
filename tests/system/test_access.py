"""The broker as it is shipped, settings and access list: what it refuses costs nobody the connection."""

import os
import shutil
import subprocess
import threading
import unittest

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes

import examples
import phone

BROKER = f"{phone.PROJECT}/packaging/broker"
STATUS = "prop-service/status"
PASSWORDS = "/run/phone/passwords"
QUESTION = ["mosquitto_rr", "-V", "5", "-W", "10", "-t", "prop-service/get", "-e", "zavctl/reply/1", "-m",
            '{"param":"Time.Format"}', "-u", "zavctl"]


class Client:
    """One connection, which is not made anew; a word for each thing that happens on it."""

    def __init__(self, user=None):
        self.changed = threading.Condition()
        self.heard = []
        self.client = mqtt.Client(f"access-{user}", protocol=mqtt.MQTTv5)
        if user:
            self.client.username_pw_set(user)
        self.client.on_subscribe = lambda *_: self.note("subscribed")
        self.client.on_message = lambda _client, _data, message: self.note(f"{message.topic} {message.payload.decode()}")
        self.client.on_publish = lambda *_: self.note("sent")
        self.client.on_disconnect = lambda *_: self.note("cut off")
        self.client.on_connect = lambda *_: self.note("connected")
        self.client.connect("127.0.0.1", 1883)
        self.client.reconnect_delay_set(600, 600)
        self.client.loop_start()
        self.wait("connected")

    def close(self):
        self.client.on_disconnect = None
        self.client.disconnect()
        self.client.loop_stop()

    def note(self, word):
        with self.changed:
            self.heard.append(word)
            self.changed.notify_all()

    def wait(self, word, count=1):
        """All until now, once the word or the end of the connection is among it."""
        with self.changed:
            if not self.changed.wait_for(lambda: self.heard.count(word) >= count or "cut off" in self.heard, phone.DEADLINE):
                raise phone.Late(f"no {word!r} in {self.heard}")
            return list(self.heard)

    def subscribe(self, topic):
        self.client.subscribe(topic, options=mqtt.SubscribeOptions(qos=1))

    def ask(self, text, quality, answer_on):
        properties = mqtt.Properties(PacketTypes.PUBLISH)
        properties.ResponseTopic = answer_on
        self.client.publish("prop-service/get", text, quality, properties=properties)


def shipped():
    with open(f"{BROKER}/mosquitto.conf", encoding="utf-8") as file:
        return file.read()


class BrokerTest(unittest.TestCase):
    """A case with a broker and a property service of its own."""

    def start_broker(self, settings):
        # There is no other user and no such folder in this sandbox.
        for name, path in (("zav.acl", f"{BROKER}/acl"), ("zav.passwords", PASSWORDS), ("certs/phone", "/run/phone/server")):
            settings = settings.replace(f"/etc/mosquitto/{name}", path)
        with open("/run/phone/shipped.conf", "w", encoding="utf-8") as file:
            file.write(f"persistence_location /run/phone/\n{settings}\nuser root\n")
        self.broker = self.start("mosquitto", "-c", "/run/phone/shipped.conf")

    def start_properties(self):
        self.start("prop-service", "--store", "/config/properties.db", "--catalogue",
                   f"{phone.PROJECT}/services/property-service/catalogue.json")

    def start(self, *command):
        with open(f"/run/phone/{command[0]}.shipped.log", "ab") as log:
            process = subprocess.Popen(command, stdout=log, stderr=log)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process


class AccessTest(BrokerTest):
    def setUp(self):
        self.start_broker(shipped())
        phone.wait_until(self.serves, "the broker")
        self.start_properties()
        self.looker = self.client()
        self.looker.subscribe(STATUS)
        self.looker.wait(f"{STATUS} online")

    def serves(self):
        return subprocess.run(["mosquitto_sub", "-V", "5", "-t", STATUS, "-E", "-W", "5"], stderr=subprocess.DEVNULL, check=False).returncode == 0

    def client(self, user=None):
        client = Client(user)
        self.addCleanup(client.close)
        return client

    def test_a_refused_message_is_dropped_and_its_sender_stays(self):
        for quality in (0, 1):
            with self.subTest(quality):
                client = self.client()
                client.client.publish("prop-service/set", '{"param":"Time.Format","value":"12h"}', quality)
                client.subscribe(STATUS)
                self.assertNotIn("cut off", client.wait(f"{STATUS} online"))
        tool = self.client("zavctl")
        tool.subscribe("zavctl/reply/1")
        tool.wait("subscribed")
        tool.ask('{"param":"Time.Format"}', 1, "zavctl/reply/1")
        unchanged = 'zavctl/reply/1 {"param":"Time.Format","value":"24h"}'
        self.assertIn(unchanged, tool.wait(unchanged))

    def test_a_refused_subscription_hears_nothing_and_leaves_the_others(self):
        client = self.client()
        client.subscribe("prop-service-time/#")
        client.subscribe(STATUS)
        client.wait(f"{STATUS} online")
        tool = self.client("zavctl")
        tool.subscribe("prop-service-time/#")
        tool.wait("subscribed")
        change = '{"param":"Time.Format","value":"12h","source":""}'
        tool.client.publish("prop-service/set", change, 1)
        tool.wait(f"prop-service-time/Time.Format {change}")
        # What the broker had for it comes before its answer to this.
        client.subscribe(STATUS)
        self.assertEqual([word for word in client.wait("subscribed", 3) if "Time.Format" in word or word == "cut off"], [])

    def test_an_answer_that_is_refused_leaves_the_service_on_the_bus(self):
        tool = self.client("zavctl")
        tool.subscribe("zavctl/reply/1")
        tool.wait("subscribed")
        for quality in (0, 1):
            tool.ask('{"param":"Time.Format"}', quality, "zavctl/elsewhere")
        tool.ask('{"param":"NET.MAC.Address"}', 1, "zavctl/reply/1")
        answer = 'zavctl/reply/1 {"param":"NET.MAC.Address","value":""}'
        self.assertIn(answer, tool.wait(answer))
        self.assertEqual([word for word in self.looker.heard if word.startswith(STATUS)], [f"{STATUS} online"])

    def test_the_pages_requests_pass_the_access_list(self):
        requests = [command for block in examples.blocks("docs/bus-protocol.md") if block.kind == "console"
                    for command, _ in block.commands() if command.startswith("mosquitto_rr ")]
        self.assertGreater(len(requests), 2)
        for request in requests:
            with self.subTest(request):
                done = subprocess.run(["bash", "-c", f"{request} -W 10"], capture_output=True, text=True, timeout=30, check=False)
                self.assertEqual((done.returncode, done.stdout[:10]), (0, '{"param":"'), done.stderr)

    def test_the_broker_keeps_no_presence_over_its_end(self):
        self.broker.terminate()
        self.broker.wait(phone.DEADLINE)
        self.assertFalse(os.path.exists("/run/phone/mosquitto.db"))


def run_command(*words):
    done = subprocess.run(words, capture_output=True, text=True, timeout=30, check=False)
    return done.returncode, done.stdout + done.stderr


class WholePhoneTest(BrokerTest):
    """The daemon on the shipped broker."""

    def test_a_pass_and_a_watchdog_query(self):
        self.start_broker(shipped())
        self.start_properties()
        for key, value in (("System.Provision.ProvisioningServer", "http://provisioning.test/"), ("State.Provisioning.OnBootUp", "done"),
                           ("System.Provision.FactoryAuthUsername", "phone"), ("System.Provision.FactoryAuthPassword", "factory")):
            phone.wait_until(lambda: run_command("zavctl", "set", key, value)[0] == 0, key)
        phone.service("start", "server")
        self.addCleanup(phone.service, "kill", "server")
        shutil.copyfile(f"{phone.PROJECT}/lab/fixtures/direct/provisioning.xml", f"{phone.WWW}/provisioning.xml")
        phone.service("start", "daemon")
        self.addCleanup(phone.service, "kill", "daemon")
        log = phone.Log()
        log.wait("for stabilization.")
        phone.jump(90)
        log.wait("Enabling provisioning function.")
        status, said = run_command("zavctl", "provision", "--wait")
        self.assertEqual((status, said.split()[0]), (0, "success"), said)
        phone.wait_until(lambda: '"event":"progress"' in run_command("zavctl", "provision", "--wait", "--json")[1], "progress")
        with subprocess.Popen(["mosquitto_sub", "-V", "5", "-u", "watchdog", "-W", "30", "-C", "1", "-t", "prov-client/watchdog"],
                              stdout=subprocess.PIPE, text=True) as listener:
            def answered():
                run_command("mosquitto_pub", "-V", "5", "-u", "watchdog", "-t", "watchdog/prov-client", "-m", '{"param":"Are you alive?"}')
                return listener.poll() is not None
            phone.wait_until(answered, "the watchdog's answer")
            self.assertEqual(listener.stdout.read(), '{"param":"Ok"}\n')
        _, said = run_command("zavctl", "doctor")
        self.assertRegex(said, r"(?m)^ok +daemon +answers$")


class PasswordTest(BrokerTest):

    def setUp(self):
        self.assertEqual(run_command("mosquitto_passwd", "-b", "-c", PASSWORDS, "zavctl", "secret")[0], 0)

    def test_a_password_locks_the_phones_own_programs_out(self):
        self.start_broker(shipped().replace("allow_anonymous true", f"allow_anonymous false\npassword_file {PASSWORDS}"))
        remote = [*QUESTION, "-P", "secret"]
        phone.wait_until(lambda: "Connection refused" not in run_command(*remote, "-W", "1")[1], "the broker")
        status, said = run_command("zavctl", "get", "Time.Format")
        self.assertEqual(status, 3, said)
        self.assertIn("Not authorized", said)

    def test_another_machine_has_a_listener_with_a_password(self):
        (block,) = (block for block in examples.blocks("docs/security.md") if block.kind == "conf")
        self.start_broker("per_listener_settings true\n" + shipped() + block.text)
        self.start_properties()
        phone.wait_until(lambda: run_command("zavctl", "set", "Time.Format", "24h") == (0, ""), "the phone's own programs")
        remote = [*QUESTION, "-p", "8883", "--cafile", "/run/phone/authority.crt"]
        self.assertEqual(run_command(*remote, "-P", "secret"), (0, '{"param":"Time.Format","value":"24h"}\n'))
        for wrong in (["-P", "guess"], []):
            status, said = run_command(*remote, *wrong)
            self.assertNotEqual(status, 0)
            self.assertRegex(said, "(?i)not authori[sz]ed")


if __name__ == "__main__":
    phone.main()
