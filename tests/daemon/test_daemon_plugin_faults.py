"""Plugin installs that fail half-way: the download killed midway, and the
plugin directory's file system full. Each ends with a clear status, and the
next install - into the same directory - gives a plugin that runs, with no
package file left behind; the daemon's threads and descriptors come back to
their baseline."""

from __future__ import annotations

import os
import re
import signal
import socket
import subprocess
import threading
from pathlib import Path

import pytest

from conftest import DAEMON, PACKAGES, Proc, eventually
from hardening import BUNDLE, answers_and_settles, push_and_answer, settled_counts, start_sim, wait_for

PACKAGE = Path(PACKAGES) / "sample-1.0.cpk"


def install(g, url: str, tag: str) -> None:
    order = {"RPCMethod": "Install", "ID": tag, "Plugin_Name": BUNDLE, "Version": "1.0",
             "Download_url": url, "Plugin_size": PACKAGE.stat().st_size, "OS": 0, "upgrade_ID": tag}
    assert push_and_answer(g, order)["Result"] == 0


def package_url(g) -> str:
    port = re.search(r"packages=127\.0\.0\.1:(\d+)", g.sim.text()).group(1)
    return f"http://127.0.0.1:{port}/{PACKAGE.name}"


def ended(g, status: str, count: int = 1) -> None:
    eventually(lambda: g.daemon.text().count(f"install of {BUNDLE} 1.0 ended: {status}") >= count, 30,
               f"the install to end with {status}: {g.daemon.text()[-1500:]}")


def runs_cleanly(g, plugin_root: Path, tag: str) -> None:
    install(g, package_url(g), tag)
    g.daemon.wait_line(rf"plugin {BUNDLE} 1\.0 is running", 30)
    eventually(lambda: plugin_status(g) == "Active", 10, "the plugin listed active")
    assert not list(plugin_root.glob("*/*.cpk*")), "a package file left behind"


def descendant_named(ancestor: int, name: str) -> int:
    """A process called `name` below `ancestor` (other gateways may run on
    this machine: a host-wide look-up could find theirs)."""
    parents, names = {}, {}
    for entry in Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                stat = (entry / "stat").read_text()
                parents[int(entry.name)] = int(stat[stat.rindex(")") + 2:].split()[1])
                names[int(entry.name)] = (entry / "comm").read_text().strip()
            except (OSError, ValueError):
                continue
    for pid, comm in names.items():
        p = pid
        while comm == name and p > 1:
            p = parents.get(p, 0)
            if p == ancestor:
                return pid
    return 0


def plugin_status(g) -> str:
    return next((p["Status"] for p in g.status().get("plugins", []) if p["Plugin_Name"] == BUNDLE), "")


def session(g) -> tuple[int, int]:
    g.daemon.wait_line("plugin platform: heartbeat answered", 30)
    wait_for(g, "manage", "heartbeat")
    return settled_counts(g.daemon.popen.pid)


def test_download_killed_midway(gateway):
    g = gateway
    start_sim(g, "--no-install")
    g.start_daemon()
    base = session(g)
    # A server that sends half the package and then nothing.
    server = socket.create_server(("127.0.0.1", 0))
    release = threading.Event()

    def serve() -> None:
        conn, _ = server.accept()
        with conn:
            conn.recv(4096)
            data = PACKAGE.read_bytes()
            conn.sendall(b"HTTP/1.0 200 OK\r\nContent-Length: %d\r\n\r\n" % len(data) + data[:len(data) // 2])
            release.wait(60)

    threading.Thread(target=serve, daemon=True).start()
    try:
        install(g, f"http://127.0.0.1:{server.getsockname()[1]}/{PACKAGE.name}", "slow")
        pid = eventually(lambda: descendant_named(g.daemon.popen.pid, "wget"), 30, "the download to start")
        os.kill(pid, signal.SIGKILL)
        ended(g, "X_BROADCOM_COM_DnldFailed")
    finally:
        release.set()
        server.close()
    assert plugin_status(g) == "X_BROADCOM_COM_DnldFailed"
    runs_cleanly(g, g.root / "qdconf" / "CPlugin", "again")
    answers_and_settles(g, base)


@pytest.mark.skipif(os.geteuid() != 0, reason="needs a mount namespace of its own")
def test_plugin_directory_full(gateway):
    g = gateway
    start_sim(g, "--no-install")
    g.write_config(g.config())
    plugin_root = g.root / "qdconf" / "CPlugin"
    plugin_root.mkdir(parents=True)
    # The daemon in a mount namespace of its own, the plugin directory on a
    # 16 KiB file system: the package fits, its program does not.
    g.daemon = Proc(["unshare", "-m", "--propagation", "private", "sh", "-c",
                     f"mount -t tmpfs -o size=16k tmpfs '{plugin_root}' && exec '{DAEMON}' -c '{g.config_path}'"],
                    g.tmp / "daemon.out", g.env)
    base = session(g)
    pid = g.daemon.popen.pid
    install(g, package_url(g), "full")
    ended(g, "install_failed")
    assert plugin_status(g) == "install_failed"
    # Room again: the next install overwrites what the failed one left.
    subprocess.run(["nsenter", "-t", str(pid), "-m", "mount", "-o", "remount,size=8m", str(plugin_root)],
                   check=True)
    runs_cleanly(g, Path(f"/proc/{pid}/root") / str(plugin_root).lstrip("/"), "roomy")
    answers_and_settles(g, base)
