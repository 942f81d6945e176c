"""A thousand settings in one pass, on a broker as it comes and on one without delays: the same order of time."""

import os
import subprocess
import time

import phone
from files import KEY, direct
from server import Answer, Server

COUNT = 1000
ROUNDS = 3
PATTERNS = [KEY + "{}.Label", KEY + "{}.Value", "Telephony.Accounts.{}.Label", "Telephony.Accounts.{}.DisplayName",
            "Telephony.Accounts.{}.UserName"]


class LoadTest(phone.PhoneTest):
    @classmethod
    def setUpClass(cls):
        settings = [(PATTERNS[i % len(PATTERNS)].format(i % 8), f"value {i}") for i in range(COUNT)]
        cls.server = Server({"/provisioning.xml": Answer(direct(settings))})
        cls.settings = {"System.Provision.ProvisioningServer": cls.server.url}
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.server.close()

    def measure(self, broker):
        self.bus.expect_reconnection()
        self.bus.mark()
        subprocess.run([f"{phone.PROJECT}/lab/service", "restart", "broker"], check=True, timeout=60,
                       env={**os.environ, "LAB_BROKER": broker})
        self.bus.wait_ready()
        phone.wait_until(lambda: self.bus.messages("prop-service/status")[-1:] == [("prop-service/status", "online")],
                         "the property service on the new broker")
        best = None
        for _ in range(ROUNDS):
            self.log.mark()
            # Until the daemon is back on the broker as well, it does not hear the request.
            phone.wait_until(self.asked, "a pass")
            begin = time.monotonic()
            self.log.wait("-----Finishing NVMJobHandler", deadline=120)
            took = time.monotonic() - begin
            best = took if best is None else min(best, took)
            self.wait_pass_end()
            self.assertEqual(self.log.count("Applying "), COUNT)
            self.assertEqual(self.log.count("Provisioning succeeded. "), 1)
        return best

    def asked(self):
        self.request()
        try:
            self.log.wait("+++++ Starting NVMJobHandler", deadline=2)
            return True
        except AssertionError:
            return False

    def test_a_thousand_settings(self):
        tuned = self.measure("tuned")
        defaults = self.measure("defaults")
        print(f"1000 settings: {tuned * 1000:.0f} ms, on a broker with defaults {defaults * 1000:.0f} ms")
        self.assertLess(defaults, 2 * tuned)


if __name__ == "__main__":
    phone.main()
