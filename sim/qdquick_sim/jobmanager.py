"""The gateway's local job manager on UDP 127.0.0.1:17401: the library
forwards some platform commands to it ("SetPlug-inParameterValues", OSGi
"Post") and sends its answer back to the platform unchanged. Script key
"jobmanager": {"answers": [...]}: each request takes the next answer, which
may add keys, wait ("delay") or stay silent ("silence", "close")."""

from __future__ import annotations

import json
import socket
import threading

from .context import Context
from .platform import later, peer_text

# Request keys the answer does not echo.
_CONSUMED = ("RPCMethod", "Plugin_Name", "Version", "Parameter")


def answer_for(text: str) -> dict:
    try:
        request = json.loads(text)
    except ValueError:
        return {"Result": -1}
    if not isinstance(request, dict) or not isinstance(request.get("RPCMethod"), str):
        return {"Result": -1}
    answer = {k: v for k, v in request.items() if k not in _CONSUMED}
    answer["Result"] = 0
    return answer


class JobManager:
    def __init__(self, host: str, port: int, ctx: Context) -> None:
        self._sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            self._sock.bind((host, port))
        except OSError as exc:
            self._sock.close()
            raise OSError(exc.errno, f"job manager port {port} (UDP): {exc.strerror}") from None
        self._sock.settimeout(0.2)
        self.port = self._sock.getsockname()[1]
        self._ctx = ctx
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._loop, name="jobmanager", daemon=True)

    def _loop(self) -> None:
        while not self._stop.is_set():
            try:
                data, addr = self._sock.recvfrom(65535)
            except socket.timeout:
                continue
            except OSError:
                return
            peer = peer_text(addr)
            text = data.decode("utf-8", "replace")
            self._ctx.recorder.add("jobmanager", "udp", "in", peer, text, kind="command")
            scripted = self._ctx.script.next_jobmanager_answer()
            answer = answer_for(text)
            if scripted is not None:
                if scripted.action != "answer":
                    self._ctx.recorder.add("jobmanager", "udp", "event", peer, None, note="silence")
                    continue
                answer.update(scripted.set)
            reply = json.dumps(answer)
            delay = self._ctx.scaled(scripted.delay) if scripted is not None else 0
            later(delay, lambda reply=reply, addr=addr, peer=peer: self._send(reply, addr, peer))

    def _send(self, reply: str, addr: tuple, peer: str) -> None:
        try:
            self._sock.sendto(reply.encode(), addr)
            self._ctx.recorder.add("jobmanager", "udp", "out", peer, reply)
        except OSError:
            self._ctx.recorder.add("jobmanager", "udp", "out", peer, reply, sent=False)

    def start(self) -> None:
        self._thread.start()

    def stop(self) -> None:
        self._stop.set()
        if self._thread.is_alive():
            self._thread.join(2)
        self._sock.close()
