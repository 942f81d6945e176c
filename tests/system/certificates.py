"""Server certificates of every kind, made anew for each run."""

import subprocess

AUTHORITY = "/run/phone/authority"  # the one that the phone trusts
NEW_KEY = ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes")  # quicker to make than RSA's
TRUSTED_NAMES = "DNS:localhost,IP:127.0.0.1"


def _openssl(*words):
    subprocess.run(["openssl", *words], check=True, capture_output=True)


def _key_and_request(path):
    _openssl("req", *NEW_KEY, "-subj", "/CN=127.0.0.1", "-keyout", f"{path}.key", "-out", f"{path}.csr")


def _pem(path):
    """Certificate and key in one file, as a server loads it."""
    with open(f"{path}.pem", "wb") as out:
        for name in (f"{path}.crt", f"{path}.key"):
            with open(name, "rb") as file:
                out.write(file.read())
    return f"{path}.pem"


def self_signed(path="/tmp/self"):
    _openssl("req", "-x509", *NEW_KEY, "-subj", "/CN=127.0.0.1", "-addext",
             "subjectAltName=IP:127.0.0.1", "-days", "2", "-keyout", f"{path}.key", "-out", f"{path}.crt")
    return _pem(path)


def trusted(path="/tmp/trusted", names=TRUSTED_NAMES, days=2):
    """Signed by the authority that the phone trusts; `days` below 0 is a certificate that has expired."""
    _key_and_request(path)
    with open(f"{path}.ext", "w", encoding="ascii") as file:
        file.write(f"subjectAltName={names}\n")
    dates = ["-days", str(days)]
    _openssl("x509", "-req", "-in", f"{path}.csr", "-CA", f"{AUTHORITY}.crt", "-CAkey", f"{AUTHORITY}.key",
             "-CAcreateserial", "-extfile", f"{path}.ext", "-out", f"{path}.crt", *dates)
    return _pem(path)
