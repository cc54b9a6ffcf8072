"""The operator's app store over HTTPS: the access token, the store's
addresses ("getbind") and the plugin platform's address ("connect").

StoreResponder decides (no sockets); AppStoreServer carries one request
per TLS connection in and one answer out, recording both.
"""

from __future__ import annotations

import base64
import binascii
import json
import secrets
import socket
import ssl
import threading
import time
from dataclasses import dataclass, field
from typing import Any

from .certs import CertFiles
from .context import Context
from .http import HttpRequest, RequestError, answer_bytes, read_request
from .platform import serve_connections
from .recorder import to_text
from .script import Answer

CLIENT_NUMBER = "5280416"
# The second credential part of a gateway whose LOID begins with a blank.
DEFAULT_LOID_PART = "86420"
DEFAULT_EXPIRE_IN = "7200"
DEFAULT_SCOPE = "device"
_ROUTES = {"/oauth2.0/authorize": ("token", "POST"), "/device/getbind": ("getbind", "GET"),
           "/device/connect": ("connect", "GET")}
# A silent store holds the connection this long at most.
_SILENCE_MAX = 60.0
_IO_TIMEOUT = 10.0


@dataclass
class StoreOutcome:
    kind: str
    status: int = 200
    action: str = "answer"
    text: str | None = None
    delay: float = 0.0
    verdicts: dict[str, Any] = field(default_factory=dict)


def _error(error: str, description: str, **extra: Any) -> dict[str, Any]:
    return {**extra, "error": error, "error_description": description}


def expected_credential(loid: str | None) -> str | None:
    """The Basic credential a gateway with this LOID sends (None: any LOID)."""
    if loid is None:
        return None
    return f"{CLIENT_NUMBER} {DEFAULT_LOID_PART if loid.startswith(' ') else loid}"


class StoreResponder:
    def __init__(self, ctx: Context) -> None:
        self._ctx = ctx
        self._lock = threading.Lock()
        self._issued: set[str] = set()

    def respond(self, request: HttpRequest) -> StoreOutcome:
        kind, method = _ROUTES.get(request.path, ("unknown", request.method))
        outcome = StoreOutcome(kind=kind)
        if kind == "unknown":
            status, body = 404, _error("not_found", f"no such resource {request.path}")
        elif request.method != method:
            status, body = 400, _error("invalid_request", f"{request.path} takes {method}")
        elif kind == "token":
            status, body = self._token(request, outcome.verdicts)
        else:
            status, body = self._address(kind, request, outcome.verdicts)
        self._apply(outcome, status, body, self._ctx.script.next_store_answer(kind))
        return outcome

    def invalid(self, why: str) -> StoreOutcome:
        outcome = StoreOutcome(kind="invalid", verdicts={"note": why})
        self._apply(outcome, 400, _error("invalid_request", why), self._ctx.script.next_store_answer("invalid"))
        return outcome

    # ---- default answers

    def _token(self, request: HttpRequest, verdicts: dict[str, Any]) -> tuple[int, dict[str, Any]]:
        credential = _basic_credential(request.headers.get("authorization", ""))
        expected = expected_credential(self._ctx.config.loid)
        verdicts["credential"] = credential
        verdicts["credential_ok"] = credential is not None and (
            credential == expected if expected is not None
            else credential.startswith(CLIENT_NUMBER + " ") and len(credential) > len(CLIENT_NUMBER) + 1)
        body = _json_object(request.body)
        fields_ok = body is not None and all(isinstance(body.get(k), str) for k in ("username", "password"))
        if fields_ok:
            serial, mac = self._ctx.config.serial, self._ctx.config.mac
            verdicts["body_ok"] = (serial is None or body["password"] == serial) and (
                mac is None or body["username"] == mac)
        if request.query.get("response_type") != "MAC":
            return 400, _error("unsupported_response_type", "response_type must be MAC")
        if not verdicts["credential_ok"]:
            return 401, _error("invalid_client", "client authentication failed")
        if not fields_ok:
            return 400, _error("invalid_request", "body must be a JSON object with username and password")
        if not verdicts["body_ok"]:
            return 400, _error("invalid_grant", "unknown username or wrong password")
        script = self._ctx.script
        token = script.store_token or secrets.token_hex(16).upper()
        with self._lock:
            self._issued.add(token)
        return 200, {"access_token": token, "expire_in": DEFAULT_EXPIRE_IN, "scope": DEFAULT_SCOPE}

    def _address(self, kind: str, request: HttpRequest, verdicts: dict[str, Any]) -> tuple[int, dict[str, Any]]:
        token = request.query.get("token", "")
        with self._lock:
            verdicts["token_ok"] = bool(token) and (token in self._issued or token == self._ctx.script.store_token)
        if not verdicts["token_ok"]:
            return 401, _error("invalid_token", "unknown or missing token", Result=-1)
        host = self._ctx.config.advertise
        if kind == "getbind":
            if request.query.get("deviceType") != "0":
                return 400, _error("invalid_request", "deviceType must be 0", Result=-1)
            return 200, {"Result": 0, "ServerURL": host,
                         "DownloadURL": f"https://{host}:{self._ctx.ports['appstore']}/download",
                         "ServerURL1": host}
        mac = request.query.get("MAC", "")
        verdicts["mac_ok"] = bool(mac) and (self._ctx.config.mac is None or mac == self._ctx.config.mac)
        if not verdicts["mac_ok"]:
            return 400, _error("invalid_request", "unknown or missing MAC", Result=-1)
        return 200, {"Result": 0, "ServerURL": host}

    def _apply(self, outcome: StoreOutcome, status: int, body: dict[str, Any], scripted: Answer | None) -> None:
        """The default answer, or a scripted one: its keys go over the default
        body ("http_status" sets the status), as for the platforms."""
        outcome.status = status
        if scripted is None:
            outcome.text = to_text(self._ctx.expand(body))
            return
        outcome.verdicts["scripted"] = True
        outcome.action = scripted.action
        outcome.delay = self._ctx.scaled(scripted.delay)
        keys = dict(scripted.set)
        wanted = keys.pop("http_status", None)
        if isinstance(wanted, int) and not isinstance(wanted, bool):
            outcome.status = wanted
        elif scripted.replace or scripted.raw is not None:
            outcome.status = 200
        if scripted.raw is not None:
            outcome.text = self._ctx.expand(scripted.raw)
            return
        answer = {} if scripted.replace else dict(body)
        answer.update(keys)
        for key in scripted.drop:
            answer.pop(key, None)
        outcome.text = to_text(self._ctx.expand(answer))


