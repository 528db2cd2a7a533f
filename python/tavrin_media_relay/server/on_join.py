"""Gives an agent to a room when somebody comes: hears the server's own events on loopback, and dispatches."""

from __future__ import annotations

import base64
import fnmatch
import hmac
import json
import queue
import re
import secrets
import threading
import time
from dataclasses import dataclass
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any, Callable

from ..serving.broker import BrokerError
from ..serving.brokers import Dispatcher
from ..serving.jobs import checked_name
from .agent_check import ROOM

_MOST_BYTES = 1 << 20
_MOST_WAITING = 10_000
_PATIENCE = 60.0  # s that a broker may be away before a join is forgotten
_OVER = ("ended", "failed", "stopped")
_PATTERN = re.compile(r"[A-Za-z0-9._*?\[\]!-]{1,128}")


@dataclass(frozen=True)
class Rule:
    """Rooms whose name has this form get this agent."""

    pattern: str
    agent: str


def rule(text: str) -> Rule:
    """ "support-*=greeter"; ValueError, which names the argument."""
    pattern, equals, agent = text.partition("=")
    if not equals or not _PATTERN.fullmatch(pattern):
        raise ValueError(f"--on-join: must be ROOMS=AGENT, such as 'support-*=greeter', not {text!r:.80}")
    return Rule(pattern, checked_name("--on-join", agent))


class OnJoin:
    """An HTTP server for the events, and a thread that dispatches. A room gets its agent once, however many
    come: as long as the job that was sent for it waits or runs, no other is."""

    def __init__(self, rules: list[Rule], broker: Dispatcher, tell: Callable[[str], None]) -> None:
        """tell: shows a line for people. OSError if no port is free."""
        self._rules, self._broker, self._tell = rules, broker, tell
        self._joins: queue.Queue[tuple[str, str, float] | None] = queue.Queue(_MOST_WAITING)
        self._sent: dict[tuple[str, str], str] = {}
        self.user, self.password = "janus", secrets.token_urlsafe(24)
        """With which the server shows that it is the server."""
        expected = "Basic " + base64.b64encode(f"{self.user}:{self.password}".encode()).decode()
        outer = self

        class Handler(BaseHTTPRequestHandler):
            timeout = 5
            protocol_version = "HTTP/1.1"

            def do_POST(self) -> None:
                size = int(self.headers.get("Content-Length") or 0)
                if not hmac.compare_digest(self.headers.get("Authorization", ""), expected):
                    self.send_error(401)
                elif not 0 < size <= _MOST_BYTES:
                    self.send_error(413)
                else:
                    outer.hear(self.rfile.read(size))
                    self.send_response(200)
                    self.send_header("Content-Length", "0")
                    self.end_headers()

            def log_message(self, *_: object) -> None:
                """Says nothing."""

        self._http = ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self._http.daemon_threads = True
        self.port = int(self._http.server_address[1])
        self._threads = [
            threading.Thread(target=self._http.serve_forever, name="tavrin-events", daemon=True),
            threading.Thread(target=self._dispatch, name="tavrin-on-join", daemon=True),
        ]
        for each in self._threads:
            each.start()

    def close(self) -> None:
        self._http.shutdown()
        self._http.server_close()
        self._joins.put(None)
        for each in self._threads:
            each.join(5.0)

    def hear(self, body: bytes) -> None:
        """One or several of the server's events."""
        try:
            found = json.loads(body)
        except (ValueError, RecursionError):
            return
        for event in found if isinstance(found, list) else [found]:
            room = _joined_room(event)
            if room is None or room == ROOM:
                continue
            for each in self._rules:
                if fnmatch.fnmatchcase(room, each.pattern):
                    try:
                        self._joins.put_nowait((room, each.agent, time.monotonic()))
                    except queue.Full:
                        self._tell(f"too many joins wait: nobody is sent to {room}")

    def _dispatch(self) -> None:
        while (join := self._joins.get()) is not None:
            room, agent, since = join
            while True:
                try:
                    self._send(room, agent)
                    break
                except BrokerError as error:
                    if time.monotonic() - since > _PATIENCE:
                        self._tell(f"{room}: no {agent}: {error}")
                        break
                    time.sleep(0.5)
                except ValueError as error:  # a room's name that no job can have
                    self._tell(f"no {agent}: {error}")
                    break

    def _send(self, room: str, agent: str) -> None:
        last = self._sent.get((room, agent))
        if last is not None:
            status = self._broker.job(last)
            if status is not None and status.state not in _OVER:
                return  # it is on its way or there; its own coming is such a join, too
        self._sent[room, agent] = job = self._broker.dispatch(agent, room, {"reason": "join"})
        if len(self._sent) > _MOST_WAITING:
            self._sent.pop(next(iter(self._sent)))
        self._tell(f"{room}: sent {agent} ({job})")


def _joined_room(event: Any) -> str | None:
    try:
        data = event["event"]["data"]
        return str(data["room"]) if data["event"] == "joined" else None
    except (KeyError, TypeError, IndexError):
        return None
