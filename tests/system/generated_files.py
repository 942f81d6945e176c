"""Provisioning files made from a seed: both formats, valid and mutated, plain and encrypted, every kind of job."""

import random

from files import KEY, PRODUCT, element, params, root

SERVER = "http://provisioning.test/"
SETTINGS = [
    ("Telephony.Accounts.0.Label", ["Desk", "", "Büro & <Co>", "x" * 300]),
    ("Telephony.Accounts.1.Active", ["0", "1", "2", "yes"]),
    ("Audio.Ringer.Volume", ["0", "4", "99", "-1", "loud"]),
    ("Time.Format", ["12h", "24h", "never"]),
    ("System.Reboot.Automatic.Hour", ["3", "23", "24"]),
    ("System.Provision.SettingsVersion", ["2026-09-01_08:30:00"]),
    ("System.Provision.FactoryAuthPassword", ["changed", ""]),
    ("System.Provision.ProvisioningServer", [SERVER, SERVER + "sub/", SERVER + "provisioning.xml?a=b", "not a URL"]),
    ("State.Provisioning", ["request"]),
    ("State.FirmwareUpdate.TriggerAuto", ["request"]),
    ("NET.MAC.Address", ["02:00:5E:10:00:01", "nonsense"]),
    ("FirmwareManagment.AutomaticCheckForUpdates", ["0", "1"]),
    ("No.Such.Key", ["1"]),
    ("", ["1"]),
    (KEY + "0.Label", ["Workshop"]),
    (KEY + "1.Value", ["2002"]),
    (KEY + "2.LockProvisioning", ["0"]),
    (KEY + "3", ["no dot"]),
    (KEY + "x.Label", ["no number"]),
    (KEY + "99.Label", ["no such key"]),
    ("FunctionKeys.1.LockProvisioning", ["0", "1"]),
    ("System.Provision.Period", ["86400", "60", "often"]),
]
VERSIONS = ["2016-03-01_12:00:00", "2017-04-01_08:30:00", "V001.000.000", "2016-13-01_00:00:00", "1.0", "", None]
FIRMWARE = ["2.0", "V1.0.0", "0.9", "kd4v-3", "kd5-3", "latest", "", None]
# What a mutation must not make: the name of another server, on which the phone would look.
FIXED = b"provisioning.test"


