"""Start the simulator as a subprocess on free loopback ports and talk to it
as a gateway would, with framing and digests written here independently."""

from __future__ import annotations

import hashlib
import json
import select
import socket
import struct
import subprocess
import time
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

SIM = Path(__file__).resolve().parents[2] / "sim" / "qdquick-sim"
SERIAL = "SN0001ABC"
LOID = "LOID-77"
HOST = "127.0.0.1"


def md5u(text: str) -> str:
    return hashlib.md5(text.encode()).hexdigest().upper()


def frame(obj: Any) -> bytes:
    payload = (obj if isinstance(obj, str) else json.dumps(obj)).encode()
    return len(payload).to_bytes(4, "big") + payload


def recv_exact(sock: socket.socket, n: int) -> bytes:
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise ConnectionError(f"closed after {len(data)} of {n} bytes")
        data += chunk
    return data


class TcpGateway:
    """The gateway's side of one framed TCP connection."""

    def __init__(self, port: int) -> None:
        self.sock = socket.create_connection((HOST, port), timeout=5)

    def send(self, obj: Any) -> None:
        self.sock.sendall(frame(obj))

    def recv(self, timeout: float = 5) -> Any:
        self.sock.settimeout(timeout)
        (length,) = struct.unpack(">I", recv_exact(self.sock, 4))
        return json.loads(recv_exact(self.sock, length))

    def ask(self, obj: Any) -> Any:
        self.send(obj)
        return self.recv()


class UdpGateway:
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

    def ask(self, obj: Any) -> Any:
        self.send(obj)
        return self.recv()


class Sim:
    def __init__(self, tmp: Path, script: dict[str, Any] | None, args: list[str]) -> None:
        self.record_path = tmp / "records.jsonl"
        cmd = [str(SIM), "--serial", SERIAL, "--loid", LOID, "--record", str(self.record_path),
               "--control-port", "0"] + [f"--{n}-port=0" for n in ("cube", "manage", "plugin", "message")]
        if script is not None:
            (tmp / "script.json").write_text(json.dumps(script))
            cmd += ["--script", str(tmp / "script.json")]
        self.proc = subprocess.Popen(cmd + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        ready, _, _ = select.select([self.proc.stdout], [], [], 10)
        line = self.proc.stdout.readline() if ready else ""
        assert line.startswith("qdquick-sim ready "), f"no ready line: {line!r} {self.proc.stderr.read()}"
        self.ports = {k: int(v.rsplit(":", 1)[1]) for k, v in (p.split("=") for p in line.split()[2:])}
        self._control = socket.create_connection((HOST, self.ports["control"]), timeout=15)
        self._lines = self._control.makefile("r")

    def control(self, **request: Any) -> dict[str, Any]:
        self._control.sendall((json.dumps(request) + "\n").encode())
        return json.loads(self._lines.readline())

    def wait(self, **filters: Any) -> dict[str, Any]:
        reply = self.control(cmd="wait", timeout=5, **filters)
        assert reply["ok"], reply
        return reply["record"]

    def file_records(self) -> list[dict[str, Any]]:
        return [json.loads(line) for line in self.record_path.read_text().splitlines()]

    def stop(self) -> int:
        if self.proc.poll() is None:
            self.proc.send_signal(15)
        return self.proc.wait(10)


@pytest.fixture
def make_sim(tmp_path: Path) -> Iterator[Callable[..., Sim]]:
    sims: list[Sim] = []

    def start(script: dict[str, Any] | None = None, args: list[str] | None = None) -> Sim:
        tmp = tmp_path / f"sim{len(sims)}"
        tmp.mkdir()
        sims.append(Sim(tmp, script, args or []))
        return sims[-1]
    yield start
    for sim in sims:
        sim.stop()


def boot_register(gw: TcpGateway | UdpGateway, boot: str, register: str, serial: str = SERIAL,
                  **extra: Any) -> tuple[dict[str, Any], dict[str, Any]]:
    booted = gw.ask({"RPCMethod": boot, "MAC": "00:11:22:33:44:55"})
    checksn = md5u(booted["ChallengeCode"] + serial)
    return booted, gw.ask({"RPCMethod": register, "CheckSN": checksn, **extra})


def wait_until(cond: Callable[[], bool], timeout: float = 5) -> bool:
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if cond():
            return True
        time.sleep(0.02)
    return False
