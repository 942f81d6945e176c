"""Downloads that fail in every way a network or a server can fail. The pass fails, and the next one on the same daemon
succeeds: no failure decides what comes after it."""

import dataclasses
import gzip
import os
import socket
import ssl
import subprocess
import warnings

import certificates
import faults
import phone
from faults import GOOD, INITIAL
from files import element, root
from raw_server import HEAD, endless, ok, redirect, reset_after

MIB = 1 << 20
CHUNKED = HEAD + b"Transfer-Encoding: chunked\r\n\r\n"
FLOOD_PEAK = 40 << 10  # KiB that the daemon may ever have had
LONG_HOST = "http://" + ".".join(["h" * 59] * 5) + "/"
HOSTS = {
    "an unknown host": "http://no-such-host.invalid/",
    "a host that is not ASCII": "http://pröv.invalid/",
    "a host of 300 letters": LONG_HOST,
    "a label of 300 letters": f"http://{'h' * 300}/",
    "a host of one dot": "http://./",
    "an address without a route": "http://203.0.113.1/",
    "an IPv6 address without a route": "http://[2001:db8::1]/",
}


def close(_connection):
    """An end without an answer."""


def chunked(*pieces):
    return CHUNKED + b"".join(pieces)


def with_status(line, *headers):
    return b"HTTP/1.1 " + line + b"\r\n" + b"".join(header + b"\r\n" for header in headers) + b"\r\n"


