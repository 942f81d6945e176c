"""What a server may answer to the request for the initial file, and servers that are none."""

import dataclasses

import phone
from files import LABEL, direct
from server import Answer, Server

GOOD = direct([(LABEL, "good")])
FAILED = ["Curl Error: ", "Worker failed to download initial job", "Provisioning Finished", "Provisioning failed. "]


@dataclasses.dataclass
class Row:
    name: str
    answer: Answer
    status: str
    http: str
    log: list


ROWS = [
    Row("200", Answer(GOOD), "success", "200", [f"Applying param: '{LABEL}'='good'"]),
    Row("404", Answer("gone", 404), "fail", "404", FAILED),
    Row("304", Answer(status=304), "fail", "304", FAILED),
    Row("204", Answer(status=204), "fail", "204", FAILED),
    Row("201 with a file", Answer(GOOD, 201), "fail", "201", FAILED),
    Row("500", Answer("oops", 500), "fail", "500", FAILED),
    Row("401", Answer("who are you", 401), "fail", "401", FAILED),
    Row("redirected to the file", Answer(status=302, headers={"Location": "/good.xml"}), "success", "200",
        [f"Applying param: '{LABEL}'='good'"]),
    Row("redirected in circles", Answer(status=302, headers={"Location": "/provisioning.xml"}), "fail", "302", FAILED),
    Row("redirected to a local file", Answer(status=302, headers={"Location": "file:///etc/zav.d/key"}), "fail", "302",
        FAILED),
    Row("cut in the middle", Answer(GOOD, part=40, cut=True), "fail", "200", FAILED),
]


class AnswersTest(phone.ServedPhoneTest):
    answers = {"/good.xml": Answer(GOOD)}

    def setUp(self):
        self.bus.set("System.Provision.ProvisioningServer", self.server.url)
        super().setUp()

    def test_answers(self):
        for row in ROWS:
            with self.subTest(row.name):
                self.server.answers["/provisioning.xml"] = row.answer
                self.assertEqual(self.provision(), row.status)
                self.log.in_order([f"Provisioning XML from: {self.server.url}provisioning.xml to: ", *row.log])
                self.assertEqual(self.bus.changes("State.Provisioning", "State.Provisioning.LockUI",
                                                  "State.Provisioning.HttpErrorCode"),
                                 [("State.Provisioning", "request"), ("State.Provisioning.LockUI", "1"),
                                  ("State.Provisioning.LockUI", "0"), ("State.Provisioning.HttpErrorCode", row.http),
                                  ("State.Provisioning", row.status)])

    def unreachable(self, url):
        self.bus.set("System.Provision.ProvisioningServer", url)
        self.log.wait("System.Provision.ProvisioningServer")
        self.assertEqual(self.provision(), "fail")
        self.log.in_order(FAILED)
        self.assertEqual(self.bus.get("State.Provisioning.HttpErrorCode"), "0")
        self.assertEqual(self.bus.get("State.Provisioning.LockUI"), "0")

    def test_connection_refused(self):
        silent = Server()
        silent.close()
        self.unreachable(silent.url)

    def test_unknown_host(self):
        self.unreachable("http://no-such-host.invalid/")

    def test_certificate_that_the_phone_does_not_trust(self):
        # The server's certificate names provisioning.test, localhost and two addresses; this is another name of it.
        with open("/etc/hosts", "a", encoding="utf-8") as hosts:
            hosts.write("192.0.2.10 impostor.test\n")
        self.unreachable("https://impostor.test/")

    def test_no_server(self):
        self.bus.set("System.Provision.ProvisioningServer", "")
        self.bus.set("State.Provisioning", "request")
        self.log.wait("Provisioning URL not set. Provisioning not started.")
        self.assertEqual(self.bus.changes("State.Provisioning.LockUI"), [])
        self.alive()
        self.bus.wait_message("prov-client/watchdog")

    def test_server_that_is_no_url_and_a_good_one_after_it(self):
        for url in ("http://", "http://a b/", "http://host:99999/", "http://host/../x", "\x01"):
            with self.subTest(url):
                self.log.mark()
                self.bus.set("System.Provision.ProvisioningServer", url)
                self.bus.set("State.Provisioning", "request")
                self.log.wait("Url is incorrect, please verify")
                self.log.none(["Provisioning Started"])
        self.alive()
        self.bus.wait_message("prov-client/watchdog")
        self.busy()  # it stays busy until a pass has ended
        self.bus.wait_message("prov-client/auto-reboot")
        self.server.answers["/provisioning.xml"] = Answer(GOOD)
        self.bus.set("System.Provision.ProvisioningServer", self.server.url)
        self.assertEqual(self.provision(), "success")


if __name__ == "__main__":
    phone.main()
