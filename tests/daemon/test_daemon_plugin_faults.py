"""Plugin installs that fail half-way end with a clear status; the next
install into the same directory gives a plugin that runs, with no package
file left behind, and threads and descriptors come back to their baseline.
A slow download shows its progress; a restart takes over or brings back
what was installed and running."""

from __future__ import annotations

import contextlib
import json
import os
import re
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path
from typing import Iterator

import pytest

from conftest import BUNDLE, DAEMON, HOST, PACKAGES, answers_and_settles, eventually, find_process, local_udp, up

PACKAGE = Path(PACKAGES) / "sample-1.0.cpk"


def install(g, url: str, tag: str) -> None:
    order = {"RPCMethod": "Install", "ID": tag, "Plugin_Name": BUNDLE, "Version": "1.0",
             "Download_url": url, "Plugin_size": PACKAGE.stat().st_size, "OS": 0, "upgrade_ID": tag}
    assert g.sim.push("plugin", 15, message=order)["json"]["Result"] == 0


def plugin_status(g) -> str:
    return next((p["Status"] for p in g.status().get("plugins", []) if p["Plugin_Name"] == BUNDLE), "")


def fails_with(g, status: str) -> None:
    eventually(lambda: f"install of {BUNDLE} 1.0 ended: {status}" in g.daemon.text(), 30,
               lambda: f"the install to end with {status}: {g.daemon.text()[-1500:]}")
    assert plugin_status(g) == status


def runs_cleanly(g, plugin_root: Path, tag: str) -> None:
    install(g, f"http://{HOST}:{g.sim.ports['packages']}/{PACKAGE.name}", tag)
    g.daemon.wait_line(rf"plugin {BUNDLE} 1\.0 is running", 30)
    eventually(lambda: plugin_status(g) == "Active", 10, "the plugin listed active")
    assert not list(plugin_root.glob("*/*.cpk*")), "a package file left behind"


@contextlib.contextmanager
def stalling_server(length: int, pieces: list[bytes]) -> Iterator[int]:
    """An HTTP server for one download of `length` bytes that sends `pieces`,
    5 a second, and then nothing while the block runs; yields its port."""
    server = socket.create_server((HOST, 0))
    release = threading.Event()

    def serve() -> None:
        conn, _ = server.accept()
        with conn, contextlib.suppress(OSError):  # the download may be killed part-way
            conn.recv(4096)
            conn.sendall(b"HTTP/1.0 200 OK\r\nContent-Length: %d\r\n\r\n" % length)
            for piece in pieces:
                conn.sendall(piece)
                time.sleep(0.2)
            release.wait(60)

    threading.Thread(target=serve, daemon=True).start()
    try:
        yield server.getsockname()[1]
    finally:
        release.set()
        server.close()


