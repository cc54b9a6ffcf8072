"""The manage platform: UDP session, heartbeats, the platform's verdicts."""

from __future__ import annotations

import time

import pytest

from conftest import HOST, IN_NETNS, MULTI, TICK, eventually, scaled


def manage_args(sim, *extra: str) -> tuple[str, ...]:
    return ("--manage-addr", HOST, "--manage-port", str(sim.ports["manage"]), *extra)


def connect_manage_udp(make_sim, make_host, script):
    sim = make_sim(script)
    host = make_host(*manage_args(sim, "--manage-localport", "17150", "--connect", "manage"))
    host.wait_event(event="connect_return", plat=2, ret=1)
    boot, reg = sim.wait(platform="manage", kind="boot"), sim.wait(platform="manage", kind="register")
    assert boot["transport"] == reg["transport"] == "udp"
    assert boot["peer"] == reg["peer"] == f"{HOST}:17150"
    assert reg["checksn_ok"] and reg["userid_ok"]
    # Heartbeats go from the local port to the Register reply's address.
    hbs, since = [], reg["seq"]
    for _ in range(3):
        hbs.append(sim.wait(platform="manage", kind="heartbeat", since=since))
        since = hbs[-1]["seq"]
    assert all(h["peer"] == f"{HOST}:17150" and h["json"]["RPCMethod"] == "Hb" for h in hbs)
    return sim, host, reg, hbs


def test_udp_heartbeat_replies_reach_the_local_service(make_sim, make_host):
    # The answer comes a (scaled) second later, as over a real network: an
    # instant one may still find the heartbeat's own socket bound to the
    # local port, and die with it.
    script = {"platforms": {"manage": {"interval": 10, "answers": {"Hb": [{"delay": 1}] * 3}}}}
    _, host, _, hbs = connect_manage_udp(make_sim, make_host, script)
    # Each answered heartbeat writes the time of day for outside watchers:
    # two answers already, the third one rewrites it.
    beat = host.root / "var/manage_heart_beat_time_file"
    stamp = lambda: (beat.stat().st_mtime_ns, int(beat.read_text() or 0))  # noqa: E731
    first = eventually(lambda: stamp()[1] and stamp(), what="the heartbeat time file")
    later = eventually(lambda: stamp()[0] > first[0] and stamp()[1] and stamp(), what="the file to be rewritten")
    assert first[1] <= later[1] and abs(later[1] - later[0] / 1e9) < 5  # the time of the write
    # The first heartbeat announces the address; once answered, no more.
    assert [(h["json"]["FLAG"], "IPAddr" in h["json"]) for h in hbs] == [("1", True), ("0", False), ("0", False)]
    assert all(b["time"] - a["time"] >= scaled(10) - TICK for a, b in zip(hbs, hbs[1:]))
    assert host.statuses("manage")[:5] == ["connecting", "registering", "connected", "heartbeating", "wait_heatbeat"]


def test_udp_heartbeat_timeouts_connect_anew(make_sim, make_host):
    silent = {"platforms": {"manage": {"answers": {"Hb": ["silence"] * 3}}}}
    sim, host, reg, hbs = connect_manage_udp(make_sim, make_host, silent)
    # Each heartbeat times out after 20 s and is retried after 1 s; the
    # third time-out connects the platform anew.
    assert all(h["json"]["FLAG"] == "1" and "IPAddr" in h["json"] for h in hbs)
    assert all(b["time"] - a["time"] >= scaled(21) - TICK for a, b in zip(hbs, hbs[1:]))
    sim.wait(platform="manage", kind="register", since=reg["seq"])
    eventually(lambda: len(host.statuses("manage")) >= 13, what="the reconnect's statuses")
    assert host.statuses("manage")[:13] == [
        "connecting", "registering", "connected",
        "heartbeating", "try_connect_failed", "heartbeating", "try_connect_failed",
        "heartbeating", "try_connect_failed", "disconnect", "connecting", "registering", "connected"]


