"""The broker, the property service and other clients of the bus misbehave while a pass runs, at its end and between
passes. The result of each pass is published, and the next one succeeds."""

import shutil
import subprocess

import paho.mqtt.client as mqtt

import faults
import phone
from files import LABEL, direct
from server import Answer

STATE = "State.Provisioning"
LOCK = "State.Provisioning.LockUI"
TRIGGER = "State.FirmwareUpdate.TriggerAuto"
WATCHDOG_TOPICS = ("watchdog/prov-client", "prop-service-state/x")
QUERIES = 4  # on each topic: more than a pass without progress can answer


class BusFaultsTest(faults.PassFaultTest):
    def check_result(self, *allowed):
        """The pass has ended, its result is published and the user interface is unlocked."""
        self.wait_pass_end()
        phone.wait_until(lambda: self.bus.get(LOCK) == "0", "the user interface unlocked")
        phone.wait_until(lambda: self.bus.get(STATE) in allowed, lambda: f"{allowed}, it is {self.bus.get(STATE)}")

    def check_settings(self):
        wrong = {key: value for key, value in dict(faults.SETTINGS).items() if self.bus.get(key) != value}
        self.assertEqual(wrong, {})

    # Queries.

    def ask_alive(self, count=1):
        for topic in WATCHDOG_TOPICS:
            for _ in range(count):
                self.bus.publish(topic, {"param": "Are you alive?"})

    def waiting(self):
        return self.log.count("Waiting for progress") - self.log.count("Progress consumed")

    def test_watchdog_queries_on_two_topics_all_return(self):
        with self.fault("queries on two topics"):
            self.begin(Answer(faults.GOOD, gate=self.gate, part=10))
            self.ask_alive(QUERIES)
            phone.wait_until(lambda: self.waiting() == len(WATCHDOG_TOPICS), "a query of each topic waiting for progress")
            self.gate.set()
            self.check_result("success")
            self.bus.wait_message("prov-client/watchdog", QUERIES * len(WATCHDOG_TOPICS))
            for topic in WATCHDOG_TOPICS:
                self.bus.mark()
                self.bus.publish(topic, {"param": "Are you alive?"})
                self.bus.wait_message("prov-client/watchdog")

    # The property service.

    def test_property_service_killed_in_a_settings_job(self):
        with self.fault("the property service is killed"):
            self.begin_settings()
            phone.service("kill", "properties")
            phone.wait_until(lambda: ("prop-service/status", "offline") in self.bus.messages("prop-service/status"),
                             "the broker's word that the service is gone")
            phone.jump(1)
            phone.service("start", "properties")
            self.check_result("success")
            self.log.none(["Could not set param"])
            self.check_settings()

    def test_property_service_frozen_for_a_moment(self):
        with self.fault("the property service is frozen"):
            pid = self.begin_settings()
            phone.jump(3)
            self.thaw(pid)
            self.check_result("success")
            self.check_settings()

    def test_property_service_frozen_beyond_the_time_out(self):
        with self.fault("the property service is frozen for long"):
            pid = self.begin_settings()
            for failed in range(1, 4):
                phone.jump(6)
                self.log.wait("Could not set param", failed)
            self.thaw(pid)
            self.check_result("partSuccess")

    def test_a_late_result_never_follows_a_newer_request(self):
        with self.fault("the result of a pass is late"):
            self.begin(Answer("", 404, gate=self.gate))
            phone.service("kill", "properties")
            phone.wait_until(lambda: ("prop-service/status", "offline") in self.bus.messages("prop-service/status"),
                             "the broker's word that the service is gone")
            self.gate.set()
            self.end_pass_without_service()
            # The daemon's clock stands nearly still: it makes no attempt to write the result.
            phone.clock("factor", 0.01)
            self.addCleanup(phone.clock, "factor", 1)
            self.bus.listen("prop-service/set")
            self.bus.mark()
            phone.service("start", "properties")
            self.gate.clear()
            self.server.answers["/provisioning.xml"] = Answer(faults.GOOD, gate=self.gate)
            pid = self.freeze("properties")
            self.bus.publish("prop-service/set", {"param": STATE, "value": "request"})
            # Behind the request the service finds what the daemon tries again.
            phone.clock("factor", 1)
            phone.jump(2)
            phone.wait_until(lambda: [text for _, text in self.bus.messages("prop-service/set") if LOCK in text],
                             lambda: f"the daemon's next attempt in {self.bus.messages()}")
            self.thaw(pid)
            phone.wait_until(lambda: len(self.server.requests) > 1, "the second pass's download")
            self.gate.set()
            self.wait_pass_end(2)
            self.bus.wait_change(STATE, "success")
            heard = [value for key, value in self.bus.changes(STATE)]
            self.assertEqual(heard[heard.index("request"):], ["request", "success"])
            self.assertEqual(self.bus.get(STATE), "success")
            phone.wait_until(lambda: self.bus.get(LOCK) == "0", "the user interface unlocked")

    def end_pass_without_service(self):
        """Its property calls wait for the service to come back before they fail."""
        for _ in range(20):
            try:
                return self.wait_pass_end(deadline=0.3)
            except phone.Late:
                phone.jump(2)
        return self.wait_pass_end()

    # The broker.

    def test_broker_killed_in_a_pass(self):
        with self.fault("in a download"):
            self.broker_killed(lambda: self.begin(Answer(faults.GOOD, gate=self.gate)))
        with self.fault("in a settings job"):
            self.broker_killed(self.begin_settings)

    def broker_killed(self, begin):
        frozen = begin()
        self.bus.expect_reconnection()
        phone.service("kill", "broker")
        self.log.wait("IPC connection lost: ")
        if frozen:
            self.thaw(frozen)
        phone.service("start", "broker")
        self.bus.wait_back()
        self.gate.set()
        for _ in range(20):  # the daemon backs off before it connects anew
            try:
                self.wait_pass_end(deadline=0.5)
                break
            except phone.Late:
                phone.jump(1)
        self.check_result("success", "partSuccess", "fail")
        self.wait_daemon_on_bus()

    def test_broker_frozen_for_a_moment(self):
        with self.fault("the broker is frozen"):
            service = self.begin_settings()
            broker = self.freeze("broker")
            self.thaw(service)
            phone.jump(3)
            self.thaw(broker)
            self.check_result("success")
            self.check_settings()

    # Others on the bus.

    def test_another_client_with_the_daemons_name(self):
        with self.fault("the session is taken over"):
            foreign = mqtt.Client("prov-client", protocol=mqtt.MQTTv5)
            foreign.reconnect_delay_set(3600, 3600)  # once is enough
            foreign.connect("127.0.0.1", 1883)
            foreign.loop_start()
            try:
                self.log.wait("IPC connection lost: ")
            finally:
                foreign.disconnect()
                foreign.loop_stop()
            lost = [line for line in self.log.lines() if "IPC connection lost: " in line]
            self.assertIn("prov-client", lost[0].split("IPC connection lost: ")[1])
            self.wait_daemon_on_bus()

    def test_a_second_daemon(self):
        with self.fault("a second daemon"):
            path = f"{phone.HOME}/second.log"
            with open(path, "wb") as output, subprocess.Popen([shutil.which("zavd")], stdin=subprocess.DEVNULL, stdout=output,
                                                              stderr=output) as second:
                try:
                    status = second.wait(10)
                except subprocess.TimeoutExpired:
                    self.fail("it goes on beside the first")
                finally:
                    second.kill()
            self.assertGreater(status, 0)
            self.assertEqual(phone.Log(path).count("another zavd is running"), 1)
            self.alive()
            self.bus.wait_message("prov-client/watchdog")
            self.log.none(["IPC connection lost"])

    def test_a_provisioning_file_does_not_ask_for_passes(self):
        for key in (STATE, TRIGGER):
            with self.fault(key):
                self.server.answers["/provisioning.xml"] = Answer(direct([(key, "request"), (LABEL, "set")]))
                self.configure(self.server)
                self.assertEqual(self.provision(), "partSuccess")
                self.log.wait(f"Could not set param : '{key}'='request'")
                # What the pass wrote has been heard once a later message on the same topic is answered.
                self.bus.publish("prop-service-state/x", {"param": "Are you alive?"})
                self.bus.wait_message("prov-client/watchdog")
                self.assertEqual(self.log.count("Start provisioning thread"), 1)
                self.assertEqual(self.bus.get(LABEL), "set")


if __name__ == "__main__":
    phone.main()
