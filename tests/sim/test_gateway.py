"""qdquick-sim --gateway: the package server, the job manager and the
scripted Install, on free loopback ports."""

from __future__ import annotations

import json
import re
import socket
import subprocess
import sys
import urllib.error
import urllib.request
from pathlib import Path

import pytest

from conftest import SIM, TcpGateway, md5u

sys.path.insert(0, str(SIM.parent))
from qdquick_sim.jobmanager import answer_for  # noqa: E402


@pytest.mark.parametrize("text, answer", [
    ('{"RPCMethod":"SetPlug-inParameterValues","ID":"7","Plugin_Name":"p","Version":"1","Parameter":"eA=="}',
     {"ID": "7", "Result": 0}),
    ('{"RPCMethod":"Post","CmdType":"x"}', {"CmdType": "x", "Result": 0}),
    ('{"ID":"no method"}', {"Result": -1}),
    ("[1]", {"Result": -1}),
    ("not json", {"Result": -1}),
])
def test_job_manager_answers(text, answer):
    assert answer_for(text) == answer


@pytest.fixture
def gateway_sim(tmp_path: Path):
    packages = tmp_path / "packages"
    packages.mkdir()
    (packages / "sample-1.0.cpk").write_bytes(b"\x1f\x8b package bytes")
    (tmp_path / "secret.cpk").write_bytes(b"outside")
    ports = [f"--{n}-port" for n in ("cube", "manage", "plugin", "message", "package", "jobmanager")]
    args = [str(SIM), "--gateway", "--serial", "SN9", "--packages", str(packages), "--install-delay", "0.1"]
    for option in ports:
        args += [option, "0"]
    proc = subprocess.Popen(args, stdout=subprocess.PIPE, text=True)
    lines = [proc.stdout.readline(), proc.stdout.readline()]
    info = dict(re.findall(r"(\w+)=[\d.]+:(\d+)", " ".join(lines)))
    yield proc, {k: int(v) for k, v in info.items()}
    proc.terminate()
    assert proc.wait(10) == 0


def test_gateway_serves_packages_answers_forwards_and_orders_the_install(gateway_sim):
    proc, ports = gateway_sim
    base = f"http://127.0.0.1:{ports['packages']}/"
    assert urllib.request.urlopen(base + "sample-1.0.cpk", timeout=5).read() == b"\x1f\x8b package bytes"
    for name in ("..%2Fsecret.cpk", "../secret.cpk", "missing.cpk", "sample-1.0.cpk/x"):
        with pytest.raises(urllib.error.HTTPError) as err:
            urllib.request.urlopen(base + name, timeout=5)
        assert err.value.code == 404

    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(5)
        s.sendto(b'{"RPCMethod":"SetPlug-inParameterValues","ID":"9"}', ("127.0.0.1", ports["jobmanager"]))
        assert json.loads(s.recv(2048)) == {"ID": "9", "Result": 0}

    # A gateway registering with the plugin platform is ordered to install.
    gw = TcpGateway(ports["plugin"])
    boot = gw.ask({"RPCMethod": "Boot", "DevSN": "SN9"})
    reg = gw.ask({"RPCMethod": "Register", "CheckSN": md5u(boot["ChallengeCode"] + "SN9")})
    assert reg["Result"] == 0
    install = gw.recv(timeout=5)
    assert install["RPCMethod"] == "Install" and install["OS"] == 0
    assert install["Download_url"] == base + "sample-1.0.cpk"
    assert install["Plugin_size"] == len(b"\x1f\x8b package bytes")
