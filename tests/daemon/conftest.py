"""qdquickd against the whole-gateway simulator, on loopback inside a private
network namespace (run_e2e.sh), so the gateway's fixed ports are free; and
what the scenarios share: a session brought all the way up, the local
ports, and the daemon's thread, descriptor and memory counts."""

from __future__ import annotations

import base64
import contextlib
import json
import os
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path
from typing import Iterator

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from simproc import HOST, Child, Sim, counts, eventually, frame, recv_exact, recv_frame  # noqa: E402,F401

REPO = Path(__file__).resolve().parents[2]
DAEMON = os.environ.get("QDQUICKD", str(REPO / "build" / "daemon" / "qdquickd"))
PACKAGES = os.environ.get("QDQ_PACKAGES", str(REPO / "build" / "examples" / "sample-plugin" / "packages"))
CLI = os.environ.get("QDQ_CLI", str(REPO / "build" / "tools" / "cli" / "qdquick-cli"))
SCALE = "0.05"
SERIAL = "SN0042TEST"
BUNDLE = "com.qdquick.example.sample"


def local_tcp(request: dict, port: int = 18998, timeout: float = 10) -> dict:
    with socket.create_connection((HOST, port), timeout=timeout) as s:
        s.sendall(frame(json.dumps(request).encode()))
        return json.loads(recv_frame(s))


def local_udp(request: dict | bytes, port: int = 18401, timeout: float = 10) -> bytes:
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(timeout)
        s.sendto(request if isinstance(request, bytes) else json.dumps(request).encode(), (HOST, port))
        return s.recv(65535)


def cli(*args: str) -> dict:
    """What qdquick-cli printed, as JSON; it must have exited 0."""
    done = subprocess.run([CLI, *args], capture_output=True, text=True, timeout=30)
    assert done.returncode == 0, f"qdquick-cli {' '.join(args)}: exit {done.returncode}, {done.stderr}"
    return json.loads(done.stdout)


def quick_install(request: dict) -> dict:
    raw = local_udp(base64.b64encode(json.dumps(request).encode()), 7998)
    return json.loads(base64.b64decode(raw))


def find_process(name: str, ancestor: int = 0) -> int:
    """A live process called `name`; with `ancestor`, only one below it
    (other gateways may run on this machine)."""
    parents, names = {}, {}
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                stat = (entry / "stat").read_text()
                state, parent = stat[stat.rindex(")") + 2:].split()[:2]
                if state != "Z":
                    parents[int(entry.name)] = int(parent)
                    names[int(entry.name)] = (entry / "comm").read_text().strip()
            except (OSError, ValueError):
                continue
    for pid in (p for p, comm in names.items() if comm == name):
        above = pid
        while ancestor and above not in (0, 1, ancestor):
            above = parents.get(above, 0)
        if not ancestor or above == ancestor:
            return pid
    return 0


