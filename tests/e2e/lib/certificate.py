"""A certificate for daemons that speak TLS."""

import subprocess


def make_certificate(folder):
    """(certificate, key): the files of one for localhost that signs itself."""
    subprocess.run(
        [
            "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2",
            "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
            "-keyout", folder / "key.pem", "-out", folder / "cert.pem",
        ],
        check=True,
        capture_output=True,
    )  # fmt: skip
    return folder / "cert.pem", folder / "key.pem"
