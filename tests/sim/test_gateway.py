"""qdquick-sim --gateway: the package server, the job manager, the
scripted Install and the app store, on free loopback ports."""

from __future__ import annotations

import base64
import json
import re
import socket
import ssl
import threading
import subprocess
import sys
import urllib.error
import urllib.request
from pathlib import Path

import pytest

from conftest import SIM, TcpGateway, md5u, wait_until

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
    ports = [f"--{n}-port" for n in ("cube", "manage", "plugin", "message", "package", "jobmanager", "appstore")]
    args = [str(SIM), "--gateway", "--serial", "SN9", "--packages", str(packages), "--install-delay", "0.1"]
    for option in ports:
        args += [option, "0"]
    proc = subprocess.Popen(args, stdout=subprocess.PIPE, text=True)
    lines: list[str] = []  # read as they come, so that a missing line fails instead of hanging

    def read() -> None:
        for line in proc.stdout:
            lines.append(line)
    threading.Thread(target=read, daemon=True).start()
    assert wait_until(lambda: len(lines) >= 3, 15), lines
    # The gateway line, the ready line, then where the app store's CA is.
    info: dict = {k: int(v) for k, v in re.findall(r"(\w+)=[\d.]+:(\d+)", " ".join(lines[:2]))}
    assert lines[2].startswith("qdquick-sim appstore-ca "), lines
    info["ca"] = lines[2].split(maxsplit=2)[2].strip()
    yield proc, info, lines
    proc.terminate()
    assert proc.wait(10) == 0
    assert not Path(info["ca"]).exists()  # the temporary certificate goes with the simulator


def test_gateway_serves_packages_answers_forwards_and_orders_the_install(gateway_sim):
    proc, ports, _ = gateway_sim
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


def test_gateway_app_store_issues_a_token_over_tls(gateway_sim):
    proc, ports, lines = gateway_sim
    body = json.dumps({"username": "001122334455", "password": "SN9"})
    basic = base64.b64encode(b"5280416 LOID01").decode()
    request = (f"POST /oauth2.0/authorize?response_type=MAC HTTP/1.1\nHost: 127.0.0.1\n"
               f"Authorization: Basic {basic}\nContent-Length: {len(body)}\r\n\r\n{body}").encode()
    tls_ctx = ssl.create_default_context(cafile=ports["ca"])
    with socket.create_connection(("127.0.0.1", ports["appstore"]), timeout=5) as raw:
        with tls_ctx.wrap_socket(raw, server_hostname="127.0.0.1") as tls:
            tls.sendall(request)
            data = b""
            while chunk := tls.recv(4096):
                data += chunk
    head, _, answer = data.partition(b"\r\n\r\n")  # the token's fields: test_appstore_exchange.py
    assert head.startswith(b"HTTP/1.1 200 ") and json.loads(answer)["access_token"]
    assert wait_until(lambda: any(" sim: app store: token issued" in line for line in lines)), lines
