"""Start-up: bind every socket, start the servers, wait for a stop."""

from __future__ import annotations

import os
import shutil
import signal
import socket
import sys
import tempfile
import threading
from types import FrameType

from .appstore import AppStoreServer
from .certs import CertFiles, make_certificate
from .config import Config, parse_args
from .context import Context
from .control import ControlServer
from .jobmanager import JobManager
from .message import MessageServer
from .platform import PlatformServer
from .recorder import Recorder, say, stderr_echo
from .replies import Responder
from .script import PLATFORMS, Script, ScriptError

# With port 0 the TCP listener picks a port; the UDP socket must then get the
# same number, which another program may hold: try a few fresh ports.
_PAIR_ATTEMPTS = 20


def _family(host: str) -> socket.AddressFamily:
    return socket.getaddrinfo(host, None, proto=socket.IPPROTO_TCP)[0][0]


def _named(exc: OSError, what: str, port: int, proto: str) -> OSError:
    """The error with the service and port in its text: "Address already in
    use" alone does not say which of a dozen ports was taken."""
    return OSError(exc.errno, f"{what} port {port} ({proto}): {exc.strerror or exc}")


def _listener(host: str, port: int, what: str = "control") -> socket.socket:
    sock = socket.socket(_family(host), socket.SOCK_STREAM)
    try:
        # Lets a restarted simulator take its port back at once.
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind((host, port))
        sock.listen(16)
    except OSError as exc:
        sock.close()
        raise _named(exc, what, port, "TCP") from None
    return sock


def bind_pair(host: str, port: int, what: str) -> tuple[socket.socket, socket.socket]:
    """A TCP listener and a UDP socket on the same port number."""
    for _ in range(_PAIR_ATTEMPTS):
        tcp = _listener(host, port, what)
        udp = socket.socket(_family(host), socket.SOCK_DGRAM)
        try:
            udp.bind((host, tcp.getsockname()[1]))
            return tcp, udp
        except OSError as exc:
            tcp.close()
            udp.close()
            if port != 0:
                raise _named(exc, what, port, "UDP") from None
    raise OSError(f"no port free for both TCP and UDP on {host}")


def _print_extra(line: str) -> None:
    """A line after the ready line, which some readers stop reading at: a
    closed pipe then sends the rest of standard output to /dev/null."""
    try:
        say(line)
    except BrokenPipeError:
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        os.close(devnull)


class Simulator:
    def __init__(self, config: Config, script: Script, stop: threading.Event) -> None:
        self.recorder = Recorder(config.record_path, stderr_echo(config.verbose))
        self.ctx = Context(config, self.recorder, script, stop)
        self.platforms: dict[str, PlatformServer] = {}
        self.message: MessageServer | None = None
        self.control: ControlServer | None = None
        self.appstore: AppStoreServer | None = None
        self.jobmanager: JobManager | None = None
        self.cert: CertFiles | None = None
        self._cert_tmp: str | None = None

    def bind(self) -> None:
        config, ctx = self.ctx.config, self.ctx
        responder = Responder(ctx)
        pairs: dict[str, tuple[socket.socket, socket.socket]] = {}
        try:
            for name in PLATFORMS:
                pairs[name] = bind_pair(config.bind, config.ports[name], f"{name} platform")
            message_sock = _listener(config.bind, config.ports["message"], "message server")
            control_sock = _listener("127.0.0.1", config.control_port) if config.control_port is not None else None
        except OSError:
            for pair in pairs.values():
                for sock in pair:
                    sock.close()
            raise
        for name, (tcp, udp) in pairs.items():
            ctx.ports[name] = tcp.getsockname()[1]
            self.platforms[name] = PlatformServer(ctx, responder, name, tcp, udp)
        ctx.ports["message"] = message_sock.getsockname()[1]
        self.message = MessageServer(ctx, responder, message_sock)
        if control_sock is not None:
            ctx.ports["control"] = control_sock.getsockname()[1]
            self.control = ControlServer(ctx, control_sock, self.platforms)
        if config.appstore_port is not None:
            self.bind_appstore(config.appstore_port)
        if config.jobmanager_port is not None:
            self.jobmanager = JobManager("127.0.0.1", config.jobmanager_port, ctx)
            ctx.ports["jobmanager"] = self.jobmanager.port

    def bind_appstore(self, port: int) -> None:
        """The app store on `port` with a fresh certificate. Gateway mode calls
        it on its own: a port it may not bind (443 needs privileges) leaves
        only the store out there."""
        config = self.ctx.config
        sock = _listener(config.bind, port, "app store")
        try:
            directory = config.appstore_cert_dir
            if directory is None:
                directory = self._cert_tmp = tempfile.mkdtemp(prefix="qdquick-sim-")
            cert = make_certificate(directory, [config.advertise, config.bind])
        except OSError:
            sock.close()
            raise
        self.cert = cert
        self.ctx.ports["appstore"] = sock.getsockname()[1]
        self.appstore = AppStoreServer(self.ctx, sock, cert)

    def cleanup(self) -> None:
        if self._cert_tmp is not None:
            shutil.rmtree(self._cert_tmp, ignore_errors=True)

    def servers(self) -> list[PlatformServer | MessageServer | ControlServer | AppStoreServer | JobManager]:
        extra = [s for s in (self.message, self.control, self.appstore, self.jobmanager) if s is not None]
        return [*self.platforms.values(), *extra]

    def ready_line(self) -> str:
        bind = self.ctx.config.bind
        host = f"[{bind}]" if ":" in bind else bind
        local = ("control", "jobmanager")  # always on 127.0.0.1
        parts = [f"{name}={host}:{port}" for name, port in self.ctx.ports.items() if name not in local]
        parts += [f"{name}=127.0.0.1:{self.ctx.ports[name]}" for name in local if name in self.ctx.ports]
        return "qdquick-sim ready " + " ".join(parts)

    def run(self) -> int:
        for server in self.servers():
            server.start()
        say(self.ready_line())
        if self.cert is not None:
            _print_extra(f"qdquick-sim appstore-ca {self.cert.cert}")
        while not self.ctx.stop.wait(0.2):
            pass
        for server in self.servers():
            server.stop()
        self.recorder.close()
        self.cleanup()
        return 0


def stop_on_signals() -> threading.Event:
    """An event set by SIGTERM or SIGINT. Installed before any socket exists,
    so a test that stops us early still sees exit status 0."""
    stop = threading.Event()

    def on_signal(signum: int, frame: FrameType | None) -> None:
        stop.set()
    signal.signal(signal.SIGTERM, on_signal)
    signal.signal(signal.SIGINT, on_signal)
    return stop


def main(argv: list[str] | None = None) -> int:
    config = parse_args(argv)
    stop = stop_on_signals()
    try:
        script = Script.load(config.script_path) if config.script_path else Script()
    except ScriptError as exc:
        print(f"qdquick-sim: bad script: {exc}", file=sys.stderr)
        return 2
    sim: Simulator | None = None
    try:
        sim = Simulator(config, script, stop)
        sim.bind()
    except OSError as exc:
        if sim is not None:
            sim.cleanup()
        print(f"qdquick-sim: cannot start: {exc}", file=sys.stderr)
        return 1
    return sim.run()
