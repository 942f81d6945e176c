"""What a server publishes and how it answers: by name, with the result of a pass and what the phone has afterwards."""

import dataclasses
import datetime
import functools
import pathlib
import socket

import certificates
import phone
from faults import INITIAL
from files import LABEL, NAME, categories, direct, element, root, settings_file, spread, versions
from raw_server import RawServer, ok
from server import Answer
from test_faults_downloads import HOSTS, ROWS, tls_rows

FIRST = "/provisioning.xml"
IMAGE = bytes(range(256)) * 800
FAIL, PART, SUCCESS = "fail", "partSuccess", "success"
BEGUN, VALID = datetime.datetime.utcnow(), datetime.timedelta(days=2)  # of the lab's certificates
# The daemon refuses these addresses before it starts a pass.
NOT_STARTED = ("a host that is not ASCII",)


@dataclasses.dataclass
class Content:
    name: str
    result: str                                   # of a pass; "" where none starts
    answers: dict = dataclasses.field(default_factory=dict)   # path: Answer, of the life's own server
    settings: list = dataclasses.field(default_factory=list)  # (key, value) that a pass writes
    files: dict = dataclasses.field(default_factory=dict)     # path on the phone: bytes, after a pass
    held: str = FIRST                             # the path whose answer waits while answers are held back
    place: object = None                          # () -> (server's address, what to close), where it is another server
    pauses: bool = False                          # a download pauses between two attempts
    key: bool = False                             # it is encrypted
    certificate: bool = False                     # its server's certificate has a date


def step(kind, url):
    return element("custom", {}, [element("step", {"type": kind, "url": url, "flags": ""})])


def initial(*jobs):
    return root("provisioning", jobs)


def plain(name, settings, result=SUCCESS, **more):
    text = direct(settings)
    return Content(name, result, {FIRST: text}, settings, {INITIAL: text.encode()}, **more)


def firmware():
    return initial(element("firmware", {}, [element("file", {"version": "2.14", "url": "/image.bin"})]))


def good_contents(url):
    label = [(LABEL, "one")]
    names = [(LABEL, "two"), (NAME, "two")]
    there = direct([(NAME, "there")])
    redirected = initial(step("Redirect", f"{url}there/"))
    certificate = pathlib.Path(f"{certificates.AUTHORITY}.crt").read_bytes()
    certified = initial(step("certificate", "/ca.pem"))
    book = initial(step("LocalPhoneBook", "/book.xml"))
    listed = categories([("nvm", "/list.xml")])
    secret = [(NAME, "secret")]
    return [
        plain("one setting", label),
        plain("two settings", names),
        plain("many settings", spread(150)),
        Content("encrypted settings", SUCCESS, {FIRST: phone.encrypt(direct(secret))}, secret,
                {INITIAL: direct(secret).encode()}, key=True),
        Content("two levels", SUCCESS, {FIRST: listed, "/list.xml": versions("nvm", [("2026-01-01_00:00:00", "/set.xml")]),
                                        "/set.xml": settings_file(label)}, label, {INITIAL: listed.encode()}, "/set.xml"),
        Content("a certificate", SUCCESS, {FIRST: certified, "/ca.pem": certificate}, [],
                {INITIAL: certified.encode(), "/custom/certs/_storage/ca.pem": certificate}, "/ca.pem"),
        Content("a phone book", SUCCESS, {FIRST: book, "/book.xml": "<contacts/>" + "\n" * 3000}, [],
                {INITIAL: book.encode(), "/var/volatile/contacts/book.xml": b"<contacts/>" + b"\n" * 3000}, "/book.xml"),
        Content("a firmware", SUCCESS, {FIRST: firmware(), "/image.bin": IMAGE}, [],
                {INITIAL: firmware().encode(), "/config/swupdate/image.bin": IMAGE}, "/image.bin"),
        Content("a redirect", SUCCESS, {FIRST: redirected, "/there/provisioning.xml": there}, [(NAME, "there")],
                {INITIAL: there.encode()}, "/there/provisioning.xml"),
    ]


