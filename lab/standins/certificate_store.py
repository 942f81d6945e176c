"""Stands in for the phone's certificate service: an accepted certificate joins the phone's bundle.

Certificates that wait for the user, and invalid ones, are never touched. The bundle is replaced in one step, and the
daemon is told to read it again.
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
    raise ValueError(f"{path} is no certificate")


def accept(name, _heard, write):
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