def flood(head, line, total=24 * MIB):
    """The line again and again, as much as would show in the daemon's memory; then the connection stays open."""
    def answer(connection):
        connection.sendall(head)
        block = line * (65536 // len(line))
        for _ in range(total // len(block)):
            connection.sendall(block)
        connection.recv(1)
    return answer


def stay(data):
    """Sends the data and keeps the connection open until the client closes it."""
    def answer(connection):
        connection.sendall(data)
        connection.recv(1)
    return answer


def say_goodbye(data):
    """Over TLS: the data and a close_notify."""
    def answer(connection):
        connection.sendall(data)
        connection.unwrap()
    return answer


def plain_to_tls(connection):
    connection.recv(4096)
    connection.sendall(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n")


@dataclasses.dataclass
class Row:
    name: str
    answer: object            # what the server says to the request for the initial file
    code: str                 # State.Provisioning.HttpErrorCode after it; "" where it is left open
    certificate: str = None   # of the server; none is plain http
    accept: object = None     # instead of an answer: what is done to each connection
    peak: int = 0             # KiB of memory that the pass may take at most


ROWS = [
    # The connection breaks.
    Row("closed before the answer", close, "0"),
    Row("reset before the request is read", None, "0", accept=reset_after(b"")),
    Row("reset before the answer", reset_after(b""), "0"),
    Row("reset inside the status line", reset_after(b"HTTP/1.1 2"), ""),
    Row("reset inside the headers", reset_after(HEAD + b"Content-Le"), ""),
    Row("closed inside the headers", HEAD + b"Content-Le", ""),
    Row("reset inside the body", reset_after(HEAD + b"Content-Length: 5000\r\n\r\n" + GOOD[:50]), "200"),
    Row("reset inside a chunk", reset_after(CHUNKED + b"1000\r\n" + GOOD[:50]), "200"),
    # Its length is wrong.
    Row("a length that is too long", HEAD + b"Content-Length: 99999\r\n\r\n" + GOOD, "200"),
    Row("a length that is too short", HEAD + b"Content-Length: 60\r\n\r\n" + GOOD, "200"),
    Row("two lengths", HEAD + b"Content-Length: 10\r\nContent-Length: 20\r\n\r\n" + GOOD, ""),
    Row("an empty file", ok(b""), "200"),
    Row("17 MiB", ok(b" " * (17 * MIB)), "200", peak=FLOOD_PEAK),
    Row("17 MiB without a length", HEAD + b"\r\n" + b" " * (17 * MIB), "200", peak=FLOOD_PEAK),
    Row("17 MiB in chunks", chunked(b"1100000\r\n" + b" " * (17 * MIB) + b"\r\n0\r\n\r\n"), "200", peak=FLOOD_PEAK),
    Row("a body without end", endless(HEAD), "200", peak=FLOOD_PEAK),
    # Its chunks are wrong.
    Row("a chunk size that is not a number", chunked(b"zz\r\n", GOOD), ""),
    Row("a chunk size below 0", chunked(b"-5\r\n", GOOD), ""),
    Row("a chunk size beyond 64 bits", chunked(b"fffffffffffffffffffff\r\n", GOOD), ""),
    Row("a chunk longer than its size", chunked(b"10\r\n" + GOOD + b"\r\n0\r\n\r\n"), ""),
    Row("no last chunk", chunked(b"%x\r\n" % len(GOOD) + GOOD + b"\r\n"), "200"),
    # It has no end.
    Row("headers without end", flood(HEAD, b"X-T: " + b"y" * 1000 + b"\r\n"), "", peak=FLOOD_PEAK),
    Row("a header without end", flood(HEAD + b"X-T: ", b"y" * 1000), "", peak=FLOOD_PEAK),
    Row("1xx answers without end", flood(b"", b"HTTP/1.1 103 Early Hints\r\nX-T: " + b"y" * 1000 + b"\r\n\r\n"), "",
        peak=FLOOD_PEAK),
    Row("short 1xx answers without end", flood(b"", b"HTTP/1.1 100 Continue\r\n\r\n"), "", peak=FLOOD_PEAK),
    Row("trailers without end", flood(chunked(b"%x\r\n" % len(GOOD) + GOOD + b"\r\n0\r\n"), b"X-T: yyy\r\n"), "",
        peak=FLOOD_PEAK),
    Row("a redirect in circles", redirect("/provisioning.xml"), "302"),
    Row("a redirect to nowhere", with_status(b"302 Found", b"Content-Length: 0"), "302"),
    # It is not the file that was asked for.
    Row("gzip that was not asked for", ok(gzip.compress(GOOD), b"Content-Encoding: gzip"), "200"),
    Row("a coding that the body does not have", ok(GOOD, b"Content-Encoding: gzip"), "200"),
    Row("two codings", ok(GOOD, b"Content-Encoding: gzip, br"), "200"),
    Row("204", with_status(b"204 No Content"), "204"),
    Row("206 of a range that was not asked for", with_status(
        b"206 Partial Content", b"Content-Length: %d" % len(GOOD), b"Content-Range: bytes 0-%d/%d" % (
            len(GOOD) - 1, len(GOOD))) + GOOD, "206"),
    Row("304", with_status(b"304 Not Modified"), "304"),
    Row("404 with a provisioning file", with_status(b"404 Not Found", b"Content-Length: %d" % len(GOOD)) + GOOD, "404"),
    Row("500", with_status(b"500 Internal Server Error", b"Content-Length: 0"), "500"),
    Row("503 after headers of 100 KiB", with_status(b"503 Busy", *[b"X-T: " + b"y" * 1000] * 100, b"Content-Length: 0"), "503"),
]


def tls_rows():
    here = certificates.trusted()
    old = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    old.set_ciphers("ALL:@SECLEVEL=0")
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", DeprecationWarning)  # that it is old is the point
        old.minimum_version, old.maximum_version = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1
    old.load_cert_chain(here)
    body = HEAD + b"\r\n" + GOOD
    return [
        Row("self-signed", ok(GOOD), "0", certificates.self_signed()),
        Row("another server's name", ok(GOOD), "0", certificates.trusted("/tmp/other", "DNS:provisioning.test")),
        Row("expired", ok(GOOD), "0", certificates.trusted("/tmp/expired", days=-1)),
        Row("TLS 1.1", ok(GOOD), "0", old),
        Row("plain http on the TLS port", None, "0", here, plain_to_tls),
        Row("closed in the handshake", None, "0", here, lambda connection: connection.recv(1)),
        Row("cut in the body", HEAD + b"Content-Length: 5000\r\n\r\n" + GOOD, "200", here),
        Row("ended without close_notify", body, "200", here),
        Row("reset after the body", reset_after(body), "", here),
        Row("a certificate beyond redirects", redirect("https://elsewhere.test/provisioning.xml"), "0", here),
        Row("a redirect from https to http", redirect("http://provisioning.test/provisioning.xml"), "302", here),
    ]


class DownloadFaultsTest(faults.FaultTest):
    @classmethod
    def setUpClass(cls):
        cls.tls = tls_rows()
        super().setUpClass()

    def fail_pass(self):
        """A pass that fails, within a time that is far beyond what it takes and far below what a stall takes."""
        self.assertEqual(self.provision(), "fail")
        return self.bus.get("State.Provisioning.HttpErrorCode")

    def check(self, row):
        self.configure(self.good)
        self.provision()  # there is a file already
        server = self.serve({"/provisioning.xml": row.answer}, certificate=row.certificate, accept=row.accept)
        faults.reset_peak(phone.service_pid())
        self.configure(server)
        try:
            code = self.fail_pass()
        finally:
            server.close()
        self.assertIn(row.code, ("", code))
        if row.peak and not faults.is_sanitized(phone.service_pid()):
            self.assertLess(faults.peak(phone.service_pid()), row.peak, "KiB of memory at most")
        self.assertEqual(self.bus.get("State.Provisioning.LockUI"), "0")
        self.assertEqual({name for name in faults.files_below("/var/volatile/provisioning") if name.endswith(".part")}, set())

    def test_answers(self):
        for row in ROWS:
            with self.fault(row.name):
                self.check(row)

    def test_tls(self):
        for row in self.tls:
            with self.fault(row.name):
                self.check(row)

    def test_tls_answers_that_end_properly(self):
        here = "/tmp/trusted.pem"
        for name, answer in {"with a length": ok(GOOD), "with close_notify": say_goodbye(HEAD + b"\r\n" + GOOD)}.items():
            with self.fault(name):
                self.configure(self.serve({"/provisioning.xml": answer}, certificate=here))
                self.assertEqual(self.provision(), "success")

    def test_content_encoding_fails_the_download(self):
        self.configure(self.serve({"/provisioning.xml": ok(GOOD, b"Content-Encoding: gzip")}))
        self.assertEqual(self.provision(), "fail")
        self.log.wait("Worker failed to download initial job")
        self.log.none(["is corrupted", "is verifiable"])  # what came is not looked into
        self.configure(self.serve({"/provisioning.xml": ok(GOOD, b"Content-Encoding: identity")}))
        self.assertEqual(self.provision(), "success")
        self.check_alive()

    def test_tls_on_a_plain_port(self):
        with self.fault("the server speaks TLS, the setting says http"):
            server = self.serve({"/provisioning.xml": ok(GOOD)}, certificate="/tmp/trusted.pem")
            self.configure(server.url.replace("https:", "http:"))
            self.assertEqual(self.fail_pass(), "0")

    def test_connection_refused(self):
        with socket.create_server(("127.0.0.1", 0)) as listening:
            port = listening.getsockname()[1]
        with self.fault("refused"):
            self.configure(f"http://127.0.0.1:{port}/")
            self.assertEqual(self.fail_pass(), "0")

    def test_hosts_in_the_setting(self):
        for name, url in HOSTS.items():
            with self.fault(name):
                try:
                    self.configure(url)
                except KeyError:
                    continue  # the property service refuses the value
                self.log.mark()
                self.request()
                phone.wait_until(lambda: self.log.count("Provisioning failed. ") or self.log.count("Url is incorrect"),
                                 lambda: "the pass's end in:\n" + "\n".join(self.log.lines()))

    def test_hosts_in_a_job_and_in_a_redirect(self):
        for name, url in HOSTS.items():
            job = root("provisioning", [element("custom", {}, [
                element("step", {"type": "certificate", "url": url + "x.pem", "flags": ""})])]).encode()
            for place, answer in {"a job's URL": ok(job), "a redirect": redirect(url)}.items():
                with self.fault(f"{name} in {place}"):
                    self.configure(self.serve({"/provisioning.xml": answer}))
                    self.fail_pass()

    def test_destinations_that_cannot_be_written(self):
        folder = os.path.dirname(INITIAL)
        aside = f"{folder}.aside"
        places = {
            "a folder has the file's name": (lambda: (os.remove(INITIAL), os.makedirs(f"{INITIAL}/below")),
                                             lambda: os.removedirs(f"{INITIAL}/below")),
            "the folder is a file": (lambda: (os.rename(folder, aside), open(folder, "wb").close()),
                                     lambda: (os.remove(folder), os.rename(aside, folder))),
            "the disk is full": (
                lambda: subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k", "tmpfs", folder], check=True),
                lambda: subprocess.run(["umount", folder], check=True)),
        }
        large = self.serve({"/provisioning.xml": ok(GOOD + b"\n" * 100_000)})
        for name, (spoil, mend) in places.items():
            with self.fault(name):
                self.configure(large)
                spoil()
                try:
                    self.fail_pass()
                finally:
                    mend()


if __name__ == "__main__":
    phone.main()
