"""End-to-end fixtures: the platform simulator and the library's test host
(qdq-testhost) as processes on loopback, both on one scaled clock, the host
inside a private root directory of its own."""

from __future__ import annotations

import json
import os
import shlex
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Callable, Iterator

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from simproc import HOST, SLOW, Sim, eventually  # noqa: E402,F401

# A cross build runs the test host under its emulator (SLOW times slower).
EMULATOR = shlex.split(os.environ.get("QDQ_EMULATOR", ""))
# QDQUICK_TIME_SCALE of the host and --time-scale of the simulator: the
# 20 s heartbeat reply wait is 1 s, long enough for a loaded sanitizer run.
SCALE = 0.05
TICK = 0.1 * SLOW  # slack for one timer tick and scheduling, in real seconds
IN_NETNS = os.environ.get("QDQ_E2E_NETNS") == "1"  # private namespace: fixed ports are free
MULTI = os.environ.get("QDQ_E2E_MULTI", "")  # a name with two loopback addresses
SERIAL = "SN-E2E-0001"
LOID = "LOID-E2E"
MAC = "00:11:22:33:44:55"
TESTHOST = os.environ.get("QDQ_TESTHOST", "")
PLAT = {"cube": 1, "manage": 2, "plugin": 3}


def scaled(seconds: float, scale: float = SCALE) -> float:
    """Real seconds of `seconds` library seconds."""
    return seconds * scale * SLOW


class Host:
    """qdq-testhost: every line it prints is a JSON event, kept in order."""

    def __init__(self, root: Path, args: list[str], env: dict[str, str], scale: float) -> None:
        self.root = root
        for d in ("var", "etc/config/system", "qdconf", "tmp"):
            (root / d).mkdir(parents=True, exist_ok=True)
        full_env = dict(os.environ, QDQUICK_ROOT=str(root), QDQUICK_TIME_SCALE=str(scale * SLOW),
                        QDQUICK_DEFAULT_CUBE=HOST, QDQUICK_DEFAULT_MANAGE=HOST, **env)
        cmd = EMULATOR + [TESTHOST, "--serial", SERIAL, "--mac", MAC, "--loid", LOID, "--ipaddr", "192.168.1.10"] + args
        self.proc = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE, text=True, env=full_env)
        self.events: list[dict[str, Any]] = []
        threading.Thread(target=self._read, daemon=True).start()
        self.wait_event(event="ready")

    def _read(self) -> None:
        for line in self.proc.stdout:
            self.events.append(json.loads(line))

    def wait_event(self, timeout: float = 10, since: int = 0, **match: Any) -> dict[str, Any]:
        """The first event after index `since` with these fields."""
        return eventually(lambda: next((ev for ev in self.events[since:]
                                        if all(ev.get(k) == v for k, v in match.items())), None),
                          timeout, lambda: f"event {match}; got {self.events[since:]}")

    def command(self, line: str, reply_event: str | None = None) -> dict[str, Any] | None:
        """Sends a command line and waits for its reply event, if it has one."""
        since = len(self.events)
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        return self.wait_event(since=since, event=reply_event) if reply_event else None

    def record(self, plat: str) -> dict[str, Any]:
        return self.command(f"record {PLAT[plat]}", "record")

    def sockets(self) -> int:
        return self.command("sockets", "sockets")["count"]

    def statuses(self, plat: str) -> list[str]:
        return [e["status"] for e in self.events if e.get("event") == "status" and e["plat"] == PLAT[plat]]

    def stop(self) -> str:
        if self.proc.poll() is None:
            self.proc.terminate()
        self.proc.wait(10)
        return self.proc.stderr.read()


@pytest.fixture
def make_sim(tmp_path: Path) -> Iterator[Callable[..., Sim]]:
    """Starts a simulator on loopback, on free ports unless `args` names them."""
    sims: list[Sim] = []

    def start(script: dict[str, Any] | None = None, args: list[str] | None = None, scale: float = SCALE) -> Sim:
        given = " ".join(args or [])
        defaults = [] if "--bind" in given else ["--bind", HOST]
        defaults += [f"--{n}-port=0" for n in ("cube", "manage", "plugin", "message") if f"--{n}-port" not in given]
        sims.append(Sim(tmp_path / f"sim{len(sims)}", ["--serial", SERIAL, "--loid", LOID, "--time-scale",
                                                        str(scale * SLOW), *defaults, *(args or [])], script))
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

