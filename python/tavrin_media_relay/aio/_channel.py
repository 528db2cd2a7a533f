"""A bounded queue from a native thread to an `async for`: when full it drops its oldest item; it never
blocks.

Producers are native threads that hold the interpreter's lock briefly; the consumer is a task of the loop.
It has no lock: each step is one deque operation or one assignment, and the order of the steps makes it safe.
A lock could deadlock, since the garbage collector may run any program's `__del__` while it is held.
"""

from __future__ import annotations

import asyncio
import time
from collections import deque
from typing import Generic, Literal, Self, TypeVar, get_args

from ._wakeups import Waker
from .statistics import Totals

T = TypeVar("T")

#: The items kept for a slow consumer: with `drop_oldest` the newest `capacity`, with `latest` the newest one.
Policy = Literal["drop_oldest", "latest"]

#: Seconds after which a consumer that never has to wait yields to the loop.
_TURN = 0.005


def bounded(capacity: int | None, policy: Policy, default: int) -> int:
    """The capacity requested by a pair of arguments."""
    if policy not in get_args(Policy):
        raise ValueError(f"policy must be 'drop_oldest' or 'latest', not {policy!r}")
    if capacity is None:
        return 1 if policy == "latest" else default
    if isinstance(capacity, bool) or not isinstance(capacity, int):
        raise TypeError(f"capacity must be an int or None, not {capacity!r}")
    if policy == "latest" and capacity != 1:
        raise ValueError(f"policy 'latest' keeps one item: capacity must be 1 or left out, not {capacity}")
    if capacity < 1:
        raise ValueError(f"capacity must be at least 1, not {capacity}")
    return capacity


class ChannelWriter(Generic[T]):
    """The producer's end, with the queue itself. Members without a docstring belong to the reader."""

    def __init__(self, waker: Waker, capacity: int, what: str, totals: Totals | None = None) -> None:
        self.capacity = capacity
        self.what = what
        self.waker = waker
        self.totals = totals or Totals()
        self.dropped = 0
        self.items: deque[tuple[T, float]] = deque()
        self.waiter: asyncio.Future[None] | None = None
        self.closed = False
        self.error: Exception | None = None

    @property
    def waiting(self) -> int:
        """Items that wait for the consumer now; never more than `capacity`."""
        return len(self.items)

    def put(self, item: T, now: float) -> bool:
        """From one thread at a time. Never waits. False after the end."""
        if self.closed:
            return False
        items = self.items
        if len(items) >= self.capacity:
            try:
                items.popleft()
                self.dropped += 1
                self.totals.dropped += 1
            except IndexError:  # the consumer was faster
                pass
        items.append((item, now))
        self._wake()
        return True

    def close(self, error: Exception | None = None) -> None:
        """Ends the iteration after the queued items, with an error (raised once) or without. Any thread."""
        if not self.closed:
            self.error = error
            self.closed = True
            self._wake()

    def _wake(self) -> None:
        waiter, self.waiter = self.waiter, None
        if waiter is not None:
            self.waker.wake(waiter)


class Channel(Generic[T]):
    """An async iterator over items put in by a native thread. One task at a time may wait on it."""

    def __init__(self, writer: ChannelWriter[T]) -> None:
        self._queue = writer
        self._delivered = 0
        self._suspended_at = 0.0

    @property
    def capacity(self) -> int:
        """Items that are kept for a slow consumer."""
        return self._queue.capacity

    @property
    def waiting(self) -> int:
        """Items that wait for the consumer now; never more than `capacity`."""
        return self._queue.waiting

    @property
    def delivered(self) -> int:
        """Items that the consumer has taken."""
        return self._delivered

    @property
    def dropped(self) -> int:
        """Items dropped for newer ones because the consumer was slow."""
        return self._queue.dropped

    def __aiter__(self) -> Self:
        return self

    async def __anext__(self) -> T:
        queue = self._queue
        if asyncio.get_running_loop() is not queue.waker.loop:
            raise RuntimeError(f"{queue.what} belong to the event loop in which the session was opened")
        while True:
            now = time.monotonic()
            if queue.items:
                if now - self._suspended_at > _TURN:
                    await asyncio.sleep(0)
                    self._suspended_at = now = time.monotonic()
                try:
                    item, arrived = queue.items.popleft()
                except IndexError:
                    continue
                self._delivered += 1
                queue.totals.delivered += 1
                queue.totals.delays.add(now - arrived)
                return item
            if queue.closed:
                error, queue.error = queue.error, None
                if error is not None:
                    raise error
                raise StopAsyncIteration
            await self._wait()

    async def _wait(self) -> None:
        queue = self._queue
        if queue.waiter is not None:
            raise RuntimeError(f"another task waits for {queue.what} here already: take an iterator for each")
        waiter: asyncio.Future[None] = queue.waker.loop.create_future()
        queue.waiter = waiter
        try:
            # Checked again with the waiter in place: an item that arrived before woke nobody.
            if not queue.items and not queue.closed:
                await waiter
        finally:
            if queue.waiter is waiter:
                queue.waiter = None
        self._suspended_at = time.monotonic()

    async def aclose(self) -> None:
        """Ends the iteration at once and drops what is queued."""
        self._queue.close()
        self._queue.items.clear()
