"""qdquick-sim --gateway: the package server, the job manager, the
scripted Install and the app store, on free loopback ports."""

from __future__ import annotations

import json
import socket
import urllib.error
import urllib.request
from pathlib import Path

import pytest

from conftest import HOST, Sim, TcpGateway, boot_register, exchange, md5u, token_request

PACKAGE = b"\x1f\x8b package bytes"
# What the job manager answers to each command.
JOB_MANAGER = [
    ('{"RPCMethod":"SetPlug-inParameterValues","ID":"7","Plugin_Name":"p","Version":"1","Parameter":"eA=="}',
     {"ID": "7", "Result": 0}),
    ('{"RPCMethod":"Post","CmdType":"x"}', {"CmdType": "x", "Result": 0}),
    ('{"ID":"no method"}', {"Result": -1}),
    ("[1]", {"Result": -1}),
    ("not json", {"Result": -1}),
]


def test_gateway_serves_packages_answers_forwards_and_orders_the_install(tmp_path: Path):
    packages = tmp_path / "packages"
    packages.mkdir()
    (packages / "sample-1.0.cpk").write_bytes(PACKAGE)
    (tmp_path / "secret.cpk").write_bytes(b"outside")
    ports = [f"--{n}-port=0" for n in ("cube", "manage", "plugin", "message", "package", "jobmanager", "appstore")]
    sim = Sim(tmp_path / "sim", ["--gateway", "--serial", "SN9", "--packages", str(packages),
                                 "--install-delay", "0.1", *ports])
    try:
        ca = sim.wait_line(r"^qdquick-sim appstore-ca (.*)$").group(1)
        base = f"http://{HOST}:{sim.ports['packages']}/"
        assert urllib.request.urlopen(base + "sample-1.0.cpk", timeout=5).read() == PACKAGE
        for name in ("..%2Fsecret.cpk", "../secret.cpk", "missing.cpk", "sample-1.0.cpk/x"):
            with pytest.raises(urllib.error.HTTPError) as err:
                urllib.request.urlopen(base + name, timeout=5)
            assert err.value.code == 404

        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.settimeout(5)
            for text, answer in JOB_MANAGER:
                s.sendto(text.encode(), (HOST, sim.ports["jobmanager"]))
                assert json.loads(s.recv(2048)) == answer, text

        # A gateway registering with the plugin platform is ordered to install
        # (not before: a refused Register is answered, and nothing follows).
        gw = TcpGateway(sim.ports["plugin"])
        assert boot_register(gw, "Boot", "Register", serial="WRONG")[1]["Result"] == -3
        boot = gw.ask({"RPCMethod": "Boot", "DevSN": "SN9"})
        assert gw.ask({"RPCMethod": "Register", "CheckSN": md5u(boot["ChallengeCode"] + "SN9")})["Result"] == 0
        install = gw.recv(timeout=5)
        assert install["RPCMethod"] == "Install" and install["OS"] == 0
        assert install["Download_url"] == base + "sample-1.0.cpk" and install["Plugin_size"] == len(PACKAGE)

        # The app store answers with the gateway's identity (the token's
        # fields: test_appstore_exchange.py).
        status, answer = exchange(sim, ca, token_request(credential="5280416 LOID01", password="SN9"))
        assert status == 200 and answer["access_token"]
        sim.wait_line(" sim: app store: token issued")
    finally:
        assert sim.stop() == 0
    assert not Path(ca).exists()  # the temporary certificate goes with the simulator
