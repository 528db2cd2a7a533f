"""Wakes tasks of a loop, from native threads and from other tasks."""

from __future__ import annotations

import asyncio
from collections import deque
from typing import Callable


def post(loop: asyncio.AbstractEventLoop, function: Callable[..., object], *arguments: object) -> None:
    """Runs a function on the loop, from any thread; nothing happens if the loop is closed."""
    try:
        loop.call_soon_threadsafe(function, *arguments)
    except RuntimeError:
        if not loop.is_closed():
            raise


def settle(future: asyncio.Future[None], error: Exception | None = None) -> None:
    """Settles a future unless it is done. An error that nobody retrieves is not reported."""
    if future.done():
        return
    if error is None:
        future.set_result(None)
    else:
        future.set_exception(error)
        future.exception()


class Waker:
    """Passes wake-ups to the loop in batches, because each one costs a system call."""

    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        self.loop = loop
        self._pending: deque[asyncio.Future[None]] = deque()
        self._scheduled = False

    def wake(self, future: asyncio.Future[None]) -> None:
        """From any thread."""
        self._pending.append(future)
        if not self._scheduled:  # two threads may both get here: the second run has nothing to do
            self._scheduled = True
            post(self.loop, self._run)

    def _run(self) -> None:
        # The mark is cleared before the queue is read, so that a later wake-up schedules another run.
        self._scheduled = False
        while self._pending:
            future = self._pending.popleft()
            settle(future)


class Signal:
    """Lets tasks wait for the next change, or until everything has ended."""

    def __init__(self) -> None:
        self._waiters: set[asyncio.Future[None]] = set()
        self._ended: Callable[[], Exception] | None = None

    def notify(self) -> None:
        for waiter in self._waiters:
            settle(waiter)

    def end(self, error: Callable[[], Exception]) -> None:
        """From now on `check` and `wait` raise what `error` returns, a new exception for each task."""
        if self._ended is None:
            self._ended = error
            self.notify()

    def check(self) -> None:
        if self._ended is not None:
            raise self._ended()

    async def wait(self, seconds: float | None = None) -> bool:
        """Waits for the next `notify`; False on time-out."""
        self.check()
        waiter: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._waiters.add(waiter)
        try:
            done, _ = await asyncio.wait([waiter], timeout=seconds)
        finally:
            self._waiters.discard(waiter)
            waiter.cancel()
        self.check()
        return bool(done)
