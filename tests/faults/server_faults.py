"""Servers that break, lie, flood and redirect, at each download of a pass. The answers are those of the system tests."""

import datetime
import functools
import os
import re
import socket
import ssl
import subprocess

import case as cases
import certificates
import faults
import phone
from files import categories, element, root, settings_file
from raw_server import HEAD, ok
from test_faults_downloads import ROWS, Row, stay, tls_rows
from test_faults_firmware import E1, FIRST, LONGER, RESTS, SECOND, WITHOUT_VALIDATOR, cut, part, whole
from test_hostile import ANSWERS

TARGET = "/target"   # what the server answers badly to, except as the initial file


def path_of(stage):
    return "/provisioning.xml" if stage == "download" else TARGET


def good_body(stage):
    return settings_file(cases.SETTINGS[:3]).encode() if stage == "included file" else faults.GOOD


def with_jobs(*jobs):
    return cases.initial(*jobs, cases.settings(cases.SETTINGS[:3])).encode()


# What the server answers besides the bad answer, which is for TARGET; of the initial file itself nothing is needed.
PLACES = {
    "download": {},
    "included file": {
        "/provisioning.xml": categories([("nvm", "/list.xml")]).encode(),
        "/list.xml": root("nvm", [element("file", {"url": TARGET})], version="1.0").encode()},
    "firmware": {"/provisioning.xml": with_jobs(cases.firmware(TARGET))},
    "certificate": {"/provisioning.xml": with_jobs(cases.custom({"type": "certificate", "url": TARGET}))},
    "phone book": {"/provisioning.xml": with_jobs(cases.custom({"type": "LocalPhoneBook", "url": TARGET}))},
    "redirect": {"/provisioning.xml": None},    # needs the server's own URL
}


def publish(case, server, stage):
    """Makes the phone ask this server for the path of the stage."""
    pages = dict(PLACES[stage])
    if stage == "redirect":
        pages["/provisioning.xml"] = with_jobs(cases.custom({"type": "Redirect", "url": f"{server.url}target"}))
    for path, body in pages.items():
        case.known.add(body)
        server.answers[path] = ok(body)
    case.configure(server)


def run_pass(case):
    """One pass from request to end. The pauses between a download's attempts, and stalls, pass on the phone's clock."""
    case.log.mark()
    case.bus.mark()
    case.request()
    jumped = 0

    def ended():
        nonlocal jumped
        jumped = phone.jump_pauses(case.log, jumped)
        return case.passes_ended() > 0

    phone.wait_until(ended, lambda: f"the end of the pass; {case.tail()}", 2 * phone.DEADLINE)
    return phone.wait_until(case.published, lambda: f"the pass's result in {case.bus.changes()}")


def begin(case, stage=""):
    """A firmware image may be as large as the free space: with a small disk, a flood ends soon."""
    case.start_idle()
    if stage == "firmware":
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=48m", "tmpfs", "/config/swupdate"], check=True, timeout=10)
        case.addCleanup(subprocess.run, ["umount", "/config/swupdate"], check=True, timeout=10)
    case.pid_before = phone.service_pid()
    faults.reset_peak(case.pid_before)


def answered(answer, stage, **options):
    """One pass whose download of this stage gets the answer. A server that breaks connections does so for its own only."""
    def run(case):
        begin(case, stage)
        bad = case.serve(answer=answer, **options)
        if stage == "download":
            case.configure(bad)
        else:
            there = bad.url + TARGET[1:]
            outer = case.serve()
            pages = {path: body and body.replace(f'"{TARGET}"'.encode(), f'"{there}"'.encode())
                     for path, body in PLACES[stage].items()}
            if stage == "redirect":
                pages["/provisioning.xml"] = with_jobs(cases.custom({"type": "Redirect", "url": there}))
            case.known |= set(pages.values())
            outer.answers = {path: ok(body) for path, body in pages.items()}
            case.configure(outer)
        run_pass(case)
        bad.close()

    return run


