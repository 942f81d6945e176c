"""Automatic provisioning: changes of the period, the periodic request, and the nightly one that fires once."""

import phone
from files import LABEL, direct
from server import Answer


class TimerTest(phone.ServedPhoneTest):
    answers = {"/provisioning.xml": Answer(direct([(LABEL, "on time")]))}

    def set_period(self, text):
        self.log.mark()
        self.bus.set("System.Provision.Period", text)
        self.log.wait("Timer setting done")

    def test_changes_of_the_period(self):
        rows = [
            ("600", [], 600),
            ("599", ["Period must be at least 10 min., setting period to 10 min."], 600),
            ("86400", [], 86400),
            ("86401", ["Period must be no longer than 24h, setting period to 24h"], 86400),
            ("-1", ["Period must be no longer than 24h, setting period to 24h"], 86400),
        ]
        for text, warnings, seconds in rows:
            with self.subTest(text):
                self.set_period(text)
                self.log.in_order([*warnings, "Provisioning timer: Abort", "Setting periodical Provisioning",
                                   "Next provisioning time is at '", f"That means you have to wait {seconds} seconds.",
                                   "Timer setting done"])
                self.assertEqual(self.log.count("Period must be"), len(warnings))

    def test_a_period_that_is_no_number_leaves_the_timer_alone(self):
        for text in ("", "soon", "99999999999999999999"):
            with self.subTest(text):
                self.log.mark()
                self.bus.set("System.Provision.Period", text)
                self.log.wait("Wrong time format: ")
                self.log.none(["Provisioning timer: Abort", "Timer setting done"])

    def test_the_period_requests_a_pass_every_time(self):
        self.set_period("600")
        for _ in range(3):
            self.log.mark()
            self.bus.mark()
            phone.jump(590)
            self.alive()  # something to see pass by: ten seconds are left
            self.bus.wait_message("prov-client/watchdog")
            self.log.none(["Provisioning timer: Provisioning ready to go"])
            phone.jump(11)
            self.wait_pass_end()
            self.log.in_order(["Provisioning timer: Provisioning ready to go",
                               "Provisioning timer: Preparing to restart timer",
                               "That means you have to wait 600 seconds."])
            self.log.in_order(["Provisioning timer: Provisioning ready to go", "Start provisioning thread",
                               "Provisioning succeeded. "])
            self.assertEqual(self.log.count("Provisioning timer: Provisioning ready to go"), 1)

    def test_the_night_comes_once(self):
        # The date has a fraction of a second: a wait cut to whole seconds would end too early and start over and over.
        phone.clock("date", "2026-11-20 02:00:00.4")
        self.set_period("0")
        self.log.in_order(["Setting provisioning for night", "Next provisioning time is at 'Fri Nov 20 03:53:15 2026'",
                           "That means you have to wait 6794 seconds."])
        phone.jump(6790)
        self.alive()
        self.bus.wait_message("prov-client/watchdog")
        self.log.none(["Provisioning timer: Provisioning ready to go"])
        self.log.mark()
        self.wait_pass_end()  # four seconds later by both clocks
        self.log.in_order(["Provisioning timer: Provisioning ready to go",
                           "Provisioning timer: Preparing to restart timer", "Setting provisioning for night",
                           "Next provisioning time is at 'Sat Nov 21 03:53:15 2026'",
                           "That means you have to wait 863"])
        phone.jump(80_000)
        self.alive()
        self.bus.wait_message("prov-client/watchdog", 2)
        self.assertEqual(self.log.count("Provisioning timer: Provisioning ready to go"), 1)
        self.assertEqual(self.log.count("Provisioning succeeded. "), 1)
        self.log.mark()
        phone.jump(6_500)
        self.wait_pass_end()
        self.assertEqual(self.log.count("Provisioning timer: Provisioning ready to go"), 1)

    def test_a_night_that_has_passed_is_tomorrows(self):
        phone.clock("date", "2026-11-20 05:00:00.9")
        self.set_period("0")
        self.log.in_order(["Next provisioning time is at 'Sat Nov 21 03:53:15 2026'",
                           "That means you have to wait 82394 seconds."])

    def test_a_clock_set_back_or_ahead_moves_no_request(self):
        phone.clock("date", "2026-11-20 12:00:00")
        self.set_period("600")
        phone.clock("date", "2026-11-01 12:00:00")
        phone.jump(601)
        self.wait_pass_end()
        self.assertEqual(self.log.count("Provisioning timer: Provisioning ready to go"), 1)


if __name__ == "__main__":
    phone.main()
