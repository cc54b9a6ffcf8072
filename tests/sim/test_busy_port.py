"""A port the simulator cannot bind ends it at once, in either mode, with
the service and port named and exit status 1 (a gateway run once hung in
its clean-up instead)."""

from __future__ import annotations

import socket
import subprocess

import pytest

from conftest import SIM

OTHERS = [f"--{n}-port=0" for n in ("cube", "manage", "plugin", "message")]
GATEWAY = ["--gateway", "--no-install", "--package-port=0", "--jobmanager-port=0", "--appstore-port=0"]


@pytest.mark.parametrize("mode, kind, option, named", [
    ([], socket.SOCK_STREAM, "--cube-port", "cube platform port"),
    ([], socket.SOCK_DGRAM, "--manage-port", "manage platform port"),
    (GATEWAY, socket.SOCK_STREAM, "--plugin-port", "plugin platform port"),
    (GATEWAY, socket.SOCK_STREAM, "--package-port", "package server port"),
    (GATEWAY, socket.SOCK_DGRAM, "--jobmanager-port", "job manager port"),
    (GATEWAY, socket.SOCK_STREAM, "--appstore-port", "app store port"),
], ids=["plain-tcp", "plain-udp", "gateway-platform", "gateway-packages", "gateway-jobmanager",
        "gateway-appstore"])
def test_busy_port_ends_the_simulator(mode, kind, option, named):
    with socket.socket(socket.AF_INET, kind) as taken:
        taken.bind(("127.0.0.1", 0))
        if kind == socket.SOCK_STREAM:
            taken.listen()
        port = taken.getsockname()[1]
        args = [a for a in mode + OTHERS if a.split("=")[0] != option]
        done = subprocess.run([SIM, *args, f"{option}={port}"], capture_output=True, text=True, timeout=20)
    assert done.returncode == 1, done.stderr
    assert f"{named} {port}" in done.stderr and "in use" in done.stderr
    assert "ready" not in done.stdout
