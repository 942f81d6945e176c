"""What zavctl explain says a phone will do is what the unmodified daemon does: status, properties written in order with
their sources, and log lines, over files made from a seed.

The default run tries a sample. EXPLAIN_CASES=600 tries that many; EXPLAIN_SEED is the first seed.
"""

import json
import os
import re
import shutil
import subprocess
import unittest

import phone
from generated_files import SERVER, Case

CASES = int(os.environ.get("EXPLAIN_CASES", "30"))
FIRST = int(os.environ.get("EXPLAIN_SEED", "1"))
PHONE_FILE = f"{phone.HOME}/explained.json"
CATALOGUE = f"{phone.PROJECT}/services/property-service/catalogue.json"
# What other threads log about the changes that a pass makes; and how often the thread of a pass wakes while a nested
# pass runs, which depends on the machine.
OTHERS = ("Core/Dispatcher:", "Core/ProvisioningTimer:", "Core/Utils:", "Core/ProvisioningWatchdog/ProgressReporter:")
ENTRY = re.compile(r"^\d{4}-\d\d-\d\dT\S+ ZAV (\w+) (\S+) (.*)$")


class AllChanges(phone.Bus):
    """Hears the changes of every key."""

    with open(CATALOGUE, encoding="utf-8") as file:
        TOPICS = tuple(sorted({f"prop-service-{key.split('.')[0].lower()}/#" for key in json.load(file)["keys"]}))

    def all_properties(self):
        values, after = {}, ""
        while True:
            page = self._ask("list", {"prefix": "", "after": after} if after else {"prefix": ""})
            values.update((one["param"], one["value"]) for one in page["properties"])
            after = page.get("next", "")
            if not after:
                return values


def explain(*words):
    """(exit status, explanation)"""
    done = subprocess.run(["zavctl", "explain", *words, "--json", "--show-secrets"], capture_output=True, timeout=60,
                          check=False)
    if not done.stdout.startswith(b"{"):
        raise AssertionError(f"explain {words}: {done.returncode} {done.stdout} {done.stderr}")
    return done.returncode, json.loads(done.stdout.decode(errors="replace"))


def entries(lines):
    """[(level, source:line, text)] of log lines; the status document has several lines."""
    found = []
    for line in lines:
        match = ENTRY.match(line)
        if match:
            found.append(match.groups())
        elif found:
            level, source, text = found.pop()
            found.append((level, source, f"{text}\n{line}"))
    return [entry for entry in found if not entry[1].startswith(OTHERS)]


class ExplainedPassesTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": SERVER}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.bus.close()
        cls.bus = AllChanges()
        with open("/etc/ssl/certs/ca-certificates.crt", encoding="ascii", errors="replace") as file:
            text = file.read()
        end = "-----END CERTIFICATE-----\n"
        cls.certificate = text[text.index("-----BEGIN CERTIFICATE-----"):text.index(end) + len(end)].encode()

    def publish(self, case):
        shutil.rmtree(phone.WWW, ignore_errors=True)
        os.makedirs(phone.WWW)
        for name, (content, encrypted) in case.files.items():
            if content == "CERTIFICATE":
                content = self.certificate
            if encrypted is not None:
                key = f"file:{phone.KEY_FILE}" if encrypted else "pass:someone else's"
                content = subprocess.run(["openssl", "enc", "-aes-128-cbc", "-pass", key], input=content,
                                         capture_output=True, check=True).stdout
            with open(os.path.join(phone.WWW, name), "wb") as file:
                file.write(content)

    def prepare(self, case):
        """The properties of the phone when the pass begins."""
        self.publish(case)
        values = self.bus.all_properties()
        for key, value in {**self.settings, "System.Provision.Period": "86400", "NET.MAC.Address": phone.MAC,
                           "State.FirmwareUpdate.TriggerAuto": "", "FunctionKeys.1.LockProvisioning": "0",
                           **case.before}.items():
            if values[key] != value:
                self.bus.set(key, value)
                values[key] = value
        return values

    def explained(self, case, values):
        """By the values of the running phone, or by a file if the pass begins with others."""
        if case.request == ("State.Provisioning", "request"):
            return explain(phone.WWW, "--as", "running")
        values[case.request[0]] = case.request[1]
        with open(PHONE_FILE, "w", encoding="utf-8") as file:
            json.dump({"version": 1, "properties": values}, file)
        return explain(f"{phone.WWW}/provisioning.xml", "--as", PHONE_FILE)

    def provisioned(self, case, writes):
        """(changes, log entries) of the daemon's pass. `writes` changes are waited for, and the end of the pass."""
        self.log.mark()
        self.bus.mark()
        self.request(case.request[1], case.request[0])
        self.wait_pass_end()
        try:
            phone.wait_until(lambda: len(self.changes(case)) >= writes, "the changes of the pass", 5)
        except phone.Late:
            pass  # the comparison shows them
        return self.changes(case), entries(self.log.lines())

    def changes(self, case):
        heard = [json.loads(text) for _, text in self.bus.messages("prop-service-")]
        return [(one["param"], one["value"], one["source"]) for one in heard if one["source"] != "test"]

    def check(self, case):
        status, explanation = self.explained(case, self.prepare(case))
        sets = [(event["key"], event["value"], event["source"])
                for event in explanation["events"] if event["event"] == "set"]
        changes, log = self.provisioned(case, len(sets))
        self.assertEqual(sets, changes)
        self.assertEqual([(one["level"], f"{one['source']}:{one['line']}", one["text"]) for one in explanation["log"]
                          if not one["source"].startswith(tuple(name.rstrip(":") for name in OTHERS))], log)
        self.assertEqual([value for key, value, _ in changes if key == "State.Provisioning"], [explanation["status"]])
        self.assertEqual(status, 1 if explanation["status"] == "fail" else 0)
        return explanation

    def test_the_daemon_does_what_the_explanation_says(self):
        seen = {"success": 0, "partSuccess": 0, "fail": 0}
        kinds = set()
        for seed in range(FIRST, FIRST + CASES):
            case = Case(seed)
            with self.subTest(str(case)):
                explanation = self.check(case)
                seen[explanation["status"]] += 1
                kinds.update(event["event"] for event in explanation["events"])
        print(f"{CASES} passes: {seen}, events: {sorted(kinds)}", flush=True)
        if CASES >= 30:
            self.assertTrue(all(seen.values()), seen)
            self.assertEqual(kinds, {"file", "dropped", "job", "result", "chosen", "set", "refused", "firmware", "log",
                                     "advice"})


if __name__ == "__main__":
    phone.main()
