"""One operator platform (cube, manage or plugin) on UDP and framed TCP.

Each TCP connection is read on its own thread and stays open after
registration: that is the persistent channel on which the simulator pushes
commands and reads the gateway's replies.
"""

from __future__ import annotations

import socket
import struct
import threading
from typing import Any, Callable

from .context import Context
from .framing import FrameError, encode_frame, read_frame
from .recorder import Record, parse_json, to_text
from .replies import Outcome, Responder
from .script import Send


def peer_text(addr: Any) -> str:
    return f"{addr[0]}:{addr[1]}"


def serve_connections(ctx: Context, listener: socket.socket, name: str,
                      serve: Callable[[socket.socket, str], None]) -> None:
    """Accept on `listener` until the simulator stops or the listener is
    closed, serving each connection on a thread of its own: serve(sock, peer)."""
    def accept_loop() -> None:
        while not ctx.stop.is_set():
            try:
                sock, addr = listener.accept()
            except OSError:
                return  # listener closed at shutdown
            peer = peer_text(addr)
            threading.Thread(target=serve, args=(sock, peer), name=f"{name}-{peer}", daemon=True).start()
    threading.Thread(target=accept_loop, name=f"{name}-accept", daemon=True).start()


def later(delay: float, action: Callable[[], None]) -> None:
    """Run now, or on a timer thread so a delayed answer never blocks reading."""
    if delay <= 0:
        action()
        return
    timer = threading.Timer(delay, action)
    timer.daemon = True
    timer.start()


class Channel:
    """One accepted TCP connection; sends are serialised by a lock."""

    def __init__(self, sock: socket.socket, peer: str) -> None:
        # A gateway that stops reading must not hold a sender (and the lock)
        # for ever; 5 s is the gateway's own send time-out.
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", 5, 0))
        self.sock = sock
        self.peer = peer
        self.registered = False
        self.closed = False
        self._lock = threading.Lock()

    def send(self, text: str) -> bool:
        with self._lock:
            if self.closed:
                return False
            try:
                self.sock.sendall(encode_frame(text))
                return True
            except OSError:
                return False

    def close(self) -> None:
        with self._lock:
            if self.closed:
                return
            self.closed = True
            try:
                self.sock.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # already gone on the peer's side
            self.sock.close()