def bad_contents(url):
    """Files that fail, on the same server."""
    mixed = [("State.Provisioning", "request"), (LABEL, "mixed")]
    nowhere = "http://no-such-host.invalid/"
    no_image = initial(element("firmware", {}, [element("file", {"version": "2.14", "url": "/none.bin"})]))
    return [
        Content("404", FAIL, {}),
        Content("500", FAIL, {FIRST: Answer("", 500)}),
        Content("a cut on the same server", FAIL, {FIRST: Answer(direct([(LABEL, "cut")]), part=20, cut=True)}),
        Content("XML that is broken", FAIL, {FIRST: direct([(LABEL, "broken")])[:-20]}),
        Content("another product's file", FAIL, {FIRST: direct([(LABEL, "other")], product="other")}),
        Content("another phone's file", FAIL, {FIRST: direct([(LABEL, "other")], mac="02:00:5E:10:00:02")}),
        Content("a setting that is refused", PART, {FIRST: direct(mixed)}, [(LABEL, "mixed")]),
        Content("a redirect to an unknown host", FAIL, {FIRST: initial(step("Redirect", nowhere))}),
        Content("a redirect to itself", FAIL, {FIRST: initial(step("Redirect", url))}),
        Content("a certificate from an unknown host", FAIL, {FIRST: initial(step("certificate", f"{nowhere}x"))}),
        Content("a firmware that is missing", FAIL, {FIRST: no_image}),
    ]


def raw(row):
    def place():
        server = RawServer({FIRST: row.answer}, None, row.certificate, row.accept)
        return server.url, server
    return place


def refused():
    with socket.create_server(("127.0.0.1", 0)) as listening:
        return f"http://127.0.0.1:{listening.getsockname()[1]}/", None


def broken_line():
    """A firmware whose line breaks once and is resumed."""
    def place():
        server = RawServer({FIRST: ok(firmware().encode())})
        etag = b'ETag: "e1"'

        def answer(connection):
            if "range" in server.requests[-1][1]:
                at = int(server.requests[-1][1]["range"].removeprefix("bytes=").rstrip("-"))
                content_range = b"Content-Range: bytes %d-%d/%d" % (at, len(IMAGE) - 1, len(IMAGE))
                connection.sendall(ok(IMAGE[at:], etag, content_range).replace(b"200 OK", b"206 Partial Content", 1))
            else:
                connection.sendall(ok(IMAGE, etag)[:90000])

        server.answers["/image.bin"] = answer
        return server.url, server

    return Content("a firmware over a line that breaks", SUCCESS, place=place, pauses=True,
                   files={INITIAL: firmware().encode(), "/config/swupdate/image.bin": IMAGE})


def over_tls():
    text = direct([(LABEL, "tls")])

    def place():
        server = RawServer({FIRST: ok(text.encode())}, certificate="/tmp/trusted.pem")
        return server.url, server

    return Content("settings over TLS", SUCCESS, {}, [(LABEL, "tls")], {INITIAL: text.encode()}, place=place,
                   certificate=True)


@functools.cache
def faults_elsewhere():
    """Other servers: addresses that lead nowhere, and every answer of the tests of downloads but the floods."""
    hosts = [Content(name, "" if name in NOT_STARTED else FAIL, place=lambda url=url: (url, None))
             for name, url in HOSTS.items()]
    rows = [Content(row.name, FAIL, place=raw(row)) for row in [*ROWS, *tls_rows()] if not row.peak]
    return [*hosts, Content("a refused connection", FAIL, place=refused),
            Content("no address", "", place=lambda: ("", None)), *rows]


@functools.cache
def contents(url):
    """All by name, for a server at this address."""
    good = [*good_contents(url), broken_line(), over_tls()]
    return {one.name: one for one in [*good, *bad_contents(url), *faults_elsewhere()]}


# Those that succeed are chosen more often.
NAMES = tuple(name for name, one in contents("http://127.0.0.1:1/").items()
              for _ in range(3 if one.result == SUCCESS else 1))
