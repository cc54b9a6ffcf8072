"""Scripted answers, controlled commands, and shutdown. (A scripted push:
test_gateway.py; a push that waits for its answer, "close", scripted
verdicts, the job manager's scripted answers, and an order sent with
udp_send whose ${KEY} the gateway accepts: the end-to-end tests.)"""

from __future__ import annotations

import json
import signal
import socket
import subprocess
import time

import pytest
from conftest import LOID, SERIAL, SIM, TcpGateway, UdpGateway, boot_register, md5u

SEQUENCE_SCRIPT = {"platforms": {"manage": {
    "intervals": {"heartbeat": 7},
    "extra": {"Register": {"PluginServer": "${PLUGIN}"}},
    "answers": {
        "Boot": ["silence", {"Result": -5}, {"delay": 0.4, "flag": 1}],
        "register": [{"Result": 2, "ServerAddr": "10.9.8.7", "ServerPort": "60001",
                      "drop": ["HeartbeatIPAddr"]}],
        "Hb": [{"raw": "not json"}],
    }}}}


def test_scripted_sequence_then_defaults(make_sim):
    sim = make_sim(SEQUENCE_SCRIPT)
    gw = UdpGateway(sim.ports["manage"])
    gw.send({"RPCMethod": "Boot"})
    with pytest.raises(socket.timeout):
        gw.recv(timeout=0.3)
    assert gw.ask({"RPCMethod": "Boot"})["Result"] == -5
    start = time.monotonic()
    booted = gw.ask({"RPCMethod": "Boot"})
    assert time.monotonic() - start >= 0.35 and booted["flag"] == 1 and booted["Result"] == 0
    # The redirect keeps the default keys it did not drop, and the scripted extra.
    redirect = gw.ask({"RPCMethod": "Register", "CheckSN": md5u(booted["ChallengeCode"] + SERIAL),
                       "UserID": md5u(SERIAL + LOID)})
    assert redirect["Result"] == 2 and (redirect["ServerAddr"], redirect["ServerPort"]) == ("10.9.8.7", "60001")
    assert "HeartbeatIPAddr" not in redirect and redirect["PluginServer"] == f"127.0.0.1:{sim.ports['plugin']}"
    gw.send({"RPCMethod": "Hb"})
    assert gw.sock.recv(100) == b"not json"
    assert gw.ask({"RPCMethod": "Hb"}) == {"Result": 0, "Interval": 7}   # list used up: default
    actions = [r["action"] for r in sim.file_records() if r["direction"] == "in"]
    assert actions == ["silence", "answer", "answer", "answer", "answer", "answer"]
    assert sim.stop(signal.SIGINT) == 0


def test_control_push_and_script_replace(make_sim):
    sim = make_sim()
    assert sim.control(cmd="push", platform="plugin", message={})["ok"] is False  # no channel yet
    plugin = TcpGateway(sim.ports["plugin"])
    boot_register(plugin, "Boot", "Register")
    assert sim.control(cmd="script", script={"platforms": {"plugin": {"interval": 9}}}) == {"ok": True}
    assert plugin.ask({"RPCMethod": "Heartbeat"}) == {"Result": 0, "Interval": 9}
    bad = sim.control(cmd="script", script={"platforms": {"plugin": {"answers": {"Boot": ["shout"]}}}})
    assert bad["ok"] is False and "answers.Boot[0]" in bad["error"]
    records = sim.control(cmd="records")["records"]
    assert records == sim.file_records()
    assert sim.control(cmd="quit")["ok"] and sim.popen.wait(10) == 0


def test_bad_script_file_is_refused(make_sim, tmp_path):
    path = tmp_path / "bad.json"
    path.write_text(json.dumps({"platforms": {"cube": {"answers": {"Boot": [{"delay": -1}]}}}}))
    done = subprocess.run([str(SIM), "--script", str(path)], capture_output=True, text=True, timeout=10)
    assert done.returncode == 2 and "delay" in done.stderr
