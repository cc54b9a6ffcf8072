"""The manage platform's "RequestPlug-in" order over UDP: the platform's
acknowledgement of the reply, and the resends of a reply it never takes."""

from __future__ import annotations

from conftest import HOST, SLOW, TICK, eventually, scaled


def order_plugin_server(make_sim, make_host, answers, port):
    # One heartbeat only, answered a (scaled) second late as over a real
    # network: an instant answer may find the heartbeat's own socket still
    # bound to the local port, and the heartbeat would time out.
    sim = make_sim({"platforms": {"manage": {"interval": 600, "answers": {"Hb": [{"delay": 1}], **answers}}}})
    host = make_host("--manage-addr", HOST, "--manage-port", str(sim.ports["manage"]), "--connect", "manage")
    host.wait_event(event="connect_return", plat=2, ret=1)
    # The local request service opens before the first heartbeat goes out.
    sim.wait(platform="manage", kind="heartbeat", timeout=10)
    eventually(lambda: len(sim.records(platform="manage", direction="out")) == 3, what="the heartbeat's answer")
    order = {"RPCMethod": "RequestPlug-in", "ID": "9", "Key": "${KEY}", "ServerAddr": HOST, "ServerPort": str(port)}
    reply = sim.control(cmd="udp_send", platform="manage", message=order, wait=5 * SLOW)["reply"]
    assert reply["json"]["Result"] == 0 and set(reply["json"]) == {"ID", "Result", "DevRND"}, reply
    return sim, host, reply


def test_acknowledged_order_connects_the_plugin_platform_at_the_new_address(make_sim, make_host):
    target = make_sim()
    _, host, reply = order_plugin_server(make_sim, make_host, {"reply": [{"Result": 1}]}, target.ports["plugin"])
    reg = target.wait(platform="plugin", kind="register", timeout=10)
    assert reg["transport"] == "tcp" and reg["checksn_ok"]
    # Only the acknowledgement starts the connect, a (scaled) second later.
    assert target.records(kind="boot")[0]["time"] - reply["time"] >= scaled(1) - TICK
    host.wait_event(event="status", plat=3, status="connected")


def test_unacknowledged_reply_is_resent_four_times_then_the_manage_platform_connects_anew(make_sim, make_host):
    sim, _, reply = order_plugin_server(make_sim, make_host, {}, 1)
    boot = sim.wait(platform="manage", kind="boot", since=reply["seq"], timeout=30)
    resends = [r for r in sim.records(platform="manage", kind="reply") if reply["seq"] < r["seq"] < boot["seq"]]
    assert [r["text"] for r in resends] == [reply["text"]] * 4
    gaps = [b["time"] - a["time"] for a, b in zip([reply, *resends], [*resends, boot])]
    # 5 s after the reply, then every 60 s; the reconnect 2 s after the last.
    assert all(scaled(e) - TICK <= g <= scaled(e + 5) + TICK for e, g in zip([5, 60, 60, 60, 2], gaps)), gaps
