"""Firmware images over lines that break and servers that go on with something else. What stands in the staging folder
is exactly one image, or the job has failed and nothing stands there."""

import gzip
import os
import random

import certificates
import faults
import phone
from files import LABEL, direct, element, root
from raw_server import HEAD, ok

UPDATE = "State.FirmwareUpdate.UpdateSystem"
STAGING = "/config/swupdate"
CUT = 150_000
_random = random.Random(7)
FIRST = _random.randbytes(400_000)
SECOND = _random.randbytes(400_000)
LONGER = _random.randbytes(500_000)
E1, E2 = b'ETag: "e1"', b'ETag: "e2"'


def head(status, length, *headers):
    lines = [b"HTTP/1.1 " + status, *headers]
    if length is not None:
        lines.append(b"Content-Length: %d" % length)
    return b"\r\n".join(lines) + b"\r\n\r\n"


def cut(*headers):
    """The first image with these headers, which breaks off."""
    return head(b"200 OK", len(FIRST), *headers) + FIRST[:CUT]


def whole(image, *headers):
    return head(b"200 OK", len(image), *headers) + image


def part(data, content_range, *headers, length=True):
    return head(b"206 Partial Content", len(data) if length else None, b"Content-Range: bytes " + content_range, *headers) + data


REST = FIRST[CUT:]
UNSATISFIED = head(b"416 Range Not Satisfiable", 0, b"Content-Range: bytes */400000")

# How the server goes on when asked for the rest of a first image with ETag "e1" that broke off.
RESTS = {
    "the rest": part(REST, b"150000-399999/400000", E1),
    "another image's rest": part(SECOND[CUT:], b"150000-399999/400000", E2),
    "another image's rest, longer": part(LONGER[CUT:], b"150000-499999/500000", E2),
    "another image's rest that claims to be the first's": part(LONGER[CUT:], b"150000-499999/500000", E1),
    "a rest without a validator": part(SECOND[CUT:], b"150000-399999/400000"),
    "a rest with a weak validator": part(SECOND[CUT:], b"150000-399999/400000", b'ETag: W/"e1"'),
    "a rest of an image that is shorter": part(REST[:1000], b"150000-150999/151000", E1),
    "a piece of the rest": part(REST[:1000], b"150000-150999/400000", E1),
    "a rest without a total": part(SECOND[CUT:], b"150000-399999/*", E1),
    "a short rest without a total": part(REST[:1000], b"150000-150999/*", E1),
    "a rest that begins too early": part(FIRST[CUT - 10:], b"149990-399999/400000", E1),
    "a rest that begins too late": part(FIRST[CUT + 10:], b"150010-399999/400000", E1),
    "a rest longer than its range": part(REST + b"more", b"150000-399999/400000", E1),
    "a rest shorter than its range, to the close": part(REST[:1000], b"150000-399999/400000", E1, length=False),
    "a range that is not one": part(REST, b"rest", E1),
    "two ranges": part(REST, b"150000-399999/400000", E1, b"Content-Range: bytes 0-1/2"),
    "no range": head(b"206 Partial Content", len(REST), E1) + REST,
    "a range that the server cannot satisfy": UNSATISFIED,
    "a new image": whole(SECOND, E2),
    "a new image with the old one's validator": whole(SECOND, E1),
    "a new image that breaks off, too": [head(b"200 OK", len(SECOND), E2) + SECOND[:CUT],
                                         part(SECOND[CUT:], b"150000-399999/400000", E2)],
    "an answer without content": head(b"204 No Content", None, E1),
    "compressed": whole(gzip.compress(SECOND), E2, b"Content-Encoding: gzip"),
}
# After these the server may be given up.
HOPELESS = ("an answer without content", "compressed")
IMAGES = {"first": FIRST, "second": SECOND, "longer": LONGER}

# First answers after which no rest can be told from another image's: the image is fetched again from its start.
WITHOUT_VALIDATOR = {
    "no validator": [],
    "a weak ETag": [b'ETag: W/"e1"'],
    "an ETag without quotes": [b"ETag: e1"],
    "a date that may be another's of the same second": [
        b"Last-Modified: Sun, 22 Nov 2026 02:00:00 GMT", b"Date: Sun, 22 Nov 2026 02:00:00 GMT"],
    "a date without the server's own": [b"Last-Modified: Sun, 22 Nov 2026 02:00:00 GMT"],
}

