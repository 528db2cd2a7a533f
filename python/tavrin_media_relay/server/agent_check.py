"""Tells HAProxy how a relay server is, by really joining a room of its own.

A line for each connection, as HAProxy's agent-check wants it: "up ready 100%", with a weight that falls as
descriptors run out; "down #..." when joining does not work within its time; "drain" once asked to.
"""

from __future__ import annotations

import contextlib
import os
import socket
import threading
import time
from pathlib import Path

from .front import Place
from .server import RelayServer
from .tokens import join_token
from .websocket import WebSocket

ROOM = "agent-check"
"""Of every server that is checked."""
EVERY = 2.0  # s between joins
WITHIN = 1.0  # s that one may take
_STALE = EVERY + 2 * WITHIN
_LEAST_WEIGHT = 10


def join(port: int, secret: str, timeout: float = WITHIN) -> None:
    """Joins and leaves the room of the check; OSError, or RuntimeError with the server's words."""
    realm, room_token = join_token(ROOM, secret, 60).split()

    def checked(answer: dict[str, object]) -> dict[str, object]:
        if answer.get("janus") == "error":
            raise RuntimeError(str(answer.get("error"))[:100])
        return answer

    with WebSocket(port, timeout) as server:
        session = checked(server.ask(janus="create", token=realm))["data"]["id"]  # type: ignore[index]
        here = {"token": realm, "session_id": session}
        try:
            attached = checked(server.ask(janus="attach", plugin="janus.plugin.videoroom", **here))
            handle = attached["data"]["id"]  # type: ignore[index]
            body = {"request": "join", "ptype": "publisher", "room": ROOM, "token": room_token}
            joined = checked(server.ask(janus="message", handle_id=handle, body=body, **here))
            data = joined["plugindata"]["data"]  # type: ignore[index]
            if data.get("videoroom") != "joined":
                raise RuntimeError(str(data.get("error", data))[:100])
        finally:
            with contextlib.suppress(OSError, RuntimeError):
                checked(server.ask(janus="destroy", **here))


class AgentCheck:
    """Two threads: one joins, one answers. `drain` and `close` from any."""

    def __init__(self, at: Place, server: RelayServer) -> None:
        """OSError if the port is taken."""
        self._server = server
        self._state = "down #not tried yet"
        self._tried = time.monotonic()
        self._draining = False
        self._over = threading.Event()
        family = socket.AF_INET6 if ":" in at.host else socket.AF_INET
        self._socket = socket.create_server((at.host, at.port), family=family, backlog=64)
        self._threads = [
            threading.Thread(target=each, name="tavrin-check", daemon=True)
            for each in (self._try, self._answer)
        ]
        for each in self._threads:
            each.start()

    def drain(self) -> None:
        self._draining = True

    def close(self) -> None:
        self._over.set()
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
        for each in self._threads:
            each.join(2 * WITHIN)

    def line(self) -> str:
        """What HAProxy is told now."""
        if time.monotonic() - self._tried > _STALE:
            return "down #hangs"
        if self._state != "up":
            return self._state
        return "up drain" if self._draining else f"up ready {self._weight()}%"

    def _weight(self) -> int:
        process = self._server.process
        with contextlib.suppress(OSError, StopIteration, ValueError, AttributeError):
            folder = Path(f"/proc/{process.pid}")  # type: ignore[union-attr]
            limits = (folder / "limits").read_text().splitlines()
            most = int(next(line for line in limits if line.startswith("Max open files")).split()[3])
            free = 1 - len(os.listdir(folder / "fd")) / most
            return max(_LEAST_WEIGHT, min(100, round(100 * free)))
        return 100  # its descriptors are another user's to count

    def _try(self) -> None:
        settings = self._server.settings
        while not self._over.is_set():
            try:
                join(settings.port, settings.token_secret)
                self._state = "up"
            except (OSError, RuntimeError, ValueError, KeyError, TypeError) as error:
                self._state = f"down #{' '.join(str(error).split()) or type(error).__name__}"[:120]
            self._tried = time.monotonic()
            # A failure is soon tried again.
            self._over.wait(EVERY if self._state == "up" else 0.5)

    def _answer(self) -> None:
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            with connection, contextlib.suppress(OSError):
                connection.settimeout(1.0)
                connection.sendall(f"{self.line()}\n".encode())
