"""The simulator's app store over TLS: token, getbind and connect, their
error answers, scripted answers and the record of every request."""

from __future__ import annotations

import base64
import json
import socket
import ssl
from pathlib import Path
from typing import Any

import pytest

from conftest import HOST, LOID, SERIAL, Sim

MAC = "001122334455"


def store_sim(make_sim: Any, tmp_path: Path, script: dict[str, Any] | None = None,
              loid: str = LOID) -> tuple[Sim, str]:
    certs = tmp_path / f"certs{len(list(tmp_path.glob('certs*')))}"
    sim = make_sim(script, ["--appstore-port", "0", "--appstore-cert-dir", str(certs), "--mac", MAC,
                            "--loid", loid])
    return sim, str(certs / "cert.pem")


def exchange(sim: Sim, ca: str | None, request: bytes) -> tuple[int, dict[str, Any] | str]:
    """Sends the request bytes as they stand and reads the answer to the close."""
    ctx = ssl.create_default_context(cafile=ca)
    with socket.create_connection((HOST, sim.ports["appstore"]), timeout=5) as raw:
        with ctx.wrap_socket(raw, server_hostname=HOST) as tls:
            tls.sendall(request)
            data = b""
            while chunk := tls.recv(4096):
                data += chunk
    head, _, body = data.partition(b"\r\n\r\n")
    status = int(head.split(b" ")[1])
    try:
        return status, json.loads(body)
    except ValueError:
        return status, body.decode()


def token_request(credential: str = f"5280416 {LOID}", password: str = SERIAL,
                  query: str = "response_type=MAC", body: str | None = None) -> bytes:
    """Line ends as the gateway writes them: bare LF, CR LF CR LF at the end."""
    body = body if body is not None else json.dumps({"username": MAC, "password": password}, indent="\t")
    basic = base64.b64encode(credential.encode()).decode()
    return (f"POST /oauth2.0/authorize?{query} HTTP/1.1\nHost: {HOST}\nAuthorization: Basic {basic}\n"
            f"Content-Length: {len(body)}\nContent-Type: application/json\r\n\r\n{body}").encode()


def getbind(token: str) -> bytes:
    return f"GET /device/getbind?token={token}&deviceType=0 HTTP/1.1\nHost: {HOST}\n\r\n\r\n".encode()


def connect(token: str, mac: str = MAC) -> bytes:
    return f"GET /device/connect?token={token}&MAC={mac} HTTP/1.1\nHost: {HOST}\r\n\r\n".encode()


def test_token_then_addresses_with_records(make_sim: Any, tmp_path: Path) -> None:
    sim, ca = store_sim(make_sim, tmp_path)
    status, answer = exchange(sim, ca, token_request())
    assert status == 200 and answer["expire_in"] == "7200" and answer["scope"] == "device"
    token = answer["access_token"]
    assert exchange(sim, ca, getbind(token)) == (200, {
        "Result": 0, "ServerURL": HOST, "ServerURL1": HOST,
        "DownloadURL": f"https://{HOST}:{sim.ports['appstore']}/download"})
    assert exchange(sim, ca, connect(token)) == (200, {"Result": 0, "ServerURL": HOST})

    record = sim.wait(platform="appstore", kind="token")
    assert record["text"] == token_request().decode()
    assert record["credential_ok"] and record["body_ok"] and record["transport"] == "https"
    assert sim.wait(platform="appstore", kind="connect")["mac_ok"]
    outs = [r for r in sim.file_records() if r["platform"] == "appstore" and r["direction"] == "out"]
    assert [r["status"] for r in outs] == [200, 200, 200]


@pytest.mark.parametrize("request_bytes,status,error", [
    (token_request(credential="5280416 OTHER"), 401, "invalid_client"),
    (token_request(credential="1234567 " + LOID), 401, "invalid_client"),
    (token_request(password="WRONG"), 400, "invalid_grant"),
    (token_request(body="{not json"), 400, "invalid_request"),
    (token_request(query="response_type=CODE"), 400, "unsupported_response_type"),
    (getbind("NOT-ISSUED"), 401, "invalid_token"),
    (connect("NOT-ISSUED"), 401, "invalid_token"),
    (b"GET /nowhere HTTP/1.1\r\n\r\n", 404, "not_found"),
    (b"garbage\r\n\r\n", 400, "invalid_request"),
])
def test_error_answers(make_sim: Any, tmp_path: Path, request_bytes: bytes, status: int, error: str) -> None:
    sim, ca = store_sim(make_sim, tmp_path)
    got_status, answer = exchange(sim, ca, request_bytes)
    assert got_status == status and answer["error"] == error and answer["error_description"]


def test_blank_loid_gateway_sends_the_default_part(make_sim: Any, tmp_path: Path) -> None:
    sim, ca = store_sim(make_sim, tmp_path, loid=" LOID")
    assert exchange(sim, ca, token_request(credential="5280416 86420"))[0] == 200
    assert exchange(sim, ca, token_request(credential="5280416  LOID"))[0] == 401


def test_scripted_token_and_answers(make_sim: Any, tmp_path: Path) -> None:
    script = {"appstore": {"token": "TOK-1", "answers": {
        "token": [{"http_status": 400, "replace": True, "error": "busy", "error_description": "later"}],
        "getbind": [{"drop": ["ServerURL"]}],
        "connect": ["close"]}}}
    sim, ca = store_sim(make_sim, tmp_path, script)
    assert exchange(sim, ca, token_request()) == (400, {"error": "busy", "error_description": "later"})
    assert exchange(sim, ca, token_request())[1]["access_token"] == "TOK-1"
    status, answer = exchange(sim, ca, getbind("TOK-1"))
    assert status == 200 and "ServerURL" not in answer and answer["Result"] == 0
    with pytest.raises((IndexError, ValueError)):
        exchange(sim, ca, connect("TOK-1"))  # closed without an answer
    assert exchange(sim, ca, connect("TOK-1"))[1]["Result"] == 0


def test_client_without_the_ca_is_refused_before_any_request(make_sim: Any, tmp_path: Path) -> None:
    sim, _ = store_sim(make_sim, tmp_path)
    with pytest.raises(ssl.SSLCertVerificationError):
        exchange(sim, None, token_request())
    event = sim.wait(platform="appstore", direction="event")
    assert "tls handshake failed" in event["note"]
    assert not [r for r in sim.file_records() if r["platform"] == "appstore" and r["direction"] == "in"]
