"""Firmware jobs: what is decided, what is downloaded, and what the firmware-update service makes of it."""

import dataclasses
import hashlib
import os
import re
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import phone
from files import LABEL, categories, element, params, root

AUTOMATIC = "FirmwareManagment.AutomaticCheckForUpdates"
TRIGGER = "State.FirmwareUpdate.TriggerAuto"
FILENAME = "State.FirmwareUpdate.Filename"
VERIFY = "State.FirmwareUpdate.Verify"
UPDATE = "State.FirmwareUpdate.UpdateSystem"
STAGING = "/config/swupdate"
RUNNING = "2.13.7"
IMAGE = os.urandom(300_000)
REFUSED = "No newer versions found, finishing job"


def firmware(*entries):
    return element("firmware", {}, [element("file", entry) for entry in entries])


def entry(version, url="/image.bin", flags=None):
    return {"version": version, "url": url, "flags": flags}


def forced(version):
    return entry(version, flags="FORCE_ACCEPT")


INSTALLED = [(FILENAME, "image.bin"), (UPDATE, "provisioning-request")]
VERIFIED = [(TRIGGER, "request"), (FILENAME, "image.bin"), (VERIFY, "request"), (TRIGGER, "success")]
DENIED = [(TRIGGER, "request"), (TRIGGER, "no_version")]


@dataclasses.dataclass
class Row:
    name: str
    entries: list
    status: str
    changes: list           # of State.FirmwareUpdate, in order, but for the service's answer
    log: list
    automatic: str = "0"
    requested: bool = False
    running: str = RUNNING


def found(version):
    return [f"Found upgradable version: {version} url: /image.bin"]


OLDER = [f"'2.12'is older than'{RUNNING}'", REFUSED]
ROWS = [
    Row("nothing wants it", [entry("2.14")], "success", [], []),
    Row("automatic, newer", [entry("V2.14")], "success", INSTALLED, found("V2.14"), automatic="1"),
    Row("requested, newer", [entry("2.14")], "success", VERIFIED, found("2.14"), requested=True),
    Row("forced, newer", [forced("2.14")], "success", INSTALLED, found("2.14")),
    Row("automatic, older", [entry("2.12")], "fail", [], OLDER, automatic="1"),
    Row("requested, older", [entry("2.12")], "fail", DENIED, OLDER, requested=True),
    Row("forced, older", [forced("2.12")], "success", INSTALLED, found("2.12")),
    Row("forced and requested, older", [forced("2.12")], "fail", DENIED, OLDER, requested=True),
    Row("forced, equal", [forced("V2.13.7.0")], "fail", [], [f"'V2.13.7.0'is equal to'{RUNNING}'", REFUSED]),
    Row("forced, malformed", [forced("newest")], "fail", [], ["New firmware version'newest'is invalid!", REFUSED]),
    Row("forced, another product line", [forced("kd5-3.0")], "fail", [],
        ["Current version is not upgradeable to:'kd5-3.0'", REFUSED], running="kd4v-2.13"),
    Row("requested, running version unknown", [entry("2.14")], "fail", DENIED,
        ["Current version is not upgradeable to:'2.14'", REFUSED], requested=True, running=""),
    Row("two entries", [entry("2.14"), entry("2.15")], "fail", [],
        ["Multiple firmware version entries are not supported!", REFUSED], automatic="1"),
]


def block(index):
    """One mebibyte of an image that is too large to keep: every block is another."""
    return (b"%016d" % index) * (1 << 16)


class CuttingServer:
    """Serves a large image, and breaks the connection where it is told to. Remembers which bytes it sent."""

    def __init__(self, blocks, cuts):
        self.size = blocks << 20
        self.sent = []     # (first, last + 1)
        self._cuts = sorted(cuts)
        owner = self

        class Handler(BaseHTTPRequestHandler):
            protocol_version = "HTTP/1.1"

            def do_GET(self):
                owner.answer(self)

            def log_message(self, *_):
                pass

        class Quiet(ThreadingHTTPServer):
            daemon_threads = True

        self._http = Quiet(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self._http.server_address[1]}/kd4v.img"
        threading.Thread(target=self._http.serve_forever, daemon=True).start()

    def close(self):
        self._http.shutdown()
        self._http.server_close()

    def digest(self):
        whole = hashlib.sha256()
        for index in range(self.size >> 20):
            whole.update(block(index))
        return whole.hexdigest()

    def answer(self, request):
        asked = re.fullmatch(r"bytes=(\d+)-", request.headers.get("Range", ""))
        first = int(asked[1]) if asked and request.headers.get("If-Range") == '"v1"' else 0
        request.send_response(206 if first else 200)
        request.send_header("ETag", '"v1"')
        request.send_header("Content-Length", str(self.size - first))
        if first:
            request.send_header("Content-Range", f"bytes {first}-{self.size - 1}/{self.size}")
        request.end_headers()
        end = self._cuts.pop(0) if self._cuts else self.size
        at = first
        while at < end:
            inside = at & ((1 << 20) - 1)
            piece = block(at >> 20)[inside:][:end - at]
            request.wfile.write(piece)
            at += len(piece)
        request.wfile.flush()
        request.close_connection = True
        self.sent.append((first, at))


class FirmwareTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": "https://provisioning.test/"}

    def setUp(self):
        with open(f"{phone.WWW}/image.bin", "wb") as file:
            file.write(IMAGE)
        self.service_log = phone.Log(f"{phone.HOME}/firmware-update.log")
        self.prepare()
        super().setUp()

    def prepare(self, automatic="1", running=RUNNING):
        self.bus.set("System.General.SoftwareVersion", running)
        self.bus.set(AUTOMATIC, automatic)
        self.service_log.mark()

    def publish(self, name, text):
        with open(f"{phone.WWW}/{name}", "w", encoding="utf-8") as file:
            file.write(text)

    def run_pass(self, requested=False, deadline=phone.DEADLINE):
        self.log.mark()
        self.bus.mark()
        self.request("request", TRIGGER if requested else "State.Provisioning")
        self.wait_pass_end(deadline=deadline)
        self.bus.wait_change("State.Provisioning.HttpErrorCode")
        phone.wait_until(lambda: [v for k, v in self.bus.changes("State.Provisioning") if "request" not in v],
                         lambda: f"the pass's result in {self.bus.changes()}")
        return self.bus.changes("State.Provisioning")[-1][1]

    def check(self, row):
        self.prepare(row.automatic, row.running)
        self.publish("provisioning.xml", root("provisioning", [firmware(*row.entries)]))
        staged = f"{STAGING}/image.bin"
        if os.path.exists(staged):
            os.remove(staged)
        self.assertEqual(self.run_pass(row.requested), row.status)
        self.log.in_order(["+++++ Starting FirmwareJobHandler", *row.log, "-----Finishing FirmwareJobHandler"])
        installs = (FILENAME, "image.bin") in row.changes
        if installs:
            word = "verify" if row.requested else "install"
            self.service_log.wait(f"{word} image.bin: {len(IMAGE)} bytes, sha256 {hashlib.sha256(IMAGE).hexdigest()}")
        self.assertEqual(os.path.exists(staged), installs)
        self.assertEqual(self.bus.changes(TRIGGER, FILENAME, VERIFY, UPDATE), row.changes)
        self.assertEqual(self.service_log.count("sha256"), 1 if installs else 0)

    def test_decisions(self):
        for row in ROWS:
            with self.subTest(row.name):
                self.check(row)

    def test_format_1_0(self):
        self.publish("provisioning.xml", categories([("firmware", "/firmware.xml")]))
        self.publish("firmware.xml", root("firmware", [element("file", entry("2.14"))], version="1.0"))
        self.assertEqual(self.run_pass(), "success")
        self.log.in_order(["Job Type: firmware", "+++++ Starting FirmwareJobHandler", *found("2.14"),
                           "-----Finishing FirmwareJobHandler"])
        self.service_log.wait(hashlib.sha256(IMAGE).hexdigest())

    def test_an_image_that_is_missing_or_too_large(self):
        self.publish("provisioning.xml", root("provisioning", [
            firmware(entry("2.14", "/none.bin")), element("nvm", {}, params([(LABEL, "still applied")]))]))
        self.assertEqual(self.run_pass(), "partSuccess")
        self.log.wait("Error downloading firmware file 'https://provisioning.test/none.bin' to "
                      "'/config/swupdate/none.bin' status: No error HTTP status: 404 Not Found")
        self.assertEqual(self.bus.get("State.Provisioning.HttpErrorCode"), "404")
        self.assertEqual(self.bus.get(LABEL), "still applied")
        # More than the staging folder's file system holds, and said so in advance: nothing is written.
        space = os.statvfs(STAGING)
        with open(f"{phone.WWW}/huge.bin", "wb") as file:
            file.truncate(space.f_blocks * space.f_frsize + 1)
        self.publish("provisioning.xml", root("provisioning", [firmware(entry("2.14", "/huge.bin"))]))
        self.assertEqual(self.run_pass(), "fail")
        self.log.wait("status: Maximum file size exceeded HTTP status: 200 OK")
        self.assertEqual(os.listdir(STAGING), [])
        os.remove(f"{phone.WWW}/huge.bin")

    def test_a_large_image_over_a_line_that_breaks(self):
        server = CuttingServer(200, [(200 << 20) * 30 // 100, (200 << 20) * 70 // 100])
        self.addCleanup(server.close)
        self.publish("provisioning.xml", root("provisioning", [firmware(entry("3.0", server.url))]))
        before = self.peak_memory()
        self.assertEqual(self.run_pass(deadline=120), "success")
        grown = self.peak_memory() - before
        self.service_log.wait(f"install kd4v.img: {server.size} bytes, sha256 {server.digest()}", deadline=60)
        self.assertEqual(server.sent, [(0, server.size * 30 // 100), (server.size * 30 // 100, server.size * 70 // 100),
                                       (server.size * 70 // 100, server.size)], "every byte was sent once")
        self.assertEqual(self.log.count("Download broke off after"), 2)
        self.assertLess(grown, 32 << 10, "KiB of memory that the daemon took for it")
        print(f"200 MiB over two cuts: the daemon's peak memory grew by {grown} KiB to {before + grown} KiB")

    @staticmethod
    def peak_memory():
        with open(f"{phone.HOME}/daemon.pid", encoding="ascii") as file:
            pid = int(file.read())
        with open(f"/proc/{pid}/status", encoding="ascii") as file:
            return int(re.search(r"VmHWM:\s+(\d+) kB", file.read())[1])


if __name__ == "__main__":
    phone.main()
