"""Mutual TLS: a web server that serves only phones with a certificate of their authority (nginx, ssl_verify_client on)."""

import os
import subprocess

import certificates
import phone
from files import LABEL, direct

PORT = 8443
URL = f"https://provisioning.test:{PORT}/"
DEVICE = "/etc/zav.d/device.pem"
SEEN = f"{phone.HOME}/mutual.log"
NO_CERTIFICATE = "Curl Error: No error HTTP Error: 400"

SERVER = f"""user root; daemon off; master_process off; pid {phone.HOME}/mutual.pid; error_log stderr;
events {{ worker_connections 64; }}
http {{
  log_format seen '$ssl_client_verify $ssl_client_s_dn $uri $status';
  access_log {SEEN} seen;
  client_body_temp_path /run/phone/m1; proxy_temp_path /run/phone/m2; fastcgi_temp_path /run/phone/m3;
  uwsgi_temp_path /run/phone/m4; scgi_temp_path /run/phone/m5;
  server {{
    listen {PORT} ssl; server_name provisioning.test; root {phone.WWW};
    ssl_certificate {phone.HOME}/server.crt; ssl_certificate_key {phone.HOME}/server.key;
    ssl_client_certificate {phone.HOME}/authority.crt; ssl_verify_client on;
    location = /away.xml {{ return 302 https://provisioning.test/provisioning.xml; }}
  }}
}}
"""


def write(path, text, mode=0o600):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
    os.chmod(path, mode)


def device(name, days=2):
    with open(certificates.trusted(f"/tmp/{name}", days=days), encoding="ascii") as file:
        return file.read()


def parts(text):
    """The certificate and the key of a device's file."""
    key = text.index("-----BEGIN PRIVATE")
    return text[:key], text[key:]


class IdentityTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": URL}

    @classmethod
    def setUpClass(cls):
        write(f"{phone.HOME}/mutual.conf", SERVER)
        write(f"{phone.WWW}/provisioning.xml", direct([(LABEL, "known")]), 0o644)
        cls.nginx = subprocess.Popen(["nginx", "-p", phone.HOME, "-c", f"{phone.HOME}/mutual.conf", "-e", "stderr"])
        phone.wait_until(lambda: subprocess.run(["curl", "-sko", "/dev/null", URL], check=False).returncode == 0, "nginx")
        super().setUpClass()

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        cls.nginx.terminate()
        cls.nginx.wait()

    def setUp(self):
        super().setUp()
        open(SEEN, "w", encoding="ascii").close()
        if os.path.exists(DEVICE):
            os.remove(DEVICE)

    def seen(self):
        with open(SEEN, encoding="ascii") as file:
            return file.read().splitlines()

    def install(self, text, mode=0o600):
        write(DEVICE, text, mode)

    def test_phone_with_a_certificate_is_served(self):
        self.assertEqual(self.provision(), "fail")
        self.log.in_order([NO_CERTIFICATE, "Worker failed to download initial job"])
        self.install(device("phone"))
        self.assertEqual(self.provision(), "success")
        self.assertEqual(self.seen()[1:], ["SUCCESS CN=127.0.0.1 /provisioning.xml 200"])
        self.log.none(["Device certificate"])

    def test_unusable_file_is_one_warning_and_the_pass_goes_on(self):
        good, other = device("phone"), device("other")
        head, key = parts(good)
        rows = [("", "has no certificate"), (head, "has no private key"), (key, "has no certificate"),
                (good.replace("MII", "!!!"), "has a damaged certificate or key"),
                (head + parts(other)[1], "has a private key that does not belong to its first certificate"),
                (device("old", days=-1), "expired on ")]
        for text, reason in rows:
            with self.subTest(reason):
                self.install(text)
                self.assertEqual(self.provision(), "fail")
                self.assertEqual(self.log.count("Device certificate"), 1)
                self.assertEqual(self.log.count("warning platform/security/src/Security"), 1)
                self.log.in_order(["Provisioning Started", f"Device certificate not used: {DEVICE} {reason}",
                                   "Provisioning XML from", NO_CERTIFICATE])
                self.install(good)
                self.assertEqual(self.provision(), "success")

    def test_key_that_every_user_can_read_is_used_with_a_warning(self):
        self.install(device("phone"), 0o644)
        self.assertEqual(self.provision(), "success")
        self.assertEqual(self.log.count(f"Device certificate: every user can read or replace the private key in {DEVICE}"), 1)

    def test_renewed_and_withdrawn_certificates_count_from_the_next_pass_on(self):
        self.install(device("phone"))
        self.assertEqual(self.provision(), "success")
        self.install(device("other"))
        self.assertEqual(self.provision(), "success")
        os.remove(DEVICE)
        self.assertEqual(self.provision(), "fail")
        self.assertEqual([line.split()[0] for line in self.seen()], ["SUCCESS", "SUCCESS", "NONE"])

    def test_redirect_to_a_server_that_asks_for_none(self):
        self.install(device("phone"))
        self.bus.set("System.Provision.ProvisioningServer", URL + "away.xml")
        self.addCleanup(self.bus.set, "System.Provision.ProvisioningServer", URL)
        self.assertEqual(self.provision(), "success")


if __name__ == "__main__":
    phone.main()
