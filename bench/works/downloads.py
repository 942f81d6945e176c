"""A firmware image of 200 MiB, from the lab's server to the disk."""

import datetime
import os
import re

import published
from work import Work, at_most

MEBIBYTES = 200
FOLDER = "/config/swupdate"
JOB = re.compile(r"^(\S+) .*(?:\+\+\+\+\+ Starting|-----Finishing) FirmwareJobHandler$", re.MULTILINE)


class Firmware(Work):
    unit = "ms"
    goal = at_most(1.15)
    samples = 9

    def __init__(self, scheme):
        self.scheme = scheme
        self.name = f"firmware of {MEBIBYTES} MiB by {scheme}, synced"
        self.floor_name = "curl -o, and sync of the file"

    def prepare(self, context):
        self.url = f"{self.scheme}://provisioning.test"
        self.phone = None
        # The folders of a phone on the disk: without --state they are in memory.
        self.phone = context.phone("--no-boot-pass", "--state", context.folder / f"firmware-{self.scheme}",
                                   "--set", f"System.Provision.ProvisioningServer={self.url}/").settle()
        chunk = os.urandom(2 ** 20)
        with open(self.phone.www / "image.bin", "wb") as image:
            for _ in range(4 if context.quick else MEBIBYTES):
                image.write(chunk)
        self.phone.publish("provisioning.xml", published.root("provisioning", [
            '<firmware><file version="99.0" url="/image.bin" flags="FORCE_ACCEPT"/></firmware>']))

    def clear(self):
        """Both begin with an empty folder and no unwritten pages of theirs."""
        self.phone.run("sh", "-c", f"rm -f {FOLDER}/*; sync -f {FOLDER}")

    def ours(self):
        self.clear()
        self.phone.run("zavctl", "provision", "--wait")
        begin, end = JOB.findall(self.phone.run("tail", "-n", "60", "/run/phone/daemon.log"))[-2:]
        return (datetime.datetime.fromisoformat(end) - datetime.datetime.fromisoformat(begin)).total_seconds() * 1000

    def floor(self):
        self.clear()
        begin, end = self.phone.run(
            "sh", "-c", f"date +%s%N; curl -sS --cacert /run/phone/authority.crt -o {FOLDER}/image.bin "
            f"{self.url}/image.bin && sync {FOLDER}/image.bin && date +%s%N").split()
        return (int(end) - int(begin)) / 1e6

    def close(self):
        if self.phone:
            self.clear()
            self.phone.close()


WORKS = [Firmware("http"), Firmware("https")]
