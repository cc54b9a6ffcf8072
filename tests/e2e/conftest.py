"""End-to-end fixtures: the platform simulator and the library's test host
(qdq-testhost) as processes on loopback, both on one scaled clock, the host
inside a private root directory of its own."""

from __future__ import annotations

import json
import os
import select
import shlex
import socket
import subprocess
import threading
import time
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

# A cross build runs the test host under its emulator, that many times
# slower: every scale, slack and wait below is stretched by SLOW.
EMULATOR = shlex.split(os.environ.get("QDQ_EMULATOR", ""))
SLOW = float(os.environ.get("QDQ_E2E_SLOWDOWN", "1"))
# QDQUICK_TIME_SCALE of the host and --time-scale of the simulator: the
# 20 s heartbeat reply wait is 1 s, long enough for a loaded sanitizer run.
SCALE = 0.05
TICK = 0.1 * SLOW  # slack for one timer tick and scheduling, in real seconds
IN_NETNS = os.environ.get("QDQ_E2E_NETNS") == "1"  # private namespace: fixed ports are free
MULTI = os.environ.get("QDQ_E2E_MULTI", "")  # a name with two loopback addresses
SERIAL = "SN-E2E-0001"
LOID = "LOID-E2E"
MAC = "00:11:22:33:44:55"
HOST = "127.0.0.1"
TESTHOST = os.environ.get("QDQ_TESTHOST", "")
SIM = os.environ.get("QDQ_SIM", str(Path(__file__).resolve().parents[2] / "sim" / "qdquick-sim"))
PLAT = {"cube": 1, "manage": 2, "plugin": 3}


def scaled(seconds: float, scale: float = SCALE) -> float:
    """Real seconds of `seconds` library seconds."""
    return seconds * scale * SLOW


class Sim:
    def __init__(self, tmp: Path, script: dict[str, Any] | None, args: list[str], scale: float) -> None:
        self.record_path = tmp / "records.jsonl"
        cmd = [SIM, "--serial", SERIAL, "--loid", LOID, "--record", str(self.record_path),
               "--control-port", "0", "--time-scale", str(scale * SLOW)]
        if not any(a.startswith("--bind") for a in args):
            cmd += ["--bind", HOST]
        cmd += [f"--{n}-port=0" for n in ("cube", "manage", "plugin", "message")
                if not any(a.startswith(f"--{n}-port") for a in args)]
        if script is not None:
            (tmp / "script.json").write_text(json.dumps(script))
            cmd += ["--script", str(tmp / "script.json")]
        self.proc = subprocess.Popen(cmd + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        ready, _, _ = select.select([self.proc.stdout], [], [], 10)
        line = self.proc.stdout.readline() if ready else ""
        assert line.startswith("qdquick-sim ready "), f"no ready line: {line!r}"
        self.addr = {k: v for k, v in (p.split("=") for p in line.split()[2:])}
        self.ports = {k: int(v.rsplit(":", 1)[1]) for k, v in self.addr.items()}
        self._control = socket.create_connection((HOST, self.ports["control"]), timeout=30)
        self._lines = self._control.makefile("r")

    def control(self, **request: Any) -> dict[str, Any]:
        self._control.sendall((json.dumps(request) + "\n").encode())
        return json.loads(self._lines.readline())

    def wait(self, timeout: float = 5, **filters: Any) -> dict[str, Any]:
        reply = self.control(cmd="wait", timeout=timeout * SLOW, **filters)
        assert reply["ok"], (filters, reply)
        return reply["record"]

    def push(self, platform: str, **what: Any) -> dict[str, Any]:
        """Pushes a command on the platform's channel; the gateway's answer.
        (The simulator records its push after sending it, so a quick answer
        can come first: it is looked for from before the push.)"""
        recs = self.control(cmd="records")["records"]
        since = recs[-1]["seq"] if recs else 0
        assert self.control(cmd="push", platform=platform, **what)["ok"]
        return self.wait(platform=platform, kind="reply", since=since)

    def records(self, **filters: Any) -> list[dict[str, Any]]:
        recs = self.control(cmd="records")["records"]
        return [r for r in recs if all(r.get(k) == v for k, v in filters.items())]

    def stop(self) -> None:
        if self.proc.poll() is None:
            self.proc.terminate()
        self.proc.wait(10)
        self._control.close()


class Host:
    """qdq-testhost: every line it prints is a JSON event, kept in order."""

    def __init__(self, root: Path, args: list[str], env: dict[str, str], scale: float) -> None:
        for d in ("var", "etc/config/system", "qdconf", "tmp"):
            (root / d).mkdir(parents=True, exist_ok=True)
        self.root = root
        full_env = dict(os.environ, QDQUICK_ROOT=str(root), QDQUICK_TIME_SCALE=str(scale * SLOW),
                        QDQUICK_DEFAULT_CUBE=HOST, QDQUICK_DEFAULT_MANAGE=HOST, **env)
        cmd = EMULATOR + [TESTHOST, "--serial", SERIAL, "--mac", MAC, "--loid", LOID, "--ipaddr", "192.168.1.10"] + args
        self.proc = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True, env=full_env)
        self.events: list[dict[str, Any]] = []
        self._cond = threading.Condition()
        threading.Thread(target=self._read, daemon=True).start()
        self.wait_event(event="ready")

    def _read(self) -> None:
        for line in self.proc.stdout:
            with self._cond:
                self.events.append(json.loads(line))
                self._cond.notify_all()

    def wait_event(self, timeout: float = 10, since: int = 0, **match: Any) -> dict[str, Any]:
        """The first event after index `since` with these fields."""
        deadline = time.monotonic() + timeout * SLOW
        with self._cond:
            while True:
                for ev in self.events[since:]:
                    if all(ev.get(k) == v for k, v in match.items()):
                        return ev
                left = deadline - time.monotonic()
                assert left > 0, f"no event {match}; got {self.events[since:]}"
                self._cond.wait(left)

    def mark(self) -> int:
        with self._cond:
            return len(self.events)

    def command(self, line: str, reply_event: str) -> dict[str, Any]:
        since = self.mark()
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        return self.wait_event(since=since, event=reply_event)

    def record(self, plat: str) -> dict[str, Any]:
        return self.command(f"record {PLAT[plat]}", "record")

    def sockets(self) -> int:
        return self.command("sockets", "sockets")["count"]

    def statuses(self, plat: str) -> list[str]:
        with self._cond:
            return [e["status"] for e in self.events if e.get("event") == "status" and e["plat"] == PLAT[plat]]

    def log(self) -> str:
        path = self.root / "var" / "shrcadlog.txt"
        return path.read_text(errors="replace") if path.exists() else ""

    def stop(self) -> str:
        if self.proc.poll() is None:
            self.proc.terminate()
        self.proc.wait(10)
        return self.proc.stderr.read()


