"""`zavctl doctor` on a phone that breaks in one place after the other: what it says of each, and that it changes nothing."""

import contextlib
import json
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

import certificates
import phone
from files import LABEL, direct
from server import Answer, Server

SERVER = "System.Provision.ProvisioningServer"
URL = "https://provisioning.test/"
KEY = phone.KEY_FILE
DEVICE = "/etc/zav.d/device.pem"
BUNDLE = "/custom/certs/ca-bundle.pem"
PUBLISHED = f"{phone.WWW}/provisioning.xml"
LIMIT = 30
GOOD = direct([(LABEL, "doctor")], mac=phone.MAC)


def write(path, content, mode=0o600):
    with open(path, "wb") as file:
        file.write(content.encode() if isinstance(content, str) else content)
    os.chmod(path, mode)


def read(path):
    with open(path, "rb") as file:
        return file.read()


def run(*command):
    subprocess.run(command, check=True, capture_output=True)


def doctor(*words, environment=None):
    """(exit status, {subject: "level text"}); the folders' subjects are their paths."""
    done = subprocess.run(["zavctl", "doctor", "--json", *words], capture_output=True, text=True, timeout=2 * LIMIT,
                          env={**os.environ, **(environment or {})}, stdin=subprocess.DEVNULL)
    if done.stderr:
        raise AssertionError(done.stderr)
    found = {}
    for one in json.loads(done.stdout)["findings"]:
        if (one["level"] in ("warning", "error")) != bool(one.get("fix")):
            raise AssertionError(f"fix of {one}")
        subject = one["text"].partition("/ ")[0].partition("/:")[0] if one["subject"] == "folder" else one["subject"]
        found[subject] = f"{one['level']} {one['text']}"
    return done.returncode, found


