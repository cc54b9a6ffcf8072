"""Package server: plain HTTP on loopback serving the .cpk files of one
directory, as the operator's download server does for plugin installs."""

from __future__ import annotations

import os
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

from .recorder import Recorder


class PackageServer:
    def __init__(self, directory: str, host: str, port: int, recorder: Recorder) -> None:
        self.directory = os.path.abspath(directory)
        server = self

        class Handler(BaseHTTPRequestHandler):
            def do_GET(self) -> None:  # noqa: N802 (the http.server name)
                server.serve(self)

            def log_message(self, format: str, *args: object) -> None:  # noqa: A002
                pass  # the recorder keeps every request

        self._recorder = recorder
        self._httpd = ThreadingHTTPServer((host, port), Handler, bind_and_activate=False)
        try:
            self._httpd.allow_reuse_address = True
            self._httpd.server_bind()
            self._httpd.server_activate()
        except OSError as exc:
            self._httpd.server_close()
            raise OSError(exc.errno, f"package server port {port} (TCP): {exc.strerror}") from None
        self._httpd.daemon_threads = True
        self.port = self._httpd.server_address[1]
        self._thread = threading.Thread(target=self._httpd.serve_forever, name="packages", daemon=True)

    def url(self, host: str, name: str) -> str:
        return f"http://{host}:{self.port}/{name}"

    def serve(self, request: BaseHTTPRequestHandler) -> None:
        name = request.path.lstrip("/")
        path = os.path.join(self.directory, name)
        # Only plain file names of this directory: no sub-paths, no "..".
        ok = "/" not in name and name.endswith(".cpk") and os.path.isfile(path)
        peer = f"{request.client_address[0]}:{request.client_address[1]}"
        if not ok:
            request.send_error(404)
            self._recorder.add("packages", "http", "in", peer, f"GET {request.path}", status=404)
            return
        with open(path, "rb") as f:
            data = f.read()
        request.send_response(200)
        request.send_header("Content-Type", "application/octet-stream")
        request.send_header("Content-Length", str(len(data)))
        request.end_headers()
        request.wfile.write(data)
        self._recorder.add("packages", "http", "in", peer, f"GET {request.path}", status=200, size=len(data))

    def start(self) -> None:
        self._thread.start()

    def stop(self) -> None:
        # shutdown() waits for serve_forever() to notice: never started, it
        # would wait for ever (a start that failed on another port).
        if self._thread.is_alive():
            self._httpd.shutdown()
        self._httpd.server_close()
