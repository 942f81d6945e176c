"""Start-up, the wait for the network, the pass after boot, and SIGTERM in every state."""

import os
import re
import shutil
import signal
import subprocess
import threading

import phone
from files import LABEL, direct
from server import Answer, Server

GOOD = direct([(LABEL, "booted")])
STARTING = ["ZAV starting up...", "run IPC listening", "Waiting for factory auth user name and password",
            "Preconditions are met", "Reading properties to GlobalConfig", "Setting timer", "Next provisioning time is at ",
            "Timer set to 86400 seconds", "start handling IPC messages", "ZAV initialized."]
STABILISING = ["start network state checker", "Network interface is ready. Checking server address...",
               "Successfully connected to 127.0.0.1",
               "Network interface is configured, waiting: 90seconds for stabilization."]
ENDING = ["IPC listening terminated", "ZAV exited"]


class LifecycleTest(phone.PhoneTest):
    boot_pass = None

    def setUp(self):
        self.server = Server({"/provisioning.xml": Answer(GOOD)})
        self.gate = threading.Event()
        self.addCleanup(self.server.close)
        self.addCleanup(self.end_daemon)
        self.bus.set("System.Provision.ProvisioningServer", self.server.url)
        self.bus.set("State.Provisioning.OnBootUp", "")
        self.bus.set("State.Provisioning", "")
        super().setUp()

    def end_daemon(self):
        self.gate.set()
        if phone.service("status", "daemon", check=False) == 0:
            phone.service("kill", "daemon")

    def assert_ends_well(self):
        self.assertEqual(self.terminate(), 0)
        self.log.in_order(ENDING)
        self.log.none(["ERROR: ", "runtime error", "terminate called"])

    def test_start_up_and_the_pass_after_boot(self):
        phone.service("start", "daemon")
        self.settle()
        self.bus.wait_change("State.Provisioning.OnBootUp", "done")
        self.log.in_order([*STARTING])
        self.log.in_order(["ZAV starting up...", *STABILISING, "Enabling provisioning function.",
                           "Do provisioning on boot up ", "Start provisioning thread", "Provisioning Started",
                           "Provisioning Finished", "Provisioning succeeded. "])
        self.assertEqual(self.bus.get(LABEL), "booted")
        self.assertEqual(self.server.requests, ["/provisioning.xml"])
        self.assert_ends_well()

        # Restarted without a boot of the phone: the pass after boot is done.
        self.log.mark()
        phone.service("start", "daemon")
        self.settle()
        self.log.wait("Provisioning on boot up already done, skipping")
        self.assertEqual(self.server.requests, ["/provisioning.xml"])

    def test_every_line_has_its_time_and_channel(self):
        phone.service("start", "daemon")
        self.settle()
        self.bus.wait_change("State.Provisioning.OnBootUp", "done")
        self.assert_ends_well()
        line = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} ZAV (error|warning|info) [\w/-]+:\d+ .")
        document = re.compile(r"[{}\t]")  # the status keeps its own layout
        lines = self.log.lines()
        self.assertEqual([one for one in lines if not line.match(one) and not document.match(one)], [])
        self.assertGreater(len([one for one in lines if line.match(one)]), len(STARTING) + len(STABILISING))

    def test_arguments_and_environment_are_ignored(self):
        self.bus.set("State.Provisioning.OnBootUp", "done")
        environment = {"HOME": "/none", "LANG": "none", "http_proxy": "http://127.0.0.1:9/", "ZAV_HOST": "elsewhere.test",
                       "MQTT_HOST": "elsewhere.test", "DEBUG": "0", "PATH": "/none"}
        command = [shutil.which("zavd"), "--help", "--version", "-h", "elsewhere.test", "--host=elsewhere.test"]
        with open(f"{phone.HOME}/other.log", "wb") as output, subprocess.Popen(
                command, env=environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=output) as daemon:
            self.addCleanup(daemon.kill)
            log = phone.Log(f"{phone.HOME}/other.log")
            log.wait(STABILISING[-1])
            log.in_order([*STARTING[:-1]])
            log.in_order(STABILISING)

            def ended():
                if log.count("IPC listening terminated") == 0:
                    daemon.send_signal(signal.SIGTERM)
                return daemon.poll() is not None

            phone.wait_until(ended, lambda: "\n".join(log.lines()))
            self.assertEqual(daemon.returncode, 0)
            self.assertEqual(daemon.stdout.read(), b"")
            log.in_order(ENDING)
        os.unlink(f"{phone.HOME}/other.log")

    def test_the_pass_after_boot_is_done_only_after_its_end(self):
        self.server.answers["/provisioning.xml"] = Answer(GOOD, gate=self.gate)
        phone.service("start", "daemon")
        self.settle()
        phone.wait_until(lambda: self.server.requests, "the pass after boot")
        self.assertEqual(self.bus.get("State.Provisioning.OnBootUp"), "")
        self.gate.set()
        self.bus.wait_change("State.Provisioning.OnBootUp", "done")
        self.assertIn(("State.Provisioning.LockUI", "0"), self.bus.changes())

    def test_requests_before_the_network_has_settled_are_refused(self):
        self.bus.set("State.Provisioning.OnBootUp", "done")
        phone.service("start", "daemon")
        self.log.wait("for stabilization.")
        self.request()
        self.log.wait("Handling provisioning requests not enabled yet")
        self.settle()
        self.log.wait("Provisioning on boot up already done, skipping")
        self.log.none(["Start provisioning thread"])
        self.request()
        self.wait_pass_end()

    def test_no_network_at_first(self):
        phone.service("stop", "server")
        self.addCleanup(phone.service, "restart", "server")
        subprocess.run(["ip", "link", "set", "eth0", "down"], check=True)
        self.addCleanup(subprocess.run, ["ip", "link", "set", "eth0", "up"], check=True)
        phone.service("start", "daemon")
        self.log.wait("Network interface is not ready yet")
        for _ in range(3):
            phone.jump(5)
        self.log.wait("Network not ready yet.")
        self.log.in_order(["start network state checker", "Network interface is not ready yet", "Network not ready yet."])
        subprocess.run(["ip", "link", "set", "eth0", "up"], check=True)
        self.jump_until("Connection to 127.0.0.1 can not be performed")
        phone.service("start", "server")
        self.jump_until("for stabilization.")
        self.settle()
        self.assertEqual(self.log.count("Network not ready yet."), 1)
        self.assertEqual(self.log.count("Network interface is not ready yet"), 1)
        self.assertEqual(self.log.count("Connection to 127.0.0.1 can not be performed"), 1)

    def jump_until(self, text):
        """Poll by poll, until the log has it."""
        def seen():
            phone.jump(5)
            return self.log.count(text)

        phone.wait_until(seen, text)

    def test_no_broker_at_start(self):
        phone.service("stop", "broker")
        try:
            phone.service("start", "daemon")
            phone.wait_until(lambda: phone.service("status", "daemon", check=False) != 0, "end of the daemon")
            with open(f"{phone.HOME}/daemon.status", encoding="ascii") as file:
                self.assertEqual(int(file.read()), 128 + signal.SIGABRT)
            self.log.in_order(["ZAV starting up...", "run IPC listening", "IPC error "])
            self.log.none(["ZAV exited", "ZAV initialized."])
        finally:
            self.bus.expect_reconnection()
            phone.service("start", "broker")
            phone.service("restart", "properties")
            self.bus.wait_back()

    def test_no_credentials(self):
        self.bus.set("System.Provision.FactoryAuthPassword", "")
        self.addCleanup(self.bus.set, "System.Provision.FactoryAuthPassword", "factory")
        phone.service("start", "daemon")
        for count in range(1, 11):
            self.log.wait("Waiting for auth user name and password", count)
            phone.jump(1)
        self.log.wait("ZAV initialized.")
        self.log.in_order(["Waiting for auth user name and password"] * 10 +
                          ["Cannot read auth user name or password", "Preconditions are not met", "ZAV initialized."])
        self.assertEqual(self.log.count("Waiting for auth user name and password"), 10)

    def test_a_sigterm_during_the_wait_for_credentials_is_lost(self):
        self.bus.set("System.Provision.FactoryAuthPassword", "")
        self.addCleanup(self.bus.set, "System.Provision.FactoryAuthPassword", "factory")
        self.bus.set("State.Provisioning.OnBootUp", "done")
        phone.service("start", "daemon")
        self.log.wait("Waiting for auth user name and password")
        os.kill(phone.service_pid(), signal.SIGTERM)
        for count in range(1, 11):
            self.log.wait("Waiting for auth user name and password", count)
            phone.jump(1)
        self.log.wait("ZAV initialized.")
        self.settle()
        self.log.wait("Provisioning on boot up already done, skipping")
        self.log.none(["IPC listening terminated"])
        self.request()
        self.wait_pass_end()
        self.assert_ends_well()

    def test_a_period_that_is_no_number(self):
        self.bus.set("System.Provision.Period", "soon")
        self.addCleanup(self.bus.set, "System.Provision.Period", "86400")
        phone.service("start", "daemon")
        for count in range(1, 11):
            self.log.wait("stoi", count)
            phone.jump(10)
        self.log.wait("ZAV initialized.")
        self.assertEqual(self.log.count("stoi"), 10)
        self.log.in_order(["Setting timer", "Timer not set. Automatic provisioning disabled!", "ZAV initialized."])

    # SIGTERM, by state.

    def test_terminated_while_polling_for_the_network(self):
        phone.service("stop", "server")
        self.addCleanup(phone.service, "restart", "server")
        phone.service("start", "daemon")
        self.log.wait("Connection to 127.0.0.1 can not be performed")
        self.assert_ends_well()
        self.log.none(["for stabilization."])

    def test_terminated_while_stabilising(self):
        phone.service("start", "daemon")
        self.log.wait("for stabilization.")
        self.assert_ends_well()
        self.log.none(["Enabling provisioning function."])

    def test_terminated_while_idle(self):
        self.bus.set("State.Provisioning.OnBootUp", "done")
        phone.service("start", "daemon")
        self.settle()
        self.log.wait("Provisioning on boot up already done, skipping")
        self.assert_ends_well()

    def terminate_in_pass(self):
        """SIGTERM while the server holds its answer back; the answer comes once the daemon listens no longer."""
        opener = threading.Thread(target=lambda: (self.log.wait("ZAV exited"), self.gate.set()))
        opener.start()
        try:
            self.assert_ends_well()
        finally:
            opener.join()

    def assert_unlocked(self):
        self.assertEqual(self.bus.get("State.Provisioning.LockUI"), "0")

    def test_terminated_in_the_pass_after_boot(self):
        self.server.answers["/provisioning.xml"] = Answer(GOOD, gate=self.gate)
        phone.service("start", "daemon")
        self.settle()
        phone.wait_until(lambda: self.server.requests, "the pass after boot")
        self.terminate_in_pass()
        self.assert_unlocked()
        self.assertEqual(self.bus.get("State.Provisioning.OnBootUp"), "")

    def in_download(self, answer):
        self.bus.set("State.Provisioning.OnBootUp", "done")
        self.server.answers["/provisioning.xml"] = answer
        phone.service("start", "daemon")
        self.settle()
        self.log.wait("Provisioning on boot up already done, skipping")
        self.request()
        phone.wait_until(lambda: self.server.requests, "the pass's download")

    def test_terminated_in_a_stalled_download(self):
        self.in_download(Answer(GOOD, gate=self.gate, part=10))
        self.terminate_in_pass()
        self.assert_unlocked()
        self.assertEqual(self.bus.get("State.Provisioning"), "success")

    def test_terminated_in_a_flowing_download(self):
        self.in_download(Answer(GOOD + "\n" * 100_000, gate=self.gate, flow=(50, 0.01)))
        self.terminate_in_pass()
        self.assert_unlocked()

    def test_terminated_with_a_request_and_a_watchdog_waiting(self):
        self.in_download(Answer(GOOD, gate=self.gate, part=10))
        self.request()
        self.log.wait("Previous provisioning is not finished yet. Waiting...")
        self.alive()
        self.alive()
        self.alive()
        self.log.wait("Waiting for progress")
        self.terminate_in_pass()
        self.assert_unlocked()
        self.assertEqual(self.log.count("Start provisioning thread"), 1)
        self.assertEqual(self.server.requests, ["/provisioning.xml"])


if __name__ == "__main__":
    phone.main()
