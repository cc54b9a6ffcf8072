"""qdquick-cli against tiny loopback servers: replies, time-outs, refusals,
malformed replies, standard input and the status file."""
import base64
import json
import os
import socket
import struct
import subprocess
import threading

import pytest

CLI = os.environ["QDQ_CLI"]


def run(*args, stdin=None):
    return subprocess.run([CLI, *args], input=stdin, capture_output=True, text=True, timeout=20)


class Server:
    """One-shot server on a free loopback port; `answer(request)` gives the
    bytes to send back (None: stay silent, b"": close without a reply)."""

    def __init__(self, kind, answer):
        self.kind, self.answer, self.got = kind, answer, None
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM if kind == "udp" else socket.SOCK_STREAM)
        self.sock.bind(("127.0.0.1", 0))
        self.port = self.sock.getsockname()[1]
        if kind == "tcp":
            self.sock.listen(1)
        self.sock.settimeout(10)
        self.thread = threading.Thread(target=self.serve, daemon=True)
        self.thread.start()

    def serve(self):
        try:
            if self.kind == "udp":
                self.got, peer = self.sock.recvfrom(65536)
                reply = self.answer(self.got)
                if reply is not None:
                    self.sock.sendto(reply, peer)
                return
            conn, _ = self.sock.accept()
            with conn:
                head = conn.recv(4, socket.MSG_WAITALL)
                self.got = conn.recv(struct.unpack(">I", head)[0], socket.MSG_WAITALL)
                reply = self.answer(self.got)
                if reply is None:
                    conn.recv(1)  # silent until the client gives up
                elif reply:
                    conn.sendall(reply)
        except OSError:
            pass

    def close(self):
        self.thread.join(10)
        self.sock.close()


def frame(text):
    return struct.pack(">I", len(text)) + text


def echo(req):
    return json.dumps(dict(json.loads(req), Result=0)).encode()


@pytest.mark.parametrize("kind,flag,answer,expect_code,expect", [
    ("udp", "--udp", echo, 0, {"RPCMethod": "ListPlugin", "Result": 0}),
    ("tcp", "--tcp", lambda r: frame(echo(r)), 0, {"RPCMethod": "ListPlugin", "Result": 0}),
    ("udp", "--quick", lambda r: base64.b64encode(echo(base64.b64decode(r))), 0,
     {"RPCMethod": "ListPlugin", "Result": 0}),
    ("udp", "--udp", lambda r: None, 3, "time-out"),
    ("tcp", "--tcp", lambda r: None, 3, "time-out"),
    ("udp", "--udp", lambda r: b"not json", 5, "not JSON"),
    ("udp", "--quick", lambda r: b"abc", 5, "not Base64"),
    ("tcp", "--tcp", lambda r: frame(b'{"Result":0}')[:9], 5, "cut short"),
    ("tcp", "--tcp", lambda r: b"", 6, "without a reply"),
])
def test_one_exchange(kind, flag, answer, expect_code, expect):
    srv = Server(kind, answer)
    try:
        res = run(flag, "--port", str(srv.port), "--timeout", "0.5", '{"RPCMethod":"ListPlugin"}')
    finally:
        srv.close()
    assert res.returncode == expect_code, res.stderr
    sent = base64.b64decode(srv.got) if flag == "--quick" else srv.got
    assert sent == b'{"RPCMethod":"ListPlugin"}'
    if expect_code == 0:
        assert json.loads(res.stdout) == expect
        assert "\n\t" in res.stdout  # pretty-printed
    else:
        assert expect in res.stderr and res.stdout == ""


def test_raw_and_stdin():
    reply = b'{"Plugin":[],"Result":0}'
    srv = Server("tcp", lambda r: frame(reply))
    try:
        res = run("--tcp", "--port", str(srv.port), "--raw", stdin='{"RPCMethod": "ListPlugin"}\n')
    finally:
        srv.close()
    assert res.returncode == 0, res.stderr
    assert srv.got == b'{"RPCMethod": "ListPlugin"}\n'  # sent as given
    assert res.stdout == reply.decode() + "\n"


@pytest.mark.parametrize("flag", ["--udp", "--tcp"])
def test_refused(flag):
    probe = socket.socket()
    probe.bind(("127.0.0.1", 0))
    port = probe.getsockname()[1]
    probe.close()
    res = run(flag, "--port", str(port), "{}")
    assert res.returncode == 4 and "refused" in res.stderr


@pytest.mark.parametrize("args,stdin,code", [
    (["{bad"], None, 2),
    ([], "", 2),
    (["--port", "0", "{}"], None, 2),
    (["--timeout", "-1", "{}"], None, 2),
    (["--bogus"], None, 2),
    (["status"], None, 2),
])
def test_bad_input_sends_nothing(args, stdin, code):
    res = run(*args, stdin=stdin)
    assert res.returncode == code and "--help" in res.stderr


def test_status_file(tmp_path):
    status = tmp_path / "status.json"
    status.write_text('{"manage":{"status":"connected"}}')
    res = run("status", "--status-file", str(status))
    assert res.returncode == 0 and json.loads(res.stdout) == {"manage": {"status": "connected"}}
    assert res.stdout.count("\n") > 1
    status.write_text("{")
    assert run("status", "--status-file", str(status)).returncode == 5
    res = run("status", "--status-file", str(tmp_path / "missing.json"))
    assert res.returncode == 7 and "missing.json" in res.stderr


def test_help():
    res = run("--help")
    assert res.returncode == 0 and "Exit status" in res.stdout and "--status-file" in res.stdout
