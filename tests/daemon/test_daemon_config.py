"""The daemon binary as an operator meets it: a bad configuration or root
refused before anything starts, a taken local port named (fatal or
degraded), one daemon per root, SIGHUP re-reading the file, a killed
daemon reported as not running, and a prompt stop while its connects are
still under way."""

from __future__ import annotations

import json
import os
import re
import signal
import socket
import subprocess
import time

import pytest

from conftest import CLI, DAEMON, REPO, eventually, local_tcp


def tcp_answers() -> bool:
    try:
        return local_tcp({"RPCMethod": "ListPlugin", "ID": "probe"})["Result"] == 0
    except OSError:
        return False


def cli_status(g, *extra: str) -> subprocess.CompletedProcess:
    return subprocess.run([CLI, "status", f"--root={g.root}", *extra], capture_output=True, text=True, timeout=10)


# Every field's rule (types, duplicates, values, a top level that is no
# object): test_config.cpp. Here the program's side: the exit status, the
# file and the field named in one line, nothing started.
@pytest.mark.parametrize("text, check, code, message", [
    ('{"platforms": {"manage": {"port": 70000}}}', False, 2, "platforms.manage.port"),
    ('{\n  "device": {\n    "serial": "A" "B"}}', True, 2, "line 3, column 19: JSON syntax error"),
    ('{"root": "/nonexistent/qdq"}', True, 2, "root /nonexistent/qdq does not exist"),
    ('{"root": "/nonexistent/qdq"}', False, 1, "root /nonexistent/qdq does not exist"),
    (None, False, 2, "cannot read"),  # no file at all
], ids=["field", "syntax", "root-check", "root-start", "missing"])
def test_bad_configuration_is_refused_in_one_line(tmp_path, text, check, code, message):
    root = tmp_path / "root"
    root.mkdir()
    path = tmp_path / "bad.json"
    if text is not None:
        path.write_text(text)
    done = subprocess.run([DAEMON, "-c", str(path), *(["-t"] if check else [])],
                          env=dict(os.environ, QDQUICK_ROOT=str(root)), capture_output=True, text=True, timeout=10)
    assert done.returncode == code and message in done.stderr and done.stderr.count("\n") == 1, done.stderr
    assert code == 1 or str(path) in done.stderr
    assert not (root / "var").exists()  # nothing was started


@pytest.mark.parametrize("kind, port, on_failure, named", [
    (socket.SOCK_STREAM, 18998, "fatal", "local TCP service, TCP port 18998"),
    (socket.SOCK_DGRAM, 7998, "fatal", "quick-install service, UDP port 7998"),
    (socket.SOCK_DGRAM, 18401, "degraded", "local UDP service, UDP port 18401"),
])
def test_taken_local_port_is_named_once(gateway, kind, port, on_failure, named):
    g = gateway
    g.configure(services={"on_failure": on_failure})
    with socket.socket(socket.AF_INET, kind) as taken:
        if kind == socket.SOCK_STREAM:
            # Earlier tests' connections may linger in TIME_WAIT; a listener
            # holds the port whatever the daemon's socket options.
            taken.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        taken.bind(("0.0.0.0", port))
        if kind == socket.SOCK_STREAM:
            taken.listen()
        g.start_daemon()
        if on_failure == "fatal":
            assert g.daemon.popen.wait(10) == 1
        else:
            eventually(lambda: g.status().get("state") == "degraded", 10, "a degraded status file")
            eventually(tcp_answers, 10, "the other services to run")
        out = g.daemon.text()
        assert out.count(f"cannot start the {named}: Address already in use") == 1, out
        assert named in (g.root / "var" / "qdquickd.log").read_text()
        status = g.status()
        assert status["state"] == ("failed" if on_failure == "fatal" else "degraded")
        assert [(p["port"], p["reason"]) for p in status["problems"]] == [(port, "Address already in use")]
        shown = cli_status(g)
        assert f"port {port}: Address already in use" in shown.stdout
        assert shown.returncode == (8 if on_failure == "fatal" else 0), shown.stdout
    if on_failure == "degraded":
        assert g.daemon.stop() == 0


