"""Sessions that come and go leave no thread and no descriptor behind."""

from __future__ import annotations

from conftest import HOST, SLOW, eventually
from simproc import counts, thread_names

CYCLES = max(10, int(50 / SLOW))  # fewer on an emulated host, that much slower


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
            eventually(lambda: thread_names(host.proc.pid).count("qdq-channel") == 0, what="the first command's worker to end")
            start = counts(host.proc.pid)
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
    eventually(lambda: counts(host.proc.pid) == start,
               what=lambda: f"threads and descriptors {counts(host.proc.pid)} back to {start}")
    assert len(sim.records(platform="plugin", kind="register")) == CYCLES + 1
