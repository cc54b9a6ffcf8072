"""Command line of the simulator."""

from __future__ import annotations

import argparse
from dataclasses import dataclass, field

from . import VERSION

DEFAULT_PORTS = {"cube": 12112, "manage": 60001, "plugin": 60002, "message": 60003}

_DESCRIPTION = """\
Plays the operator side for a qdquick gateway on one machine: the cube,
manage and plugin platforms (each on UDP and framed TCP on the same port),
the message server (framed TCP) and, when asked, the app store (HTTPS).  Start it with no option for the
defaults below, point the gateway's platform addresses at it, and watch the
record file.  A port of 0 picks a free port; the line "qdquick-sim ready ..."
on standard output names the ports actually bound.
"""

_EPILOG = """\
example:
  qdquick-sim --gateway         (the whole operator side of one gateway; see --gateway --help)
  qdquick-sim --serial SN0001 --loid LOID01 --record /tmp/sim.jsonl -v
  qdquick-sim --cube-port 0 --manage-port 0 --plugin-port 0 --message-port 0 \\
              --control-port 0 --script test.json
The script format and the control commands are described in sim/README.md.
"""


@dataclass
class Config:
    bind: str = "127.0.0.1"
    advertise: str = "127.0.0.1"
    ports: dict[str, int] = field(default_factory=lambda: dict(DEFAULT_PORTS))
    control_port: int | None = None
    script_path: str | None = None
    record_path: str | None = None
    serial: str | None = None
    loid: str | None = None
    time_scale: float = 1.0
    verbose: bool = False
    appstore_port: int | None = None
    jobmanager_port: int | None = None
    appstore_cert_dir: str | None = None
    mac: str | None = None


def _port(text: str) -> int:
    value = int(text)
    if not 0 <= value <= 65535:
        raise argparse.ArgumentTypeError(f"port {value} out of range 0-65535")
    return value


def _scale(text: str) -> float:
    value = float(text)
    if value < 0:
        raise argparse.ArgumentTypeError("time scale must be >= 0")
    return value


def parse_args(argv: list[str] | None = None) -> Config:
    parser = argparse.ArgumentParser(
        prog="qdquick-sim", description=_DESCRIPTION, epilog=_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--version", action="version", version=f"qdquick-sim {VERSION}")
    parser.add_argument("--gateway", action="store_true",
                        help="play the whole operator side of one gateway on the ports of qdquickd's default "
                             "configuration, with a package server and the sample plugin's install "
                             "(options: qdquick-sim --gateway --help)")
    parser.add_argument("--bind", default="127.0.0.1", metavar="ADDR",
                        help="address every platform socket binds to (default 127.0.0.1)")
    parser.add_argument("--advertise", metavar="ADDR",
                        help="address put into HeartbeatIPAddr/MessageServer answers "
                             "(default: the bind address, 127.0.0.1 for a wildcard bind)")
    for name, port in DEFAULT_PORTS.items():
        kind = "framed TCP" if name == "message" else "UDP and framed TCP"
        parser.add_argument(f"--{name}-port", type=_port, default=port, metavar="PORT",
                            help=f"{name} {'server' if name == 'message' else 'platform'}, {kind} (default {port})")
    parser.add_argument("--control-port", type=_port, metavar="PORT",
                        help="line-based JSON control port on 127.0.0.1 (default: off; 0 = any free port)")
    parser.add_argument("--jobmanager-port", type=_port, metavar="PORT",
                        help="also act as the gateway's local job manager on UDP PORT of 127.0.0.1 (17401 on a gateway)")
    parser.add_argument("--appstore-port", type=_port, metavar="PORT",
                        help="app store over HTTPS (default: off; 0 = any free port)")
    parser.add_argument("--appstore-cert-dir", metavar="DIR",
                        help="where the app store's cert.pem (also the CA file to trust) and key.pem are made "
                             "(default: a temporary directory removed at exit)")
    parser.add_argument("--mac", metavar="MAC",
                        help="device MAC; with it the app store checks the token request's username "
                             "and the connect request's MAC")
    parser.add_argument("--script", metavar="FILE", help="JSON script of answers and commands")
    parser.add_argument("--record", metavar="FILE", help="append every message as one JSON line to FILE")
    parser.add_argument("--serial", metavar="SN",
                        help="device serial; without it CheckSN and push signatures are not checked")
    parser.add_argument("--loid", metavar="LOID",
                        help="device LOID; with --serial the manage Register's UserID is checked")
    parser.add_argument("--time-scale", type=_scale, default=1.0, metavar="F",
                        help="multiply every scripted delay by F (match the gateway's QDQUICK_TIME_SCALE)")
    parser.add_argument("-v", "--verbose", action="store_true", help="print every message on standard error")
    args = parser.parse_args(argv)

    advertise = args.advertise or args.bind
    if advertise in ("0.0.0.0", "::", ""):
        advertise = "127.0.0.1"
    return Config(
        bind=args.bind, advertise=advertise,
        ports={name: getattr(args, f"{name}_port") for name in DEFAULT_PORTS},
        control_port=args.control_port, script_path=args.script, record_path=args.record,
        serial=args.serial, loid=args.loid, time_scale=args.time_scale, verbose=args.verbose,
        appstore_port=args.appstore_port, jobmanager_port=args.jobmanager_port, appstore_cert_dir=args.appstore_cert_dir, mac=args.mac)
