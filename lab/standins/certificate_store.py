"""Stand-in for the phone's certificate service: adds accepted certificates to the phone's bundle.

Ignores invalid certificates and those that wait for the user. Replaces the bundle atomically, then tells the daemon to
reload it.
"""

import os
import subprocess

from device_bus import inside, serve

STORAGE = "/custom/certs/_storage"
BUNDLE = "/custom/certs/ca-bundle.pem"


def as_pem(path):
    for form in ("PEM", "DER"):
        done = subprocess.run(["openssl", "x509", "-inform", form, "-in", path], capture_output=True, check=False)
        if done.returncode == 0:
            return done.stdout
    raise ValueError(f"{path} is not a certificate")


def accept(name, _latest, write):
    if not name:
        return
    certificate = as_pem(inside(STORAGE, name))
    bundle = b""
    if os.path.exists(BUNDLE):
        with open(BUNDLE, "rb") as file:
            bundle = file.read()
    if certificate in bundle:
        print(f"{name}: already trusted")
        return
    with open(BUNDLE + ".new", "wb") as file:
        file.write(bundle + (b"" if bundle.endswith(b"\n") or not bundle else b"\n") + certificate)
        file.flush()
        os.fsync(file.fileno())
    os.rename(BUNDLE + ".new", BUNDLE)
    print(f"{name}: accepted")
    write("State.Security.Certificates.UpdateCABundle", name, "certificate-store")


serve({"State.Security.Certificates.Accept": accept})