class Case:
    """One phone and one server: `files` are what it publishes, `before` what is set before the pass."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.seed = seed
        self.files = {}
        self.before = {}
        self.request = ("State.Provisioning", "request")
        self._make()

    def __str__(self):
        return f"seed {self.seed}: {self.before} {self.request} {sorted(self.files)}"

    def _chance(self, percent):
        return self.random.randrange(100) < percent

    def _pick(self, values):
        return self.random.choice(values)

    def _checks_sync(self):
        """Whether the pass skips phone books."""
        return self.request[1] == "request-check-sync"

    def _make(self):
        self.format = self._pick(["1.0", "1.1"])
        if self._chance(15):
            self.request = ("State.FirmwareUpdate.TriggerAuto", "request")
        elif self._chance(20):
            self.request = ("State.Provisioning", "request-check-sync")
        self._add("provisioning.xml", self._initial())
        if self._chance(25):
            self.before["FunctionKeys.1.LockProvisioning"] = self._pick(["0", "1"])
        if self._chance(30):
            self.before["FirmwareManagment.AutomaticCheckForUpdates"] = self._pick(["0", "1"])

    def _add(self, name, text):
        """Publishes a file, now and then damaged or encrypted (True: with the phone's key, False: with another)."""
        content = text.encode()
        if self._chance(12):
            content = self._mutated(content)
        self.files[name] = (content, self._pick([None, None, None, True, True, False]) if self._chance(30) else None)

    def _mutated(self, content):
        data = bytearray(content)
        for _ in range(self.random.randrange(1, 4)):
            at = self.random.randrange(len(data)) if data else 0
            way = self.random.randrange(5)
            if way == 0:
                data[at:at + 1] = bytes([self.random.randrange(256)])
            elif way == 1:
                del data[at:at + self.random.randrange(1, 20)]
            elif way == 2:
                data[at:at] = data[at:at + self.random.randrange(1, 40)]
            elif way == 3:
                data[at:at] = self._pick([b"<!-- -->", b"<", b">", b"\"", b"&amp;", b"<x/>", b"\0", b" "])
            else:
                del data[at:]
        return bytes(data) if data.count(b"provisioning.test") == content.count(FIXED) and b"//" not in data.replace(
            b"://" + FIXED, b"") else content

    def _root(self, name, children):
        version = self.format if self._chance(97) else self._pick(["1.0", "1.1", "1.05", "2.0", None])
        product = PRODUCT if self._chance(97) else self._pick(["kd5", None])
        mac = None if self._chance(80) else self._pick(["02:00:5E:10:00:01", "02:00:5e:10:00:01", "02:00:5E:10:00:02"])
        return root(name, children, version=version, product=product, mac=mac)

    def _initial(self):
        if self.format == "1.1":
            return self._root("provisioning", [self._direct_job() for _ in range(self.random.randrange(1, 4))])
        categories = [element("category", {"type": kind, "url": self._job_file(kind)})
                      for kind in self.random.sample(["nvm", "custom", "firmware", "other"], self.random.randrange(1, 4))]
        return self._root("provisioning", categories)

    def _direct_job(self):
        kind = self._pick(["nvm", "nvm", "custom", "firmware", "settings"])
        if self._checks_sync():
            kind = "custom"
        if kind == "custom":
            return element(kind, {}, self._steps())
        if kind == "firmware":
            return element(kind, {}, self._images())
        return element(kind, {}, self._settings())

    def _settings(self):
        chosen = [self._pick(SETTINGS) for _ in range(self.random.randrange(1, 8))]
        items = params([(name, self._pick(values)) for name, values in chosen])
        if self._chance(10):
            items.append(element("param", {"name": "Time.Format"}))
        if self._chance(5):
            items.append(element("other", {"name": "x", "value": "y"}))
        return items

    def _images(self):
        entries = [element("file", {"version": self._pick(FIRMWARE), "url": self._binary("image"),
                                    "flags": self._pick([None, None, "FORCE_ACCEPT", "other"])})]
        if self._chance(10):
            entries.append(entries[0])
        return entries

    def _steps(self):
        steps = []
        for _ in range(self.random.randrange(1, 4)):
            kind = self._pick(["certificate", "UnlockAllFunctionKeys", "Redirect", "LocalPhoneBook", "Dance", None])
            if self._checks_sync() and self._chance(50):
                kind = "LocalPhoneBook"
            step = {"type": kind}
            if kind == "certificate":
                step.update(url=self._binary("certificate"), flags=self._pick([None, "FORCE_ACCEPT"]))
            elif kind == "LocalPhoneBook":
                step.update(url=self._binary("contacts"), renewPeriod=self._pick([None, "43200", "60", "soon"]))
            elif kind == "Redirect":
                step.update(url=self._pick([SERVER + "moved.xml", SERVER + "provisioning.xml", "a b", None]))
                self._add("moved.xml", self._root("provisioning", [element("nvm", {}, self._settings())]))
            steps.append(element("step", step))
        return steps

    def _binary(self, name):
        path = f"{name}.{self.random.randrange(3)}"
        if self._chance(75):
            self.files[path] = ("CERTIFICATE" if name == "certificate" and self._chance(60)
                                else bytes(self.random.randrange(256) for _ in range(200)), None)
        return self._pick(["/" + path, "/" + path, SERVER + path, "/missing", "/%MACD/" + path, "/../" + path, "", None]
                          if self._chance(40) else ["/" + path])

    def _job_file(self, kind):
        """Publishes the job file of a category with its second level; its URL."""
        name = f"{kind}.xml"
        if kind == "firmware":
            self._add(name, self._root("firmware", self._images()))
        elif self._chance(85):
            entries = []
            for number in range(self.random.randrange(1, 4)):
                path = f"{kind}-{number}.xml"
                inside = self._steps() if kind == "custom" else self._settings()
                self._add(path, self._root("scenario" if kind == "custom" else "settings", inside))
                entries.append(element("file", {"version": self._pick(VERSIONS), "url": "/" + path}))
            self._add(name, self._root(kind if kind != "other" else "nvm", entries))
        return self._pick(["/" + name, "/" + name, SERVER + name, "/" + name + "?query=1"])