class DoctorTest(phone.PhoneTest):
    settings = {SERVER: URL}

    @classmethod
    def setUpClass(cls):
        write(PUBLISHED, phone.encrypt(GOOD), 0o644)
        super().setUpClass()

    def tearDown(self):
        """Whatever a case has broken is mended: nothing but ok."""
        code, found = doctor()
        self.assertEqual((code, {k: v for k, v in found.items() if not v.startswith("ok ")}), (0, {}))

    @contextlib.contextmanager
    def kept(self, path):
        """The file is afterwards as it was."""
        before = read(path) if os.path.exists(path) else None
        mode = os.stat(path).st_mode & 0o777 if before is not None else None
        try:
            yield
        finally:
            if os.path.exists(path):
                os.remove(path)
            if before is not None:
                write(path, before, mode)

    def says(self, expected, *words, **options):
        """Each subject's finding begins as expected; all others are ok or not checked. The exit status fits."""
        code, found = doctor(*words, **options)
        for subject, text in expected.items():
            self.assertIn(text, found[subject], found)
        others = {k: v for k, v in found.items() if k not in expected and not v.startswith(("ok ", "unknown not checked"))}
        self.assertEqual(others, {})
        self.assertEqual(code, int(any(text.startswith("error") for text in expected.values())), found)

    def test_lines_of_a_healthy_phone(self):
        done = subprocess.run(["zavctl", "doctor"], capture_output=True, text=True, check=True)
        lines = done.stdout.splitlines()
        self.assertEqual([line for line in lines if not line.startswith("ok       ")], [])
        self.assertIn("ok       initial file          HTTP 200 OK\n", done.stdout)
        self.assertEqual(len(lines), 22, done.stdout)

    def test_help_and_command_line(self):
        self.assertEqual(subprocess.run(["zavctl", "doctor", "--frob"], capture_output=True, check=False).returncode, 2)

    def test_broker(self):
        self.bus.expect_reconnection()
        phone.service("kill", "broker")
        try:
            self.says({"broker": "error Cannot connect to the broker at localhost:1883"})
        finally:
            phone.service("start", "broker")
            self.bus.wait_back()
            phone.wait_until(lambda: doctor()[0] == 0, "the daemon's reconnection")

    def test_property_service(self):
        phone.service("stop", "properties")
        try:
            self.says({"property service": "error Property 'NET.MAC.Address'"})
        finally:
            phone.service("start", "properties")
            self.bus.set(SERVER, URL)

    def test_openssl(self):
        with tempfile.TemporaryDirectory() as folder:
            write(f"{folder}/openssl", "#!/bin/sh\nexit 127\n", 0o755)
            self.says({"openssl": "error", "file for this phone": "error it cannot be decrypted"},
                      environment={"PATH": f"{folder}:{os.environ['PATH']}"})

    def test_key(self):
        good = read(KEY)
        for content, finding, file in (
                (None, "warning /etc/zav.d/key is missing", "error it cannot be decrypted"),
                (good.strip() + b"\r\n", "warning /etc/zav.d/key: its first line ends with a carriage return",
                 "error it cannot be decrypted"),
                (b"\n" + good, "error /etc/zav.d/key: its first line is empty", "error it cannot be decrypted"),
                (b"another\n", "ok /etc/zav.d/key", "error it cannot be decrypted")):
            with self.subTest(finding), self.kept(KEY):
                os.remove(KEY)
                if content is not None:
                    write(KEY, content)
                self.says({"key": finding, "file for this phone": file})

    def test_another_user_is_told_to_change_the_user(self):
        with self.kept(DEVICE):
            self.assertEqual(os.geteuid(), 0)
            write(DEVICE, "x")
            done = subprocess.run(["setpriv", "--bounding-set=-all", "--inh-caps=-all", "--ambient-caps=-all", "bash",
                                   "-c", f"chmod 0 {KEY} {DEVICE}; zavctl doctor"],
                                  capture_output=True, text=True, check=False)
            os.chmod(KEY, 0o600)
            for path in (KEY, DEVICE):
                self.assertRegex(done.stdout, rf"warning  .*{path}: permission denied for this user\n"
                                              r" +Run zavctl doctor as the user that the daemon runs as, or as root\.\n")
            self.assertRegex(done.stdout, r"unknown  file for this phone   not checked: it is encrypted, and this user")

    def test_folders(self):
        for folder in ("/var/volatile/provisioning", "/var/volatile/contacts", "/custom/certs/_storage", "/config/swupdate"):
            for options, finding in (("ro", f"error {folder}/ cannot be written: Read-only file system"),
                                     ("size=64k", f"error {folder}/: 0 MiB free")):
                with self.subTest(finding):
                    run("mount", "-t", "tmpfs", "-o", options, "tmpfs", folder)
                    try:
                        self.says({folder: finding})
                    finally:
                        run("umount", folder)
        os.rmdir("/var/volatile/contacts")
        try:
            self.says({"/var/volatile/contacts": "warning /var/volatile/contacts/ is missing"})
        finally:
            os.mkdir("/var/volatile/contacts")

    def test_services_file(self):
        run("mount", "--bind", "/dev/null", "/etc/services")
        try:
            self.says({"/etc/services": "error has no http"})
        finally:
            run("umount", "/etc/services")

    def test_web_server(self):
        phone.service("stop", "server")
        try:
            self.says({"local web server": "error 127.0.0.1:80 does not accept connections",
                       "server connection": "error Failed to connect to provisioning.test port 443"})
        finally:
            phone.service("start", "server")

    def test_interface(self):
        run("ip", "link", "set", "eth0", "down")
        try:
            code, found = doctor()
            self.assertEqual((code, found["wired interface"]), (1, "error eth0 is not up and running"))
            run("ip", "link", "set", "eth0", "name", "lan0")
            self.assertEqual(doctor()[1]["wired interface"], 'error there is none with "eth" in its name')
            run("ip", "link", "set", "lan0", "name", "eth0")
        finally:
            run("ip", "link", "set", "eth0", "up")
            phone.wait_until(lambda: b"state UP" in subprocess.run(["ip", "link", "show", "eth0"], capture_output=True,
                                                                   check=True).stdout, "eth0")

    def test_clock(self):
        own = f"{phone.HOME}/doctor-clock"
        run("phone-clock", own, "create")
        run("phone-clock", own, "date", "1970-01-01 00:00:10")
        code, found = doctor(environment={"PHONE_CLOCK": own, "LD_PRELOAD": clock_library()})
        self.assertEqual(code, 1)
        self.assertRegex(found["clock"], r"^error it is 1970-01-01; this software is of 20\d\d-\d\d-\d\d$")

    def test_trusted_certificates(self):
        with self.kept(BUNDLE):
            with open(certificates.trusted("/tmp/old", days=-1), encoding="ascii") as old:
                write(BUNDLE, read(BUNDLE) + old.read().encode())
            self.says({"trusted certificates": f"warning {BUNDLE}, first to expire: /CN=127.0.0.1 on "})
            write(BUNDLE, "")
            self.says({"trusted certificates": "error", "server certificate": "error SSL certificate problem"})

    def test_device_certificate(self):
        with self.kept(DEVICE):
            write(DEVICE, read(certificates.trusted("/tmp/device", days=-1)))
            self.says({"device certificate": f"warning {DEVICE} expired on "})
            write(DEVICE, read(certificates.trusted("/tmp/device")), 0o644)
            self.says({"device certificate": f"warning {DEVICE}: every user can read"})
            write(DEVICE, read(certificates.trusted("/tmp/device")))
            self.says({})

    @contextlib.contextmanager
    def server(self, url):
        self.bus.set(SERVER, url)
        try:
            yield
        finally:
            self.bus.set(SERVER, URL)

    def test_server(self):
        for url, expected in (
                ("", {"server URL": "error none is set"}),
                ("http://nowhere.test/", {"server name": "error Could not resolve host: nowhere.test"}),
                ("http://provisioning.test:1/", {"server connection": "error Failed to connect to provisioning.test port 1"}),
                ("https://elsewhere.test/", {"server certificate": "error SSL certificate problem"}),
                (URL + "missing.xml", {"initial file": "error HTTP 404 Not Found"})):
            with self.subTest(url), self.server(url):
                self.says(expected)

    def test_expired_server_certificate(self):
        pem = certificates.trusted("/tmp/expired", days=-1)
        with subprocess.Popen(["openssl", "s_server", "-quiet", "-accept", "127.0.0.1:9443", "-cert", pem, "-key", pem],
                              stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as server:
            self.addCleanup(server.kill)
            with self.server("https://127.0.0.1:9443/"):
                phone.wait_until(lambda: doctor()[1]["server connection"].startswith("ok"), "the server")
                self.says({"server certificate": "error SSL certificate problem: certificate has expired"})
            server.terminate()

    def test_file(self):
        for content, finding in (
                (direct([(LABEL, "x")], product="other"), "error productID is 'other', not 'kd4v'"),
                (direct([(LABEL, "x")], version="2.0"), "error version is '2.0', not '1.0' to '1.1'"),
                (direct([(LABEL, "x")], mac="02:00:5E:10:00:99"), "error macAddress is '02:00:5E:10:00:99', not"),
                ("no XML at all", "error it is not an acceptable XML file"),
                (GOOD, "ok yes, not encrypted")):
            with self.subTest(finding), self.kept(PUBLISHED):
                write(PUBLISHED, content, 0o644)
                self.says({"file for this phone": finding})

    def test_daemon_that_is_frozen_or_gone(self):
        pid = phone.service_pid()
        phone.freeze(pid)
        try:
            self.says({"daemon": f"error zavd (process {pid}) does not answer"})
        finally:
            os.kill(pid, signal.SIGCONT)
        phone.service("stop", "daemon")
        try:
            self.says({"daemon": "error zavd is not running"})
        finally:
            self.boot()

    def test_provisioning_that_is_not_enabled(self):
        phone.service("stop", "daemon")
        phone.service("stop", "server")
        self.log.mark()
        phone.service("start", "daemon")
        self.log.wait("Connection to 127.0.0.1 can not be performed")
        phone.jump(5)
        self.log.wait("Network not ready yet.")
        _, found = doctor()
        self.assertEqual(found["provisioning enabled"], "error no: the daemon waits for the network")
        phone.service("start", "server")
        phone.jump(5)
        self.log.wait("for stabilization.")
        self.says({"provisioning enabled": "warning not yet: the daemon lets the network settle"})
        phone.jump(90)
        self.log.wait("Enabling provisioning function.")
        self.says({"provisioning enabled": "ok yes"}, "--log", self.log.path)
        code, found = doctor(environment={"ZAVD_LOG": ""})
        self.assertEqual((code, found["provisioning enabled"].split()[0]), (0, "unknown"))
        with tempfile.TemporaryDirectory() as folder:
            write(f"{folder}/journalctl", f"#!/bin/sh\ncase $* in *zavd.service*) cat {self.log.path} ;; esac\n", 0o755)
            self.says({"provisioning enabled": "ok yes"},
                      environment={"PATH": f"{folder}:{os.environ['PATH']}", "ZAVD_LOG": ""})

    def tree(self):
        """Every file and folder that the phone could change, with content and time of the last change."""
        found = {}
        for top in ("/config", "/custom", "/var/volatile", "/etc/zav.d", "/tmp", "/run/lock"):
            for folder, _, names in os.walk(top):
                for path in [folder, *(os.path.join(folder, name) for name in names)]:
                    status = os.lstat(path)
                    found[path] = (status.st_mode, status.st_size, status.st_mtime_ns)
        # The property service syncs its store by itself; /tmp has had a folder.
        return {path: status for path, status in found.items() if not path.startswith("/config/properties.db") and path != "/tmp"}

    def test_it_changes_nothing(self):
        self.bus.listen("#")
        properties = subprocess.run(["zavctl", "list"], capture_output=True, check=True).stdout
        tree = self.tree()
        self.bus.mark()
        self.log.mark()
        self.assertEqual(doctor()[0], 0)
        self.assertEqual(self.tree(), tree)
        self.assertEqual(subprocess.run(["zavctl", "list"], capture_output=True, check=True).stdout, properties)
        self.assertEqual(self.bus.changes(), [])
        topics = {topic for topic, _ in self.bus.messages() if not re.match(r"zavctl/reply/|prop-service/(get|list|describe)", topic)}
        self.assertEqual(topics - {"prop-service/status"},
                         {"auto-reboot/prov-client", "watchdog/prov-client", "prov-client/watchdog"})
        self.log.none(["Provisioning Started"])

    def test_it_leaves_no_file_when_it_is_killed(self):
        gate = threading.Event()
        server = Server({"/provisioning.xml": Answer(GOOD, gate=gate, part=10)})
        self.addCleanup(server.close)
        self.addCleanup(gate.set)
        with self.server(server.url):
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGKILL):
                with self.subTest(number), subprocess.Popen(["zavctl", "doctor"], stdout=subprocess.DEVNULL) as process:
                    asked = len(server.requests)
                    phone.wait_until(lambda: len(server.requests) > asked, "the download")
                    self.assertTrue(self.folders())
                    process.send_signal(number)
                    self.assertEqual(process.wait(phone.DEADLINE), -number)
                    phone.wait_until(lambda: not self.folders(), "the folder's removal")

    @staticmethod
    def folders():
        return [name for name in os.listdir("/tmp") if name.startswith("zavctl-doctor")]

    def test_while_a_pass_is_running(self):
        gate = threading.Event()
        server = Server({"/provisioning.xml": Answer(GOOD, gate=gate)})
        self.addCleanup(server.close)
        self.addCleanup(gate.set)
        with self.server(server.url):
            self.request()
            phone.wait_until(lambda: server.requests, "the pass's download")
            with self.server(URL):
                self.says({"daemon": "ok answers; a pass is running"})
                self.assertEqual(self.bus.messages("prov-client/watchdog"), [])
            gate.set()
            self.wait_pass_end()

    def test_everything_that_hangs_costs_half_a_minute_at_most(self):
        server = Server({"/provisioning.xml": Answer(GOOD, gate=threading.Event(), part=10)})
        self.addCleanup(server.close)
        with tempfile.TemporaryDirectory() as folder, self.server(server.url):
            for name in ("openssl", "journalctl"):
                write(f"{folder}/{name}", "#!/bin/sh\nexec sleep 1000\n", 0o755)
            begin = time.monotonic()
            code, found = doctor(environment={"PATH": f"{folder}:{os.environ['PATH']}", "ZAVD_LOG": ""})
            self.assertLess(time.monotonic() - begin, LIMIT)
            self.assertEqual(code, 1)
            self.assertRegex(found["openssl"], "^error ")
            self.assertRegex(found["provisioning enabled"], "^unknown the journal cannot be read")
            self.assertRegex(found["initial file"], "^error (too slow|Timeout was reached), HTTP 200 OK$")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent, tempfile.NamedTemporaryFile("w") as resolver, \
                self.server("http://somewhere.test/"):
            silent.bind(("127.0.0.9", 53))
            resolver.write("nameserver 127.0.0.9\n")
            resolver.flush()
            run("mount", "--bind", resolver.name, "/etc/resolv.conf")
            try:
                self.says({"server name": "error Resolving timed out"})
            finally:
                run("umount", "/etc/resolv.conf")
        for name in ("broker", "properties"):
            phone.freeze(phone.service_pid(name))
            try:
                begin = time.monotonic()
                self.assertEqual(doctor()[0], 1)
                self.assertLess(time.monotonic() - begin, LIMIT)
            finally:
                os.kill(phone.service_pid(name), signal.SIGCONT)
            phone.wait_until(lambda: doctor()[0] == 0, "the bus at work again")


def clock_library():
    program = shutil.which("phone-clock")
    return os.path.join(os.path.dirname(os.path.realpath(program)), "phone-clock.so")


if __name__ == "__main__":
    phone.main()