def _basic_credential(header: str) -> str | None:
    scheme, _, value = header.partition(" ")
    if scheme.lower() != "basic" or not value.strip():
        return None
    try:
        return base64.b64decode(value.strip(), validate=True).decode("utf-8")
    except (binascii.Error, UnicodeDecodeError):
        return None


def _json_object(body: bytes) -> dict[str, Any] | None:
    try:
        value = json.loads(body.decode("utf-8"))
    except (UnicodeDecodeError, ValueError):
        return None
    return value if isinstance(value, dict) else None


class AppStoreServer:
    def __init__(self, ctx: Context, sock: socket.socket, cert: CertFiles) -> None:
        self._ctx = ctx
        self._sock = sock
        self._responder = StoreResponder(ctx)
        self._tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        self._tls.load_cert_chain(cert.cert, cert.key)

    def start(self) -> None:
        serve_connections(self._ctx, self._sock, "appstore", self._serve)

    def stop(self) -> None:
        self._sock.close()

    def _serve(self, raw: socket.socket, peer: str) -> None:
        rec = self._ctx.recorder
        raw.settimeout(_IO_TIMEOUT)
        try:
            conn = self._tls.wrap_socket(raw, server_side=True)
        except (ssl.SSLError, OSError) as exc:
            # A gateway that rejects the certificate ends here, before any request.
            rec.add("appstore", "https", "event", peer, None, note=f"tls handshake failed: {exc}")
            raw.close()
            return
        with conn:
            try:
                request = read_request(conn)
            except RequestError as exc:
                self._answer(conn, peer, exc.args[1].decode("utf-8", "replace"), self._responder.invalid(str(exc.args[0])))
                return
            except OSError as exc:
                rec.add("appstore", "https", "event", peer, None, note=f"read failed: {exc}")
                return
            if request is None:
                rec.add("appstore", "https", "event", peer, None, note="closed without a request")
                return
            self._answer(conn, peer, request.text, self._responder.respond(request), request.path)

    def _answer(self, conn: ssl.SSLSocket, peer: str, text: str, outcome: StoreOutcome, path: str | None = None) -> None:
        rec = self._ctx.recorder
        rec.add("appstore", "https", "in", peer, text, kind=outcome.kind, action=outcome.action, path=path,
                **outcome.verdicts)
        if outcome.delay > 0:
            time.sleep(outcome.delay)
        if outcome.action == "answer" and outcome.text is not None:
            try:
                conn.sendall(answer_bytes(outcome.status, outcome.text))
                sent = None
            except OSError:
                sent = False
            rec.add("appstore", "https", "out", peer, outcome.text, kind=outcome.kind, status=outcome.status,
                    sent=sent)
        elif outcome.action == "silence":
            _hold_until_closed(conn)


def _hold_until_closed(conn: ssl.SSLSocket) -> None:
    """A silent store keeps the connection open until the gateway gives up."""
    deadline = time.monotonic() + _SILENCE_MAX
    conn.settimeout(1.0)
    while time.monotonic() < deadline:
        try:
            if not conn.recv(4096):
                return
        except socket.timeout:
            continue
        except (OSError, ssl.SSLError):
            return