def statuses(first, last, stage):
    """A pass for each status. Only 200 is a success, and every other one is published as the HTTP code."""
    def run(case):
        begin(case)
        server = case.serve()
        publish(case, server, stage)
        for status in range(first, last + 1):
            case.known.add(good_body(stage))
            empty = status < 200 or status in (204, 304)
            body = b"" if empty else good_body(stage)
            server.answers[path_of(stage)] = (b"HTTP/1.1 %d Something\r\n" % status
                                      + (b"" if empty else b"Content-Length: %d\r\n" % len(body)) + b"\r\n" + body)
            result = run_pass(case)
            code = case.bus.get("State.Provisioning.HttpErrorCode")
            if (result == "success") != (status == 200):
                raise cases.NotHeld(f"status {status}", "success of 200 only", f"{result}; {case.tail()}")
            if status >= 200 and code != str(status):
                raise cases.NotHeld(f"status {status}", f"HTTP code {status}", code)

    return run


def stalled(stage, data, step=20):
    """The server says this much and no more: the phone's clock ends it."""
    def run(case):
        begin(case)
        server = case.serve({path_of(stage): stay(data)})
        publish(case, server, stage)
        case.log.mark()
        case.bus.mark()
        case.request()
        phone.wait_until(lambda: path_of(stage) in [path for path, _ in server.requests], "the request")
        case.wait_back(lambda: case.passes_ended() > 0, "the end of the pass", step, 0.05)

    return run


def dripping(stage):
    """A byte now and then on the phone's clock: far too little to go on."""
    def run(case):
        begin(case)

        def drip(connection):
            connection.sendall(HEAD + b"Content-Length: 5000\r\n\r\n")
            while True:
                connection.sendall(b"x")
                case.gate.wait(0.2)

        server = case.serve({path_of(stage): drip})
        publish(case, server, stage)
        case.log.mark()
        case.bus.mark()
        case.request()
        phone.wait_until(lambda: path_of(stage) in [path for path, _ in server.requests], "the request")
        case.wait_back(lambda: case.passes_ended() > 0, "the end of the pass", 20, 0.1)

    return run


def to_nowhere(url, stage):
    """The download's URL leads nowhere: refused, unknown, without a route."""
    def run(case):
        begin(case)
        with socket.create_server(("127.0.0.1", 0)) as listening:
            port = listening.getsockname()[1]
        there = url.replace("PORT", str(port))
        if stage == "download":
            case.configure(there)
        else:
            jobs = {"firmware": cases.firmware(there), "certificate": cases.custom({"type": "certificate", "url": there}),
                    "phone book": cases.custom({"type": "LocalPhoneBook", "url": there}),
                    "redirect": cases.custom({"type": "Redirect", "url": there})}
            body = with_jobs(jobs[stage])
            case.known.add(body)
            case.configure(case.serve({"/provisioning.xml": ok(body)}))
        run_pass(case)

    return run


def rest(name):
    """A firmware image that breaks off; asked for its rest, the server says something."""
    def run(case):
        begin(case)
        case.known |= {FIRST, SECOND, LONGER}
        rests = list(RESTS[name]) if isinstance(RESTS[name], list) else None

        def answer(connection):
            if "range" in server.requests[-1][1]:
                connection.sendall(rests.pop(0) if rests else RESTS[name])
            else:
                first = sum(path == TARGET for path, _ in server.requests) == 1
                connection.sendall(cut(E1) if first else whole(FIRST, E1))

        server = case.serve({TARGET: answer})
        publish(case, server, "firmware")
        run_pass(case)

    return run


def without_validator(name):
    """An image that breaks off twice and cannot be told from another: it is fetched again from its start."""
    def run(case):
        begin(case)
        case.known |= {SECOND}
        headers = WITHOUT_VALIDATOR[name]

        def answer(connection):
            if server.requests[-1][1].get("range"):
                connection.sendall(part(SECOND[150_000:], b"150000-399999/400000", *headers))
            else:
                count = sum(path == TARGET for path, _ in server.requests)
                connection.sendall(cut(*headers) if count < 3 else whole(SECOND, *headers))

        server = case.serve({TARGET: answer})
        publish(case, server, "firmware")
        run_pass(case)

    return run


@functools.lru_cache
def tls():
    demanding = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    demanding.load_cert_chain(certificates.trusted("/tmp/demanding"))
    demanding.load_verify_locations(f"{certificates.AUTHORITY}.crt")
    demanding.verify_mode = ssl.CERT_REQUIRED
    more = [Row("an unknown authority", ok(faults.GOOD), "0", of_unknown_authority()),
            Row("not yet valid", ok(faults.GOOD), "0", not_yet_valid()),
            Row("a certificate is demanded", ok(faults.GOOD), "", demanding)]
    return {row.name: row for row in [*tls_rows(), *more]}


