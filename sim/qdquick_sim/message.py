"""The message server: one signed "MessagePush" frame per connection."""

from __future__ import annotations

import socket
from typing import Any

from .context import Context
from .digest import decode_event, push_signature
from .framing import FrameError, read_frame
from .platform import Channel, later, serve_connections
from .recorder import parse_json
from .replies import Outcome, Responder

_SIGNED_FIELDS = ("time", "Message", "mac", "MD5")


def verify_push(msg: Any, serial: str | None) -> dict[str, Any]:
    """Verdicts on one push: signature_ok (None without a serial to check
    against), the decoded event text, and a note when the message is unusable."""
    if not isinstance(msg, dict) or msg.get("RPCMethod") != "MessagePush":
        return {"signature_ok": False, "note": "not a MessagePush object"}
    missing = [k for k in _SIGNED_FIELDS if not isinstance(msg.get(k), str)]
    if missing:
        return {"signature_ok": False, "note": f"missing string field(s) {', '.join(missing)}"}
    verdicts: dict[str, Any] = {"event": decode_event(msg["Message"])}
    if verdicts["event"] is None:
        verdicts["note"] = "Message is not Base64"
    if serial is not None:
        expected = push_signature(msg["time"], msg["Message"], msg["mac"], serial)
        verdicts["signature_ok"] = msg["MD5"] == expected and verdicts["event"] is not None
    return verdicts


class MessageServer:
    def __init__(self, ctx: Context, responder: Responder, tcp: socket.socket) -> None:
        self._ctx = ctx
        self._responder = responder
        self._tcp = tcp

    def start(self) -> None:
        serve_connections(self._ctx, self._tcp, "message", self._serve)

    def stop(self) -> None:
        self._tcp.close()

    def _serve(self, sock: socket.socket, peer: str) -> None:
        channel = Channel(sock, peer)
        rec = self._ctx.recorder
        try:
            text = read_frame(channel.sock)
        except (FrameError, OSError) as exc:
            rec.add("message", "tcp", "event", channel.peer, None, note=str(exc))
            channel.close()
            return
        if text is None:
            rec.add("message", "tcp", "event", channel.peer, None, note="closed without a push")
            channel.close()
            return

        verdicts = verify_push(parse_json(text), self._ctx.config.serial)
        valid = verdicts.get("signature_ok") is not False
        script = self._ctx.script
        default = {"Result": 0 if valid else script.message_bad_result}
        outcome = Outcome(kind="push")
        self._responder.apply(outcome, default, script.next_message_answer())
        rec.add("message", "tcp", "in", channel.peer, text, kind="push", action=outcome.action,
                scripted=outcome.verdicts.get("scripted"), **verdicts)

        def act() -> None:
            if outcome.action == "answer" and outcome.text is not None:
                ok = channel.send(outcome.text)
                rec.add("message", "tcp", "out", channel.peer, outcome.text, sent=None if ok else False)
            if outcome.action == "silence":
                _hold_until_closed(channel)
            channel.close()
        later(outcome.delay, act)


def _hold_until_closed(channel: Channel) -> None:
    """A silent server keeps the connection open until the gateway gives up."""
    try:
        while channel.sock.recv(4096):
            pass
    except OSError:
        pass

