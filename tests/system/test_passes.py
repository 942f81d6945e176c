"""Passes, each a row: what the server holds, what the log says in order, which properties change in order.

The server is nginx over HTTPS, trusted through the phone's own bundle.
"""

import dataclasses
import os
import shutil
import subprocess

import phone
from files import (KEY, LABEL, NAME, categories, direct, element, params, root, settings_file, versions)

URL = "https://provisioning.test/"
INITIAL = "/var/volatile/provisioning/provisioning.xml"
VERIFIED = [f"File {INITIAL} is verifiable", f"File {INITIAL} verified positively."]
REFUSED = ["Initial provisioning file verification failed"]


@dataclasses.dataclass
class Pass:
    name: str
    files: dict                 # path on the server -> text
    log: list                   # these, in order, between the download and the end
    written: list               # (key, value) of the settings applied, in order
    status: str
    http: str = "200"
    before: dict = dataclasses.field(default_factory=dict)
    encrypted: bool = False
    pass_phrase: str = None     # another than the phone's
    absent: list = dataclasses.field(default_factory=list)
    local: dict = dataclasses.field(default_factory=dict)   # file below the download folder -> text it must hold


def two_levels(job_version="1.0", file_version="1.0", initial_version="1.0", entries=None):
    return {
        "provisioning.xml": categories([("nvm", "/nvm.xml")], version=initial_version),
        "nvm.xml": versions("nvm", entries or [("2016-03-01_12:00:00", "/old.xml"), ("2016-04-01_08:30:00", "/new.xml")],
                            version=job_version),
        "old.xml": settings_file([(LABEL, "old")], version=file_version),
        "new.xml": settings_file([(LABEL, "new")], version=file_version),
    }


