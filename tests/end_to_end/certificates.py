"""Certificates for tests, demonstrations of hostility and benchmarks, made by openssl."""

import hashlib
import pathlib
import ssl
import subprocess

P256 = ("ec", "-pkeyopt", "ec_paramgen_curve:P-256")


def openssl(*arguments):
    subprocess.run(["openssl", *map(str, arguments)], check=True, capture_output=True)


class Certificate:
    """A certificate with its private key, in two files of PEM."""

    def __init__(self, directory, name):
        self.file = pathlib.Path(directory) / f"{name}.pem"
        self.key = pathlib.Path(directory) / f"{name}-key.pem"

    @property
    def sha256(self):
        return hashlib.sha256(ssl.PEM_cert_to_DER_cert(self.file.read_text())).hexdigest()


def make_authority(directory, name="ca"):
    made = Certificate(directory, name)
    openssl("req", "-x509", "-newkey", *P256, "-nodes", "-utf8", "-subj", f"/CN=Authority {name}", "-days", "2",
            "-keyout", made.key, "-out", made.file)
    return made


def issue(directory, authority, name, subject, extensions="subjectAltName=IP:127.0.0.1,DNS:localhost", key=P256, days=2):
    """A certificate by an authority. `subject` as openssl takes it: /O=Example/CN=alice"""
    made = Certificate(directory, name)
    request = pathlib.Path(directory) / f"{name}.csr"
    extra = pathlib.Path(directory) / f"{name}.ext"
    extra.write_text(extensions + "\n")
    openssl("req", "-new", "-newkey", *key, "-nodes", "-utf8", "-subj", subject, "-keyout", made.key, "-out", request)
    openssl("x509", "-req", "-in", request, "-CA", authority.file, "-CAkey", authority.key, "-CAcreateserial", "-days", days,
            "-extfile", extra, "-out", made.file)
    return made
