"""Stand-in for the phone's firmware-update service.

The real service checks the signature of a downloaded image and installs it. This one reads the image, logs its size and
SHA-256, and reports 100 percent.
"""

import hashlib

from device_bus import inside, serve

FOLDER = "/config/swupdate"


def reader(action):
    def handler(value, latest, write):
        if not value:
            return
        name = latest.get("State.FirmwareUpdate.Filename", "")
        digest, size = hashlib.sha256(), 0
        with open(inside(FOLDER, name), "rb") as image:
            while block := image.read(1 << 20):
                digest.update(block)
                size += len(block)
        print(f"{action} {name}: {size} bytes, sha256 {digest.hexdigest()} ({value})")
        write("State.FirmwareUpdate.Progress", "100", "firmware-update")
    return handler


serve({"State.FirmwareUpdate.UpdateSystem": reader("install"), "State.FirmwareUpdate.Verify": reader("verify")})
