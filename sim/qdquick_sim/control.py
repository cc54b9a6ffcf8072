"""Control port for tests: one JSON object per line in, one JSON line out.

Commands: push, udp_send, close, records, wait, script, status, quit (see README).
"""

from __future__ import annotations

import json
import socket
from typing import Any, Callable

from .context import Context
from .platform import PlatformServer, serve_connections
from .recorder import Record, to_text
from .script import PLATFORMS, Script

Reply = dict[str, Any]

# A record that answers a command: anything inbound except session traffic.
_SESSION_KINDS = ("boot", "register", "heartbeat")


class ControlError(Exception):
    pass


class ControlServer:
    def __init__(self, ctx: Context, sock: socket.socket, platforms: dict[str, PlatformServer]) -> None:
        self._ctx = ctx
        self._sock = sock
        self._platforms = platforms
        self._handlers: dict[str, Callable[[dict[str, Any]], Reply]] = {
            "push": self._push, "udp_send": self._udp_send, "close": self._close, "records": self._records,
            "wait": self._wait, "script": self._script, "status": self._status, "quit": self._quit,
        }

    def start(self) -> None:
        serve_connections(self._ctx, self._sock, "control", self._serve)

    def stop(self) -> None:
        self._sock.close()

    def _serve(self, conn: socket.socket, peer: str) -> None:
        with conn, conn.makefile("r", encoding="utf-8") as lines:
            try:
                for line in lines:
                    if not line.strip():
                        continue
                    reply = self.handle_line(line)
                    conn.sendall((json.dumps(reply, ensure_ascii=False) + "\n").encode("utf-8"))
                    if reply.get("quitting"):
                        self._ctx.stop.set()
                        return
            except OSError:
                return  # the test went away; nothing to answer

    def handle_line(self, line: str) -> Reply:
        try:
            request = json.loads(line)
        except ValueError as exc:
            return {"ok": False, "error": f"not JSON: {exc}"}
        if not isinstance(request, dict) or request.get("cmd") not in self._handlers:
            return {"ok": False, "error": f"cmd must be one of {', '.join(self._handlers)}"}
        try:
            return self._handlers[request["cmd"]](request)
        except (ControlError, ValueError, TypeError) as exc:  # ScriptError is a ValueError
            return {"ok": False, "error": str(exc)}

    # ---- handlers

    def _platform(self, request: dict[str, Any]) -> PlatformServer:
        name = request.get("platform")
        if name not in PLATFORMS:
            raise ControlError(f"platform must be one of {', '.join(PLATFORMS)}")
        return self._platforms[name]

    def _outgoing_text(self, request: dict[str, Any]) -> str:
        if "text" in request and isinstance(request["text"], str):
            return self._ctx.expand(request["text"])
        if "message" in request:
            return to_text(self._ctx.expand(request["message"]))
        raise ControlError("needs message (JSON) or text (string)")

    def _send(self, request: dict[str, Any], use_udp: bool) -> Reply:
        server = self._platform(request)
        text = self._outgoing_text(request)
        # The send is recorded after it went out, so a quick reply may be
        # recorded before it: the reply is looked for from here.
        before = self._ctx.recorder.last_seq()
        record = server.udp_send(text) if use_udp else server.push(text)
        if record is None:
            what = "no datagram seen from the gateway yet" if use_udp else "no open TCP channel"
            raise ControlError(f"{server.name}: {what}")
        reply: Reply = {"ok": True, "seq": record["seq"], "sent": record.get("sent", True)}
        if "wait" in request:
            transport = "udp" if use_udp else "tcp"
            found = self._ctx.recorder.wait_for(
                lambda r: r["platform"] == server.name and r["transport"] == transport
                and r["direction"] == "in" and r.get("kind") not in _SESSION_KINDS,
                before, _timeout(request, "wait"))
            reply["reply"] = found
            reply["ok"] = found is not None
            if found is None:
                reply["error"] = "no reply within the wait"
        return reply

    def _push(self, request: dict[str, Any]) -> Reply:
        return self._send(request, use_udp=False)

    def _udp_send(self, request: dict[str, Any]) -> Reply:
        return self._send(request, use_udp=True)

    def _close(self, request: dict[str, Any]) -> Reply:
        return {"ok": True, "closed": self._platform(request).close_channels()}

    def _records(self, request: dict[str, Any]) -> Reply:
        since = request.get("since", 0)
        if not isinstance(since, int) or since < 0:
            raise ControlError("since must be a record sequence number >= 0")
        return {"ok": True, "records": self._ctx.recorder.snapshot(since)}

    def _wait(self, request: dict[str, Any]) -> Reply:
        """First record after `since` whose fields equal the given filters."""
        filters = {k: request[k] for k in ("platform", "transport", "direction", "kind", "action")
                   if k in request}
        filters.setdefault("direction", "in")
        method = request.get("method")

        def match(r: Record) -> bool:
            if any(r.get(k) != v for k, v in filters.items()):
                return False
            return method is None or (isinstance(r.get("json"), dict) and r["json"].get("RPCMethod") == method)
        found = self._ctx.recorder.wait_for(match, int(request.get("since", 0)), _timeout(request, "timeout"))
        if found is None:
            return {"ok": False, "error": "timeout"}
        return {"ok": True, "record": found}

    def _script(self, request: dict[str, Any]) -> Reply:
        if isinstance(request.get("file"), str):
            script = Script.load(request["file"])
        else:
            script = Script.from_obj(request.get("script", {}))
        self._ctx.replace_script(script)
        return {"ok": True}

    def _status(self, request: dict[str, Any]) -> Reply:
        return {"ok": True, "ports": self._ctx.ports, "records": self._ctx.recorder.last_seq(),
                "platforms": {name: server.status() for name, server in self._platforms.items()}}

    def _quit(self, request: dict[str, Any]) -> Reply:
        return {"ok": True, "quitting": True}


def _timeout(request: dict[str, Any], key: str) -> float:
    value = request.get(key, 10)
    if not isinstance(value, (int, float)) or isinstance(value, bool) or value < 0:
        raise ControlError(f"{key} must be a number of seconds >= 0")
    return float(value)
