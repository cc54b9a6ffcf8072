"""Sessions that come and go leave no thread and no descriptor behind."""

from __future__ import annotations

import os
from pathlib import Path

from conftest import HOST, SLOW, eventually

CYCLES = max(10, int(50 / SLOW))  # fewer on an emulated host, that much slower


def resources(pid: int) -> tuple[int, int]:
    return len(os.listdir(f"/proc/{pid}/task")), len(os.listdir(f"/proc/{pid}/fd"))


def message_workers(pid: int) -> int:
    """Threads still handling a message of the plugin channel (by their name)."""
    names = []
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            names.append(Path(f"/proc/{pid}/task/{tid}/comm").read_text().strip())
        except OSError:
            pass  # ended meanwhile
    return names.count("qdq-channel")


def test_connect_disconnect_churn(make_sim, make_host):
    sim = make_sim()
    host = make_host("--plugin-addr", HOST, "--plugin-port", str(sim.ports["plugin"]), "--connect", "plugin")
    host.wait_event(event="status", plat=3, status="connected")
    for cycle in range(CYCLES):
        # The session answers a command (a worker thread of its own), ...
        sim.push("plugin", message={"RPCMethod": "ListPlugin", "ID": str(cycle)})
        if cycle == 0:
            # The session's receive loop runs (it took the command) and the
            # command's worker, done, leaves.
            eventually(lambda: message_workers(host.proc.pid) == 0, what="the first command's worker to end")
            start = resources(host.proc.pid)
        since = len(host.events)
        # ... then the platform dies, and the gateway connects again by
        # itself; or the host disconnects it (cancelling the channel's
        # thread) and connects it again.
        if cycle % 2 == 0:
            assert sim.control(cmd="close", platform="plugin")["closed"] == 1
        else:
            host.command("disconnect 3", "disconnect_return")
            # A connect in the same second draws the same local port, which
            # the old connection holds until the platform has closed its end.
            eventually(lambda: not sim.control(cmd="status")["platforms"]["plugin"]["channels"],
                       what="the platform to close its end")
            host.command("connect plugin")
        host.wait_event(event="status", plat=3, status="connected", since=since)
    sim.push("plugin", message={"RPCMethod": "ListPlugin", "ID": "last"})
    eventually(lambda: resources(host.proc.pid) == start,
               what=lambda: f"threads and descriptors {resources(host.proc.pid)} back to {start}")
    assert len(sim.records(platform="plugin", kind="register")) == CYCLES + 1
