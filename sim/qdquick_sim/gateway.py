"""qdquick-sim --gateway: the whole operator side of one gateway, matching
the default configuration of qdquickd (daemon/qdquickd.json): the cube,
manage and plugin platforms and the message server on their usual ports,
a package server with the sample plugin, the local job manager, and the app
store over HTTPS (on 443, the library's app store port, unless told). The
manage platform names the plugin platform in its Register answer; the
plugin platform then orders the install of the sample plugin."""

from __future__ import annotations

import argparse
import errno
import os
import sys
from typing import Any

from .config import DEFAULT_PORTS, Config
from .jobmanager import JobManager
from .main import Simulator, stop_on_signals
from .narrate import NarratingRecorder
from .packages import PackageServer
from .recorder import stderr_echo
from .script import Script, ScriptError
from . import VERSION

HOST = "127.0.0.1"
# The daemon has no app store setting: the library talks to the store on 443.
APPSTORE_PORT = 443
SAMPLE_BUNDLE = "com.qdquick.example.sample"
SAMPLE_VERSION = "1.0"
SAMPLE_FILE = "sample-1.0.cpk"
_HERE = os.path.dirname(os.path.realpath(__file__))
# The build's sample package in a source tree; an installed simulator keeps
# it in share/qdquick/packages, beside its own folder share/qdquick/sim.
_BUILT = os.path.join(os.path.dirname(os.path.dirname(_HERE)), "build", "examples", "sample-plugin", "packages")
_INSTALLED = os.path.join(os.path.dirname(os.path.dirname(_HERE)), "packages")
DEFAULT_PACKAGES = _BUILT if os.path.isdir(_BUILT) or not os.path.isdir(_INSTALLED) else _INSTALLED


def parse_args(argv: list[str]) -> argparse.Namespace:
    p = argparse.ArgumentParser(prog="qdquick-sim --gateway",
                                description="The operator side of a whole gateway, on loopback.")
    p.add_argument("--gateway", action="store_true", help=argparse.SUPPRESS)
    p.add_argument("--version", action="version", version=f"qdquick-sim {VERSION}")
    p.add_argument("--serial", default="SN0001", help="the gateway's serial (default SN0001)")
    p.add_argument("--loid", default="LOID01", help="the gateway's LOID (default LOID01)")
    for name, port in DEFAULT_PORTS.items():
        p.add_argument(f"--{name}-port", type=int, default=port, metavar="PORT", help=f"default {port}")
    p.add_argument("--packages", default=DEFAULT_PACKAGES, metavar="DIR",
                   help="directory of .cpk packages (default: the build's sample plugin package)")
    p.add_argument("--package-port", type=int, default=60080, metavar="PORT", help="default 60080")
    p.add_argument("--jobmanager-port", type=int, default=17401, metavar="PORT", help="default 17401")
    p.add_argument("--no-install", action="store_true", help="do not order the sample plugin's install")
    p.add_argument("--install-delay", type=float, default=2.0, metavar="S",
                   help="seconds after the plugin Register before the Install (default 2, scaled)")
    p.add_argument("--appstore-port", type=int, default=APPSTORE_PORT, metavar="PORT",
                   help=f"app store over HTTPS (default {APPSTORE_PORT}, the library's; 0 = any free port)")
    p.add_argument("--no-appstore", action="store_true", help="leave the app store out")
    p.add_argument("--control-port", type=int, metavar="PORT", help="control port on 127.0.0.1 (default off)")
    p.add_argument("--record", metavar="FILE", help="append every message as one JSON line to FILE")
    p.add_argument("--time-scale", type=float, default=1.0, metavar="F",
                   help="match the gateway's QDQUICK_TIME_SCALE")
    p.add_argument("-q", "--quiet", action="store_true", help="no narration lines on standard output")
    p.add_argument("-v", "--verbose", action="store_true", help="every message on standard error")
    return p.parse_args(argv)


def gateway_script(args: argparse.Namespace, package_url: str, size: int) -> dict[str, Any]:
    script: dict[str, Any] = {"platforms": {
        "manage": {"extra": {"Register": {"PluginServer": "${PLUGIN}"}}},
    }}
    if not args.no_install:
        install = {"RPCMethod": "Install", "ID": "install-1", "Plugin_Name": SAMPLE_BUNDLE,
                   "Version": SAMPLE_VERSION, "Download_url": package_url, "Plugin_size": size,
                   "OS": 0, "upgrade_ID": "upgrade-1"}
        script["platforms"]["plugin"] = {"push": [{"delay": args.install_delay, "message": install}]}
    return script


def _appstore(args: argparse.Namespace, sim: Simulator) -> bool:
    """Binds the app store; one that cannot be bound (443 without privileges)
    is left out with a warning rather than stopping the whole gateway."""
    if args.no_appstore:
        return False
    try:
        sim.bind_appstore(args.appstore_port)
    except OSError as exc:
        if exc.errno == errno.EADDRINUSE:
            raise  # taken by another program: that is a busy port like any other
        print(f"qdquick-sim: app store left out: {exc} (--appstore-port PORT, or --no-appstore)",
              file=sys.stderr)
        return False
    return True


def main(argv: list[str]) -> int:
    args = parse_args(argv)
    stop = stop_on_signals()

    recorder = NarratingRecorder(args.record, stderr_echo(args.verbose),
                                 open(os.devnull, "w") if args.quiet else sys.stdout)
    package_path = os.path.join(args.packages, SAMPLE_FILE)
    if not args.no_install and not os.path.isfile(package_path):
        print(f"qdquick-sim: no sample package at {package_path} (build first, or --packages DIR)",
              file=sys.stderr)
        return 2
    extras: list[Any] = []
    try:
        packages = PackageServer(args.packages, HOST, args.package_port, recorder)
        extras.append(packages)
        size = os.path.getsize(package_path) if not args.no_install else 0
        script = Script.from_obj(gateway_script(args, packages.url(HOST, SAMPLE_FILE), size))
        config = Config(ports={name: getattr(args, f"{name}_port") for name in DEFAULT_PORTS},
                        control_port=args.control_port, record_path=None, serial=args.serial,
                        loid=args.loid, time_scale=args.time_scale, verbose=args.verbose)
        sim = Simulator(config, script, stop)
        sim.recorder.close()
        sim.recorder = sim.ctx.recorder = recorder
        jobmanager = JobManager(HOST, args.jobmanager_port, sim.ctx)
        extras.append(jobmanager)
        sim.bind()
    except (OSError, ScriptError) as exc:
        for server in extras:
            server.stop()
        print(f"qdquick-sim: cannot start: {exc}", file=sys.stderr)
        return 1
    for server in extras:
        server.start()
    try:
        store = _appstore(args, sim)
    except OSError as exc:
        for server in extras:
            server.stop()
        print(f"qdquick-sim: cannot start: {exc}", file=sys.stderr)
        return 1
    print(f"qdquick-sim gateway packages={HOST}:{packages.port} jobmanager={HOST}:{jobmanager.port}"
          f" appstore={'on' if store else 'off'}", flush=True)
    # The simulator runs and stops the app store with its own servers and
    # prints where its CA certificate is, after the ready line.
    status = sim.run()
    for server in extras:
        server.stop()
    return status