@pytest.mark.parametrize("answer, ret, registers, boots", [
    ({"Register": [{"Result": -2}]}, -2, 1, ["udp"]),      # boot again: returned at once
    ({"Register": [{"Result": 0}]}, 0, 1, ["udp"]),        # registered, but no session
    ({"Boot": [{"Result": -4}]}, -1, 0, ["udp", "tcp"]),   # UDP refused: TCP Boot, which stops
    ({"Boot": ["silence"]}, 101, 0, ["udp"]),              # no reply is no connection: no TCP either
])
def test_platform_verdicts_end_the_connect(make_sim, make_host, answer, ret, registers, boots):
    sim = make_sim({"platforms": {"manage": {"answers": answer}}})
    host = make_host(*manage_args(sim, "--connect", "manage"))
    host.wait_event(event="connect_return", plat=2, ret=ret)
    assert host.statuses("manage")[-1] == "connect_failed"
    assert len(sim.records(platform="manage", kind="register")) == registers
    assert [b["transport"] for b in sim.records(platform="manage", kind="boot")] == boots
    if "tcp" in boots:
        # The TCP connection of the refused fallback is not left open.
        eventually(lambda: any(r.get("note") == "closed by peer" for r in
                               sim.records(platform="manage", transport="tcp", direction="event")),
                   what="the TCP Boot's connection to close")
        assert host.sockets() == 0
    if ret == -2:
        # The next connect (the host's retry) starts with a Boot and registers.
        last = sim.last_seq()
        host.command("connect manage")
        sim.wait(platform="manage", kind="boot", since=last)
        host.wait_event(event="connect_return", plat=2, ret=1)


def test_wrong_checksn_is_retried_every_second_until_accepted(make_sim, make_host):
    scale = 0.1  # the retry's reply wait is 1 s: keep it well above loopback latency
    sim = make_sim(scale=scale)
    host = make_host(*manage_args(sim, "--serial", "NOT-THE-SERIAL", "--connect", "manage"), scale=scale)
    regs, since = [], 0
    for _ in range(3):
        regs.append(sim.wait(platform="manage", kind="register", since=since))
        since = regs[-1]["seq"]
    assert not any(r["checksn_ok"] for r in regs)
    assert all(b["time"] - a["time"] >= scaled(1, scale) - TICK for a, b in zip(regs, regs[1:]))
    assert "connected" not in host.statuses("manage")
    # A disconnect while the connect runs arms no reconnect of its own (one
    # would Boot 5 s later, after this connect, which ends a second later).
    assert host.command("disconnect 2", "disconnect_return")["ret"] == 0
    sim.control(cmd="script", script={"platforms": {"manage": {"answers": {"Register": [{"Result": 1}]}}}})
    host.wait_event(event="connect_return", plat=2, ret=1)
    boot = sim.control(cmd="wait", platform="manage", kind="boot", since=sim.last_seq(), timeout=scaled(8, scale))
    assert not boot["ok"], boot


def test_plugin_server_in_register_reply_connects_the_plugin_platform(make_sim, make_host):
    sim = make_sim({"platforms": {"manage": {"extra": {"Register": {"PluginServer": "${PLUGIN}"}}}}})
    host = make_host(*manage_args(sim, "--connect", "manage"))
    reg = sim.wait(platform="plugin", kind="register", timeout=10)
    assert reg["transport"] == "tcp" and reg["checksn_ok"]
    host.wait_event(event="status", plat=3, status="connected")
    assert host.record("plugin")["port"] == sim.ports["plugin"]


