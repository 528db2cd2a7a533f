"""The state that a session shares with its publisher and its subscribers: its loop, its end and its
listeners."""

from __future__ import annotations

import asyncio
import contextlib
from typing import Callable

from . import _module, events
from ._presence import Presence
from ._wakeups import Signal, Waker, post
from .errors import ClosedError, PublisherError, SessionError

_READY_PATIENCE = 10.0  # s


class SessionState:
    """Belongs to the loop on which it is made; only `post` may be called from other threads."""

    def __init__(self) -> None:
        self.loop = asyncio.get_running_loop()
        self.waker = Waker(self.loop)
        self.presence = Presence(self.waker)
        self.ended: str | None = None  # how
        self.failure: SessionError | None = None
        self.changed = Signal()
        self.rejoins = False
        """It will be joined again when it is lost."""
        self.away = False
        """The session is lost, and being joined again."""
        self._audio_ready = False

    def check_place(self) -> None:
        """Raises if this is not the session's process and loop; ClosedError if the session is over."""
        _module.check_process()
        here: asyncio.AbstractEventLoop | None = None
        with contextlib.suppress(RuntimeError):
            here = asyncio.get_running_loop()
        if here is not self.loop:
            if self.ended is not None:
                raise ClosedError(self.ended)
            raise RuntimeError(
                "a session is used from the event loop that opened it; from another thread, "
                "with asyncio.run_coroutine_threadsafe or loop.call_soon_threadsafe"
            )

    def check(self) -> None:
        """Raises if the session is over, or if this is not its process and loop."""
        if self.ended is not None:
            raise ClosedError(self.ended)
        self.check_place()

    def post(self, function: Callable[..., object], *arguments: object) -> None:
        """Runs a function on the loop, from a native thread."""
        post(self.loop, function, *arguments)

    def notify(self, event: events.Event) -> None:
        """Gives an event to all listeners."""
        self.presence.notify(event)

    def audio_ready(self) -> None:
        """The session takes audio from now on."""
        self._audio_ready = True
        self.changed.notify()

    def leave(self) -> None:
        """The session is lost: nothing is taken until `come_back`."""
        self.away, self._audio_ready = True, False
        self.changed.notify()

    def come_back(self) -> None:
        self.away = False
        self.changed.notify()

    async def wait_here(self) -> None:
        """Waits while the session is being joined again; ClosedError if that failed."""
        while self.away:
            await self.changed.wait(0.5)

    async def wait_audio_ready(self) -> None:
        end = self.loop.time() + _READY_PATIENCE
        while not self._audio_ready:
            if self.away:
                end = self.loop.time() + _READY_PATIENCE
            if self.loop.time() > end:
                raise PublisherError(
                    PublisherError.TIMED_OUT, f"the session has not asked for audio in {_READY_PATIENCE:g} s"
                )
            await self.changed.wait(0.5)
