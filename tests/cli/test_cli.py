"""qdquick-cli against one-shot loopback servers: replies, time-outs,
refusals, malformed replies, standard input and the status file."""
import base64
import json
import os
import socket
import struct
import subprocess
import threading

import pytest

CLI = os.environ["QDQ_CLI"]
CMD = b'{"RPCMethod":"ListPlugin"}'


def run(*args, stdin=None, env=None):
    return subprocess.run([CLI, *args], input=stdin, capture_output=True, text=True, timeout=20, env=env)


def serve_once(kind, answer):
    """Starts a server that answers one request with answer(request): bytes,
    or None to stay silent. Returns its port and the request it got."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM if kind == "udp" else socket.SOCK_STREAM)
    sock.bind(("127.0.0.1", 0))
    sock.settimeout(10)
    got = []

    def work():
        with sock:
            if kind == "udp":
                req, peer = sock.recvfrom(65536)
                got.append(req)
                if answer(req) is not None:
                    sock.sendto(answer(req), peer)
                return
            conn, _ = sock.accept()
            with conn:
                got.append(conn.recv(struct.unpack(">I", conn.recv(4, socket.MSG_WAITALL))[0], socket.MSG_WAITALL))
                reply = answer(got[0])
                conn.sendall(reply) if reply is not None else conn.recv(1)

    if kind == "tcp":
        sock.listen(1)
    threading.Thread(target=work, daemon=True).start()
    return sock.getsockname()[1], got


def frame(text):
    return struct.pack(">I", len(text)) + text


def echo(req):
    return json.dumps(dict(json.loads(req), Result=0)).encode()


@pytest.mark.parametrize("kind,flag,answer,code,expect", [
    ("udp", "--udp", echo, 0, ""),
    ("tcp", "--tcp", lambda r: frame(echo(r)), 0, ""),
    ("udp", "--quick", lambda r: base64.b64encode(echo(base64.b64decode(r))), 0, ""),
    ("udp", "--udp", lambda r: None, 3, "time-out"),
    ("udp", "--udp", lambda r: b"not json", 5, "not JSON"),
    ("tcp", "--tcp", lambda r: frame(b'{"Result":0}')[:9], 5, "cut short"),
    ("tcp", "--tcp", lambda r: b"", 6, "without a reply"),
])
def test_one_exchange(kind, flag, answer, code, expect):
    port, got = serve_once(kind, answer)
    # Values both ways: "--port N" and "--timeout=S".
    res = run(flag, "--port", str(port), "--timeout=0.5", CMD.decode())
    assert res.returncode == code, res.stderr
    assert (base64.b64decode(got[0]) if flag == "--quick" else got[0]) == CMD
    if code == 0:
        assert json.loads(res.stdout) == {"RPCMethod": "ListPlugin", "Result": 0}
        assert "\n\t" in res.stdout  # pretty-printed
    else:
        assert expect in res.stderr and res.stdout == ""


def test_raw_reply_and_command_from_stdin():
    port, got = serve_once("tcp", lambda r: frame(b'{"Plugin":[],"Result":0}'))
    res = run("--tcp", "--port", str(port), "--raw", stdin='{"RPCMethod": "ListPlugin"}\n')
    assert res.returncode == 0, res.stderr
    assert got == [b'{"RPCMethod": "ListPlugin"}\n']  # sent as given
    assert res.stdout == '{"Plugin":[],"Result":0}\n'


@pytest.mark.parametrize("flag", ["--udp", "--tcp"])
def test_refused(flag):
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    res = run(flag, "--port", str(port), "{}")
    assert res.returncode == 4 and "refused" in res.stderr


@pytest.mark.parametrize("args,stdin", [(["{bad"], None), ([], ""), (["--port", "0", "{}"], None),
                                        (["--bogus"], None), (["--udp=1", "{}"], None),
                                        (["status", "--root=/r", "--status-file=/s"], None),
                                        (["--json", "{}"], None)])
def test_bad_input_sends_nothing(args, stdin):
    res = run(*args, stdin=stdin)
    assert res.returncode == 2 and "--help" in res.stderr


def test_status_file_and_help(tmp_path):
    status = tmp_path / "var" / "qdquickd" / "status.json"
    status.parent.mkdir(parents=True)
    dead = subprocess.Popen(["true"])
    dead.wait()
    # The file says "running"; only a live pid makes it so.
    for pid, code, words in ((os.getpid(), 0, "running since"), (dead.pid, 8, "not running (stale status file)")):
        doc = {"pid": pid, "state": "running", "version": "9.9", "started": "T0",
               "platforms": {"manage": {"status": "connect_failed", "last_heartbeat": "",
                                        "last_failure": {"status": "connect_failed", "result": 102,
                                                         "reason": "superseded by a newer connect"}}}}
        status.write_text(json.dumps(doc))
        res = run("status", "--json", env=dict(os.environ, QDQUICK_ROOT=str(tmp_path)))  # found by default
        assert res.returncode == code and json.loads(res.stdout) == doc
        res = run("status", f"--root={tmp_path}")
        assert res.returncode == code and res.stdout.startswith(f"qdquickd 9.9, pid {pid}: {words}"), res.stdout
        assert "last failure: connect_failed (102: superseded by a newer connect)" in res.stdout
    status.write_text("{")
    assert run("status", "--status-file", str(status)).returncode == 5
    res = run("status", "--status-file", str(tmp_path / "missing.json"))
    assert res.returncode == 7 and "missing.json" in res.stderr
    assert "Exit status" in run("--help").stdout
    assert run("--version").stdout.startswith("qdquick-cli ")


@pytest.mark.skipif("QDQ_BUILD_DIR" not in os.environ, reason="native builds only")
def test_installed_programs_pages_and_simulator(tmp_path):
    prefix = tmp_path / "prefix"
    subprocess.run(["cmake", "--install", os.environ["QDQ_BUILD_DIR"], "--prefix", str(prefix)], check=True,
                   capture_output=True, timeout=120)
    libdir = next(prefix.rglob("libqdquick.so.1")).parent
    env = dict(os.environ, LD_LIBRARY_PATH=str(libdir))
    for program in ("qdquickd", "qdquick-cli", "qdquick-sim"):
        done = subprocess.run([prefix / "bin" / program, "--version"], capture_output=True, text=True, env=env,
                              timeout=20)
        assert done.returncode == 0 and done.stdout.startswith(f"{program} 1."), (program, done.stderr)
    assert "--gateway" in subprocess.run([prefix / "bin" / "qdquick-sim", "--help"], capture_output=True,
                                         text=True, timeout=20).stdout
    pages = {p.name for p in (prefix / "share" / "man").rglob("*.[0-9]")}
    assert pages == {"qdquickd.8", "qdquick-cli.1", "qdquickd.json.5"}
    # The installed simulator finds the installed sample package on its own.
    ports = [f"--{n}-port=0" for n in ("cube", "manage", "plugin", "message", "package", "jobmanager")]
    sim = subprocess.Popen([prefix / "bin" / "qdquick-sim", "--gateway", "--no-appstore", *ports],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        assert sim.stdout.readline().startswith("qdquick-sim gateway"), sim.stderr.read()
    finally:
        sim.terminate()
        assert sim.wait(10) == 0