ROWS = [
    Pass("1.1 plain", {"provisioning.xml": direct([(LABEL, "plain"), (NAME, "Plain & \"simple\""), ("Time.Format", "12h")])},
         ["MAC address not provided in XML, skipping check", *VERIFIED[1:], "Starting provisioning version: 1.1",
          "Found 1 valid provisioning job/s. ", "+++++ Starting NVMJobHandler",
          f"Applying param: '{LABEL}'='plain'", f"Applying param: '{NAME}'='Plain & \"simple\"'",
          "-----Finishing NVMJobHandler"],
         [(LABEL, "plain"), (NAME, "Plain & \"simple\"")], "success"),
    Pass("1.1 encrypted", {"provisioning.xml": direct([(LABEL, "secret")])},
         [*VERIFIED, "Found 1 valid provisioning job/s. ", f"Applying param: '{LABEL}'='secret'"],
         [(LABEL, "secret")], "success", encrypted=True, local={"provisioning.xml": "secret"}),
    Pass("1.0 plain", two_levels(),
         [*VERIFIED, "Starting provisioning version: 1.0", "Found 1 valid provisioning job/s. ",
          "+++++ Starting MasterJobHandler", "Job Type: nvm", f"Found nvm job type with URL: {URL}nvm.xml",
          "File /var/volatile/provisioning/nvm/nvm.xml verified positively.", "+++++ Starting FileDownloadHandler",
          "Newest:/new.xml", f"Found job with URL: {URL}new.xml",
          "File /var/volatile/provisioning/nvm/new.xml verified positively.", "+++++ Starting NVMJobHandler",
          f"Applying param: '{LABEL}'='new'", "-----Finishing NVMJobHandler", "-----Finishing FileDownloadHandler",
          "-----Finishing MasterJobHandler"],
         [(LABEL, "new")], "success"),
    Pass("1.0 encrypted", two_levels(), [f"Applying param: '{LABEL}'='new'"], [(LABEL, "new")], "success",
         encrypted=True, local={"nvm/new.xml": "<settings"}),
    Pass("a file without a version is the newest",
         two_levels(entries=[("2018-01-01_00:00:00", "/new.xml"), (None, "/old.xml")]),
         ["Found url without version tag, assuming newest version is: /old.xml", "Newest:/old.xml"],
         [(LABEL, "old")], "success"),
    Pass("a V version beats a date, a month of 13 is skipped",
         two_levels(entries=[("2016-13-01_00:00:00", "/none.xml"), ("V001.000.000", "/new.xml"),
                             ("2017-01-01_00:00:00", "/old.xml")]),
         ["Version '2016-13-01_00:00:00' doesn't match YYYY-MM-DD_HH:MM:SS format.", "Newest:/new.xml"],
         [(LABEL, "new")], "success"),
    Pass("wrong key", {"provisioning.xml": direct([(LABEL, "never")])}, [f"File {INITIAL} is corrupted", *REFUSED], [],
         "fail", encrypted=True, pass_phrase="someone else's"),
    Pass("not XML", {"provisioning.xml": "{}"}, [f"File {INITIAL} is corrupted", *REFUSED], [], "fail"),
    Pass("empty file", {"provisioning.xml": ""}, [f"File {INITIAL} is corrupted", *REFUSED], [], "fail"),
    Pass("XML cut short", {"provisioning.xml": direct([(LABEL, "never")])[:-9]},
         [f"File {INITIAL} is corrupted", *REFUSED], [], "fail"),
    Pass("a file that declares entities",
         {"provisioning.xml": '<?xml version="1.0"?>\n<!DOCTYPE provisioning [<!ENTITY a SYSTEM "file:///etc/zav.d/key">]>\n'
          + direct([(LABEL, "never")]).split("\n", 1)[1]},
         [f"File {INITIAL} is corrupted", *REFUSED], [], "fail"),
    Pass("wrong product", {"provisioning.xml": direct([(LABEL, "never")], product="KD4V")},
         [f"File {INITIAL} is verifiable", "Incorrect product ID 'KD4V'='kd4v'",
          f"File {INITIAL} check error: ID=0 MAC=1 VER=1", *REFUSED], [], "fail"),
    Pass("no product", {"provisioning.xml": direct([(LABEL, "never")], product=None)},
         ["Product ID is not specified in xml", f"File {INITIAL} check error: ID=0 MAC=1 VER=1", *REFUSED], [], "fail"),
    Pass("another phone's MAC", {"provisioning.xml": direct([(LABEL, "never")], mac="02:00:5E:10:00:02")},
         [f"File {INITIAL} check error: ID=1 MAC=0 VER=1", *REFUSED], [], "fail"),
    Pass("this phone's MAC in lower case", {"provisioning.xml": direct([(LABEL, "mine")], mac=phone.MAC.lower())},
         VERIFIED, [(LABEL, "mine")], "success", absent=["MAC address not provided"]),
    Pass("MAC without separators", {"provisioning.xml": direct([(LABEL, "never")], mac=phone.MAC.replace(":", ""))},
         [f"File {INITIAL} check error: ID=1 MAC=0 VER=1", *REFUSED], [], "fail"),
    Pass("no version", {"provisioning.xml": direct([(LABEL, "never")], version=None)},
         ["Provisioning version is not specified in xml", f"File {INITIAL} check error: ID=1 MAC=1 VER=0", *REFUSED],
         [], "fail"),
    Pass("version 1.2", {"provisioning.xml": direct([(LABEL, "never")], version="1.2")},
         ["Incorrect file format version, provisioning not supported",
          f"File {INITIAL} check error: ID=1 MAC=1 VER=0", *REFUSED], [], "fail"),
    Pass("everything wrong",
         {"provisioning.xml": direct([(LABEL, "never")], version="0.9", product="x", mac="FF:FF:FF:FF:FF:FF")},
         ["Incorrect product ID 'x'='kd4v'", "Incorrect file format version, provisioning not supported",
          f"File {INITIAL} check error: ID=0 MAC=0 VER=0", *REFUSED], [], "fail"),
    Pass("version 1.05 is in range and runs nothing", {"provisioning.xml": direct([(LABEL, "never")], version="1.05")},
         ["Job: nvm param is not valid for provisioning version: 1.05 and it will not be started",
          "Found 0 valid provisioning job/s. "], [], "partSuccess"),
    Pass("another root", {"provisioning.xml": root("nvm", params([(LABEL, "never")]))},
         [f"File {INITIAL} verified positively.", "Initial file is does not contain <provisioning> node.", *REFUSED], [],
         "fail"),
    Pass("an unknown root", {"provisioning.xml": root("Provisioning", params([(LABEL, "never")]))}, REFUSED, [], "fail",
         absent=["is verifiable"]),
    Pass("inconsistent versions", two_levels(job_version="1.1"),
         ["Inconsistient provisioning versions '1.0'='1.1'",
          "File /var/volatile/provisioning/nvm/nvm.xml check error: ID=1 MAC=1 VER=0",
          "XML verification failed for: /var/volatile/provisioning/nvm/nvm.xml"], [], "fail"),
    Pass("inconsistent versions one level deeper", two_levels(file_version="1.1"),
         ["Inconsistient provisioning versions '1.0'='1.1'",
          "XML verification failed for: /var/volatile/provisioning/nvm/new.xml"], [], "fail"),
    Pass("a job file that is not there", {"provisioning.xml": categories([("nvm", "/missing.xml")])},
         [f"Error downloading file: {URL}missing.xml", "Curl Error: ", "-----Finishing MasterJobHandler"], [], "fail",
         http="404"),
    Pass("one category fails, the next runs",
         {**two_levels(), "provisioning.xml": categories([("firmware", "/missing.xml"), ("sounds", "/x"),
                                                          ("nvm", "/nvm.xml")])},
         ["Job Type: firmware", f"Error downloading file: {URL}missing.xml", "Job Type: nvm",
          f"Applying param: '{LABEL}'='new'"],
         [(LABEL, "new")], "partSuccess", http="404", absent=["Job Type: sounds"]),
    Pass("no jobs", {"provisioning.xml": root("provisioning", [])}, ["Found 0 valid provisioning job/s. "], [],
         "partSuccess"),
    Pass("items of different names",
         {"provisioning.xml": root("provisioning", [element("nvm", {}, [*params([(LABEL, "never")]),
                                                                        element("parm", {"name": "x"})])])},
         ["XML child nodes have inconsistient names, please verify xml job: nvm", "Found 0 valid provisioning job/s. "],
         [], "partSuccess"),
    Pass("a category in 1.1", {"provisioning.xml": categories([("nvm", "/nvm.xml")], version="1.1")},
         ["Job: provisioning category is not valid for provisioning version: 1.1 and it will not be started",
          "Found 0 valid provisioning job/s. "], [], "partSuccess"),
    Pass("an unknown setting", {"provisioning.xml": direct([("Telephony.No.Such.Key", "1"), (LABEL, "known")])},
         ["Applying param: 'Telephony.No.Such.Key'='1'", f"Applying param: '{LABEL}'='known'"], [(LABEL, "known")],
         "partSuccess"),
    Pass("a value that the key does not take",
         {"provisioning.xml": direct([("Time.Format", "25h"), (LABEL, "taken")])},
         ["Applying param: 'Time.Format'='25h'", "Could not set param : 'Time.Format'='25h' (exception ",
          f"Applying param: '{LABEL}'='taken'"], [(LABEL, "taken")], "partSuccess"),
    Pass("only unknown settings", {"provisioning.xml": direct([("No.Such.Key", "1")])}, [], [], "fail"),
    Pass("locked function keys",
         {"provisioning.xml": direct([(KEY + "2.Label", "locked"), (KEY + "3.Label", "open"),
                                      (KEY + "2.Value", "locked"), (KEY + "3.LockProvisioning", "0"),
                                      (KEY + "4.Label", "locked too"), (KEY + "7", "no dot"), (KEY + "x.Label", "x")])},
         [f"This parameter can not be changed because it is locked '{KEY}2.Label'",
          f"Applying function key param: '{KEY}3.Label'='open'",
          f"This parameter can not be changed because it is locked '{KEY}2.Value'",
          f"This parameter can not be set by provisioning '{KEY}3.LockProvisioning'",
          f"This parameter can not be changed because it is locked '{KEY}4.Label'",
          f"Could not set param : '{KEY}7'='no dot' (exception Function key parameter name invalid ",
          f"Could not set param : '{KEY}x.Label'='x' (exception "],
         [(KEY + "3.Label", "open")], "partSuccess",
         before={"FunctionKeys.2.LockProvisioning": "1", "FunctionKeys.3.LockProvisioning": "0",
                 "FunctionKeys.4.LockProvisioning": ""}),
    Pass("a scenario beside settings", {"provisioning.xml": root("provisioning", [
        element("custom", {}, [element("step", {"type": "UnlockAllFunctionKeys"})]),
        element("nvm", {}, params([(LABEL, "beside")]))])},
         ["Found 2 valid provisioning job/s. ", "+++++ Starting CustomScenarioJobHandler",
          "Executing step: 'UnlockAllFunctionKeys'", "-----Finishing CustomScenarioJobHandler",
          "+++++ Starting NVMJobHandler", f"Applying param: '{LABEL}'='beside'", "-----Finishing NVMJobHandler"],
         [(LABEL, "beside")], "success"),
]


