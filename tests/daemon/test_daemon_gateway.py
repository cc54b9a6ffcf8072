"""qdquickd with the whole-gateway simulator: sessions with all three
platforms, the pushed install ending with the sample plugin running, local
commands on every local port, platform-ordered stop and run, and a clean
SIGTERM. (A simulator restart: test_daemon_faults.py.)"""

from __future__ import annotations

import base64
import calendar
import json
import re
import shutil
import signal
import subprocess
import time
from pathlib import Path

from conftest import BUNDLE, CLI, HOST, SERIAL, cli, eventually, find_process, local_tcp, local_udp, quick_install, up


def ability(cmd_type: str) -> tuple[dict, dict]:
    """A "Post" ability command on the local UDP port: outer reply, decoded answer."""
    parameter = base64.b64encode(json.dumps({"CmdType": cmd_type}).encode()).decode()
    reply = json.loads(local_udp({"RPCMethod": "Post", "ID": "a1", "Parameter": parameter}))
    return reply, json.loads(base64.b64decode(reply["return_Parameter"]))


def printed_status(g, running: bool = True) -> dict:
    """The daemon's status file as `qdquick-cli status` prints it, each
    platform's "changed" as Unix seconds; it exits 8 once the daemon stopped."""
    done = subprocess.run([CLI, "status", f"--root={g.root}", "--json"], capture_output=True, text=True, timeout=30)
    assert done.returncode == (0 if running else 8), done.stderr
    status = json.loads(done.stdout)
    for p in status["platforms"].values():
        p["changed"] = calendar.timegm(time.strptime(p["changed"], "%Y-%m-%dT%H:%M:%SZ"))
    return status


def test_whole_gateway_session_install_local_commands_and_shutdown(gateway):
    g = gateway
    began = int(time.time())
    # A program of the machine named like the plugin: no stop may touch it.
    shutil.copy("/bin/sleep", g.tmp / "sampleplugin")
    decoy = subprocess.Popen([str(g.tmp / "sampleplugin"), "60"])
    up(g)  # manage heartbeats go by UDP; their answers come back on the local port

    def plugin() -> int:
        return find_process("sampleplugin", g.daemon.popen.pid)

    def reported() -> list[int]:
        return [int(pid) for pid in re.findall(r"is running: sampleplugin, pid (\d+)", g.daemon.text())]

    # The pid the daemon reports is the plugin's own.
    assert eventually(lambda: reported(), 10, "the running plugin reported")[-1] == plugin() != 0
    # The Install was answered at once on the plugin channel.
    reply = g.sim.wait(10, platform="plugin", kind="reply")
    assert reply["json"]["ID"] == "install-1" and reply["json"]["Result"] == 0

    status = eventually(lambda: (s := printed_status(g))["platforms"]["plugin"]["status"] in
                        ("heartbeating", "wait_heatbeat") and s, 10, "plugin heartbeats in the status file")
    assert status["platforms"]["manage"]["address"] == "127.0.0.1:60001"
    assert status["platforms"]["cube"]["status"] == "connected"
    assert status["version"] and status["state"] == "running" and status["problems"] == []
    assert all(status["platforms"][p]["last_heartbeat"] for p in ("manage", "plugin"))
    assert all(began <= p["changed"] <= time.time() for p in status["platforms"].values())
    assert status["plugins"][0]["Plugin_Name"] == BUNDLE

    # The same plugin list from the local UDP and TCP ports, asked as a
    # person would.
    for transport in ("--udp", "--tcp"):
        answer = cli(transport, json.dumps({"RPCMethod": "ListPlugin", "ID": transport}))
        assert answer["Result"] == 0 and answer["ID"] == transport
        assert {p["Plugin_Name"]: p["Status"] for p in answer["Plugin"]}[BUNDLE] == "Active"

    # Anonymous local plugin orders act on nothing: no download, the plugin
    # keeps running. (The order reaches the daemon's install hook before the
    # answer leaves, so the answer is the moment to look.)
    url = f"http://{HOST}:{g.sim.ports['packages']}/local-order.cpk"
    lan_install = {"RPCMethod": "Install", "ID": "l1", "Plugin_Name": "com.lan.evil", "Version": "1",
               "Download_url": url, "OS": 0}
    lan_stop = {"RPCMethod": "Stop", "ID": "l2", "Plugin_Name": BUNDLE, "Version": "1.0"}
    for ask in (lambda r: json.loads(local_udp(r)), local_tcp):
        assert [ask(lan_install), ask(lan_stop)] == [{"ID": "l1", "Result": -15}, {"ID": "l2", "Result": -15}]
    assert "com.lan.evil" not in g.daemon.text()
    assert not [r for r in g.sim.records(platform="packages") if "local-order" in r["text"]]
    assert find_process("sampleplugin")

    # Ability commands and the quick-install port (Base64 both ways) answer
    # from the live gateway. (The refusals: test_daemon_parts.cpp.)
    outer, inner = ability("GetDeviceInfo")
    assert outer["Result"] == 0 and "Parameter" not in outer
    assert inner["Result"] == 0 and inner["SN"] == SERIAL and inner["MAC"] == SERIAL[-12:]
    assert ability("GetPlatformStatus")[1]["Platforms"]["plugin"]["Registered"] is True
    assert ability("ListPlugins")[1]["Plugins"][0]["Plugin_Name"] == BUNDLE
    assert quick_install({"Cmd": "Status"})["Platforms"]["manage"]["Registered"] is True

    # The plugin platform stops the plugin, then runs it again.
    for method, running in (("Stop", False), ("Run", True)):
        r = g.sim.control(cmd="push", platform="plugin", wait=10,
                          message={"RPCMethod": method, "ID": method, "Plugin_Name": BUNDLE, "Version": "1.0"})
        assert r["reply"]["json"] == {"ID": method, "Result": 0}
        eventually(lambda: bool(plugin()) == running, 10, f"plugin after {method}")
    eventually(lambda: len(reported()) == 2 and reported()[-1] == plugin(), 10, "the restarted plugin reported")
    last = plugin()

    # SIGTERM: disconnect, stop the plugin, exit 0 promptly. (SIGINT:
    # test_daemon_config.py.)
    started, stopped_at = time.monotonic(), int(time.time())
    assert g.daemon.stop(signal.SIGTERM) == 0
    assert time.monotonic() - started < 6
    assert not Path(f"/proc/{last}").exists() or "Z" in Path(f"/proc/{last}/stat").read_text().rsplit(")", 1)[1][:3]
    assert decoy.poll() is None, "a process named like the plugin was stopped"
    decoy.kill()
    decoy.wait()
    assert "SIGTERM received: disconnecting the platforms" in g.daemon.text()
    final = printed_status(g, running=False)
    assert final["state"] == "stopped"
    assert {name: (p["status"], p["changed"] >= stopped_at) for name, p in final["platforms"].items()} == \
        dict.fromkeys(("cube", "manage", "plugin"), ("disconnect", True))
