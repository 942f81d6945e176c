"""What prop-service tells systemd: the test's own socket takes the place of systemd's."""

import os
import socket
import unittest

import phone

SOCKET = f"{phone.HOME}/notify"
# So short that each request brings a sign of life.
WATCHDOG = "1000"


class SystemdTest(unittest.TestCase):
    def setUp(self):
        self.systemd = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.systemd.close)
        self.addCleanup(os.environ.pop, "NOTIFY_SOCKET", None)
        self.log = phone.Log(f"{phone.HOME}/properties.log")
        self.log.mark()
        for name in ("broker", "properties"):
            self.addCleanup(self.end, name)
        self.received = []

    @staticmethod
    def end(name):
        if os.path.exists(f"{phone.HOME}/{name}.pid") and phone.service("status", name, check=False) == 0:
            phone.service("kill", name)

    def listen(self, address):
        self.systemd.bind(address)
        self.systemd.setblocking(False)
        os.environ["NOTIFY_SOCKET"] = address.replace("\0", "@")
        self.addCleanup(lambda: os.path.exists(address.replace("\0", "@")) and os.remove(address))

    def heard(self, message):
        """Whether this message has come."""
        while True:
            try:
                self.received.append(self.systemd.recv(100).decode())
            except BlockingIOError:
                return message in self.received

    def wait(self, message):
        phone.wait_until(lambda: self.heard(message), lambda: f"{message} in {self.received}")

    def test_ready_is_said_when_requests_are_answered(self):
        self.listen(SOCKET)
        phone.service("start", "properties")
        self.log.wait("Cannot connect to the broker")
        self.assertFalse(self.heard("READY=1"), "ready without a broker")
        phone.service("start", "broker")
        self.wait("READY=1")
        bus = phone.Bus()
        self.addCleanup(bus.close)
        self.assertEqual(bus.get("System.General.DeviceID"), "kd4v")
        self.assertFalse(self.heard("STOPPING=1"))
        self.assertEqual(phone.service("stop", "properties"), 0)
        self.assertTrue(self.heard("STOPPING=1"))
        self.assertNotIn("WATCHDOG=1", self.received, "the unit sets no watchdog")
        self.log.none(["Cannot notify systemd"])

    def test_signs_of_life_come_from_the_thread_that_answers(self):
        self.listen(f"\0zav-notify-{os.getpid()}")
        os.environ["WATCHDOG_USEC"] = WATCHDOG
        self.addCleanup(os.environ.pop, "WATCHDOG_USEC")
        phone.service("start", "broker")
        phone.service("start", "properties")
        self.wait("READY=1")
        self.log.wait("WatchdogSec= is less than 60 s")
        bus = phone.Bus()
        self.addCleanup(bus.close)
        for _ in range(3):
            self.heard("")
            self.received.clear()
            bus.get("System.General.DeviceID")
            self.wait("WATCHDOG=1")

    def test_a_socket_that_is_gone_is_one_warning(self):
        os.environ["NOTIFY_SOCKET"] = SOCKET
        phone.service("start", "broker")
        phone.service("start", "properties")
        self.log.wait("Cannot notify systemd: No such file or directory")
        self.assertEqual(phone.service("stop", "properties"), 0)
        self.assertEqual(self.log.count("Cannot notify systemd"), 1)


if __name__ == "__main__":
    phone.main()
