"""A small WebSocket client, for requests to the server on this machine: text messages, one after the other.

Not for media or for anybody else's server: no TLS, no fragments, no compression.
"""

from __future__ import annotations

import base64
import itertools
import json
import os
import socket
import struct
from types import TracebackType
from typing import Any

_LIMIT = 1 << 20
_CLOSE, _PING = 8, 9


class WebSocket:
    """A connection to ws://127.0.0.1:PORT, for one thread. OSError when it breaks or takes too long."""

    def __init__(self, port: int, timeout: float) -> None:
        self._socket = socket.create_connection(("127.0.0.1", port), timeout)
        self._socket.settimeout(timeout)
        self._numbers = itertools.count(1)
        key = base64.b64encode(os.urandom(16)).decode()
        self._socket.sendall(
            (
                f"GET / HTTP/1.1\r\nHost: 127.0.0.1:{port}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\n"
                "Sec-WebSocket-Protocol: janus-protocol\r\n\r\n"
            ).encode()
        )
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            byte = self._socket.recv(1)
            if not byte or len(head) > 8192:
                raise ConnectionError("the server answers with no WebSocket")
            head += byte
        if not head.startswith(b"HTTP/1.1 101"):
            raise ConnectionError(f"the server answers {head[:40]!r}")

    def __enter__(self) -> "WebSocket":
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, trace: TracebackType | None
    ) -> None:
        self._socket.close()

    def ask(self, **message: Any) -> dict[str, Any]:
        """Sends a request and returns its answer, with events and acknowledgements left out."""
        number = str(next(self._numbers))
        self._send(1, json.dumps({**message, "transaction": number}).encode())
        while True:
            answer: dict[str, Any] = json.loads(self._receive())
            if answer.get("transaction") == number and answer.get("janus") != "ack":
                return answer

    def _send(self, kind: int, data: bytes) -> None:
        size = len(data)
        length = struct.pack("!B", 128 | size) if size < 126 else struct.pack("!BH", 254, size)
        mask = os.urandom(4)
        masked = bytes(each ^ mask[at % 4] for at, each in enumerate(data))
        self._socket.sendall(struct.pack("!B", 128 | kind) + length + mask + masked)

    def _receive(self) -> bytes:
        while True:
            kind, size = self._read(2)
            if size == 126:
                (size,) = struct.unpack("!H", self._read(2))
            elif size == 127:
                (size,) = struct.unpack("!Q", self._read(8))
            if size > _LIMIT:
                raise ConnectionError(f"a message has {size} bytes")
            data = self._read(size)
            if kind & 15 == _PING:
                self._send(10, data)
            elif kind & 15 == _CLOSE:
                raise ConnectionError("the server closed the connection")
            elif kind & 15 == 1:
                return data

    def _read(self, size: int) -> bytes:
        data = b""
        while len(data) < size:
            part = self._socket.recv(size - len(data))
            if not part:
                raise ConnectionError("the server closed the connection")
            data += part
        return data