def test_register_redirect_is_written_once_and_a_disconnect_reconnects_after_5s(make_sim, make_host):
    # The first platform sends the gateway to the second, which names itself.
    redirect = {"Result": 2, "ServerAddr": HOST, "ServerPort": "${MANAGE_PORT}"}
    second = make_sim({"platforms": {"manage": {"answers": {"Register": [redirect]}}}})
    first = make_sim({"platforms": {"manage": {"answers": {"Register": [
        dict(redirect, ServerPort=str(second.ports["manage"]))]}}}})
    host = make_host(*manage_args(first, "--connect", "manage"))
    host.wait_event(event="connect_return", plat=2, ret=2)
    conf = host.root / "etc/config/system/quickconf.conf"
    assert conf.read_text() == f"manageplatport={second.ports['manage']}\n"  # the address is the same
    written = conf.stat()
    eventually(lambda: "connected" in host.statuses("manage"), what="connected to the second platform")
    last, start = second.last_seq(), time.time()
    assert host.command("disconnect 2", "disconnect_return")["ret"] == 0
    rec = host.record("manage")
    assert (rec["status"], rec["regflag"], rec["heartbeatip"], rec["interval"], rec["mgturl"], rec["socketfd"]) == \
        ("disconnect", 0, "", 0, HOST, -1)
    # The local request service on the manage port ends with the session.
    eventually(lambda: host.sockets() == 0, scaled(4), "the local service to end")
    # Reconnected 5 s later; the redirect is not written again.
    boot = second.wait(platform="manage", kind="boot", since=last, timeout=10)
    assert boot["time"] - start >= scaled(5) - TICK
    eventually(lambda: host.statuses("manage").count("connected") == 2, what="connected again")
    assert (conf.stat().st_ino, conf.stat().st_mtime_ns) == (written.st_ino, written.st_mtime_ns)


def test_manage_connect_clears_the_plugin_platform(make_sim, make_host):
    sim = make_sim()
    host = make_host(*manage_args(sim, "--plugin-addr", HOST, "--plugin-port", str(sim.ports["plugin"]),
                                  "--connect", "plugin"))
    host.wait_event(event="status", plat=3, status="connected")
    host.command("connect manage")
    host.wait_event(event="connect_return", plat=2, ret=1)
    plugin = host.record("plugin")
    assert (plugin["mgturl"], plugin["port"], plugin["regflag"], plugin["status"]) == ("", 0, 0, "")
    closed = eventually(lambda: sim.records(platform="plugin", direction="event", note="closed by peer"),
                        what="the plugin channel to close")
    assert len(closed) == 1


@pytest.mark.skipif(not IN_NETNS, reason="a name lookup may leave the machine outside the private namespace")
@pytest.mark.parametrize("addr, ipmode", [
    ("no-such-platform.invalid", 2),
    # An IPv4 literal does not resolve as IPv6: no address, as above.
    (HOST, 10),
])
def test_unusable_platform_address(make_host, addr, ipmode):
    host = make_host("--manage-addr", addr, "--manage-port", "1", "--ipmode", str(ipmode), "--connect", "manage")
    host.wait_event(event="connect_return", plat=2, ret=101)
    # No address: the connect timer tries again 5 s later, and again.
    connects = lambda: [e["t"] for e in host.events if e.get("status") == "connecting"]  # noqa: E731
    tries = eventually(lambda: len(connects()) >= 3 and connects(), what="two more connects")
    assert all(b - a >= scaled(5) - TICK for a, b in zip(tries, tries[1:]))


@pytest.mark.skipif(not MULTI, reason="needs the private hosts file of the network namespace")
def test_result_minus5_moves_the_boot_to_another_address(make_sim, make_host):
    # One port at both addresses (nothing else listens in the namespace).
    script = {"platforms": {"manage": {"answers": {"Boot": [{"Result": -5}]}}}}
    sims = [make_sim(script, ["--bind", "127.0.0.2", "--manage-port=0"])]
    port = sims[0].ports["manage"]
    sims.append(make_sim(script, ["--bind", "127.0.0.3", f"--manage-port={port}"]))
    host = make_host("--manage-addr", MULTI, "--manage-port", str(port), "--connect", "manage")
    host.wait_event(event="connect_return", plat=2, ret=1, timeout=15)
    boots = sorted((r["time"], i) for i, s in enumerate(sims) for r in s.records(kind="boot"))
    order = [i for _, i in boots[:3]]
    # -5 at one address, -5 at the other, then the first one answers.
    assert order[0] != order[1] and order[2] == order[0], boots
    assert len(sims[order[0]].records(kind="register")) >= 1
    assert host.record("manage")["curip"] == ("127.0.0.2", "127.0.0.3")[order[0]]
