"""Serves the room page, and proxies its WebSocket to the server: one origin, one port, one certificate.

A page from localhost may use camera and microphone without TLS; for any other address browsers require HTTPS.
"""

from __future__ import annotations

import functools
import select
import socket
import ssl
import threading
from http import HTTPStatus
from http.server import SimpleHTTPRequestHandler, ThreadingHTTPServer
from pathlib import Path
from types import TracebackType

RELAY_PATH = "/relay"
_FILES = {"/", "/index.html", "/room.css", "/room.js", "/janus.js", "/figures.js", "/icon.svg"}
_IDLE_SECONDS = 120  # the page speaks every 25 s


def find_page() -> Path:
    """The folder `web`, beside the package or in its source tree."""
    package = Path(__file__).resolve().parents[1]
    for folder in (package / "web", package.parents[1] / "web"):
        if (folder / "index.html").is_file():
            return folder
    raise FileNotFoundError("the room page (folder web) was not found")


def _hand_on(browser: socket.socket, server: socket.socket) -> None:
    """Copies both ways, until either side ends. On one thread: two must not use a TLS connection at once."""
    both = (browser, server)
    while True:
        pending = isinstance(browser, ssl.SSLSocket) and browser.pending() > 0
        ready = [browser] if pending else select.select(both, [], [], _IDLE_SECONDS)[0]
        if not ready:
            return
        for source in ready:
            data = source.recv(65536)
            if not data:
                return
            (server if source is browser else browser).sendall(data)


class _Handler(SimpleHTTPRequestHandler):
    server_version = "room"
    sys_version = ""
    timeout = 30

    def __init__(self, *arguments: object, relay_port: int, directory: str) -> None:
        self._relay_port = relay_port
        super().__init__(*arguments, directory=directory)  # type: ignore[arg-type]

    def log_message(self, format: str, *arguments: object) -> None:
        pass  # requests are not logged

    def do_GET(self) -> None:
        path = self.path.partition("?")[0]
        if path == RELAY_PATH:
            self._tunnel()
        elif path in _FILES:
            super().do_GET()
        else:
            self.send_error(HTTPStatus.NOT_FOUND, "There is no such page")

    def end_headers(self) -> None:
        self.send_header("Cache-Control", "no-cache")
        self.send_header("X-Content-Type-Options", "nosniff")
        self.send_header("Referrer-Policy", "no-referrer")
        self.send_header(
            "Content-Security-Policy",
            "default-src 'self'; connect-src 'self' ws: wss:; media-src 'self' blob:; frame-ancestors 'none'",
        )
        super().end_headers()

    def _tunnel(self) -> None:
        if "websocket" not in self.headers.get("Upgrade", "").lower():
            self.send_error(HTTPStatus.UPGRADE_REQUIRED, "This path speaks WebSocket")
            return
        self.close_connection = True
        try:
            server = socket.create_connection(("127.0.0.1", self._relay_port), timeout=5)
        except OSError:
            self.send_error(HTTPStatus.BAD_GATEWAY, "The relay server is not there")
            return
        with server:
            lines = [f"GET / {self.request_version}"]
            lines += [f"{name}: {value}" for name, value in self.headers.items()]
            try:
                server.sendall("\r\n".join([*lines, "", ""]).encode("latin-1"))
                _hand_on(self.connection, server)
            except OSError:
                pass  # one side is gone, which ends the tunnel


class _Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request: object, address: object) -> None:
        pass  # a browser disconnected in the middle of a request


class PageServer:
    """A context manager. Serves on its own threads, which end with it or, at the latest, the process."""

    def __init__(
        self,
        address: str,
        port: int,
        relay_port: int,
        page: Path,
        certificate: tuple[Path, Path] | None = None,
    ) -> None:
        """Raises OSError if the port is taken. `certificate`: PEM files, certificate and key, for HTTPS."""
        handler = functools.partial(_Handler, relay_port=relay_port, directory=str(page))
        kind = type(
            "Server", (_Server,), {"address_family": socket.AF_INET6 if ":" in address else socket.AF_INET}
        )
        self._server: ThreadingHTTPServer = kind((address, port), handler)
        if certificate is not None:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(*certificate)
            # The handshake comes with the first read, on the connection's own thread.
            self._server.socket = context.wrap_socket(
                self._server.socket, server_side=True, do_handshake_on_connect=False
            )
        scheme = "http" if certificate is None else "https"
        host = "localhost" if certificate is None else f"[{address}]" if ":" in address else address
        self.url = f"{scheme}://{host}:{self._server.server_address[1]}/"
        self._thread = threading.Thread(target=self._server.serve_forever, name="room page")

    def __enter__(self) -> "PageServer":
        self._thread.start()
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()