class PlatformServer:
    def __init__(self, ctx: Context, responder: Responder, name: str,
                 tcp: socket.socket, udp: socket.socket) -> None:
        self.name = name
        self._ctx = ctx
        self._responder = responder
        self._tcp = tcp
        self._udp = udp
        self._lock = threading.Lock()
        self._channels: list[Channel] = []
        self._udp_peer: tuple[Any, ...] | None = None

    def start(self) -> None:
        serve_connections(self._ctx, self._tcp, f"{self.name}-tcp", self._serve_tcp)
        threading.Thread(target=self._udp_loop, name=f"{self.name}-udp", daemon=True).start()

    def stop(self) -> None:
        for sock in (self._tcp, self._udp):
            sock.close()
        with self._lock:
            channels = list(self._channels)
        for channel in channels:
            channel.close()

    # ---- sends on the simulator's own initiative (script and control port)

    def push(self, text: str) -> Record | None:
        """Send on the newest registered channel (else the newest open one)."""
        channel = self._pick_channel()
        if channel is None:
            return None
        return self._send_tcp(channel, text, note="push")

    def udp_send(self, text: str, note: str = "udp_send") -> Record | None:
        """Send to the source address of the gateway's last datagram."""
        with self._lock:
            peer = self._udp_peer
        if peer is None:
            return None
        return self._send_udp(peer, text, note=note)

    def close_channels(self) -> int:
        """Closes every open TCP channel, as a platform that dies would."""
        with self._lock:
            channels = [c for c in self._channels if not c.closed]
        for channel in channels:
            channel.close()
        return len(channels)

    def status(self) -> dict[str, Any]:
        with self._lock:
            return {"channels": [{"peer": c.peer, "registered": c.registered}
                                 for c in self._channels if not c.closed],
                    "udp_peer": peer_text(self._udp_peer) if self._udp_peer else None}

    def _pick_channel(self) -> Channel | None:
        with self._lock:
            open_channels = [c for c in self._channels if not c.closed]
        registered = [c for c in open_channels if c.registered]
        candidates = registered or open_channels
        return candidates[-1] if candidates else None

    # ---- TCP

    def _serve_tcp(self, sock: socket.socket, peer: str) -> None:
        channel = Channel(sock, peer)
        with self._lock:
            self._channels.append(channel)
        rec = self._ctx.recorder
        rec.add(self.name, "tcp", "event", channel.peer, None, note="connected")
        note = "closed by peer"
        try:
            while not channel.closed:
                text = read_frame(channel.sock)
                if text is None:
                    break
                self._on_tcp_message(channel, text)
        except FrameError as exc:
            note = str(exc)
        except OSError as exc:
            note = f"receive failed: {exc}"
        if channel.closed:
            note = "closed by simulator"
        channel.close()
        with self._lock:
            self._channels.remove(channel)
        rec.add(self.name, "tcp", "event", channel.peer, None, note=note)

    def _on_tcp_message(self, channel: Channel, text: str) -> None:
        outcome = self._responder.respond(self.name, channel.peer, parse_json(text))
        self._record_in("tcp", channel.peer, text, outcome)

        def act() -> None:
            if outcome.action == "close":
                self._ctx.recorder.add(self.name, "tcp", "event", channel.peer, None, note="closing (scripted)")
                channel.close()
            elif outcome.action == "answer" and outcome.text is not None:
                self._send_tcp(channel, outcome.text)
                if outcome.registered:
                    channel.registered = True
                    self._fire_scripted_sends(channel)
        later(outcome.delay, act)

    def _send_tcp(self, channel: Channel, text: str, note: str | None = None) -> Record:
        ok = channel.send(text)
        return self._ctx.recorder.add(self.name, "tcp", "out", channel.peer, text,
                                      note=note, sent=None if ok else False)

    # ---- UDP

    def _udp_loop(self) -> None:
        while not self._ctx.stop.is_set():
            try:
                data, addr = self._udp.recvfrom(65535)
            except ConnectionRefusedError:
                continue  # ICMP error from an earlier send; the socket is still good
            except OSError:
                return  # closed at shutdown
            with self._lock:
                self._udp_peer = addr
            self._on_udp_message(addr, data.decode("utf-8", errors="replace"))

    def _on_udp_message(self, addr: tuple[Any, ...], text: str) -> None:
        peer = peer_text(addr)
        outcome = self._responder.respond(self.name, peer, parse_json(text))
        self._record_in("udp", peer, text, outcome)

        def act() -> None:
            if outcome.action == "answer" and outcome.text is not None:
                self._send_udp(addr, outcome.text)
                if outcome.registered:
                    self._fire_scripted_sends(None)
        later(outcome.delay, act)

    def _send_udp(self, addr: tuple[Any, ...], text: str, note: str | None = None) -> Record:
        try:
            self._udp.sendto(text.encode("utf-8"), addr)
            ok = True
        except OSError:
            ok = False
        return self._ctx.recorder.add(self.name, "udp", "out", peer_text(addr), text,
                                      note=note, sent=None if ok else False)

    # ---- shared

    def _record_in(self, transport: str, peer: str, text: str, outcome: Outcome) -> None:
        self._ctx.recorder.add(self.name, transport, "in", peer, text, kind=outcome.kind,
                               action=outcome.action, **outcome.verdicts)

    def _fire_scripted_sends(self, channel: Channel | None) -> None:
        """Pushes go on the channel that just registered (so they wait for a
        TCP registration); UDP sends go to the gateway's last source address."""
        script = self._ctx.script
        if channel is not None:
            for send in script.take_sends(self.name, "push"):
                later(self._ctx.scaled(send.delay),
                      lambda s=send: self._send_tcp(channel, self._send_text(s), note="scripted push"))
        for send in script.take_sends(self.name, "udp_send"):
            later(self._ctx.scaled(send.delay), lambda s=send: self._scripted_udp(s))

    def _scripted_udp(self, send: Send) -> None:
        if self.udp_send(self._send_text(send), note="scripted udp_send") is None:
            self._ctx.recorder.add(self.name, "udp", "event", "", None,
                                   note="scripted udp_send dropped: no datagram seen yet")

    def _send_text(self, send: Send) -> str:
        if send.text is not None:
            return self._ctx.expand(send.text)
        return to_text(self._ctx.expand(send.message))
