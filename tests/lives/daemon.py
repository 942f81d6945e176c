"""How a life starts and ends its daemon, and what that means for the passes under way."""

import os
import signal

import phone

BOOTED = "State.Provisioning.OnBootUp"
PERIOD = "System.Provision.Period"
NO_NETWORK = {"web server", "interface"}
HELP = 0.3   # seconds without an answer after which the clock moves over a pause of the daemon


class Daemon:
    """A part of Life."""

    def start_daemon(self):
        self.log.mark()
        begun = self.timer.now()
        self.cut_off = 0
        self.cut_off = self.unfinished()
        phone.service("start", "daemon")
        self.daemon = "waiting"
        period = self.bus.get(PERIOD)
        if not period.isdigit():
            for count in range(1, 11):  # it tries to read the period ten times
                self.log.wait("stoi", count, self.patience)
                self.skip(10)
        self.log.wait("ZAV initialized.", 1, self.patience)
        self.locked = "disk full" not in self.broken
        self.timer.start(int(period) if period.isdigit() else None, begun)
        if not NO_NETWORK & set(self.broken):
            self.enable()

    def enable(self):
        """The network is there. The daemon lets it settle, and runs the pass after boot unless that is done."""
        booted = self.bus.get(BOOTED) == "done"
        self.hear()
        self.jump_until("for stabilization.")
        self.skip(90)
        self.log.wait("Enabling provisioning function.", 1, self.patience)
        self.daemon = "up"
        if booted:
            self.log.wait("Provisioning on boot up already done, skipping", 1, self.patience)
        else:
            self.log.wait("Do provisioning on boot up ", 1, self.patience)
            self.booting = bool(self.expected())
            self.asked_for_pass(self.result)

    def jump_until(self, text):
        def seen():
            if self.log.count(text):
                return True
            if self.log.count("can not be performed") or self.log.count("not ready yet"):
                self.skip(5)
            return False

        self.wait(seen, text)

    def kill_daemon(self):
        phone.service("kill", "daemon")
        self.gone()

    def stop_daemon(self):
        """SIGTERM: status 0, and a pass under way still unlocks the screen and publishes a result."""
        owed, works = self.owed, self.bus_works() and not self.vague and self.expected()
        os.kill(phone.service_pid(), signal.SIGTERM)
        status = f"{phone.HOME}/daemon.status"

        self.timer.stop()
        for _ in range(5):
            try:
                self.wait(lambda: os.path.exists(status), "the daemon's end", HELP)
                break
            except phone.Late:
                phone.clock("jump", 6)  # what a pass has left
        self.wait(lambda: os.path.exists(status), "the daemon's end")
        with open(status, encoding="ascii") as file:
            found = file.read().strip()
        if found != "0":
            raise AssertionError(f"it ended with status {found}\n{self.story()}")
        if owed and works:
            self.wait(lambda: self.results(), "the result of the pass that SIGTERM cut short")
        self.gone()

    def gone(self):
        self.disturb(lost=True)
        self.booting = self.asking = self.unstarted = False
        self.daemon = "down"
        self.timer.stop()
        self.broken.pop("daemon frozen", None)
