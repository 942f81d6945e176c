"""The broker or the property service goes away in mid-pass and comes back."""

import threading

import phone
from files import LABEL, direct
from server import Answer


class RestartsTest(phone.ServedPhoneTest):
    def setUp(self):
        self.gate = threading.Event()
        self.addCleanup(self.gate.set)
        super().setUp()

    def begin(self, text):
        self.server.requests.clear()
        self.server.answers["/provisioning.xml"] = Answer(direct([(LABEL, text)]), gate=self.gate)
        self.request()
        phone.wait_until(lambda: self.server.requests, "the pass's download")
        self.bus.wait_change("State.Provisioning.LockUI", "1")

    def wait_daemon_back(self):
        """The daemon backs off before it connects anew; in mid-pass it answers this question once it is back."""
        self.bus.mark()

        def answered():
            self.busy()
            try:
                return self.bus.wait_message("prov-client/auto-reboot", deadline=0.2)
            except phone.Late:
                return False

        phone.wait_until(answered, "the daemon on the new broker")

    def wait_value(self, key, value):
        phone.wait_until(lambda: self.bus.get(key) == value, lambda: f"{key} = {value}, it is {self.bus.get(key)}")

    def assert_next_pass_works(self):
        self.gate.set()
        self.server.answers["/provisioning.xml"] = Answer(direct([(LABEL, "next")]))
        self.assertEqual(self.provision(), "success")
        self.assertEqual(self.bus.get(LABEL), "next")

    def test_broker_restarted_in_mid_pass(self):
        self.begin("over a broker's restart")
        self.bus.expect_reconnection()
        phone.service("restart", "broker")
        self.log.wait("IPC connection lost: ")
        self.bus.wait_back()
        self.wait_daemon_back()
        self.gate.set()
        self.wait_pass_end()
        self.wait_value("State.Provisioning.LockUI", "0")
        self.assertEqual(self.bus.get("State.Provisioning"), "success")
        self.assertEqual(self.bus.get(LABEL), "over a broker's restart")
        self.assert_next_pass_works()

    def test_broker_away_at_the_end_of_a_pass(self):
        self.begin("too late")
        self.bus.expect_reconnection()
        phone.service("stop", "broker")
        self.log.wait("IPC connection lost: ")
        self.gate.set()
        self.log.wait("Provisioning Finished")
        phone.service("start", "broker")
        self.bus.wait_back()
        # A user interface must not stay locked because nobody heard that the pass has ended.
        self.wait_value("State.Provisioning.LockUI", "0")
        phone.wait_until(lambda: self.bus.get("State.Provisioning") in ("fail", "partSuccess", "success"),
                         "the pass's result after the broker's return")
        self.assert_next_pass_works()

    def test_property_service_restarted_in_mid_pass(self):
        self.begin("over a service's restart")
        phone.service("restart", "properties")
        self.gate.set()
        self.wait_pass_end()
        self.wait_value("State.Provisioning", "success")
        self.wait_value("State.Provisioning.LockUI", "0")
        self.assertEqual(self.bus.get(LABEL), "over a service's restart")
        self.assert_next_pass_works()

    def test_property_service_killed_and_away_at_the_end_of_a_pass(self):
        self.begin("lost")
        phone.service("kill", "properties")
        self.gate.set()
        self.log.wait("Provisioning Finished")
        phone.service("start", "properties")
        self.wait_value("State.Provisioning.LockUI", "0")
        self.wait_value("State.Provisioning", "fail")
        self.assert_next_pass_works()

    def test_request_right_after_the_brokers_return(self):
        self.bus.expect_reconnection()
        phone.service("restart", "broker")
        self.bus.wait_back()
        self.server.answers["/provisioning.xml"] = Answer(direct([(LABEL, "after")]))
        # The daemon's reconnection backs off: what was written before it is back is heard afterwards or asked again.
        self.log.mark()

        def heard():
            self.request()
            return self.log.count("Provisioning succeeded. ")

        phone.wait_until(heard, lambda: "a pass in:\n" + "\n".join(self.log.lines()[-40:]))


if __name__ == "__main__":
    phone.main()