class Gateway:
    """One test's world: a private root, the simulator and qdquickd."""

    def __init__(self, tmp: Path) -> None:
        self.tmp = tmp
        self.root = tmp / "root"
        (self.root / "etc").mkdir(parents=True)
        self.config_path = self.root / "etc" / "qdquickd.json"
        self.env = dict(os.environ, QDQUICK_TIME_SCALE=SCALE, PYTHONDONTWRITEBYTECODE="1")
        self.sim: Sim | None = None
        self.daemon: Child | None = None
        self.sim_runs = 0

    def start_sim(self, *extra: str, scale: str = SCALE) -> None:
        self.sim_runs += 1
        self.sim = Sim(self.tmp / f"sim{self.sim_runs}", ["--gateway", "--serial", SERIAL, "--time-scale", scale,
                                                          "--packages", PACKAGES, "--install-delay", "1", *extra],
                       env=self.env)

    def configure(self, **sections: object) -> None:
        """The shipped configuration in this root, with `sections` merged in."""
        config = json.loads((REPO / "daemon" / "qdquickd.json").read_text())
        config.update(root=str(self.root), retry_seconds=20)
        config["device"]["serial"] = SERIAL
        for key, value in sections.items():
            config[key] = {**config[key], **value} if isinstance(value, dict) else value
        self.config_path.write_text(json.dumps(config))

    def start_daemon(self, command: list[str] | None = None) -> None:
        """qdquickd (or `command`, which runs it) with the configuration in
        this root, the shipped one unless configure() wrote another."""
        if not self.config_path.exists():
            self.configure()
        self.daemon = Child(command or [DAEMON, "-c", str(self.config_path)], self.tmp / "daemon.out", self.env)

    def status(self) -> dict:
        try:
            return json.loads((self.root / "var" / "qdquickd" / "status.json").read_text())
        except (OSError, ValueError):
            return {}

    def wait_for(self, platform: str, kind: str, since: int = 0, timeout: float = 60) -> int:
        """The sequence number of the first such record after `since`."""
        r = self.sim.control(cmd="wait", platform=platform, kind=kind, since=since, timeout=timeout)
        assert r["ok"], f"no {platform} {kind}: {self.daemon.text()[-2000:]}"
        return r["record"]["seq"]

    def close(self) -> None:
        for p in (self.daemon, self.sim):
            if p is not None:
                p.stop(signal.SIGKILL)
        # A failed test may leave the plugin behind; the next test needs it gone.
        while pid := find_process("sampleplugin"):
            os.kill(pid, signal.SIGKILL)
            eventually(lambda p=pid: find_process("sampleplugin") != p, 5, "a killed plugin to end")


@pytest.fixture
def gateway(tmp_path: Path) -> Iterator[Gateway]:
    g = Gateway(tmp_path)
    yield g
    g.close()


def up(g: Gateway, *sim_extra: str, command: list[str] | None = None) -> tuple[int, int]:
    """Starts the simulator and the daemon, waits for the whole session (three
    platforms, the plugin running unless the simulator orders no install,
    heartbeats), and returns the daemon's settled thread and descriptor
    counts."""
    g.start_sim(*sim_extra)
    g.start_daemon(command)
    for name in ("cube", "manage", "plugin"):
        g.daemon.wait_line(rf"{name} platform: connected \(")
    if "--no-install" not in sim_extra:
        g.daemon.wait_line(rf"plugin {BUNDLE} 1\.0 is running: sampleplugin, pid \d+", 60)
    g.daemon.wait_line("plugin platform: heartbeat answered")
    g.wait_for("manage", "heartbeat")
    return settled_counts(g.daemon.popen.pid)


def settled_counts(pid: int, seconds: float = 1.5) -> tuple[int, int]:
    """The smallest counts seen over a short while: transient workers
    (timer expiries, event pushes) come and go."""
    low = counts(pid)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        now = counts(pid)
        low = (min(low[0], now[0]), min(low[1], now[1]))
        time.sleep(0.02)
    return low


def answers_and_settles(g: Gateway, base: tuple[int, int], timeout: float = 30) -> None:
    """The daemon answers a local command, and its thread and descriptor
    counts come back to the baseline."""
    assert local_tcp({"RPCMethod": "ListPlugin", "ID": "probe"})["Result"] == 0
    pid = g.daemon.popen.pid
    eventually(lambda: (c := counts(pid))[0] <= base[0] and c[1] <= base[1], timeout,
               lambda: f"threads and descriptors back to {base}: now {counts(pid)}, {describe(pid)}")


def describe(pid: int) -> str:
    """Each thread's name and what it waits in, and each descriptor's target:
    enough to tell which one stayed."""
    out = []
    for task in Path(f"/proc/{pid}/task").iterdir():
        with contextlib.suppress(OSError):
            out.append(f"thread {(task / 'comm').read_text().strip()}:{(task / 'wchan').read_text()}")
    for fd in Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(OSError):
            out.append(f"fd {fd.name}:{os.readlink(fd)}")
    return ", ".join(out)
