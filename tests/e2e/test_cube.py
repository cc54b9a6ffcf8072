"""The cube platform."""

from __future__ import annotations

import pytest

from conftest import HOST, IN_NETNS, TICK, eventually, scaled


@pytest.mark.skipif(not IN_NETNS, reason="needs the fixed default port, free only in the private namespace")
def test_cube_default_address_registers_and_wipes_the_manage_record(make_sim, make_host):
    sim = make_sim(args=["--cube-port=12112"])
    host = make_host("--manage-addr", "192.0.2.7", "--manage-port", "1", "--connect", "cube")
    host.wait_event(event="connect_return", plat=1, ret=1)
    reg = sim.wait(platform="cube", kind="register")
    assert reg["json"]["RPCMethod"] == "RegisterFirst" and reg["checksn_ok"]
    cube = host.record("cube")
    assert (cube["mgturl"], cube["port"], cube["cuberegistered"], cube["socketfd"]) == (HOST, 12112, 1, -1)
    manage = host.record("manage")
    assert (manage["mgturl"], manage["port"]) == ("", 0)


def test_cube_falls_back_to_tcp_after_unusable_boots(make_sim, make_host):
    scale = 0.01
    sim = make_sim({"platforms": {"cube": {"answers": {"BootFirst": [{"raw": "not json"}] * 4}}}}, scale=scale)
    make_host("--cube-addr", HOST, "--cube-port", str(sim.ports["cube"]), "--connect", "cube", scale=scale)
    first = sim.wait(platform="cube", kind="register", timeout=20)
    assert first["transport"] == "tcp"
    udp = [b["time"] for b in sim.records(platform="cube", kind="boot", transport="udp")]
    assert len(udp) == 4
    gaps = [b - a for a, b in zip(udp, udp[1:])]
    # 60 s, a new round after 3 to 6 minutes, 60 s; then TCP. (The upper
    # bounds leave room for a loaded machine, well short of the next rule.)
    assert scaled(60, scale) - TICK <= gaps[0] < scaled(120, scale)
    assert scaled(180, scale) - TICK <= gaps[1] < scaled(420, scale)
    assert scaled(60, scale) - TICK <= gaps[2] < scaled(120, scale)
    # A positive Result over TCP registers the cube again every 180 s.
    again = sim.wait(platform="cube", kind="register", since=first["seq"], timeout=10)
    assert again["peer"] == first["peer"]
    assert again["time"] - first["time"] >= scaled(180, scale) - TICK


def test_cube_registered_over_tcp_leaves_its_reconnect_to_the_host(make_sim, make_host):
    scale = 0.005  # the reconnect comes 1800 s later
    sim = make_sim({"platforms": {"cube": {"answers": {"BootFirst": [{"Result": -4}, {"Result": 1}]}}}}, scale=scale)
    host = make_host("--cube-addr", HOST, "--cube-port", str(sim.ports["cube"]), "--connect", "cube", scale=scale)
    done = host.wait_event(event="connect_return", plat=1, ret=1)
    assert [b["transport"] for b in sim.records(platform="cube", kind="boot")] == ["udp", "tcp"]
    # Registered by the TCP Boot's Result: the connection is not kept.
    assert host.sockets() == 0 and host.record("cube")["socketfd"] == -1
    eventually(lambda: sim.records(platform="cube", direction="event", note="closed by peer"),
               what="the cube connection to close")
    timer = host.wait_event(event="timer", id=8, timeout=scaled(1800, scale) + 10)
    assert timer["t"] - done["t"] >= scaled(1800, scale) - TICK and timer["period"] == 1800