class PassesTest(phone.PhoneTest):
    settings = {"System.Provision.ProvisioningServer": URL}

    def publish(self, row):
        shutil.rmtree(phone.WWW, ignore_errors=True)
        os.makedirs(phone.WWW, exist_ok=True)
        for name, text in row.files.items():
            data = text.encode()
            if row.encrypted:
                data = phone.encrypt(text) if row.pass_phrase is None else subprocess.run(
                    ["openssl", "enc", "-aes-128-cbc", "-pass", f"pass:{row.pass_phrase}"], input=data,
                    capture_output=True, check=True).stdout
            with open(os.path.join(phone.WWW, name), "wb") as file:
                file.write(data)

    def check(self, row):
        for key, value in row.before.items():
            self.bus.set(key, value)
        self.publish(row)
        self.assertEqual(self.provision(), row.status)
        succeeded = row.status != "fail"
        self.log.in_order([
            "Get message - topic: prop-service-state/State.Provisioning content: ", "Start provisioning thread",
            "Reading properties to GlobalConfig", "Provisioning Started", f"Provisioning XML from: {URL}provisioning.xml to: {INITIAL}",
            *row.log, "Provisioning Finished", "Finished provisioning, status is",
            "Provisioning succeeded. " if succeeded else "Provisioning failed. "])
        self.log.none(row.absent)
        watched = {"State.Provisioning", "State.Provisioning.LockUI", "State.Provisioning.HttpErrorCode", LABEL, NAME}
        self.assertEqual(
            [change for change in self.bus.changes() if change[0] in watched or change[0].startswith(KEY)],
            [("State.Provisioning", "request"), ("State.Provisioning.LockUI", "1"), *row.written,
             ("State.Provisioning.LockUI", "0"), ("State.Provisioning.HttpErrorCode", row.http),
             ("State.Provisioning", row.status)])
        for name, text in row.local.items():
            with open(os.path.join("/var/volatile/provisioning", name), encoding="utf-8") as file:
                self.assertIn(text, file.read())

    def test_passes(self):
        for row in ROWS:
            with self.subTest(row.name):
                self.check(row)

    def test_a_trigger_for_firmware_is_a_request_and_is_reset(self):
        self.publish(ROWS[0])
        self.bus.set("State.FirmwareUpdate.TriggerAuto", "request")
        self.wait_pass_end()
        self.bus.wait_change("State.FirmwareUpdate.TriggerAuto", "no_version")
        self.assertEqual(self.bus.changes("State.FirmwareUpdate.TriggerAuto"),
                         [("State.FirmwareUpdate.TriggerAuto", "request"),
                          ("State.FirmwareUpdate.TriggerAuto", "no_version")])
        self.assertEqual(self.bus.get("State.Provisioning"), "success")

    def test_a_request_with_check_sync_runs_a_pass_and_other_values_none(self):
        self.publish(ROWS[0])
        self.bus.set("State.Provisioning", "requ")
        self.assertEqual(self.provision("request-check-sync"), "success")
        self.assertEqual(self.log.count("Start provisioning thread"), 1)
        self.assertEqual(self.log.count("Provisioning Started"), 1)

    def test_no_temporary_file_is_left(self):
        for row in ROWS[:2]:
            self.check(row)
            self.assertEqual([name for _, _, names in os.walk("/var/volatile/provisioning") for name in names
                              if not name.endswith(".xml")], ["zavd:lock"])


