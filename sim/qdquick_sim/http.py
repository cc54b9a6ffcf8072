"""A minimal HTTP/1.1 exchange on one connection: read one request, write
one answer. The gateway ends its header lines with a bare line feed and only
the header block with CR LF, so both line ends are accepted here."""

from __future__ import annotations

import re
import socket
from dataclasses import dataclass, field
from urllib.parse import parse_qs, urlsplit

_HEAD_END = re.compile(rb"\n\r?\n")
_HEAD_MAX = 65536
_BODY_MAX = 1 << 20
_REASONS = {200: "OK", 400: "Bad Request", 401: "Unauthorized", 404: "Not Found", 500: "Internal Server Error"}


class RequestError(ValueError):
    """The bytes are not a usable HTTP request."""


@dataclass
class HttpRequest:
    raw: bytes
    method: str = ""
    target: str = ""
    path: str = ""
    query: dict[str, str] = field(default_factory=dict)
    headers: dict[str, str] = field(default_factory=dict)  # names in lower case
    body: bytes = b""

    @property
    def text(self) -> str:
        return self.raw.decode("utf-8", errors="replace")


def read_request(sock: socket.socket) -> HttpRequest | None:
    """One request; None when the peer closed before sending anything.
    Raises RequestError for a malformed request (with what was read in .raw
    of the exception's args[1])."""
    data = b""
    while True:
        match = _HEAD_END.search(data)
        if match:
            break
        if len(data) > _HEAD_MAX:
            raise RequestError("header block too long", data)
        chunk = sock.recv(4096)
        if not chunk:
            if not data:
                return None
            raise RequestError("connection closed inside the header block", data)
        data += chunk
    head, rest = data[:match.start() + 1], data[match.end():]
    request = _parse_head(head, data)
    length_text = request.headers.get("content-length", "0").strip()
    if not length_text.isdigit() or int(length_text) > _BODY_MAX:
        raise RequestError(f"bad Content-Length {length_text!r}", data)
    length = int(length_text)
    while len(rest) < length:
        chunk = sock.recv(4096)
        if not chunk:
            raise RequestError("connection closed inside the body", data)
        rest += chunk
        data += chunk
    request.raw = data
    request.body = rest[:length]
    return request


def _parse_head(head: bytes, raw: bytes) -> HttpRequest:
    lines = [line.rstrip(b"\r").decode("latin-1") for line in head.split(b"\n")]
    parts = lines[0].split(" ")
    if len(parts) != 3 or not parts[2].startswith("HTTP/"):
        raise RequestError(f"bad request line {lines[0]!r}", raw)
    request = HttpRequest(raw=raw, method=parts[0], target=parts[1])
    split = urlsplit(parts[1])
    request.path = split.path
    request.query = {k: v[0] for k, v in parse_qs(split.query, keep_blank_values=True).items()}
    for line in lines[1:]:
        if ":" in line:
            name, value = line.split(":", 1)
            request.headers[name.strip().lower()] = value.strip()
    return request


def answer_bytes(status: int, body: str) -> bytes:
    payload = body.encode("utf-8")
    head = (f"HTTP/1.1 {status} {_REASONS.get(status, 'Status')}\r\n"
            "Content-Type: application/json\r\n"
            f"Content-Length: {len(payload)}\r\n"
            "Connection: close\r\n\r\n")
    return head.encode("ascii") + payload
