"""qdquickd against the whole-gateway simulator, on loopback inside a private
network namespace (run_e2e.sh), so the gateway's fixed ports are free."""

from __future__ import annotations

import base64
import json
import os
import re
import signal
import socket
import struct
import subprocess
import time
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

REPO = Path(__file__).resolve().parents[2]
SIM = REPO / "sim" / "qdquick-sim"
DAEMON = os.environ.get("QDQUICKD", str(REPO / "build" / "daemon" / "qdquickd"))
PACKAGES = os.environ.get("QDQ_PACKAGES", str(REPO / "build" / "examples" / "sample-plugin" / "packages"))
SCALE = "0.05"
HOST = "127.0.0.1"
SERIAL = "SN0042TEST"


def eventually(check: Callable[[], Any], timeout: float, what: str) -> Any:
    deadline = time.monotonic() + timeout
    while True:
        value = check()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.05)


def recv_exact(sock: socket.socket, n: int) -> bytes:
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise ConnectionError(f"closed after {len(data)} of {n} bytes")
        data += chunk
    return data


def local_tcp(request: dict, port: int = 18998) -> dict:
    with socket.create_connection((HOST, port), timeout=10) as s:
        body = json.dumps(request).encode()
        s.sendall(struct.pack(">I", len(body)) + body)
        (n,) = struct.unpack(">I", recv_exact(s, 4))
        return json.loads(recv_exact(s, n))


def local_udp(request: dict | bytes, port: int, timeout: float = 10) -> bytes:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(timeout)
        s.sendto(request if isinstance(request, bytes) else json.dumps(request).encode(), (HOST, port))
        return s.recv(65535)


def quick_install(request: dict) -> dict:
    raw = local_udp(base64.b64encode(json.dumps(request).encode()), 7998)
    return json.loads(base64.b64decode(raw))


def process_running(name: str) -> int:
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                stat = (entry / "stat").read_text()
                if (entry / "comm").read_text().strip() == name and stat[stat.rindex(")") + 2] != "Z":
                    return int(entry.name)
            except OSError:
                continue
    return 0


class Proc:
    """A child process whose standard output goes to a file we can search."""

    def __init__(self, args: list[str], out: Path, env: dict[str, str]) -> None:
        self.out = out
        with open(out, "ab") as f:
            self.popen = subprocess.Popen(args, stdout=f, stderr=subprocess.STDOUT, env=env)

    def text(self) -> str:
        return self.out.read_text(errors="replace")

    def wait_line(self, pattern: str, timeout: float = 30) -> re.Match:
        return eventually(lambda: re.search(pattern, self.text(), re.M), timeout,
                          f"/{pattern}/ in {self.out.name}:\n{self.text()[-3000:]}")

    def stop(self, sig: int = signal.SIGTERM, timeout: float = 10) -> int:
        if self.popen.poll() is None:
            self.popen.send_signal(sig)
        return self.popen.wait(timeout)


class Gateway:
    """One test's world: a private root, the simulator and qdquickd."""

    def __init__(self, tmp: Path) -> None:
        self.tmp = tmp
        self.root = tmp / "root"
        (self.root / "etc").mkdir(parents=True)
        self.config_path = self.root / "etc" / "qdquickd.json"
        self.env = dict(os.environ, QDQUICK_TIME_SCALE=SCALE, PYTHONDONTWRITEBYTECODE="1")
        self.sim: Proc | None = None
        self.daemon: Proc | None = None
        self.control_port = 0
        self.sim_runs = 0

    def config(self, **overrides: Any) -> dict:
        config = json.loads((REPO / "daemon" / "qdquickd.json").read_text())
        config["root"] = str(self.root)
        config["device"]["serial"] = SERIAL
        config["retry_seconds"] = 20
        for key, value in overrides.items():
            config[key] = value
        return config

    def write_config(self, config: dict) -> None:
        self.config_path.write_text(json.dumps(config))

    def start_sim(self) -> None:
        self.sim_runs += 1
        self.sim = Proc([str(SIM), "--gateway", "--serial", SERIAL, "--time-scale", SCALE,
                         "--packages", PACKAGES, "--control-port", "0", "--install-delay", "1"],
                        self.tmp / f"sim{self.sim_runs}.out", self.env)
        m = self.sim.wait_line(r"^qdquick-sim ready .*control=127\.0\.0\.1:(\d+)", 15)
        self.control_port = int(m.group(1))

    def control(self, request: dict, timeout: float = 30) -> dict:
        with socket.create_connection((HOST, self.control_port), timeout=timeout + 5) as s:
            s.sendall((json.dumps(request) + "\n").encode())
            return json.loads(s.makefile().readline())

    def start_daemon(self, config: dict | None = None) -> None:
        if config is not None or not self.config_path.exists():
            self.write_config(config or self.config())
        self.daemon = Proc([DAEMON, "-c", str(self.config_path)], self.tmp / "daemon.out", self.env)

    def status(self) -> dict:
        try:
            return json.loads((self.root / "var" / "qdquickd" / "status.json").read_text())
        except (OSError, ValueError):
            return {}

    def close(self) -> None:
        for p in (self.daemon, self.sim):
            if p is not None and p.popen.poll() is None:
                p.popen.kill()
                p.popen.wait()
        # A failed test may leave the plugin behind; the next test needs it gone.
        while pid := process_running("sampleplugin"):
            os.kill(pid, signal.SIGKILL)
            eventually(lambda p=pid: not Path(f"/proc/{p}").exists() or process_running("sampleplugin") != p,
                       5, "a killed plugin to end")


@pytest.fixture
def gateway(tmp_path: Path) -> Iterator[Gateway]:
    g = Gateway(tmp_path)
    yield g
    g.close()
