"""qdquickd with the whole-gateway simulator: sessions with all three
platforms, the pushed install ending with the sample plugin running, local
commands on every local port, platform-ordered stop and run, a simulator
restart, and a clean SIGTERM."""

from __future__ import annotations

import base64
import json
import time

from conftest import SERIAL, eventually, local_tcp, local_udp, process_running, quick_install

BUNDLE = "com.qdquick.example.sample"


def ability(cmd_type: str) -> tuple[dict, dict]:
    """A "Post" ability command on the local UDP port: outer reply, decoded answer."""
    parameter = base64.b64encode(json.dumps({"CmdType": cmd_type}).encode()).decode()
    reply = json.loads(local_udp({"RPCMethod": "Post", "ID": "a1", "Parameter": parameter}, 18401))
    return reply, json.loads(base64.b64decode(reply["return_Parameter"]))


def listed(reply: dict) -> dict:
    return {p["Plugin_Name"]: p for p in reply.get("Plugin", [])}


def test_whole_gateway_session_install_local_commands_and_shutdown(gateway):
    g = gateway
    g.start_sim()
    g.start_daemon()
    d = g.daemon
    for name in ("cube", "manage", "plugin"):
        d.wait_line(rf"{name} platform: connected \(")
    d.wait_line(rf"plugin {BUNDLE} 1\.0 is running: sampleplugin, pid \d+", 60)
    assert process_running("sampleplugin")
    d.wait_line("plugin platform: heartbeat answered")
    # Manage heartbeats go by UDP; their answers come back on the local port.
    assert g.control({"cmd": "wait", "platform": "manage", "kind": "heartbeat", "timeout": 30}, timeout=35)["ok"]

    # The Install was answered at once on the plugin channel.
    reply = g.control({"cmd": "wait", "platform": "plugin", "kind": "reply", "timeout": 10})
    assert reply["ok"] and reply["record"]["json"]["ID"] == "install-1"
    assert reply["record"]["json"]["Result"] == 0

    status = eventually(lambda: (s := g.status()) and s["platforms"]["plugin"]["status"] in
                        ("heartbeating", "wait_heatbeat") and s, 10, "plugin heartbeats in the status file")
    assert status["platforms"]["manage"]["address"] == "127.0.0.1:60001"
    assert status["platforms"]["cube"]["status"] == "connected"
    assert status["plugins"][0]["Plugin_Name"] == BUNDLE

    # The same plugin list from the local TCP and UDP ports.
    for answer in (local_tcp({"RPCMethod": "ListPlugin", "ID": "t1"}),
                   json.loads(local_udp({"RPCMethod": "ListPlugin", "ID": "u1"}, 18401))):
        assert answer["Result"] == 0 and answer["ID"] in ("t1", "u1")
        assert listed(answer)[BUNDLE]["Status"] == "Active"

    # Ability commands: the documented set answers, anything else is refused.
    outer, inner = ability("GetDeviceInfo")
    assert outer["Result"] == 0 and "Parameter" not in outer
    assert inner["Result"] == 0 and inner["SN"] == SERIAL and inner["MAC"] == SERIAL[-12:]
    _, inner = ability("GetPlatformStatus")
    assert inner["Platforms"]["plugin"]["Registered"] is True
    _, inner = ability("ListPlugins")
    assert inner["Plugins"][0]["Plugin_Name"] == BUNDLE
    _, inner = ability("Reboot")
    assert inner["Result"] == -1 and "Reboot" in inner["Error"]

    # Quick-install port (Base64 both ways).
    discover = quick_install({"Cmd": "Discover"})
    assert discover["Result"] == 0 and discover["SN"] == SERIAL
    assert quick_install({"Cmd": "Status"})["Platforms"]["manage"]["Registered"] is True
    assert quick_install({"Cmd": "Format"})["Result"] == -1

    # The plugin platform stops the plugin, then runs it again.
    for method, running in (("Stop", False), ("Run", True)):
        r = g.control({"cmd": "push", "platform": "plugin", "wait": 10,
                       "message": {"RPCMethod": method, "ID": method, "Plugin_Name": BUNDLE, "Version": "1.0"}})
        assert r["reply"]["json"] == {"ID": method, "Result": 0}
        eventually(lambda: bool(process_running("sampleplugin")) == running, 10, f"plugin after {method}")

    # SIGTERM: disconnect, stop the plugin, exit 0 promptly.
    started = time.monotonic()
    assert d.stop() == 0
    assert time.monotonic() - started < 6
    assert not process_running("sampleplugin")
    assert g.status()["state"] == "stopped"
    assert "disconnecting the platforms" in d.text()


def test_survives_simulator_restart(gateway):
    g = gateway
    g.start_sim()
    g.start_daemon()
    g.daemon.wait_line("plugin platform: heartbeat answered", 30)
    g.daemon.wait_line(r"manage platform: connected \(", 30)
    assert g.sim.stop() == 0

    g.start_sim()
    # The plugin channel broke: the gateway registers again. The manage
    # session runs over UDP and goes on with its heartbeats (the simulator
    # answers them without a new registration).
    for platform, kind in (("plugin", "register"), ("plugin", "heartbeat"), ("manage", "heartbeat")):
        r = g.control({"cmd": "wait", "platform": platform, "kind": kind, "timeout": 60}, timeout=65)
        assert r["ok"], f"no {platform} {kind} after the restart: {g.daemon.text()[-2000:]}"
    assert local_tcp({"RPCMethod": "ListPlugin", "ID": "after"})["Result"] == 0
    assert g.daemon.stop() == 0
