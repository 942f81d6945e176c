"""Every kind of step and included files, on the real parts: two servers, the bus, the phone's certificate service."""

import dataclasses
import os
import shutil
import subprocess

import phone
from files import LABEL, NAME, categories, element, params, root, settings_file, versions
from server import Answer, Server

HERE = "https://provisioning.test/"
THERE = "elsewhere.test"
ELSEWHERE = "/srv/elsewhere"
STORAGE = "/custom/certs/_storage"
BUNDLE = "/custom/certs/ca-bundle.pem"
CONTACTS = "/var/volatile/contacts"
CERTIFICATES = tuple(f"State.Security.Certificates.{name}" for name in ("Pending", "Accept", "Invalid"))
UPDATE_BUNDLE = "State.Security.Certificates.UpdateCABundle"
BOOK = ("State.LocalDirectoryUpdate.FileName", "State.LocalDirectoryUpdate.Verify")
PERIOD = "System.Provision.Period"


def step(kind, **attributes):
    return element("step", {"type": kind, **attributes})


def custom(*steps):
    return element("custom", {}, steps)


def settings(*values):
    return element("nvm", {}, params(values))


def initial(*jobs):
    return root("provisioning", jobs)


def openssl(*words, **options):
    return subprocess.run(["openssl", *words], check=True, capture_output=True, timeout=30, **options).stdout


def self_signed(folder, begin, end):
    """A certificate that is valid between two times, "YYMMDDHHMMSSZ"."""
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    for name, text in (("index.txt", ""), ("serial", "01\n"), ("ca.conf", f"""[ca]
default_ca = one
[one]
dir = {folder}
database = {folder}/index.txt
serial = {folder}/serial
new_certs_dir = {folder}
default_md = sha256
policy = any
[any]
commonName = supplied
""")):
        with open(f"{folder}/{name}", "w", encoding="ascii") as file:
            file.write(text)
    openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-subj", "/CN=one", "-keyout",
            f"{folder}/key", "-out", f"{folder}/request")
    openssl("ca", "-batch", "-config", f"{folder}/ca.conf", "-selfsign", "-keyfile", f"{folder}/key", "-in",
            f"{folder}/request", "-startdate", begin, "-enddate", end, "-notext", "-out", f"{folder}/certificate")
    with open(f"{folder}/certificate", "rb") as file:
        return file.read()


@dataclasses.dataclass
class Certificate:
    name: str
    content: bytes
    flags: str
    change: tuple       # what is written, None for nothing
    status: str = "success"
    log: str = "Applying certificate 'one.pem'"


def certificate_rows():
    good = self_signed("/tmp/good", "200101000000Z", "450101000000Z")
    expired = self_signed("/tmp/expired", "200101000000Z", "210101000000Z")
    future = self_signed("/tmp/future", "450101000000Z", "460101000000Z")
    der = openssl("x509", "-in", "/tmp/good/certificate", "-outform", "DER")
    with open("/tmp/good/key", "rb") as file:
        key = file.read()
    pending, accept, invalid = ((name, "one.pem") for name in CERTIFICATES)
    return [
        Certificate("PEM", good, None, pending),
        Certificate("DER", der, "", pending),
        Certificate("PEM, forced", good, "FORCE_ACCEPT", accept),
        Certificate("expired, forced", expired, "FORCE_ACCEPT", invalid),
        Certificate("not yet valid, forced", future, "FORCE_ACCEPT", invalid),
        Certificate("garbage", os.urandom(2000), None, invalid),
        Certificate("a private key, forced", key, "FORCE_ACCEPT", invalid),
        Certificate("5 MB of noise", os.urandom(5 << 20), "FORCE_ACCEPT", None, "fail",
                    "status: Maximum file size exceeded HTTP status: 200 OK"),
    ]


class JobsTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": HERE}

    def setUp(self):
        for folder in (phone.WWW, ELSEWHERE):
            for name in os.listdir(folder):
                os.remove(os.path.join(folder, name))
        super().setUp()

    @staticmethod
    def publish(name, content, folder=phone.WWW):
        with open(f"{folder}/{name}", "wb") as file:
            file.write(content.encode() if isinstance(content, str) else content)

    def check_pass(self, status, log):
        self.assertEqual(self.provision(), status)
        self.log.in_order(log)

    # Certificates

    def test_certificates(self):
        with open(BUNDLE, "rb") as file:
            bundle = file.read()
        for row in certificate_rows():
            with self.subTest(row.name):
                shutil.rmtree(STORAGE)
                self.publish("one.pem", row.content)
                self.publish("provisioning.xml", initial(custom(step("certificate", url="/one.pem", flags=row.flags))))
                self.check_pass(row.status, [
                    "Executing step: 'certificate'",
                    f"Downloading certificate from URL '{HERE}one.pem' with flags '{row.flags or ''}'", row.log])
                self.assertEqual(self.bus.changes(*CERTIFICATES), [row.change] if row.change else [])
                self.assertEqual(os.listdir(STORAGE), ["one.pem"] if row.change else [])
                if row.flags != "FORCE_ACCEPT" or row.change != (CERTIFICATES[1], "one.pem"):
                    with open(BUNDLE, "rb") as file:
                        self.assertEqual(file.read(), bundle, "what is not accepted is not trusted")
                else:
                    self.bus.wait_change(UPDATE_BUNDLE, "")
                    with open(BUNDLE, "rb") as file:
                        bundle = file.read()

    def test_an_accepted_certificate_is_trusted_by_the_next_download(self):
        shutil.copyfile(f"{phone.HOME}/elsewhere-authority.crt", f"{phone.WWW}/elsewhere.pem")
        self.publish("provisioning.xml", initial(settings((LABEL, "there"))), ELSEWHERE)
        leave = custom(step("Redirect", url=f"https://{THERE}/"))

        def trusting(flags):
            return initial(custom(step("certificate", url="/elsewhere.pem", flags=flags)))

        for text in (initial(leave), trusting(None), initial(leave)):
            self.publish("provisioning.xml", text)
            self.provision()
        self.assertEqual(self.bus.get("State.Provisioning"), "fail", "a certificate that waits is not trusted")
        self.log.wait("Curl Error: SSL peer certificate or SSH remote key was not OK HTTP Error: 0 No answer")

        self.publish("provisioning.xml", trusting("FORCE_ACCEPT"))
        self.assertEqual(self.provision(), "success")
        self.bus.wait_change(UPDATE_BUNDLE, "")
        self.log.wait("Trusted certificates changed: ")
        self.assertEqual(self.bus.changes(UPDATE_BUNDLE), [(UPDATE_BUNDLE, "elsewhere.pem"), (UPDATE_BUNDLE, "")],
                         "reset once, and its own reset is no new request")

        self.publish("provisioning.xml", initial(leave))
        self.assertEqual(self.provision(), "success")
        self.assertEqual(self.bus.get(LABEL), "there")

    # Function keys

    def test_function_keys_are_unlocked(self):
        keys = [f"FunctionKeys.{key}LockProvisioning" for key in range(8)]
        for key in keys:
            self.bus.set(key, "1")
        self.publish("provisioning.xml", initial(custom(step("UnlockAllFunctionKeys"))))
        self.check_pass("success", ["Executing step: 'UnlockAllFunctionKeys'"])
        self.bus.wait_change(keys[-1], "0")
        self.assertEqual([change for change in self.bus.changes() if change[0].startswith("FunctionKeys")],
                         [(key, "0") for key in keys])

    # Redirect

    def test_a_redirect_to_another_server(self):
        self.publish("provisioning.xml", initial(settings((LABEL, "here")), custom(step("Redirect", url=f"http://{THERE}/")),
                                                 settings((NAME, "after"))))
        self.publish("provisioning.xml", initial(settings((LABEL, "there"))), ELSEWHERE)
        self.check_pass("success", [
            f"Applying param: '{LABEL}'='here'", "Executing step: 'Redirect'", "Start provisioning thread",
            f"Provisioning XML from: http://{THERE}/provisioning.xml to: ", f"Applying param: '{LABEL}'='there'",
            "Provisioning Finished", f"Applying param: '{NAME}'='after'", "Provisioning Finished", "Provisioning succeeded. "])
        lock = "State.Provisioning.LockUI"
        self.assertEqual(self.bus.changes("State.Provisioning", lock, "State.Provisioning.HttpErrorCode"),
                         [("State.Provisioning", "request"), (lock, "1"), (lock, "1"), (lock, "0"), (lock, "0"),
                          ("State.Provisioning.HttpErrorCode", "200"), ("State.Provisioning", "success")])

    def test_the_other_servers_result_decides(self):
        self.publish("provisioning.xml", initial(custom(step("Redirect", url=f"http://{THERE}/"))))
        self.assertEqual(self.provision(), "fail")
        self.assertEqual(self.bus.get("State.Provisioning.HttpErrorCode"), "404")
        self.publish("provisioning.xml", initial(settings((LABEL, "x"), ("No.Such.Key", "x"))), ELSEWHERE)
        self.assertEqual(self.provision(), "fail", "done in part there is failed here")
        self.publish("provisioning.xml", initial(settings((LABEL, "x"))), ELSEWHERE)
        self.assertEqual(self.provision(), "success")

    def test_a_redirect_to_itself_ends(self):
        self.publish("provisioning.xml", initial(custom(step("Redirect", url=HERE))))
        self.check_pass("fail", ["Redirected too often, provisioning not started"])
        self.assertEqual(self.log.count("Provisioning Started"), 4)
        self.publish("provisioning.xml", initial(settings((LABEL, "next"))))
        self.assertEqual(self.provision(), "success")

    def test_a_redirect_to_no_url_fails_and_the_next_pass_works(self):
        self.publish("provisioning.xml", initial(custom(step("Redirect", url="http:// /"))))
        self.check_pass("fail", ["Executing step: 'Redirect'", "Url is incorrect, please verify"])
        self.publish("provisioning.xml", initial(settings((LABEL, "next"))))
        self.assertEqual(self.provision(), "success")

    def test_the_watchdog_is_answered_through_a_redirect(self):
        gate = phone.threading.Event()
        flowing = Answer(initial(settings((LABEL, "flowed"))) + " " * 2_000_000, gate=gate, flow=(200, 0.02))
        server = Server({"/provisioning.xml": flowing})
        self.addCleanup(server.close)
        self.publish("provisioning.xml", initial(custom(step("Redirect", url=server.url))))
        self.request()
        phone.wait_until(lambda: server.requests, "the nested pass's download")
        for count in (1, 2, 3):  # the first may be for what moved before
            self.alive()
            self.bus.wait_message("prov-client/watchdog", count)
        self.busy()
        self.bus.wait_message("prov-client/auto-reboot")
        self.assertEqual(self.log.count("Provisioning Finished"), 0)
        gate.set()
        self.wait_pass_end()
        self.log.in_order([f"Applying param: '{LABEL}'='flowed'", "Provisioning Finished", "Provisioning Finished"])

    def test_sigterm_in_a_redirect(self):
        gate = phone.threading.Event()
        server = Server({"/provisioning.xml": Answer(initial(settings((LABEL, "late"))), gate=gate, part=10)})
        self.addCleanup(server.close)
        self.addCleanup(self.boot)  # for whichever test is next
        self.publish("provisioning.xml", initial(custom(step("Redirect", url=server.url))))
        self.request()
        phone.wait_until(lambda: server.requests, "the nested pass's download")
        opener = phone.threading.Thread(target=lambda: (self.log.wait("ZAV exited"), gate.set()))
        opener.start()
        self.assertEqual(self.terminate(), 0)
        opener.join()
        self.log.in_order(["IPC listening terminated", "ZAV exited"])
        self.assertEqual(self.bus.get("State.Provisioning.LockUI"), "0")
        self.assertEqual(self.bus.get("State.Provisioning"), "success")
        self.assertEqual(self.bus.get(LABEL), "late")

    def test_firmware_after_a_scenario_twice(self):
        image = os.urandom(2_000_000)
        self.publish("image.bin", image)
        self.publish("provisioning.xml", initial(settings((LABEL, "there"))), ELSEWHERE)
        self.publish("provisioning.xml", initial(
            custom(step("Redirect", url=f"http://{THERE}/")),
            element("firmware", {}, [element("file", {"version": "99.0", "url": "/image.bin"})])))
        for _ in range(2):
            self.check_pass("success", ["-----Finishing CustomScenarioJobHandler", "+++++ Starting FirmwareJobHandler"])
            with open("/config/swupdate/image.bin", "rb") as file:
                self.assertEqual(file.read(), image)

    # The phone book

    def test_a_phone_book_sets_the_period(self):
        self.publish("book.xml", "<contacts/>")
        self.publish("provisioning.xml", initial(custom(step("LocalPhoneBook", url="/book.xml", renewPeriod="7200"))))
        self.check_pass("success", [f"Downloading PhoneBook from URL '{HERE}book.xml'"])
        self.log.wait("Timer setting done")
        self.assertEqual(self.bus.changes(*BOOK, PERIOD), [(BOOK[0], "book.xml"), (BOOK[1], "request"), (PERIOD, "7200")])
        with open(f"{CONTACTS}/book.xml", encoding="utf-8") as file:
            self.assertEqual(file.read(), "<contacts/>")

    def test_a_phone_book_is_skipped_on_a_check_sync(self):
        self.publish("provisioning.xml", initial(custom(step("LocalPhoneBook", url="/none.xml", renewPeriod="7200"))))
        self.assertEqual(self.provision("request-check-sync"), "success")
        self.log.wait("Download of local phone book skipped")
        self.assertEqual(self.bus.changes(*BOOK, PERIOD), [])

    def test_a_step_that_fails_stops_nothing(self):
        self.publish("book.xml", "<contacts/>")
        self.publish("provisioning.xml", initial(custom(
            step("certificate", url="/none.pem"), step("Reboot"), step("LocalPhoneBook", url="/book.xml"))))
        self.check_pass("fail", [
            f"Error downloading firmware file '{HERE}none.pem' to '{STORAGE}/none.pem' status: No error HTTP status: "
            "404 Not Found", "Custom step type 'Reboot' not implemented", "Executing step: 'LocalPhoneBook'"])
        self.assertEqual(self.bus.changes(*BOOK), [(BOOK[0], "book.xml"), (BOOK[1], "request")])

    # Included files

    def test_included_files_at_depth(self):
        depth = 12
        self.publish("provisioning.xml", categories([("nvm", "/level0.xml")]))
        for level in range(depth):
            self.publish(f"level{level}.xml", versions("nvm", [("2026-01-01_00:00:00", "/old.xml"),
                                                               ("2026-02-01_00:00:00", f"/level{level + 1}.xml")]))
        self.publish(f"level{depth}.xml", settings_file([(LABEL, "deep")]))
        self.check_pass("success", [f"Found job with URL: {HERE}level{depth}.xml", f"Applying param: '{LABEL}'='deep'"])

    def test_an_unreachable_file_between_two_good_ones(self):
        self.publish("provisioning.xml", categories([("nvm", "/list.xml")]))
        self.publish("list.xml", root("settings", [versions_of("/one.xml"), versions_of("http://127.0.0.1:1/two.xml"),
                                                   versions_of("/three.xml")], version="1.0"))
        self.publish("one.xml", settings_file([(LABEL, "one")]))
        self.publish("three.xml", settings_file([(NAME, "three")]))
        self.check_pass("success", [f"Applying param: '{LABEL}'='one'", "Error downloading file: http://127.0.0.1:1/two.xml",
                                    f"Applying param: '{NAME}'='three'"])
        self.assertEqual(self.bus.get("State.Provisioning.HttpErrorCode"), "0")


def versions_of(url):
    return element("nvm", {}, [element("file", {"version": "2026-01-01_00:00:00", "url": url})])


if __name__ == "__main__":
    phone.main()
