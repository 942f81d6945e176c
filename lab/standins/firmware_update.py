"""Stands in for the phone's firmware-update service: takes what the daemon has downloaded and tells its digest.

The real one checks the image's signature and installs it; this one reads it once, logs size and SHA-256, and reports
100 percent.
"""

import hashlib

from device_bus import inside, serve

FOLDER = "/config/swupdate"


def take(word):
    def handler(value, heard, write):
        if not value:
            return
        name = heard.get("State.FirmwareUpdate.Filename", "")
        digest, size = hashlib.sha256(), 0
        with open(inside(FOLDER, name), "rb") as image:
            while block := image.read(1 << 20):
                digest.update(block)
                size += len(block)
        print(f"{word} {name}: {size} bytes, sha256 {digest.hexdigest()} ({value})")
        write("State.FirmwareUpdate.Progress", "100", "firmware-update")
    return handler


serve({"State.FirmwareUpdate.UpdateSystem": take("install"), "State.FirmwareUpdate.Verify": take("verify")})
