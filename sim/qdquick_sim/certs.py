"""The app store's TLS certificate, made at start with the openssl tool.

The certificate is self-signed, so the same file serves the gateway as the
CA file to trust.
"""

from __future__ import annotations

import ipaddress
import os
import subprocess
from dataclasses import dataclass


@dataclass
class CertFiles:
    cert: str
    key: str


def _san_entry(name: str) -> str:
    try:
        ipaddress.ip_address(name)
        return f"IP:{name}"
    except ValueError:
        return f"DNS:{name}"


def make_certificate(directory: str, extra_names: list[str]) -> CertFiles:
    """A fresh key and certificate for localhost, 127.0.0.1 and ::1 plus
    `extra_names` (host names or addresses the gateway is told to use)."""
    names = ["DNS:localhost", "IP:127.0.0.1", "IP:::1"]
    for name in extra_names:
        entry = _san_entry(name)
        if name and entry not in names:
            names.append(entry)
    os.makedirs(directory, exist_ok=True)
    files = CertFiles(os.path.join(directory, "cert.pem"), os.path.join(directory, "key.pem"))
    cmd = ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost",
           "-addext", "subjectAltName=" + ",".join(names), "-days", "7",
           "-keyout", files.key, "-out", files.cert]
    try:
        subprocess.run(cmd, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE, timeout=60)
    except FileNotFoundError as exc:
        raise OSError("the openssl tool is needed for the app store certificate") from exc
    except subprocess.CalledProcessError as exc:
        raise OSError(f"openssl req failed: {exc.stderr.decode(errors='replace').strip()}") from exc
    except subprocess.TimeoutExpired as exc:
        raise OSError("openssl req timed out") from exc
    os.chmod(files.key, 0o600)
    return files