# One answer, of which nothing may be installed.
REFUSED = {
    "204": head(b"204 No Content", None),
    "206": part(FIRST, b"0-399999/400000", E1),
    "206 of the start": part(FIRST[:CUT], b"0-149999/400000", E1),
    "gzip that was not asked for": whole(gzip.compress(FIRST), b"Content-Encoding: gzip"),
    "br that was not asked for": whole(FIRST, b"Content-Encoding: br"),
    "two codings": whole(gzip.compress(FIRST), b"Content-Encoding: gzip, br"),
    "an empty image with a coding": whole(b"", b"Content-Encoding: gzip"),
}


class FirmwareFaultsTest(faults.FaultTest):
    settings = {"FirmwareManagment.AutomaticCheckForUpdates": "1", "System.General.SoftwareVersion": "2.13.7"}

    @classmethod
    def setUpClass(cls):
        cls.certificate = certificates.trusted()
        super().setUpClass()

    def order(self, image=None, name="/image.bin", certificate=None):
        """A server whose provisioning file wants a firmware, and whose answers to it these are."""
        self.empty_staging()
        server = self.serve({name: image}, certificate=certificate)
        self.announce(server, name)
        return server

    def announce(self, server, url):
        server.answers["/provisioning.xml"] = ok(root("provisioning", [element("firmware", {}, [
            element("file", {"version": "2.14", "url": url})])]).encode())
        self.configure(server)

    @staticmethod
    def empty_staging():
        for name in os.listdir(STAGING):
            os.remove(f"{STAGING}/{name}")

    def run_pass(self):
        """One pass; the pauses between its attempts are jumped over."""
        self.log.mark()
        self.bus.mark()
        self.request()
        jumped = 0

        def ended():
            nonlocal jumped
            jumped = phone.jump_pauses(self.log, jumped)
            return self.passes_ended() > 0

        phone.wait_until(ended, lambda: "end of the pass in:\n" + "\n".join(self.log.lines()[-60:]), 60)
        self.bus.wait_change("State.Provisioning.LockUI", "0")
        return phone.wait_until(lambda: [v for k, v in self.bus.changes("State.Provisioning") if "request" not in v],
                                lambda: f"the pass's result in {self.bus.changes()}")[-1]

    def staged(self):
        """The bytes of the one file in the staging folder, or nothing."""
        found = os.listdir(STAGING)
        self.assertLessEqual(len(found), 1, found)
        if not found:
            return None
        with open(f"{STAGING}/{found[0]}", "rb") as file:
            return file.read()

    def check_whole_or_nothing(self):
        """The name of the image that was installed, or nothing."""
        result = self.run_pass()
        image = self.staged()
        installed = self.bus.changes(UPDATE)
        if image is None:
            self.assertEqual((result, installed), ("fail", []))
            return None
        names = [name for name, one in IMAGES.items() if one == image]
        self.assertTrue(names, f"{len(image)} bytes that are no image; {result}, {installed}")
        self.assertEqual((result, installed), ("success", [(UPDATE, "provisioning-request")]))
        return names[0]

    def test_rests(self):
        for name, rest in RESTS.items():
            with self.fault(name):
                rests = list(rest) if isinstance(rest, list) else None
                server = None

                def answer(connection):
                    asked = "range" in server.requests[-1][1]
                    if not asked:
                        first = sum(path == "/image.bin" for path, _ in server.requests) == 1
                        connection.sendall(cut(E1) if first else whole(FIRST, E1))
                    else:
                        connection.sendall(rests.pop(0) if rests else rest)

                server = self.order(answer)
                image = self.check_whole_or_nothing()
                self.assertTrue(image or name in HOPELESS, "a server that still answers is no reason to give up")

    def test_the_line_stays_broken(self):
        with self.fault("connections are refused"):
            server = self.order()

            def answer(connection):
                connection.sendall(cut(E1))
                server.close()

            server.answers["/image.bin"] = answer
            self.assertIsNone(self.check_whole_or_nothing())
        with self.fault("every answer breaks off at the same place"):
            self.order(lambda connection: connection.sendall(cut()))
            self.assertIsNone(self.check_whole_or_nothing())

    def test_without_a_validator_it_starts_again(self):
        for name, headers in WITHOUT_VALIDATOR.items():
            with self.fault(name):
                server = None

                def answer(connection):
                    asked = server.requests[-1][1].get("range")
                    count = sum(path == "/image.bin" for path, _ in server.requests)
                    if asked:  # what a careless server would do: the rest of an image that has changed
                        connection.sendall(part(SECOND[CUT:], b"150000-399999/400000", *headers))
                    else:
                        connection.sendall(cut(*headers) if count < 3 else whole(SECOND, *headers))

                server = self.order(answer)
                self.assertEqual(self.check_whole_or_nothing(), "second")

    def test_answers_that_are_not_an_image(self):
        for name, answer in REFUSED.items():
            with self.fault(name):
                self.order(answer)
                self.assertIsNone(self.check_whole_or_nothing())

    def test_tls_without_close_notify_is_never_installed(self):
        for name, image in {"whole, but nothing says so": FIRST, "short": FIRST[:CUT]}.items():
            with self.fault(name):
                self.order(HEAD + b"\r\n" + image, certificate=self.certificate)
                self.assertIsNone(self.check_whole_or_nothing())
        with self.fault("the next attempt is whole"):
            self.order([HEAD + b"\r\n" + FIRST[:CUT], whole(FIRST)], certificate=self.certificate)
            self.assertEqual(self.check_whole_or_nothing(), "first")

    def test_a_compressed_image_is_stored_as_it_comes(self):
        packed = gzip.compress(FIRST)
        for name in ("/image.img.gz", "/IMAGE.GZ"):
            with self.fault(name):
                self.order(whole(packed, b"Content-Encoding: gzip"), name)
                self.assertEqual(self.run_pass(), "success")
                self.assertTrue(self.staged() == packed, "the bytes as they came")
                self.assertEqual(self.bus.changes(UPDATE), [(UPDATE, "provisioning-request")])

    def test_killed_in_mid_download(self):
        server = self.order(lambda connection: (connection.sendall(cut(E1)), server.wait_close()))
        self.request()
        left = phone.wait_until(lambda: [name for name in os.listdir(STAGING) if name.endswith(".part") and os.path.getsize(
            f"{STAGING}/{name}") == CUT], lambda: f"a part of the image in {os.listdir(STAGING)}")
        phone.service("kill", "daemon")
        server.close()
        self.assertEqual(os.listdir(STAGING), left)
        planted = "/var/volatile/contacts/.book.xml.part"
        with open(planted, "wb") as file:
            file.write(b"half a phone book")
        self.log.mark()
        phone.service("start", "daemon")
        self.log.wait("ZAV initialized.")
        try:
            phone.wait_until(lambda: not os.listdir(STAGING) and not os.path.exists(planted),
                             lambda: f"no partial files, there are {os.listdir(STAGING)} and {planted}", deadline=15)
            self.log.none(["Enabling provisioning function."])
        finally:
            self.settle()
            self.log.wait("Provisioning on boot up already done, skipping")
        self.check_alive()

    def test_a_planted_link_is_not_followed(self):
        target = "/config/planted"
        with open(target, "wb") as file:
            file.write(b"not yours")
        os.symlink(target, f"{faults.INITIAL}.tmp")
        self.addCleanup(lambda: os.path.lexists(f"{faults.INITIAL}.tmp") and os.remove(f"{faults.INITIAL}.tmp"))
        self.configure(self.serve({"/provisioning.xml": ok(phone.encrypt(direct([(LABEL, "behind a link")])))}))
        self.assertEqual(self.provision(), "success")
        self.assertEqual(self.bus.get(LABEL), "behind a link")
        with open(target, "rb") as file:
            self.assertEqual(file.read(), b"not yours")
        self.assertTrue(os.path.isfile(faults.INITIAL) and not os.path.islink(faults.INITIAL))
        self.assertFalse(os.path.lexists(f"{faults.INITIAL}.tmp"))
        self.check_alive()


if __name__ == "__main__":
    phone.main()
