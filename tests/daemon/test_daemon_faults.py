"""Faults the gateway survives, end to end against the simulator: after
each the daemon answers a local command and its thread and descriptor
counts are back where they were."""

from __future__ import annotations

import json
import signal
import socket

from conftest import BUNDLE, answers_and_settles, eventually, local_tcp, local_udp, up

# The manage platform's part of the simulator's own gateway script: a
# script loaded through the control port replaces it.
MANAGE = {"extra": {"Register": {"PluginServer": "${PLUGIN}"}}}


def test_platform_killed_and_restarted_then_silent(gateway):
    g = gateway
    base = up(g)
    assert g.sim.stop(signal.SIGKILL) == -signal.SIGKILL
    # While the platforms are gone the local ports still answer.
    assert local_tcp({"RPCMethod": "ListPlugin", "ID": "alone"})["Result"] == 0
    g.start_sim("--no-install")
    # The plugin channel broke: the gateway registers again. The manage
    # session runs over UDP and goes on with its heartbeats.
    for platform, kind in (("plugin", "register"), ("plugin", "heartbeat"), ("manage", "heartbeat")):
        g.wait_for(platform, kind)
    answers_and_settles(g, base)
    # Then the platform takes each connection and never answers.
    silent = ["silence"] * 4
    since = g.sim.last_seq()
    assert g.sim.control(cmd="script", script={"platforms": {
        "manage": MANAGE, "plugin": {"answers": {"heartbeat": silent, "boot": silent}}}})["ok"]
    # The unanswered heartbeat ends the channel; each new connection's Boot
    # is taken and never answered, until the platform speaks again.
    for _ in range(3):
        since = g.sim.wait(60, platform="plugin", kind="boot", action="silence", since=since)["seq"]
        assert local_tcp({"RPCMethod": "ListPlugin", "ID": "meanwhile"})["Result"] == 0
    g.wait_for("plugin", "register", since)
    g.wait_for("plugin", "heartbeat", since)
    answers_and_settles(g, base)
    assert g.daemon.stop() == 0


def test_cube_platform_refusing_the_first_connect(gateway):
    g = gateway
    g.start_sim("--no-install")
    # Both Boots of the first connect (UDP, then TCP) refused.
    assert g.sim.control(cmd="script", script={"platforms": {
        "manage": MANAGE, "cube": {"answers": {"BootFirst": [{"Result": -3}] * 2}}}})["ok"]
    g.start_daemon()
    failed = g.daemon.wait_line(r"cube platform: connect_failed \(-3\)")
    # The retry timer comes back to the daemon, which connects again and
    # then brings back the manage session that this connect clears.
    registered = g.wait_for("cube", "register")
    assert g.daemon.wait_line(r"cube platform: connected \(").start() > failed.start()
    g.wait_for("manage", "heartbeat", registered)
    assert local_tcp({"RPCMethod": "ListPlugin", "ID": "after"})["Result"] == 0
    assert g.daemon.stop() == 0


def test_silent_services_while_the_logs_are_unwritable(gateway):
    """A message server and a job manager that never answer, while no log
    file can be opened: every command still answered, logging resumes."""
    g = gateway
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as jm:
        jm.bind(("127.0.0.1", 17401))  # takes every command, answers none
        base = up(g, "--jobmanager-port", "0")
        logs = [g.root / "var" / name for name in ("shrcadlog.txt", "shrcadlog-bak.txt", "shrcadlog-dpi.txt")]
        # A directory where a log file should be: no open for appending can
        # succeed, whoever the daemon runs as.
        for log in logs:
            log.unlink(missing_ok=True)
            log.mkdir()
        since = g.sim.last_seq()
        assert g.sim.control(cmd="script", script={"platforms": {"manage": MANAGE},
                                                   "message": {"answers": ["silence"] * 10}})["ok"]
        for i in range(6):
            assert json.loads(local_udp({"RPCMethod": "EVENT_INFOR", "Event": f"door {i}"})) == {"Result": 0}
        pushed = since
        for _ in range(6):
            pushed = g.sim.wait(30, platform="message", kind="push", action="silence", since=pushed)["seq"]
        order = {"RPCMethod": "SetPlug-inParameterValues", "ID": "jm", "Plugin_Name": BUNDLE,
                 "Version": "1.0", "Parameter": "e30="}
        # The refusal is a reply of its own, without the command's keys.
        assert g.sim.push("plugin", 20, by_id=False, message=order)["json"] == {"Result": -100}
        assert jm.recv(65535)  # it was asked
        for i in range(20):
            assert local_tcp({"RPCMethod": "ListPlugin", "ID": f"blind{i}"})["Result"] == 0
        g.wait_for("manage", "heartbeat", since)
        g.wait_for("plugin", "heartbeat", since)
        for log in logs:
            log.rmdir()
        assert local_tcp({"RPCMethod": "ListPlugin", "ID": "seen"})["Result"] == 0
        eventually(lambda: logs[0].is_file() and "ListPlugin" in logs[0].read_text(errors="replace"), 10,
                   "logging to resume")
        answers_and_settles(g, base)
