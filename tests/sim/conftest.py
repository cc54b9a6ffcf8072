"""Start the simulator as a subprocess on free loopback ports and talk to it
as a gateway would, with framing and digests written here independently."""

from __future__ import annotations

import base64
import hashlib
import json
import socket
import ssl
import sys
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from simproc import HOST, SIM, Sim, frame, recv_frame  # noqa: E402,F401

SERIAL = "SN0001ABC"
LOID = "LOID-77"
MAC = "001122334455"


def md5u(text: str) -> str:
    return hashlib.md5(text.encode()).hexdigest().upper()


class TcpGateway:
    """The gateway's side of one framed TCP connection."""

    def __init__(self, port: int) -> None:
        self.sock = socket.create_connection((HOST, port), timeout=5)

    def send(self, obj: Any) -> None:
        self.sock.sendall(frame(json.dumps(obj).encode()))

    def recv(self, timeout: float = 5) -> Any:
        self.sock.settimeout(timeout)
        return json.loads(recv_frame(self.sock))

    def ask(self, obj: Any) -> Any:
        self.send(obj)
        return self.recv()


class UdpGateway(TcpGateway):
    """The gateway's side over UDP, from a fixed source port like its localport."""

    def __init__(self, port: int) -> None:
        self.server = (HOST, port)
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind((HOST, 0))

    def send(self, obj: Any) -> None:
        self.sock.sendto(json.dumps(obj).encode(), self.server)

    def recv(self, timeout: float = 5) -> Any:
        self.sock.settimeout(timeout)
        data, source = self.sock.recvfrom(4096)
        assert source == self.server
        return json.loads(data)


@pytest.fixture
def make_sim(tmp_path: Path) -> Iterator[Callable[..., Sim]]:
    sims: list[Sim] = []

    def start(script: dict[str, Any] | None = None, args: list[str] | None = None) -> Sim:
        ports = [f"--{n}-port=0" for n in ("cube", "manage", "plugin", "message")]
        sims.append(Sim(tmp_path / f"sim{len(sims)}", ["--serial", SERIAL, "--loid", LOID, *ports, *(args or [])],
                        script))
        return sims[-1]
    yield start
    for sim in sims:
        sim.stop()


def boot_register(gw: TcpGateway | UdpGateway, boot: str, register: str, serial: str = SERIAL,
                  **extra: Any) -> tuple[dict[str, Any], dict[str, Any]]:
    booted = gw.ask({"RPCMethod": boot, "MAC": "00:11:22:33:44:55"})
    checksn = md5u(booted["ChallengeCode"] + serial)
    return booted, gw.ask({"RPCMethod": register, "CheckSN": checksn, **extra})


def exchange(sim: Sim, ca: str | None, request: bytes) -> tuple[int, dict[str, Any] | str]:
    """Sends the request bytes to the app store as they stand and reads the
    answer to the close."""
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