def test_one_daemon_per_root_a_killed_one_not_running_and_sighup(gateway):
    g = gateway
    g.configure(retry_seconds=1)
    g.start_daemon()  # no simulator: every connect fails
    failed = eventually(lambda: g.status().get("platforms", {}).get("cube", {}).get("last_failure"), 30,
                        "a failed cube connect in the status file")
    assert failed["result"] == 101 and failed["reason"] == "no address or transport failure"
    first = g.status()["pid"]
    second = subprocess.run([DAEMON, "-c", str(g.config_path)], capture_output=True, text=True, timeout=10)
    assert second.returncode == 1 and f"another qdquickd (pid {first}) already runs" in second.stderr
    assert g.status()["pid"] == first and g.status()["state"] == "running"  # the second one wrote nothing

    shown = cli_status(g)
    assert shown.returncode == 0 and shown.stdout.startswith(f"qdquickd 1.0.0, pid {first}: running since")
    assert "last failure: connect_failed (101: no address or transport failure)" in shown.stdout

    g.daemon.stop(signal.SIGKILL)
    for extra, stream in (([], "stdout"), (["--json"], "stderr")):
        shown = cli_status(g, *extra)
        assert shown.returncode == 8 and "not running (stale status file)" in getattr(shown, stream)
    # The lock went with the process: a new daemon takes the root.
    mark = len(g.daemon.text())
    g.start_daemon()
    eventually(lambda: g.status().get("pid") == g.daemon.popen.pid, 10, "the new daemon's status file")
    eventually(tcp_answers, 10, "the local TCP service")
    # SIGHUP applies what it can and never kills.
    steps = [  # the file's new text, then the reload's record in the status file
        ({"local": {"refuse_tcp_clients": True}, "retry_seconds": 7, "device": {"serial": "OTHER"}},
         ("applied", ["device.serial"], {"retry_seconds", "local.refuse_tcp_clients"})),
        ("{broken", ("refused", [], set())),
    ]
    for change, (result, restart, applied) in steps:
        if isinstance(change, dict):
            g.configure(**change)
        else:
            g.config_path.write_text(change)
        g.daemon.popen.send_signal(signal.SIGHUP)
        # The steps' results differ, so each one's record is told apart.
        reload = eventually(lambda: (r := g.status().get("reload")) and r["result"] == result and r, 10,
                            f"reload {result}")
        assert reload["needs_restart"] == restart and set(reload["applied"]) == applied
        assert g.daemon.popen.poll() is None
    # Applied for real: the local TCP service now closes every connection.
    with pytest.raises((ConnectionError, json.JSONDecodeError)):
        local_tcp({"RPCMethod": "ListPlugin", "ID": "refused"})
    assert "needs a restart to take effect: device.serial" in g.daemon.text()[mark:]
    # SIGINT stops it promptly while its connects are under way.
    eventually(lambda: "connecting the cube platform" in g.daemon.text()[mark:], 10, "a connect")
    started = time.monotonic()
    assert g.daemon.stop(signal.SIGINT) == 0
    assert time.monotonic() - started < 6
    assert "SIGINT received: disconnecting the platforms" in g.daemon.text()
    assert cli_status(g).returncode == 8 and "not running (stopped at" in cli_status(g).stdout


def test_openwrt_package(tmp_path):
    """Its folder gives the documented make target, its configuration passes
    the check, and its service checks the file before procd runs anything."""
    pkg = REPO / "packaging" / "openwrt" / "qdquick"
    assert re.search(r"^PKG_NAME:=(\S+)", (pkg / "Makefile").read_text(), re.M).group(1) == pkg.name
    # start_service with procd's calls recorded and a daemon whose check
    # passes or fails.
    fake = tmp_path / "qdquickd"
    for check, opened in ((0, True), (2, False)):
        fake.write_text(f"#!/bin/sh\necho \"check $*\" >&2\nexit {check}\n")
        fake.chmod(0o755)
        script = (f"procd_open_instance() {{ echo open; }}; procd_set_param() {{ echo \"param $*\"; }}; "
                  f"procd_close_instance() {{ :; }}; . '{pkg / 'files' / 'qdquickd.init'}'; "
                  f"PROG='{fake}'; CONF='{pkg / 'files' / 'qdquickd.json'}'; start_service")
        done = subprocess.run(["sh", "-c", script], capture_output=True, text=True, timeout=10)
        assert done.stderr == f"check -t -c {pkg / 'files' / 'qdquickd.json'}\n", done.stderr
        assert ("open" in done.stdout) == opened and (done.returncode == 0) == opened
        assert not opened or "param reload_signal HUP" in done.stdout
    # The package sets the LAN interface for the daemon's local ports.
    done = subprocess.run([DAEMON, "-t", "-c", str(pkg / "files" / "qdquickd.json")], capture_output=True,
                          text=True, env=dict(os.environ, QDQUICK_ROOT=str(tmp_path)), timeout=10)
    assert done.returncode == 0, done.stderr
