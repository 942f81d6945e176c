"""What the bus asks while a pass runs, and what a bus may send that is no question."""

import threading
import time

import phone
from files import LABEL, direct
from server import Answer

SLOW = 2.0
SPACING = 0.1


class RequestsTest(phone.ServedPhoneTest):
    def setUp(self):
        self.gate = threading.Event()
        self.addCleanup(self.end_pass)
        super().setUp()

    def end_pass(self):
        self.gate.set()

    def begin(self, answer):
        """A pass that has asked the server; the progress of its start is consumed."""
        self.server.requests.clear()
        self.server.answers["/provisioning.xml"] = answer
        self.request()
        phone.wait_until(lambda: self.server.requests, "the pass's request at the server")

    def test_two_requests_100_ms_apart_on_a_slow_server(self):
        self.server.requests.clear()
        self.server.answers["/provisioning.xml"] = Answer(direct([(LABEL, "slow")]), gate=self.gate)
        begin = time.monotonic()
        threading.Timer(SLOW, self.gate.set).start()
        self.request()
        time.sleep(SPACING)
        self.request()
        self.alive()
        self.log.wait("Previous provisioning is not finished yet. Waiting...")
        self.bus.wait_message("prov-client/watchdog")
        self.wait_pass_end(2)
        took = time.monotonic() - begin
        self.assertGreaterEqual(took, SLOW)
        self.assertLess(took, SLOW + 3)
        self.log.in_order(["Start provisioning thread", "Provisioning Started",
                           "Previous provisioning is not finished yet. Waiting...", "Provisioning Finished",
                           "Provisioning succeeded. ", "Start provisioning thread", "Provisioning Started",
                           "Provisioning Finished", "Provisioning succeeded. "])
        self.assertEqual(self.server.requests, ["/provisioning.xml"] * 2)
        # The last change may be heard a moment behind the last line of the log.
        lock = phone.wait_until(lambda: len(heard := self.bus.changes("State.Provisioning.LockUI")) >= 4 and heard,
                                lambda: f"four changes of the lock in {self.bus.changes()}")
        self.assertEqual([value for _, value in lock], ["1", "0", "1", "0"])
        self.assertEqual(len(self.bus.messages("prov-client/watchdog")), 1)

    def test_a_stalled_download_leaves_the_watchdog_without_an_answer(self):
        self.begin(Answer(direct([(LABEL, "stalled")]), gate=self.gate, part=20))
        # The start of the pass and the first bytes are progress, too: ask until an answer does not come.
        asked = 0
        while len(self.bus.messages("prov-client/watchdog")) == asked:
            asked += 1
            self.alive()
            self.log.wait("Waiting for progress", asked)
            answered = self.log.count("Progress consumed")
            if answered < asked:
                # Blocked: only the gate may wake it. A second look after a round trip on another subscription.
                self.busy()
                self.bus.wait_message("prov-client/auto-reboot")
                if self.log.count("Progress consumed") < asked:
                    break
            self.bus.wait_message("prov-client/watchdog", asked)
        self.assertEqual(len(self.bus.messages("prov-client/watchdog")), asked - 1)
        self.assertEqual(self.log.count("Provisioning Finished"), 0)
        self.gate.set()
        self.wait_pass_end()
        self.bus.wait_message("prov-client/watchdog", asked)
        self.assertEqual(self.bus.messages("prov-client/watchdog")[-1][1], '{"param":"Ok"}')

    def test_a_flowing_download_answers_the_watchdog_again_and_again(self):
        body = direct([(LABEL, "x" * 60)]) + "\n" * 200_000
        self.begin(Answer(body, gate=self.gate, flow=(50, 0.02)))
        for count in range(1, 11):
            self.alive()
            self.bus.wait_message("prov-client/watchdog", count)
        self.assertEqual(self.log.count("Provisioning Finished"), 0)
        self.gate.set()
        self.wait_pass_end()
        self.assertEqual(self.bus.get(LABEL), "x" * 60)

    def test_the_watchdog_is_answered_at_once_when_nothing_runs(self):
        self.alive()
        self.bus.wait_message("prov-client/watchdog")
        self.assertEqual(self.bus.messages("prov-client/watchdog"), [("prov-client/watchdog", '{"param":"Ok"}')])
        self.log.none(["Waiting for progress"])

    def test_busy_is_said_once_while_a_pass_runs_and_never_otherwise(self):
        self.busy()
        self.log.wait("Get message - topic: auto-reboot/prov-client")
        self.begin(Answer(direct([(LABEL, "busy")]), gate=self.gate))
        self.busy()
        self.bus.wait_message("prov-client/auto-reboot")
        self.assertEqual(
            self.bus.messages("prov-client/auto-reboot"),
            [("prov-client/auto-reboot", '{"param":"State.System.QA.AutomaticReboot.IsBusy", "value":"1"}')])
        self.gate.set()
        self.wait_pass_end()
        self.busy()
        self.busy()
        # The second has been taken up, so the first is done with; the watchdog's answer comes after its answer would.
        self.log.wait("Get message - topic: auto-reboot/prov-client", 4)
        self.alive()
        self.bus.wait_message("prov-client/watchdog")
        self.assertEqual(len(self.bus.messages("prov-client/auto-reboot")), 1)

    def test_messages_that_are_no_questions(self):
        rows = ["", "no JSON", "[]", "7", "{}", '{"param":', '{"param":{"a":1}}', '{"param":"Unknown.Key","value":"1"}',
                '{"value":"request"}', '{"param":["Are you alive?"]}', '{"param":"State.Provisioning","value":["request"]}',
                "{" * 5000, '{"param":"\\u0000"}']
        for text in rows:
            with self.subTest(text[:40]):
                self.log.mark()
                self.bus.publish("watchdog/prov-client", text)
                self.log.wait("Get message - topic: watchdog/prov-client")
        self.bus.publish("watchdog/prov-client", b"\xff\xfe\x00")
        self.bus.publish("prop-service-state/State.Provisioning", '{"param":"State.Provisioning","value":"success"}')
        self.log.mark()
        self.alive()
        self.bus.wait_message("prov-client/watchdog")
        self.log.none(["Start provisioning thread"])

    def test_an_unknown_key_is_named_in_the_log(self):
        self.bus.publish("watchdog/prov-client", '{"param":"Unknown.Key","value":"1"}')
        self.log.wait('No handler for message: {"param":"Unknown.Key","value":"1"}')

    def test_the_level_mask_follows_its_property(self):
        self.bus.set("System.Debug.LevelMask.ZAV", "3")
        self.log.wait("System.Debug.LevelMask.ZAV")
        self.addCleanup(self.bus.set, "System.Debug.LevelMask.ZAV", "7")
        self.server.answers["/provisioning.xml"] = Answer("", 404)
        self.bus.mark()
        self.request()
        self.bus.wait_change("State.Provisioning", "fail")
        self.log.none(["Provisioning Started"])
        self.log.wait("Worker failed to download initial job")

    def test_new_certificates_are_told_and_the_notice_is_reset(self):
        self.bus.set("State.Security.Certificates.UpdateCABundle", "1")
        self.bus.wait_change("State.Security.Certificates.UpdateCABundle", "")
        self.assertEqual(self.bus.changes("State.Security.Certificates.UpdateCABundle"),
                         [("State.Security.Certificates.UpdateCABundle", "1"),
                          ("State.Security.Certificates.UpdateCABundle", "")])


if __name__ == "__main__":
    phone.main()
