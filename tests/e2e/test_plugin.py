"""The plugin platform: TCP session and its persistent channel."""

from __future__ import annotations

import time

import pytest

from conftest import HOST, IN_NETNS, TICK, eventually, scaled


def start_plugin(make_sim, make_host, script=None, args=None):
    sim = make_sim(script, args)
    host = make_host("--plugin-addr", HOST, "--plugin-port", str(sim.ports["plugin"]), "--connect", "plugin")
    host.wait_event(event="status", plat=3, status="wait_heatbeat")
    return sim, host


def closes(sim):
    return [r for r in sim.records(platform="plugin", direction="event") if r.get("note", "").startswith("closed")]


def test_channel_carries_heartbeats_and_commands_and_survives_a_close(make_sim, make_host):
    sim, host = start_plugin(make_sim, make_host,
                             {"platforms": {"plugin": {"answers": {"Heartbeat": ["answer", "answer", "close"]}}}})
    records = sim.records(platform="plugin")
    assert {r["transport"] for r in records} == {"tcp"}
    assert len({r["peer"] for r in records}) == 1  # Boot, Register and heartbeats on one connection
    assert host.statuses("plugin")[:5] == ["connecting", "registering", "connected", "heartbeating", "wait_heatbeat"]
    sockets = host.sockets()

    # A command from the platform is answered on the channel: no plugin is
    # installed, and the keys no handler takes are echoed. A Disconnect not
    # in the exact text is a command like any other: the channel goes on
    # (the gateway is not the one that closes it below).
    assert sim.push("plugin", message={"RPCMethod": "ListPlugin", "ID": "1"})["json"] == \
        {"ID": "1", "Result": 0, "Plugin": []}
    assert "Result" in sim.push("plugin", text='{"RPCMethod": "Disconnect","ID":"7"}')["json"]

    # The platform closes the channel (third heartbeat): the gateway
    # connects again 5 s later, on a new connection, without a leak.
    closed = eventually(lambda: closes(sim), what="the channel to close")
    assert closed[0]["note"] == "closed by simulator"
    boot = sim.wait(platform="plugin", kind="boot", since=closed[0]["seq"], timeout=10)
    assert boot["time"] - closed[0]["time"] >= scaled(5) - TICK
    connected = [r for r in sim.records(platform="plugin", direction="event") if r["note"] == "connected"]
    assert len(connected) == 2
    host.wait_event(event="status", plat=3, status="wait_heatbeat", since=len(host.events) - 1)
    assert host.sockets() == sockets


def test_disconnect_command_ends_the_session_and_the_gateway_connects_again(make_sim, make_host):
    sim, host = start_plugin(make_sim, make_host)
    reply = sim.push("plugin", text='{"RPCMethod":"Disconnect","ID":"7"}')
    assert "Result" in reply["json"]
    host.wait_event(event="status", plat=3, status="disconnect")
    sim.wait(platform="plugin", kind="boot", since=reply["seq"], timeout=10)


def test_host_disconnect_cancels_the_channel(make_sim, make_host):
    sim, host = start_plugin(make_sim, make_host)
    assert host.command("disconnect 3", "disconnect_return")["ret"] == 0
    assert eventually(lambda: closes(sim), what="the channel to close")[0]["note"] == "closed by peer"
    rec = host.record("plugin")
    assert (rec["status"], rec["regflag"], rec["socketfd"], rec["heartbeatip"], rec["interval"]) == \
        ("disconnect", 0, -1, "", 0)
    eventually(lambda: host.sockets() == 0, what="no socket left")
    # The loop's thread (the host's connect thread) ended by cancellation,
    # and nothing reconnects the plugin platform.
    time.sleep(scaled(40))
    assert len(sim.records(kind="boot")) == 1
    assert not any(e.get("event") == "connect_return" for e in host.events)


@pytest.mark.skipif(not IN_NETNS, reason="the job manager's port 17401 is free only in the private namespace")
def test_job_manager_answer_goes_back_unchanged_and_its_silence_is_minus_100(make_sim, make_host):
    # The job manager takes a (scaled) second to answer the first order and
    # never answers the second.
    script = {"jobmanager": {"answers": [{"delay": 1, "Status": "applied"}, "silence"]}}
    sim, _ = start_plugin(make_sim, make_host, script, ["--jobmanager-port", "17401"])
    order = {"RPCMethod": "SetPlug-inParameterValues", "ID": "5", "Plugin_Name": "p", "Version": "1", "Parameter": "x"}
    reply = sim.push("plugin", message=order)
    answered = eventually(lambda: sim.records(platform="jobmanager", direction="out"), what="the answer's record")
    assert [r["json"] for r in sim.records(platform="jobmanager", direction="in")] == [order]
    assert reply["text"] == answered[0]["text"] and reply["json"] == {"ID": "5", "Status": "applied", "Result": 0}
    # Silent for the whole (scaled) 30 s wait: the gateway's own answer.
    reply = sim.push("plugin", by_id=False, message=dict(order, ID="6"))
    assert reply["json"] == {"Result": -100} and len(sim.records(platform="jobmanager", direction="in")) == 2
