"""A command's visit to a session: joining, reporting events, figures each second, and the ways to end."""

from __future__ import annotations

import argparse
import asyncio
import os
import signal
from pathlib import Path
from typing import Any, Awaitable, Callable, Coroutine

from .. import _tasks, aio
from ..models import LoggingSettings, SessionAVSettings, SessionSettings
from ._failure import Failure
from ._figures import Figures
from ._terminal import Terminal

_SIGNALS = (signal.SIGINT, signal.SIGTERM)


class Visit:
    """A command's access to its session while joined. Made by `run`."""

    def __init__(self, session: aio.Session, terminal: Terminal, figures: Figures) -> None:
        self.session = session
        self.terminal = terminal
        self.figures = figures
        self.stopped: int | None = None
        """The signal that stopped us, if any."""
        self.waiting: Callable[[], int] = lambda: 0
        """Returns how much is queued in the command's iterators; for the figures."""
        self._stop = asyncio.Event()

    def stop(self, number: int) -> None:
        self.stopped = number
        self._stop.set()

    async def until_stopped(self, work: Awaitable[object], patient: bool = False) -> bool:
        """Runs the work to its end, or until a signal comes: then it is cancelled, and the result is False.
        The same, if `patient`, when the server ends the session. Raises the work's exception, or the
        session's failure."""
        task = asyncio.ensure_future(work)
        ends = [asyncio.ensure_future(each) for each in (self._stop.wait(), self.session.ended())]
        try:
            await asyncio.wait([task, *ends], return_when=asyncio.FIRST_COMPLETED)
            if self.session.over and not self._stop.is_set():
                await self.session.ended()  # raises if it failed: that is why the work failed, too
                if not patient:
                    raise Failure("the server ended the session")
                return False
            if not task.done():
                return False
            task.result()
            return True
        finally:
            await _tasks.end(task, *ends)

    async def watch(self) -> None:
        """Reports participants and streams until the session is over."""
        async for event in self.session.events():
            name = type(event).__name__
            about: Any = getattr(event, "stream", None) or getattr(event, "connection", None)
            error: aio.MediaError | None = getattr(event, "error", None)
            fields = {} if about is None else {"id": about.id}
            if error is not None:
                fields |= {"code": str(error.code), "text": error.message}
            self.figures.event(name, **fields)
            text = f"{_WORDS.get(name, name)} {about.id if about is not None else ''}".rstrip()
            self.terminal.tell(name, f"{text}: {error}" if error is not None else text, **fields)

    async def sample(self) -> None:
        while True:
            await asyncio.sleep(1)
            await self.figures.sample(self.session, self.waiting())


_WORDS = {
    "ConnectionCreated": "Participant came:",
    "ConnectionDropped": "Participant went:",
    "StreamReceived": "Stream came:",
    "StreamDropped": "Stream went:",
    "SubscriberConnected": "Receiving",
    "SubscriberDisconnected": "No longer receiving",
    "SubscriberFailed": "Receiving failed,",
    "PublisherEnded": "Our stream was ended by the session",
    "PublisherFailed": "Our stream has failed",
    "SessionDisconnected": "The server ended the session",
    "SessionFailed": "The session has failed",
}


async def _visit(
    options: argparse.Namespace,
    terminal: Terminal,
    body: Callable[[Visit], Coroutine[Any, Any, int]],
    av: SessionAVSettings | None,
    figures: Path | None,
) -> int:
    loop = asyncio.get_running_loop()
    joining = asyncio.current_task()
    assert joining is not None
    for each in _SIGNALS:  # before there is anything to leave, an interruption ends the attempt
        loop.add_signal_handler(each, joining.cancel)
    settings = SessionSettings(av=av, logging=LoggingSettings(options.log_level))
    opening = aio.connect(
        options.app_id, options.session, options.token, settings=settings, timeout=options.timeout
    )
    with Figures(figures) as record:
        async with opening as session:
            visit = Visit(session, terminal, record)
            for each in _SIGNALS:
                loop.add_signal_handler(each, visit.stop, int(each))
            host = os.environ.get("API_HOSTNAME") or "the embedded engine"
            terminal.tell("joined", f"Joined {session.id} on {host}", session=session.id, host=host)
            record.event("joined", session=session.id)
            async with _tasks.beside(visit.watch(), visit.sample()):
                code = await body(visit)
                await record.sample(session, visit.waiting())
            terminal.tell("left", record.summary(), figures=record.totals)
            if record.fault:
                raise Failure(record.fault)
            return code


def run(
    options: argparse.Namespace,
    terminal: Terminal,
    body: Callable[[Visit], Coroutine[Any, Any, int]],
    av: SessionAVSettings | None = None,
    figures: Path | None = None,
) -> int:
    """Joins as the options say, runs the body, and leaves. Returns the body's exit code."""
    if options.host:
        os.environ["API_HOSTNAME"] = options.host
    try:
        return asyncio.run(_visit(options, terminal, body, av, figures))
    except aio.MediaError as error:
        hint = " (--log-level info shows it)" if error.code == error.NOT_STARTED else ""
        raise Failure(error.message + hint, error.code) from None
    except (aio.ClosedError, ValueError) as error:
        raise Failure(str(error)) from None
    except asyncio.CancelledError:
        return 130
