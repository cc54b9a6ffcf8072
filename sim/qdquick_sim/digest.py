"""The gateway's proofs of identity, computed independently with hashlib."""

from __future__ import annotations

import base64
import binascii
import hashlib
import secrets


def md5_upper(text: str) -> str:
    """MD5 of the text's bytes as 32 upper-case hexadecimal digits."""
    return hashlib.md5(text.encode("utf-8")).hexdigest().upper()


def new_challenge() -> str:
    """A fresh challenge code; fits the gateway's 64-byte field."""
    return secrets.token_hex(16).upper()


def check_sn(challenge: str, serial: str) -> str:
    """Expected "CheckSN" of a Register: MD5(challenge + serial)."""
    return md5_upper(challenge + serial)


def user_id(serial: str, loid: str) -> str:
    """Expected "UserID" of a manage Register: MD5(serial + LOID)."""
    return md5_upper(serial + loid)


def request_key(devrnd: str, serial: str) -> str:
    """"Key" a platform puts on RequestPlug-in / RequestDistri: MD5(DevRND + serial)."""
    return md5_upper(devrnd + serial)


def push_signature(time: str, message_b64: str, mac: str, serial: str) -> str:
    """Expected "MD5" of a MessagePush: MD5(time + Message + mac + serial)."""
    return md5_upper(time + message_b64 + mac + serial)


def decode_event(message_b64: str) -> str | None:
    """The event text carried Base64-encoded in "Message", or None if it is not Base64."""
    try:
        raw = base64.b64decode(message_b64.encode("ascii"), validate=True)
    except (binascii.Error, UnicodeEncodeError):
        return None
    return raw.decode("utf-8", errors="replace")
