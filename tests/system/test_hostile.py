"""Servers that mean no good. Each of their answers ends in its log line, in bounded time, and no file changes outside
the folder that it is for."""

import gzip
import os
import shutil
import threading

import certificates
import faults
import phone
from faults import GOOD, INITIAL
from files import LABEL, categories, element, root, settings_file
from raw_server import HEAD, endless, ok, redirect

# What the server says to the request for the initial file -> what the log says.
ANSWERS = {
    "an endless body": (endless(HEAD), "Curl Error: Maximum file size exceeded HTTP Error: 200 OK"),
    "an endless error page": (endless(b"HTTP/1.1 500 Oops\r\n"), "Curl Error: No error HTTP Error: 500 Internal Server Error"),
    "a length that is announced and too large": (HEAD + b"Content-Length: 999999999\r\n\r\n",
                                                 "Curl Error: Maximum file size exceeded HTTP Error: 200 OK"),
    "more announced than sent": (HEAD + b"Content-Length: 99999\r\n\r\n" + GOOD,
                                 "Curl Error: Transferred a partial file HTTP Error: 200 OK"),
    "less announced than sent": (HEAD + b"Content-Length: 80\r\n\r\n" + GOOD, f"File {INITIAL} is corrupted"),
    "a length that is none": (HEAD + b"Content-Length: -5\r\n\r\n" + GOOD, "Curl Error: Weird server reply HTTP Error: "),
    "gzip that was not requested": (ok(gzip.compress(GOOD), b"Content-Encoding: gzip"),
                                   "The answer has the content coding 'gzip', which was not requested; download failed"),
    "gzip without saying so": (ok(gzip.compress(GOOD)), f"File {INITIAL} is corrupted"),
    "no HTTP at all": (b"\x00\x01\x02" * 50, "Curl Error: Unsupported protocol HTTP Error: 0 No answer"),
    "nothing": (lambda connection: None, "Curl Error: Server returned nothing (no headers, no data) HTTP Error: 0 No answer"),
    "endless headers": (lambda connection: [connection.sendall(b"X: " + b"y" * 1000 + b"\r\n" if i else HEAD)
                                            for i in range(10000)],
                        "The answer's headers are larger than 256 KiB, download failed"),
    "a redirect in circles": (redirect("/provisioning.xml"),
                              "Curl Error: Number of redirects hit maximum amount HTTP Error: 302 Found"),
    "a redirect to a local file": (redirect("file:///etc/zav.d/key"), "Curl Error: Unsupported protocol HTTP Error: 302 Found"),
    "a redirect to a file on localhost": (redirect("file://localhost/etc/zav.d/key"),
                                          "Curl Error: Unsupported protocol HTTP Error: 302 Found"),
    "a redirect to gopher": (redirect("gopher://127.0.0.1:1883/_x"), "Curl Error: Unsupported protocol HTTP Error: 302 Found"),
}

# File names -> the local name, None where the URL is refused.
NAMES = {
    "a;touch PWNED;.xml": None,
    "a;touch%20PWNED;.xml": "a_touch%20PWNED_.xml",
    "a;touch${IFS}PWNED;.xml": "a_touch__IFS_PWNED_.xml",
    "$(id)": "__id_",
    "`touch${IFS}PWNED`": "_touch__IFS_PWNED_",
    "a'b;id;'c": "a_b_id__c",
    "a|b&c>d": "a_b_c_d",
    "-rf": "_rf",
    "..": None,
    "../../../tmp/PWNED": None,
    "..%2f..%2f..%2ftmp%2fPWNED": "..%2f..%2f..%2ftmp%2fPWNED",
    "%2f": "%2f",
    "x" * 300: "x" * 200,
    "a\nb": None,
    "a\0b".replace("\0", "%00"): "a%00b",
}
SERVICE_FILES = ("properties.db", ".log", "/clock", ".pid", ".status", ".start")


def files():
    """Everything writable on the phone but its services' own files: path -> what it is and when it changed."""
    found = {}
    project = os.environ["LAB_PROJECT"]  # wherever it lies: it is not the phone's, and cannot be written from here
    for top in ("/config", "/custom", "/var", "/etc/zav.d", "/run", "/tmp", "/srv"):
        for folder, below, names in os.walk(top):
            if folder == project:
                below.clear()
                continue
            for name in names:
                path = f"{folder}/{name}"
                if not any(part in path for part in SERVICE_FILES) and path != INITIAL:
                    status = os.lstat(path)
                    found[path] = (status.st_ino, status.st_size, status.st_mtime_ns)
    return found


