"""Readable lines for a person watching a whole gateway: one line per
registration, the first heartbeat of each session, every pushed command and
its answer, every package download, job manager and app store request."""

from __future__ import annotations

import sys
import time
from typing import Any, TextIO

from .recorder import Record, Recorder, say


def describe(record: Record, seen_heartbeat: set[str]) -> str | None:
    platform, direction = record["platform"], record["direction"]
    body: Any = record.get("json")
    body = body if isinstance(body, dict) else {}
    kind = record.get("kind")
    if platform == "packages":
        return f"package server: {record['text']} -> {record.get('status')} ({record.get('size', 0)} bytes)"
    if platform == "jobmanager":
        if direction == "in":
            return f"job manager: forwarded {body.get('RPCMethod', '?')} answered"
        return None
    if platform == "appstore":
        return _store_line(record, body)
    if platform == "message" and direction == "in" and kind == "push":
        return f"message server: push received (signature {'ok' if record.get('signature_ok') else 'BAD'})"
    where = f"{platform} platform"
    if direction == "out" and "HeartbeatIPAddr" in body:
        seen_heartbeat.discard(platform)
        return f"{where}: gateway registered (Result {body.get('Result')})"
    if direction == "out" and "push" in (record.get("note") or ""):
        name = body.get("Plugin_Name", "")
        return f"{where}: pushed {body.get('RPCMethod', '?')} {name}".rstrip()
    if direction == "in" and kind == "heartbeat" and platform not in seen_heartbeat:
        seen_heartbeat.add(platform)
        return f"{where}: heartbeat received"
    if direction == "in" and kind == "reply" and platform != "manage":
        return f"{where}: gateway answered: Result {body.get('Result')}"
    if direction == "event" and str(record.get("note", "")).startswith("closed"):
        return f"{where}: channel from {record['peer']} closed"
    return None


_STORE_DONE = {"token": "token issued", "getbind": "store addresses given",
               "connect": "plugin platform address given"}


def _store_line(record: Record, body: dict[str, Any]) -> str | None:
    if record["direction"] == "event" and str(record.get("note", "")).startswith("tls handshake"):
        return "app store: TLS handshake failed (is its CA certificate trusted?)"
    if record["direction"] != "out":
        return None
    kind, status = record.get("kind", "?"), record.get("status")
    if status == 200 and kind in _STORE_DONE:
        return f"app store: {_STORE_DONE[kind]}"
    error = body.get("error")
    return f"app store: {kind} request refused (HTTP {status}{', ' + str(error) if error else ''})"


class NarratingRecorder(Recorder):
    def __init__(self, path: str | None, echo: TextIO | None, out: TextIO = sys.stdout) -> None:
        super().__init__(path, echo)
        self._out = out
        self._seen_heartbeat: set[str] = set()

    def add(self, platform: str, transport: str, direction: str, peer: str,
            text: str | None, **fields: Any) -> Record:
        record = super().add(platform, transport, direction, peer, text, **fields)
        line = describe(record, self._seen_heartbeat)
        if line is not None:
            say(f"{time.strftime('%H:%M:%S')} sim: {line}", self._out)
        return record