def of_unknown_authority():
    """A proper certificate, by an authority that the phone does not trust."""
    folder = "/tmp/unknown-authority"
    os.makedirs(folder, exist_ok=True)
    certificates.self_signed(f"{folder}/authority")
    known, certificates.AUTHORITY = certificates.AUTHORITY, f"{folder}/authority"
    try:
        return certificates.trusted(f"{folder}/server")
    finally:
        certificates.AUTHORITY = known


def not_yet_valid():
    """Only `openssl ca`, which keeps a list of what it signs, takes the day on which a certificate begins."""
    folder = "/tmp/not-yet-valid"
    os.makedirs(folder, exist_ok=True)
    path = certificates.trusted(f"{folder}/server")
    with open(f"{folder}/index", "w", encoding="ascii"), open(f"{folder}/ca.conf", "w", encoding="ascii") as file:
        file.write(f"[ca]\ndefault_ca = this\n[this]\ndatabase = {folder}/index\nnew_certs_dir = {folder}\nrand_serial = yes\n"
                   "default_md = sha256\npolicy = any\n[any]\ncommonName = supplied\n")
    begin, end = ((datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=days)).strftime("%Y%m%d%H%M%SZ")
                  for days in (3000, 3003))
    subprocess.run(["openssl", "ca", "-batch", "-notext", "-config", f"{folder}/ca.conf", "-cert", f"{certificates.AUTHORITY}.crt",
                    "-keyfile", f"{certificates.AUTHORITY}.key", "-extfile", f"{folder}/server.ext", "-startdate", begin,
                    "-enddate", end, "-in", f"{folder}/server.csr", "-out", f"{folder}/server.crt"],
                   check=True, capture_output=True)
    with open(path, "w", encoding="ascii") as out:
        for name in ("server.crt", "server.key"):
            with open(f"{folder}/{name}", encoding="ascii") as file:
                out.write(file.read())
    return path


def over_tls(name, stage):
    """One pass with a server whose TLS is wrong; the certificates are made when the first such row runs."""
    return lambda case: answered(tls()[name].answer, stage, certificate=tls()[name].certificate,
                                 accept=tls()[name].accept)(case)


def plain_to_tls_port(stage):
    """The server speaks TLS, the URL says http."""
    def run(case):
        begin(case)
        server = case.serve({path_of(stage): ok(faults.GOOD)}, certificate=tls()["cut in the body"].certificate)
        server.url = server.url.replace("https:", "http:")
        publish(case, server, stage)
        run_pass(case)

    return run


HOSTS = {
    "refused": "http://127.0.0.1:PORT/x",
    "an unknown host": "http://no-such-host.invalid/x",
    "an address without a route": "http://203.0.113.1/x",
    "IPv6 refused": "http://[::1]:PORT/x",
    "IPv6 without a route": "http://[2001:db8::1]/x",
}
STALLS = {
    "silent after the request": b"",
    "stalled in the headers": HEAD + b"Content-Le",
    "stalled in the body": HEAD + b"Content-Length: 5000\r\n\r\n" + faults.GOOD[:50],
    "stalled after a redirect": b"HTTP/1.1 302 Found\r\nContent-Length: 10\r\nLocation: /target\r\n\r\nx",
}


def find(fault, stage):
    rows = {row.name: row for row in ROWS}
    if fault in rows:
        return answered(rows[fault].answer, stage, accept=rows[fault].accept)
    if fault in ANSWERS:
        return answered(ANSWERS[fault][0], stage)
    if match := re.fullmatch(r"status (\d+) to (\d+)", fault):
        return statuses(int(match[1]), int(match[2]), stage)
    if fault in HOSTS:
        return to_nowhere(HOSTS[fault], stage)
    if fault in STALLS:
        return stalled(stage, STALLS[fault])
    if fault == "dripping":
        return dripping(stage)
    if fault == "IPv6":
        return lambda case: (case.known.add(good_body(stage)), answered(ok(good_body(stage)), stage, host="::1")(case))
    if fault == "TLS where http is expected":
        return plain_to_tls_port(stage)
    kind, _, name = fault.partition(": ")
    return {"TLS": over_tls, "the rest": lambda name, _: rest(name),
            "again": lambda name, _: without_validator(name)}[kind](name, stage)
