"""Shared by the pytest folders (their conftests put tests/ on sys.path): a
child process whose output goes to a file that can be searched, the platform
simulator as such a child driven through its control port, the
length-prefixed frame, waiting for a condition, and a process's threads and
descriptors."""

from __future__ import annotations

import json
import os
import re
import signal
import socket
import subprocess
import time
from pathlib import Path
from typing import Any, Callable

SIM = os.environ.get("QDQ_SIM", str(Path(__file__).resolve().parents[1] / "sim" / "qdquick-sim"))
HOST = "127.0.0.1"
# A cross build runs the library under its emulator, that many times slower:
# every wait is stretched by SLOW.
SLOW = float(os.environ.get("QDQ_E2E_SLOWDOWN", "1"))


# The library keeps one descriptor per log file (qdquickd's own log too),
# opened by that log's first line: not a leak, so descriptor counts leave
# them out.
LOG_FILE = re.compile(r"/var/(shrcadlog(-bak|-dpi)?\.txt|qdquickd\.log)$")


def counts(pid: int) -> tuple[int, int]:
    """Threads and open descriptors of process `pid`, less its log files."""
    fds = 0
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            fds += not LOG_FILE.search(os.readlink(f"/proc/{pid}/fd/{fd}"))
        except OSError:
            pass  # closed meanwhile
    return len(os.listdir(f"/proc/{pid}/task")), fds


def thread_names(pid: int) -> list[str]:
    """The names of its threads (a thread that ends meanwhile is left out)."""
    names = []
    for task in Path(f"/proc/{pid}/task").iterdir():
        try:
            names.append((task / "comm").read_text().strip())
        except OSError:
            pass
    return names


def eventually(check: Callable[[], Any], timeout: float = 10, what: str | Callable[[], str] = "it") -> Any:
    """The first true value of check() within `timeout` seconds."""
    deadline = time.monotonic() + timeout * SLOW
    while True:
        value = check()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what() if callable(what) else what}")
        time.sleep(0.02)


def recv_exact(sock: socket.socket, n: int) -> bytes:
    data = b""
    while len(data) < n:
        chunk = sock.recv(n - len(data))
        if not chunk:
            raise ConnectionError(f"closed after {len(data)} of {n} bytes")
        data += chunk
    return data


def frame(payload: bytes) -> bytes:
    return len(payload).to_bytes(4, "big") + payload


def recv_frame(sock: socket.socket) -> bytes:
    return recv_exact(sock, int.from_bytes(recv_exact(sock, 4), "big"))


class Child:
    """A child process whose standard output and error go to a file."""

    def __init__(self, args: list[str], out: Path, env: dict[str, str] | None = None) -> None:
        self.out = out
        with open(out, "ab") as f:
            self.popen = subprocess.Popen(args, stdout=f, stderr=subprocess.STDOUT, env=env)

    def text(self) -> str:
        return self.out.read_text(errors="replace")

    def wait_line(self, pattern: str, timeout: float = 30) -> re.Match:
        return eventually(lambda: re.search(pattern, self.text(), re.M), timeout,
                          lambda: f"/{pattern}/ in {self.out}:\n{self.text()[-3000:]}")

    def stop(self, sig: int = signal.SIGTERM, timeout: float = 10) -> int:
        if self.popen.poll() is None:
            self.popen.send_signal(sig)
        return self.popen.wait(timeout)


class Sim(Child):
    """qdquick-sim on loopback: its first lines name its ports, its control
    port drives it, and it records every message in `record_path`."""

    def __init__(self, tmp: Path, args: list[str], script: dict[str, Any] | None = None,
                 env: dict[str, str] | None = None) -> None:
        tmp.mkdir(parents=True, exist_ok=True)
        self.record_path = tmp / "records.jsonl"
        if script is not None:
            (tmp / "script.json").write_text(json.dumps(script))
            args = [*args, "--script", str(tmp / "script.json")]
        super().__init__([SIM, "--record", str(self.record_path), "--control-port", "0", *args],
                         tmp / "sim.out", env)
        # In gateway mode a line before the ready line names the package
        # server and the job manager.
        ready = self.wait_line(r"^qdquick-sim ready .*$", 15)
        self.ports = {k: int(v) for k, v in re.findall(r"(\w+)=\S*:(\d+)", self.text()[:ready.end()])}
        self._control = socket.create_connection((HOST, self.ports["control"]), timeout=30)
        self._lines = self._control.makefile("r")

    def control(self, **request: Any) -> dict[str, Any]:
        # A wait or a push that waits may take its whole time before answering.
        self._control.settimeout(30 + max(request.get("timeout", 0), request.get("wait", 0)))
        self._control.sendall((json.dumps(request) + "\n").encode())
        return json.loads(self._lines.readline())

    def wait(self, timeout: float = 5, **filters: Any) -> dict[str, Any]:
        """The first record after `since` (default 0) with these fields."""
        reply = self.control(cmd="wait", timeout=timeout * SLOW, **filters)
        assert reply["ok"], (filters, reply, self.text()[-2000:])
        return reply["record"]

    def last_seq(self) -> int:
        return self.control(cmd="status")["records"]

    def push(self, platform: str, timeout: float = 5, by_id: bool = True, **what: Any) -> dict[str, Any]:
        """Pushes a command on the platform's channel and returns the record of
        the gateway's answer: the first one carrying the command's "ID" (with
        by_id false, or no "ID", the first one). The simulator records its
        push after sending it, so the answer is looked for from before."""
        since = self.last_seq()
        assert self.control(cmd="push", platform=platform, **what)["ok"]
        wanted = what.get("message", {}).get("ID") if by_id else None
        while True:
            reply = self.wait(timeout, platform=platform, kind="reply", since=since)
            if wanted is None or isinstance(reply["json"], dict) and reply["json"].get("ID") == wanted:
                return reply
            since = reply["seq"]

    def records(self, **filters: Any) -> list[dict[str, Any]]:
        recs = self.control(cmd="records")["records"]
        return [r for r in recs if all(r.get(k) == v for k, v in filters.items())]

    def file_records(self) -> list[dict[str, Any]]:
        return [json.loads(line) for line in self.record_path.read_text().splitlines()]

    def stop(self, sig: int = signal.SIGTERM, timeout: float = 10) -> int:
        code = super().stop(sig, timeout)
        self._control.close()
        return code