@pytest.fixture
def make_sim(tmp_path: Path) -> Iterator[Callable[..., Sim]]:
    sims: list[Sim] = []

    def start(script: dict[str, Any] | None = None, args: list[str] | None = None, scale: float = SCALE) -> Sim:
        tmp = tmp_path / f"sim{len(sims)}"
        tmp.mkdir()
        sims.append(Sim(tmp, script, args or [], scale))
        return sims[-1]
    yield start
    for sim in sims:
        sim.stop()


@pytest.fixture
def make_host(tmp_path: Path) -> Iterator[Callable[..., Host]]:
    """Starts the test host; at the end it must stop cleanly, and a sanitizer
    report on its stderr fails the test."""
    if not TESTHOST:
        pytest.skip("QDQ_TESTHOST is not set (run through CTest)")
    hosts: list[Host] = []

    def start(*args: str, scale: float = SCALE, **env: str) -> Host:
        hosts.append(Host(tmp_path / f"root{len(hosts)}", list(args), env, scale))
        return hosts[-1]
    yield start
    for host in hosts:
        stderr = host.stop()
        assert "Sanitizer" not in stderr and "runtime error" not in stderr, stderr
        assert host.proc.returncode == 0, stderr


def wait_until(cond: Callable[[], Any], timeout: float = 10) -> Any:
    deadline = time.monotonic() + timeout * SLOW
    while time.monotonic() < deadline:
        value = cond()
        if value:
            return value
        time.sleep(0.02)
    return cond()


def free_port(address: str) -> int:
    """A port free for both TCP and UDP on `address`."""
    while True:
        with socket.socket() as t, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as u:
            t.bind((address, 0))
            try:
                u.bind((address, t.getsockname()[1]))
            except OSError:
                continue
            return t.getsockname()[1]
