"""Shared by the fault and load scenarios: the simulator with extra options,
a session brought all the way up, and the daemon's thread, descriptor and
memory counts."""

from __future__ import annotations

import os
import time
from pathlib import Path

from conftest import PACKAGES, SCALE, SERIAL, SIM, Gateway, Proc, eventually, local_tcp

BUNDLE = "com.qdquick.example.sample"


def start_sim(g: Gateway, *extra: str, scale: str = SCALE) -> None:
    g.sim_runs += 1
    g.sim = Proc([str(SIM), "--gateway", "--serial", SERIAL, "--time-scale", scale, "--packages", PACKAGES,
                  "--control-port", "0", "--install-delay", "1", *extra],
                 g.tmp / f"sim{g.sim_runs}.out", g.env)
    m = g.sim.wait_line(r"^qdquick-sim ready .*control=127\.0\.0\.1:(\d+)", 15)
    g.control_port = int(m.group(1))


def counts(pid: int) -> tuple[int, int]:
    return len(os.listdir(f"/proc/{pid}/task")), len(os.listdir(f"/proc/{pid}/fd"))


def rss_kib(pid: int) -> int:
    for line in Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    return 0


def wait_for(g: Gateway, platform: str, kind: str, since: int = 0, timeout: float = 60) -> int:
    """The sequence number of the first matching record after `since`."""
    r = g.control({"cmd": "wait", "platform": platform, "kind": kind, "since": since, "timeout": timeout},
                  timeout=timeout + 5)
    assert r["ok"], f"no {platform} {kind}: {g.daemon.text()[-2000:]}"
    return r["record"]["seq"]


def last_seq(g: Gateway) -> int:
    return g.control({"cmd": "status"}).get("records", 0)


def up(g: Gateway, *sim_extra: str) -> tuple[int, int]:
    """Starts the simulator and the daemon, waits for the whole session (three
    platforms, the plugin installed and running unless the simulator orders
    no install, heartbeats), and returns the
    daemon's settled thread and descriptor counts."""
    start_sim(g, *sim_extra)
    g.start_daemon()
    for name in ("cube", "manage", "plugin"):
        g.daemon.wait_line(rf"{name} platform: connected \(")
    if "--no-install" not in sim_extra:
        g.daemon.wait_line(rf"plugin {BUNDLE} 1\.0 is running", 60)
    g.daemon.wait_line("plugin platform: heartbeat answered", 30)
    wait_for(g, "manage", "heartbeat")
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
    try:
        eventually(lambda: (c := counts(pid))[0] <= base[0] and c[1] <= base[1], timeout, "")
    except AssertionError:
        raise AssertionError(f"threads and descriptors not back to {base}: now {counts(pid)}, "
                             f"threads {describe_threads(pid)}, descriptors {describe_fds(pid)}") from None


def describe_threads(pid: int) -> list[str]:
    """Each thread's name and what it waits in: enough to tell which one
    stayed."""
    out = []
    for tid in sorted(os.listdir(f"/proc/{pid}/task"), key=int):
        try:
            task = Path(f"/proc/{pid}/task/{tid}")
            out.append(f"{(task / 'comm').read_text().strip()}:{(task / 'wchan').read_text()}")
        except OSError:
            pass
    return out


def describe_fds(pid: int) -> list[str]:
    out = []
    for fd in sorted(os.listdir(f"/proc/{pid}/fd"), key=int):
        try:
            out.append(f"{fd}:{os.readlink(f'/proc/{pid}/fd/{fd}')}")
        except OSError:
            pass
    return out


def push_and_answer(g: Gateway, message: dict, timeout: float = 15, by_id: bool = True) -> dict:
    """Pushes a command with an "ID" on the plugin channel and returns the
    gateway's answer to it (with by_id false: the next answer, for replies
    that do not echo the command). The answer may be recorded before the
    push itself, so it is looked for from before the push."""
    since = last_seq(g)
    assert g.control({"cmd": "push", "platform": "plugin", "message": message})["ok"]
    while True:
        r = g.control({"cmd": "wait", "platform": "plugin", "kind": "reply", "since": since, "timeout": timeout},
                      timeout=timeout + 5)
        assert r["ok"], f"no answer to {message.get('RPCMethod')}: {r}"
        if not by_id or r["record"]["json"].get("ID") == message["ID"]:
            return r["record"]["json"]
        since = r["record"]["seq"]
