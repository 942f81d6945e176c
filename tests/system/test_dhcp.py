"""A new phone learns its server from DHCP: packaging/dhcp/server-hook under two DHCP clients, dnsmasq on the other end of the
phone's cable with the line in docs/server.md.
"""

import os
import signal
import subprocess

import examples
import phone
from files import LABEL, direct

HOOK = f"{phone.PROJECT}/packaging/dhcp/server-hook"
KEY = "System.Provision.ProvisioningServer"
OFFER = next(block.text for block in examples.blocks("docs/server.md") if block.info == "dnsmasq")
URL = OFFER.split('"')[1]

# The lease is the address that eth0 has: udhcpc replaces it.
DNSMASQ = """port=0
interface=uplink0
bind-interfaces
no-ping
leasefile-ro
dhcp-authoritative
dhcp-range=192.0.2.10,192.0.2.10,255.255.255.0,1h
"""
UDHCPC = ["udhcpc", "-f", "-q", "-n", "-i", "eth0", "-t", "20", "-T", "1", "-O", "bootfile", "-s", HOOK]
# What Debian's dhclient-script does with the hooks in its folder, and nothing to the phone's network.
DHCLIENT_SCRIPT = f"#!/bin/sh\nPATH='{os.environ['PATH']}'\n. {HOOK}\n"
DHCLIENT_CONF = "also request bootfile-name;\n"
PID_FILE = "/tmp/dhclient.pid"
DHCLIENT = ["dhclient", "-1", "-sf", "/tmp/dhclient-script", "-cf", "/tmp/dhclient.conf", "-lf", "/tmp/dhclient.leases",
            "-pf", PID_FILE, "eth0"]


class DhcpTest(phone.PhoneTest):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        subprocess.run(["ip", "address", "add", "192.0.2.1/24", "dev", "uplink0"], check=True)
        for name, text in (("dhclient-script", DHCLIENT_SCRIPT), ("dhclient.conf", DHCLIENT_CONF), ("dhclient.leases", "")):
            with open(f"/tmp/{name}", "w", encoding="ascii") as file:
                file.write(text)
        subprocess.run(["chmod", "755", "/tmp/dhclient-script"], check=True)
        path = f"{phone.WWW}/{phone.MAC.replace(':', '-')}/provisioning.xml"
        subprocess.run(["mkdir", "-p", path.rpartition("/")[0]], check=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(direct([(LABEL, "known")]))

    def offer(self, line):
        """A DHCP server that offers this."""
        with open("/tmp/dnsmasq.conf", "w", encoding="ascii") as file:
            file.write(DNSMASQ + line + "\n")
        server = subprocess.Popen(["dnsmasq", "--no-daemon", "--conf-file=/tmp/dnsmasq.conf", "--pid-file="],
                                  stderr=subprocess.DEVNULL)

        def end():
            server.terminate()
            server.wait()

        self.addCleanup(end)

    def lease(self, client):
        """Runs the client until it has a lease and its hook, which holds its output too, has ended; what they said."""
        done = subprocess.run(client, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)
        if client is DHCLIENT:  # it stays for the renewal, in the background
            phone.wait_until(lambda: os.path.exists(PID_FILE) and os.path.getsize(PID_FILE), "dhclient's process")
            with open(PID_FILE, encoding="ascii") as file:
                os.kill(int(file.read()), signal.SIGKILL)
            os.remove(PID_FILE)
        return done.stdout

    def test_a_new_phone_gets_its_server_and_provisions(self):
        self.offer(OFFER)
        for client in (UDHCPC, DHCLIENT):
            with self.subTest(client[0]):
                self.bus.set(KEY, "")
                self.bus.set(LABEL, "")
                self.setUp()
                said = self.lease(client)
                self.bus.wait_change(KEY, URL)
                self.wait_pass_end()
                self.assertEqual((self.bus.get(KEY), self.bus.get(LABEL)), (URL, "known"), said)

    def test_a_server_that_is_set_stays(self):
        self.offer(OFFER)
        self.bus.set(KEY, "https://provisioning.test/mine/")
        for client in (UDHCPC, DHCLIENT):
            with self.subTest(client[0]):
                self.setUp()
                self.lease(client)
                self.assertEqual(self.bus.get(KEY), "https://provisioning.test/mine/")
                self.assertEqual(self.bus.changes(KEY), [])

    def test_only_https_is_accepted(self):
        self.offer(OFFER.replace("https:", "http:"))
        self.bus.set(KEY, "")
        for client in (UDHCPC, DHCLIENT):
            with self.subTest(client[0]):
                self.assertIn("which is not an https URL", self.lease(client))
                self.assertEqual(self.bus.get(KEY), "")

    def test_without_the_option_nothing_happens(self):
        self.offer("")
        self.bus.set(KEY, "")
        for client in (UDHCPC, DHCLIENT):
            with self.subTest(client[0]):
                self.assertNotIn("zav:", self.lease(client))
                self.assertEqual(self.bus.get(KEY), "")

    def test_it_waits_for_the_property_service(self):
        self.offer(OFFER)
        self.bus.set(KEY, "")
        phone.service("stop", "properties")
        self.setUp()
        with subprocess.Popen(UDHCPC, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as client:
            client.wait(phone.DEADLINE)
        phone.service("start", "properties")
        self.bus.wait_change(KEY, URL)


if __name__ == "__main__":
    phone.main()