class HostileTest(faults.FaultTest):
    def test_answers(self):
        for name, (answer, line) in ANSWERS.items():
            with self.subTest(name):
                self.configure(self.serve({"/provisioning.xml": answer}))
                before = files()
                self.assertEqual(self.provision(), "fail")
                self.log.wait(line)
                self.assertEqual(files(), before)
        self.check_alive()

    def test_ten_bytes_a_minute(self):
        more = threading.Semaphore(0)

        def drip(connection):
            connection.sendall(HEAD + b"Content-Length: 5000\r\n\r\n")
            while more.acquire():
                connection.sendall(b"x" * 10)

        self.configure(self.serve({"/provisioning.xml": drip}))
        self.request()
        self.log.wait("Provisioning XML from: ")
        minutes = 0
        for minutes in range(1, 16):
            more.release()
            phone.jump(60)
            try:
                self.wait_pass_end(deadline=1)
                break
            except phone.Late:
                pass
        self.assertLess(minutes, 15)
        self.log.wait("Curl Error: Timeout was reached HTTP Error: 200 OK")
        self.check_alive()

    def test_names(self):
        server = self.serve({"/settings.xml": ok(settings_file([(LABEL, "x")]).encode())}, b"")
        self.configure(server)
        self.bus.set("FirmwareManagment.AutomaticCheckForUpdates", "1")
        settings = ok(settings_file([(LABEL, "x")]).encode())
        anything = ok(b"anything")
        kinds = {
            "/var/volatile/provisioning/nvm": (settings, "1.0", lambda url: element("file", {"url": url})),
            "/config/swupdate": (anything, "1.1", lambda url: element("firmware", {}, [
                element("file", {"version": "99", "url": url})])),
            "/custom/certs/_storage": (anything, "1.1", lambda url: element("custom", {}, [
                element("step", {"type": "certificate", "url": url, "flags": "FORCE_ACCEPT"})])),
            "/var/volatile/contacts": (anything, "1.1", lambda url: element("custom", {}, [
                element("step", {"type": "LocalPhoneBook", "url": url})])),
        }
        for folder, (body, version, job) in kinds.items():
            for name, local in NAMES.items():
                with self.subTest(folder=folder, name=name):
                    server.answer = body
                    job_text = job(f"/{name}")
                    if version == "1.0":
                        server.answers["/list.xml"] = ok(root("nvm", [job_text], version="1.0").encode())
                        server.answers["/provisioning.xml"] = ok(categories([("nvm", "/list.xml")]).encode())
                    else:
                        server.answers["/provisioning.xml"] = ok(root("provisioning", [job_text]).encode())
                    shutil.rmtree(folder, ignore_errors=True)
                    before = files()
                    self.assertEqual(self.provision(), "fail" if local is None else "success")
                    after = files()
                    changed = {path for path in after if before.get(path) != after[path]} - {f"{folder}/list.xml"}
                    self.assertEqual(changed, set() if local is None else {f"{folder}/{local}"})
                    self.assertEqual(set(before) - set(after), set())
                    if local is None:
                        self.log.wait("Url is incorrect, please verify")
        self.check_alive()

    def test_schemes(self):
        server = self.serve()
        self.configure(server)
        for url, line, status in (
                ("file:///etc/zav.d/key", "Url is incorrect, please verify", "fail"),
                ("file://localhost/etc/zav.d/key", "status: Unsupported protocol HTTP status: 0 No answer", "fail"),
                ("gopher://127.0.0.1:1883/_x", "status: Unsupported protocol HTTP status: 0 No answer", "fail"),
                ("ftp://127.0.0.1/x", "status: Unsupported protocol HTTP status: 0 No answer", "fail"),
                ("scp://127.0.0.1/x", "status: Unsupported protocol HTTP status: 0 No answer", "fail"),
                ("http://127.0.0.1:0x50/x", "Url is incorrect, please verify", "fail"),
                ("/to-a-file", "status: Unsupported protocol HTTP status: 302 Found", "fail"),
                ("/to-gopher", "status: Unsupported protocol HTTP status: 302 Found", "fail")):
            with self.subTest(url):
                server.answers = {
                    "/to-a-file": redirect("file:///etc/zav.d/key"), "/to-gopher": redirect("gopher://127.0.0.1:1883/_x"),
                    "/provisioning.xml": ok(root("provisioning", [element("custom", {}, [
                        element("step", {"type": "certificate", "url": url, "flags": "FORCE_ACCEPT"})])]).encode())}
                before = files()
                self.assertEqual(self.provision(), status)
                self.log.wait(line)
                self.assertEqual(files(), before)
        self.check_alive()

    def test_a_certificate_that_nobody_vouches_for(self):
        self.configure(self.serve({"/provisioning.xml": ok(GOOD)}, certificate=certificates.self_signed()))
        self.assertEqual(self.provision(), "fail")
        self.log.wait("Curl Error: SSL peer certificate or SSH remote key was not OK HTTP Error: 0 No answer")
        self.check_alive()

    def test_credentials_go_to_the_configured_server_only(self):
        asking = (b'HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Digest realm="x", nonce="1", qop="auth"\r\n'
                  b"Content-Length: 0\r\n\r\n")
        foreign = self.serve(answer=asking)
        basic = (b'HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm="x"\r\nContent-Length: 0\r\n\r\n')
        here = self.serve({
            "/provisioning.xml": ok(root("provisioning", [
                element("custom", {}, [element("step", {"type": "certificate", "url": foreign.url + "direct.pem"}),
                                       element("step", {"type": "certificate", "url": "/leaves"}),
                                       element("step", {"type": "certificate", "url": "/asks-and-leaves"}),
                                       element("step", {"type": "certificate", "url": "/basic"}),
                                       element("step", {"type": "certificate", "url": "/own"})])]).encode()),
            "/leaves": redirect(foreign.url + "redirected.pem"), "/basic": basic, "/own": asking,
            "/asks-and-leaves": [asking, asking, redirect(foreign.url + "with-them.pem")]})
        self.configure(here)
        self.assertEqual(self.provision(), "fail")
        self.assertEqual({path for path, _ in foreign.requests}, {"/direct.pem", "/redirected.pem", "/with-them.pem"})
        self.assertEqual([headers for _, headers in foreign.requests if "authorization" in headers], [])
        own = {path: headers.get("authorization", "") for path, headers in here.requests}
        self.assertIn('username="phone"', own["/asks-and-leaves"])
        self.assertIn('username="phone"', own["/own"], "the configured server gets them, as a digest")
        self.assertEqual(own["/basic"], "", "and not readable over plain http")
        self.log.wait("asks for credentials, not sent: Basic over plain http would give them away")
        self.assertNotIn("factory", "\n".join(self.log.lines()), "the password stands in no log line")


if __name__ == "__main__":
    phone.main()