def test_slow_download_shows_progress_and_a_killed_one_fails(gateway):
    g = gateway
    base = up(g, "--no-install")
    data = PACKAGE.read_bytes()

    def partial(plugins: list) -> dict | None:
        return next((p for p in plugins if p["Plugin_Name"] == BUNDLE and p["Status"] == "Downloading"
                     and 0 < p["Downloaded"] < len(data)), None)

    # Half the package in 512-byte pieces, then nothing.
    with stalling_server(len(data), [data[at:at + 512] for at in range(0, len(data) // 2, 512)]) as port:
        install(g, f"http://{HOST}:{port}/{PACKAGE.name}", "slow")
        shown = eventually(lambda: partial(g.status().get("plugins", [])), 30, "progress in the status file")
        assert shown["Plugin_size"] == len(data)
        listed = g.sim.push("plugin", 15, message={"RPCMethod": "ListPlugin"})["json"]["Plugin"]
        assert partial(listed) is not None, listed
        os.kill(eventually(lambda: find_process("wget", g.daemon.popen.pid), 30, "the download"), signal.SIGKILL)
        fails_with(g, "X_BROADCOM_COM_DnldFailed")
    text = g.daemon.text()
    # wget's output is in the library's log; no removal noise either.
    assert "Saving to" not in text and "rm: cannot remove" not in text, text[-2000:]
    assert text.count(f"plugin {BUNDLE} 1.0: Downloading") == 1
    runs_cleanly(g, g.root / "qdconf" / "CPlugin", "again")
    answers_and_settles(g, base)


@pytest.mark.skipif(os.geteuid() != 0, reason="needs a mount namespace of its own")
def test_plugin_directory_full(gateway):
    g = gateway
    plugin_root = g.root / "qdconf" / "CPlugin"
    plugin_root.mkdir(parents=True)
    # The daemon in a mount namespace of its own, the plugin directory on a
    # 16 KiB file system: the package fits, its program does not.
    base = up(g, "--no-install", command=[
        "unshare", "-m", "--propagation", "private", "sh", "-c",
        f"mount -t tmpfs -o size=16k tmpfs '{plugin_root}' && exec '{DAEMON}' -c '{g.config_path}'"])
    pid = g.daemon.popen.pid
    install(g, f"http://{HOST}:{g.sim.ports['packages']}/{PACKAGE.name}", "full")
    fails_with(g, "install_failed")
    # Room again: the next install overwrites what the failed one left.
    subprocess.run(["nsenter", "-t", str(pid), "-m", "mount", "-o", "remount,size=8m", str(plugin_root)],
                   check=True)
    runs_cleanly(g, Path(f"/proc/{pid}/root") / str(plugin_root).lstrip("/"), "roomy")
    answers_and_settles(g, base)


def restart(g) -> int:
    """The daemon started again, beside a simulator that orders nothing:
    the pid of the plugin it reports running."""
    g.sim.stop()
    g.start_sim("--no-install")
    mark = len(g.daemon.text())  # the output file goes on after the last run's
    g.start_daemon()
    return int(eventually(lambda: re.search(r"is running: sampleplugin, pid (\d+)", g.daemon.text()[mark:]), 30,
                          "the plugin running again")[1])


def test_restarts_take_over_or_restore_the_plugin_and_fail_a_cut_off_install(gateway):
    g = gateway
    up(g)
    pid = find_process("sampleplugin", g.daemon.popen.pid)
    # Killed with SIGKILL, the daemon leaves its plugin running; started
    # again, it takes that plugin over instead of starting a second copy.
    g.daemon.stop(signal.SIGKILL)
    assert restart(g) == pid
    copies = [p for p in Path("/proc").iterdir() if p.name.isdigit() and _comm(p) == "sampleplugin"]
    assert len(copies) == 1, copies
    # SIGTERM while a second install downloads stops the plugin; started
    # again without any platform order, the plugin is listed and running,
    # the cut-off install is "install_failed" and left no half-installed
    # folder.
    g.wait_for("plugin", "heartbeat")
    with stalling_server(100000, [b"x"]) as port:  # a download that never ends
        order = {"RPCMethod": "Install", "ID": "cut", "Plugin_Name": "com.qdquick.example.confined", "Version": "1.0",
                 "Download_url": f"http://{HOST}:{port}/confined-1.0.cpk", "OS": 0,
                 "upgrade_ID": "cut"}
        assert g.sim.push("plugin", 15, message=order)["json"]["Result"] == 0
        eventually(lambda: find_process("wget", g.daemon.popen.pid), 30, "the download to start")
        assert g.daemon.stop(signal.SIGTERM) == 0
    assert _comm(Path(f"/proc/{pid}")) == ""
    assert restart(g) == find_process("sampleplugin", g.daemon.popen.pid) != 0

    def listed_now() -> list | None:  # the local port opens a moment after the restore
        try:
            return json.loads(local_udp({"RPCMethod": "ListPlugin", "ID": "after"}, timeout=1))["Plugin"]
        except OSError:
            return None

    listed = eventually(listed_now, 30, "a local ListPlugin answer")
    assert {p["Plugin_Name"]: p["Status"] for p in listed} == \
        {BUNDLE: "Active", "com.qdquick.example.confined": "install_failed"}
    assert not (g.root / "qdconf" / "CPlugin" / "confined").exists()


def _comm(proc: Path) -> str:
    """The name of a live process, "" when it is gone or a zombie."""
    try:
        stat = (proc / "stat").read_text()
        return "" if stat[stat.rindex(")") + 2] == "Z" else (proc / "comm").read_text().strip()
    except OSError:
        return ""
