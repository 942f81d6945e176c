"""Runs five provisioning passes and prints the requests, the changed settings, the result and the duration of each; then
has careless files checked before they are published.

Runs inside lab/phone. The settings come from the property service, the result from zavctl, and the reason of a refusal
from the daemon's log.
"""

import json
import os
import shutil
import subprocess
import sys
import time

from fleet import Fleet, Moved

FIXTURES = os.path.join(os.environ["LAB_PROJECT"], "lab", "fixtures")
LOG = os.path.join(os.environ["PHONE"], "daemon.log")
WWW = "/srv/www"

# Title, folder, encrypted, expected result, expected settings, and further steps and checks.
FIRST_ACT = [
    ('format "1.1", encrypted, over HTTPS', "direct", True, "success", {
        "Telephony.Accounts.0.DisplayName": "Front desk", "Telephony.Accounts.0.UserName": "2001",
        "PhoneUI.Keys.FunctionKeys.0.Label": "Workshop", "Time.Format": "12h"}, None),
    ('format "1.0", two levels: a list of published files, the newest of them', "two-levels", False, "success", {
        "Telephony.Accounts.0.DisplayName": "Reception", "Telephony.Accounts.1.UserName": "2009",
        "System.Provision.SettingsVersion": "2026-09-01_08:30:00"}, None),
    ("a file for another phone's MAC address", "other-phone", False, "fail", {}, None),
]
SECOND_ACT = [
    ('format "1.0", a fleet\'s update in one pass: settings, firmware, a certificate, the phone book', "fleet", False,
     "success", {"Telephony.Accounts.0.DisplayName": "Reception, ground floor", "System.Provision.Period": "43200",
                 "System.Provision.SettingsVersion": "2026-11-01_06:00:00"}, Fleet()),
    ("a redirect to the server whose certificate came with that update", "moved", False, "success",
     {"Telephony.Accounts.0.Label": "Ground floor"}, Moved()),
]
# Where zavctl lint finds something in the careless files, and the rule.
CARELESS = ["nvm.xml:2 file-version", "provisioning.xml:1 mac-form", "provisioning.xml:2 url-without-slash",
            "provisioning.xml:3 unknown-category", "settings.xml:2 unknown-key", "settings.xml:3 bad-value"]


def progress(text):
    if sys.stdout.isatty():
        print(f"\r\033[K{text}", end="", flush=True)


def zavctl(*words):
    """Returns (exit status, the objects that --json prints)."""
    done = subprocess.run(["zavctl", "--json", *words], capture_output=True, text=True, timeout=60)
    lines = [json.loads(line) for line in (done.stdout or done.stderr).splitlines() if line.strip()]
    return done.returncode, lines


def settings():
    """All settings of the phone, without State properties, which change during a pass."""
    status, lines = zavctl("list")
    if status != 0:
        raise RuntimeError(f"zavctl list: {lines}")
    listed = [one for line in lines for one in (line["properties"] if "properties" in line else [line])]
    return {one["param"]: one["value"] for one in listed if not one["param"].startswith("State.")}


def wait_for_phone():
    begin = time.monotonic()
    ready = subprocess.Popen([f"{os.environ['LAB_PROJECT']}/lab/service", "ready", "daemon"])
    while True:
        progress(f"The phone boots and waits for its network to settle … {time.monotonic() - begin:.0f} s")
        try:
            if ready.wait(0.2) != 0:
                raise RuntimeError("the phone did not become ready")
            break
        except subprocess.TimeoutExpired:
            pass
    progress("")
    return time.monotonic() - begin


def publish(folder, encrypted):
    shutil.rmtree(WWW, ignore_errors=True)
    os.makedirs(WWW, exist_ok=True)
    names = sorted(os.listdir(os.path.join(FIXTURES, folder)))
    for name in names:
        source, destination = os.path.join(FIXTURES, folder, name), os.path.join(WWW, name)
        if encrypted:
            subprocess.run(["openssl", "enc", "-aes-128-cbc", "-pass", "file:/etc/zav.d/key", "-in", source, "-out",
                            destination], check=True, capture_output=True)
        else:
            shutil.copyfile(source, destination)
    return names


