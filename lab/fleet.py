"""The demonstration's second act: a fleet's update in one pass, and a redirect to a server that the update made trusted.

Makes the files that differ in each run: the firmware image, and the certificate of the run's second authority.
"""

import hashlib
import os
import shutil
import time

HOME = os.environ["PHONE"]
IMAGE = "kd4v-2.14.img"
ELSEWHERE = "/srv/elsewhere"
PATIENCE = 10


def logged(service, text):
    """Waits for a line of the service's log that contains the text, and returns it; None after PATIENCE seconds."""
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        with open(f"{HOME}/{service}.log", encoding="utf-8") as file:
            for line in file:
                if text in line:
                    return line.strip()
        time.sleep(0.01)
    return None


class Fleet:
    """Settings, firmware, a certificate and the phone book in one pass."""

    def __init__(self):
        self.digest = ""

    def publish(self, www):
        image = os.urandom(8 << 20)
        self.digest = hashlib.sha256(image).hexdigest()
        with open(f"{www}/{IMAGE}", "wb") as file:
            file.write(image)
        shutil.copyfile(f"{HOME}/elsewhere-authority.crt", f"{www}/elsewhere.pem")

    def report(self, log):
        """Returns ([(label, lines)], errors)."""
        errors = []
        installed = logged("firmware-update", f"install {IMAGE}")
        if installed is None or self.digest not in installed:
            errors.append(f"the firmware-update service has {installed!r}, published was {self.digest}")
        accepted = logged("certificate-store", "elsewhere.pem: accepted")
        reread = logged("daemon", "Trusted certificates changed: ")
        if accepted is None or reread is None:
            errors.append(f"certificate: {accepted!r}, bundle: {reread!r}")
        book = "/var/volatile/contacts/contacts.xml"
        if not os.path.exists(book):
            errors.append(f"there is no {book}")
        return [("firmware", [str(installed)]), ("trusted", [str(accepted)]), ("contacts", [book]),
                ("status", status_document(log))], errors


class Moved:
    """A redirect to the server whose authority the previous pass installed."""

    @staticmethod
    def publish(_www):
        with open(f"{ELSEWHERE}/provisioning.xml", "w", encoding="utf-8") as file:
            file.write('<provisioning version="1.1" productID="kd4v">\n  <nvm><param name="Telephony.Accounts.0.Label" '
                       'value="Ground floor"/></nvm>\n</provisioning>\n')

    @staticmethod
    def report(_log):
        return [], []


def status_document(log):
    """The JSON document that the daemon logs at the end of a pass, as lines."""
    begin = next((index for index, line in enumerate(log) if "Finished provisioning, status is{" in line), None)
    if begin is None:
        return ["none"]
    end = next(index for index in range(begin, len(log)) if log[index] == "}")
    return ["{"] + [line.replace("\t", "  ").rstrip() for line in log[begin + 1:end + 1]]
