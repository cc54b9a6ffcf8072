"""TCP frames: a 4-byte big-endian payload length, then the JSON text."""

from __future__ import annotations

import socket
import struct

# The gateway refuses longer frames; we refuse them too so both sides agree.
MAX_PAYLOAD = 102400

_HEADER = struct.Struct(">I")


class FrameError(Exception):
    """The stream cannot be read as frames any more (the caller closes it)."""


def encode_frame(text: str) -> bytes:
    """Header and payload in one buffer, so that one send carries the whole
    frame: the gateway reads its Boot and Register replies with one recv."""
    payload = text.encode("utf-8")
    return _HEADER.pack(len(payload)) + payload


def recv_exact(sock: socket.socket, count: int) -> bytes:
    """Read exactly `count` bytes, across as many segments as they come in.
    Returns fewer bytes only when the peer closed first."""
    chunks: list[bytes] = []
    missing = count
    while missing > 0:
        chunk = sock.recv(missing)
        if not chunk:
            break
        chunks.append(chunk)
        missing -= len(chunk)
    return b"".join(chunks)


def read_frame(sock: socket.socket) -> str | None:
    """One frame's payload as text; None when the peer closed between frames.

    Raises FrameError on a frame cut short or longer than MAX_PAYLOAD."""
    header = recv_exact(sock, _HEADER.size)
    if not header:
        return None
    if len(header) < _HEADER.size:
        raise FrameError("connection closed inside a frame header")
    (length,) = _HEADER.unpack(header)
    if length > MAX_PAYLOAD:
        raise FrameError(f"frame of {length} bytes is longer than {MAX_PAYLOAD}")
    payload = recv_exact(sock, length)
    if len(payload) < length:
        raise FrameError(f"connection closed after {len(payload)} of {length} payload bytes")
    return payload.decode("utf-8", errors="replace")