def requests(since):
    """The requests in the server's access log from line `since` on, and the number of lines."""
    with open(os.path.join(os.environ["PHONE"], "access.log"), encoding="utf-8") as file:
        lines = file.read().splitlines()
    return lines[since:], len(lines)


def show(label, lines):
    for index, line in enumerate(lines):
        print(f"   {label if index == 0 else '':9}{line}")


def run(number, title, folder, encrypted, expected_result, expected_settings, extra, asked_before):
    publish(folder, encrypted)
    if extra:
        extra.publish(WWW)
    before = settings()
    log_start = os.path.getsize(LOG)
    progress(f"Provisioning ({title}) …")
    begin = time.monotonic()
    status, (*_, answer) = zavctl("provision", "--wait", "--timeout", "20")
    took = time.monotonic() - begin
    after = settings()
    progress("")
    with open(LOG, "rb") as file:
        file.seek(log_start)
        log = file.read().decode(errors="replace").splitlines()
    changed = {key: value for key, value in after.items() if before.get(key) != value}
    asked, asked_count = requests(asked_before)
    result = answer.get("result", answer.get("error", "?"))

    print(f"{number}. {title}")
    show("asked", asked)
    width = max(map(len, changed), default=0)
    show("changed", [f'{key:{width}}  "{before[key]}" → "{value}"' for key, value in changed.items()] or ["nothing"])
    if result == "fail":
        show("refused", [line[line.index("File "):] for line in log if " check error: " in line])
    parts, errors = extra.report(log) if extra else ([], [])
    for label, lines in parts:
        show(label, lines)
    show("result", [f"{result} (HTTP {answer.get('httpStatus')}), in {took:.2f} s"])
    print(flush=True)

    if result != expected_result:
        errors.append(f"the result is {result}, not {expected_result}: {answer}")
    if status != (1 if expected_result == "fail" else 0):
        errors.append(f"zavctl exited with {status}")
    errors += [f"{key} is {after.get(key)!r}, not {value!r}" for key, value in expected_settings.items()
               if after.get(key) != value]
    if not expected_settings and changed:
        errors.append(f"settings changed: {sorted(changed)}")
    if errors:
        print("Not as promised: " + "; ".join(errors), file=sys.stderr)
        print("\n".join(log), file=sys.stderr)
    return not errors, asked_count


def lint_careless_files():
    begin = time.monotonic()
    status, (report, *_) = zavctl("lint", os.path.join(FIXTURES, "careless"))
    took = time.monotonic() - begin
    findings = report.get("findings", [])
    for finding in findings:
        finding["file"] = os.path.basename(finding["file"])
    print(f"Third act: six mistakes in three files, found by zavctl lint in {took:.2f} s, before any phone asks for them.\n")
    for number, finding in enumerate(findings, 1):
        print(f"{number}. {finding['file']}:{finding['line']}: {finding['message']}")
        print(f"   fix: {finding['fix']}")
    print(flush=True)
    found = [f"{finding['file']}:{finding['line']} {finding['rule']}" for finding in findings]
    if found == CARELESS and status == 1:
        return True
    print(f"Not as promised: status {status}, {report}", file=sys.stderr)
    return False


def main():
    sys.stdout.reconfigure(errors="replace")  # for terminals that cannot print arrows
    booted = wait_for_phone()
    print("A phone: broker, property service, provisioning server and zavd, in namespaces of their own.")
    skipped = "" if os.environ["LAB_CLOCK"] == "real" else "Its clock skipped the 90 s in which the network settles; "
    print(f"{skipped or 'Its network settled; '}it is ready after {booted:.1f} s.\n", flush=True)
    passed, asked = True, 0
    for number, case in enumerate(FIRST_ACT + SECOND_ACT, 1):
        if number == len(FIRST_ACT) + 1:
            print("Second act: everything else that a server may ask of a phone.\n", flush=True)
        as_expected, asked = run(number, *case, asked)
        passed = passed and as_expected
    passed = lint_careless_files() and passed
    print("All as promised." if passed else "Something is not as promised; the log lines are above.")
    return 0 if passed else 1


if __name__ == "__main__":
    sys.exit(main())
