"""A pass with a job of every kind: an encrypted initial file, settings behind two files, firmware, a certificate, the phone
book, function keys, and a redirect to another server."""

import os
import time

import case as cases
import phone
from files import LABEL, NAME, categories, direct, element, root, settings_file
from raw_server import ok

CERTIFICATE = "/run/phone/elsewhere-authority.crt"


class EveryKind:
    """Its server and files; `begin` asks for the pass, `check_done` looks at what all of its jobs have done."""

    def __init__(self, case):
        self.case = case
        with open(CERTIFICATE, "rb") as file:
            certificate = file.read()
        there = direct([(NAME, "there")]).encode()
        self.there = case.serve({"/provisioning.xml": ok(there)})
        plain = categories([("nvm", "/nvm.xml"), ("firmware", "/firmware.xml"), ("custom", "/custom.xml")])
        secret = phone.encrypt(plain)
        pages = {
            "/provisioning.xml": secret,
            "/nvm.xml": root("nvm", [element("file", {"url": "/settings.xml"})], version="1.0").encode(),
            "/settings.xml": settings_file([*cases.SETTINGS[:60], (LABEL, "every kind")]).encode(),
            "/firmware.xml": root("firmware", [element("file", {"version": "V2.14", "url": "/image.bin"})],
                                  version="1.0").encode(),
            "/image.bin": cases.IMAGE,
            "/custom.xml": root("custom", [element("file", {"url": "/scenario.xml"})], version="1.0").encode(),
            "/scenario.xml": root("scenario", [
                element("step", {"type": "certificate", "url": "/one.pem"}),
                element("step", {"type": "LocalPhoneBook", "url": "/book.xml"}),
                element("step", {"type": "UnlockAllFunctionKeys"}),
                element("step", {"type": "Redirect", "url": self.there.url})], version="1.0").encode(),
            "/one.pem": certificate,
            "/book.xml": cases.BOOK,
        }
        case.known |= {*pages.values(), plain.encode(), there}
        self.server = case.serve({path: ok(body) for path, body in pages.items()})

    def begin(self):
        case = self.case
        case.log.mark()
        case.bus.mark()
        case.configure(self.server)
        case.request()

    def run(self):
        self.begin()
        self.case.wait_pass_end()
        return phone.wait_until(self.case.published, "the pass's result")

    def check_done(self):
        missing = [path for path in ("/config/swupdate/image.bin", "/custom/certs/_storage/one.pem",
                                     "/var/volatile/contacts/book.xml") if not os.path.exists(path)]
        if missing or self.case.bus.get(NAME) != "there":
            raise cases.NotHeld("every kind", "what every job leaves", f"missing: {missing}; {self.case.tail()}")


def empty_folders(case):
    for path in case.files():
        if os.path.basename(path) != cases.LOCK_FILE:
            os.remove(path)


def duration(case, job):
    """Seconds from the request for a pass to its end."""
    begin = time.monotonic()
    if job.run() != "success":
        raise cases.NotHeld("every kind", "success", case.tail())
    job.check_done()
    return time.monotonic() - begin
