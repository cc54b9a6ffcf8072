"""The simulator's app store over TLS: error answers, scripted answers, and
a client that does not trust it. (The token, getbind and connect exchanges
with their records: the library's app store client against the simulator,
tests/e2e/test_appstore_e2e.cpp.)"""

from __future__ import annotations

import ssl
from pathlib import Path
from typing import Any

import pytest

from conftest import HOST, LOID, MAC, Sim, exchange, token_request


def store_sim(make_sim: Any, tmp_path: Path, script: dict[str, Any] | None = None,
              loid: str = LOID) -> tuple[Sim, str]:
    certs = tmp_path / f"certs{len(list(tmp_path.glob('certs*')))}"
    sim = make_sim(script, ["--appstore-port", "0", "--appstore-cert-dir", str(certs), "--mac", MAC,
                            "--loid", loid])
    return sim, str(certs / "cert.pem")


def getbind(token: str) -> bytes:
    return f"GET /device/getbind?token={token}&deviceType=0 HTTP/1.1\nHost: {HOST}\n\r\n\r\n".encode()


def connect(token: str, mac: str = MAC) -> bytes:
    return f"GET /device/connect?token={token}&MAC={mac} HTTP/1.1\nHost: {HOST}\r\n\r\n".encode()


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