class DecryptionTest(phone.PhoneTest):
    """An openssl that never ends comes first in the daemon's PATH."""

    settings = {"System.Provision.ProvisioningServer": URL}
    programs = f"{phone.HOME}/programs"
    pid_file = f"{phone.HOME}/openssl.pid"

    @classmethod
    def setUpClass(cls):
        os.makedirs(cls.programs, exist_ok=True)
        with open(f"{cls.programs}/openssl", "w", encoding="ascii") as file:
            file.write(f"#!/bin/sh\necho $$ >{cls.pid_file}.new\nmv {cls.pid_file}.new {cls.pid_file}\n"
                       "exec sleep 600\n")
        os.chmod(f"{cls.programs}/openssl", 0o755)
        cls.addClassCleanup(os.environ.__setitem__, "PATH", os.environ["PATH"])
        os.environ["PATH"] = f"{cls.programs}:{os.environ['PATH']}"
        super().setUpClass()

    def test_a_decryption_that_hangs_is_ended_after_ten_seconds(self):
        shutil.rmtree(phone.WWW, ignore_errors=True)
        os.makedirs(phone.WWW)
        with open(os.path.join(phone.WWW, "provisioning.xml"), "w", encoding="utf-8") as file:
            file.write(direct([(LABEL, "plain all the same")]))
        self.request()
        phone.wait_until(lambda: os.path.exists(self.pid_file), "openssl's start")
        with open(self.pid_file, encoding="ascii") as file:
            process = f"/proc/{int(file.read())}"
        phone.jump(5)
        phone.jump(0)  # the daemon has looked and waits again
        self.assertTrue(os.path.exists(process))
        self.log.none([f"File {INITIAL} is"])
        phone.jump(5)
        self.wait_pass_end()
        # The daemon waits for the shell; what the shell had started is reaped by the phone's init.
        phone.wait_until(lambda: not os.path.exists(process), "openssl's end")
        self.log.in_order([*VERIFIED, f"Applying param: '{LABEL}'='plain all the same'", "Provisioning succeeded. "])


if __name__ == "__main__":
    phone.main()
