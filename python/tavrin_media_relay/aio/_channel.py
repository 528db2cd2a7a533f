"""The way from a native thread into an `async for`: a bounded queue that loses its oldest and never waits.

Producers are native threads that hold the interpreter's lock for a moment, the consumer is a task of the
loop. No lock of our own is needed: each step is one operation of a deque or one assignment, and the order of
the steps is what makes it safe. A lock would be a risk, too: the garbage collector may run any program's
`__del__` inside it.
"""

from __future__ import annotations

import asyncio
import time
from collections import deque
from typing import Callable, Generic, Literal, Optional, TypeVar, get_args

T = TypeVar("T")

#: What gives way when the consumer is slow: `drop_oldest` keeps the newest `capacity` items, `latest` one.
Policy = Literal["drop_oldest", "latest"]

#: A consumer that always finds something would never let the loop run: it does so after this long, in s.
_TURN = 0.005


def post(loop: asyncio.AbstractEventLoop, function: Callable[..., object], *arguments: object) -> None:
    """Runs a function on the loop, from any thread; nothing happens if the loop is closed."""
    try:
        loop.call_soon_threadsafe(function, *arguments)
    except RuntimeError:
        if not loop.is_closed():
            raise


def settle(future: asyncio.Future[None], error: Optional[Exception] = None) -> None:
    """Gives a future its result, unless it has one. Nobody need look at an error."""
    if future.done():
        return
    if error is None:
        future.set_result(None)
    else:
        future.set_exception(error)
        future.exception()


class Waker:
    """Takes wake-ups to the loop, as many as come together in one go: the system call is the dear part."""

    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        self.loop = loop
        self._pending: deque[asyncio.Future[None]] = deque()
        self._scheduled = False

    def wake(self, future: asyncio.Future[None]) -> None:
        """From any thread."""
        self._pending.append(future)
        if not self._scheduled:  # two threads may both find it so: the second run finds nothing to do
            self._scheduled = True
            post(self.loop, self._run)

    def _run(self) -> None:
        # First the mark, then the queue: what comes after the last look schedules another run.
        self._scheduled = False
        while self._pending:
            future = self._pending.popleft()
            settle(future)


class Delays:
    """A histogram of times from 1 us up, in steps of at most an eighth."""

    def __init__(self) -> None:
        self.counts = [0] * 320
        self.maximum = 0.0

    def add(self, seconds: float) -> None:
        # The four highest bits of the number, and how many there are below them.
        microseconds = min(int(seconds * 1e6), 1 << 40)
        below = max(0, microseconds.bit_length() - 4)
        self.counts[8 * below + (microseconds >> below)] += 1
        if seconds > self.maximum:
            self.maximum = seconds

    def quantile(self, share: float) -> float:
        """Seconds, the upper bound of the step that the quantile falls into; 0 if there is nothing."""
        rank, seen = share * sum(self.counts), 0
        for step, count in enumerate(self.counts):
            seen += count
            if count and seen >= rank:
                below = max(0, step // 8 - 1)
                return min(float((step - 8 * below + 1) << below) / 1e6, self.maximum)
        return 0.0


class Totals:
    """What became of the items of one source. The counts of arrivals and drops are its thread's own, the others
    the loop's."""

    def __init__(self) -> None:
        self.received = 0
        self.dropped = 0
        self.kept = 0
        """Items that an iterator took, so that they outlive the module's call."""
        self.spent = Delays()
        """Time that the module's thread was kept."""
        self.delivered = 0
        self.delays = Delays()
        """From the arrival of an item to its consumer's body."""


def bounded(capacity: Optional[int], policy: Policy, default: int) -> int:
    """The capacity that a pair of arguments asks for."""
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


class Channel(Generic[T]):
    """An async iterator over what a native thread puts in. One task at a time may wait on it."""

    def __init__(self, waker: Waker, capacity: int, what: str, totals: Optional[Totals] = None) -> None:
        self.capacity = capacity
        """Items that are kept for a slow consumer."""
        self.delivered = 0
        """Items that the consumer has taken."""
        self.dropped = 0
        """Items that gave way to newer ones, because the consumer was slow."""
        self._totals = totals or Totals()
        self._waker = waker
        self._what = what
        self._items: deque[tuple[T, float]] = deque()
        self._waiter: Optional[asyncio.Future[None]] = None
        self._closed = False
        self._error: Optional[Exception] = None
        self._suspended_at = 0.0

    @property
    def waiting(self) -> int:
        """Items that wait for the consumer now; never more than `capacity`."""
        return len(self._items)

    def put(self, item: T, now: float) -> bool:
        """From one thread at a time. Never waits. False after the end."""
        if self._closed:
            return False
        items = self._items
        if len(items) >= self.capacity:
            try:
                items.popleft()
                self.dropped += 1
                self._totals.dropped += 1
            except IndexError:  # the consumer was faster
                pass
        items.append((item, now))
        self._wake()
        return True

    def close(self, error: Optional[Exception] = None) -> None:
        """The end, after what is still queued: with an error, which is raised once, or without. Any thread."""
        if not self._closed:
            self._error = error
            self._closed = True
            self._wake()

    def _wake(self) -> None:
        waiter, self._waiter = self._waiter, None
        if waiter is not None:
            self._waker.wake(waiter)

    def __aiter__(self) -> Channel[T]:
        return self

    async def __anext__(self) -> T:
        if asyncio.get_running_loop() is not self._waker.loop:
            raise RuntimeError(f"{self._what} belong to the event loop in which the session was opened")
        while True:
            now = time.monotonic()
            if self._items:
                if now - self._suspended_at > _TURN:
                    await asyncio.sleep(0)
                    self._suspended_at = now = time.monotonic()
                try:
                    item, arrived = self._items.popleft()
                except IndexError:
                    continue
                self.delivered += 1
                self._totals.delivered += 1
                self._totals.delays.add(now - arrived)
                return item
            if self._closed:
                error, self._error = self._error, None
                if error is not None:
                    raise error
                raise StopAsyncIteration
            await self._wait()

    async def _wait(self) -> None:
        if self._waiter is not None:
            raise RuntimeError(f"another task waits for {self._what} here already: take an iterator for each")
        waiter: asyncio.Future[None] = self._waker.loop.create_future()
        self._waiter = waiter
        try:
            # Looked at again after the waiter is in place: whatever came in between found nobody to wake.
            if not self._items and not self._closed:
                await waiter
        finally:
            if self._waiter is waiter:
                self._waiter = None
        self._suspended_at = time.monotonic()

    async def aclose(self) -> None:
        """Ends the iteration at once, and lets go of what is queued."""
        self.close()
        self._items.clear()


class Signal:
    """Lets tasks wait for the next change, or until everything has ended."""

    def __init__(self) -> None:
        self._waiters: set[asyncio.Future[None]] = set()
        self._ended: Optional[Callable[[], Exception]] = None

    def notify(self) -> None:
        for waiter in self._waiters:
            settle(waiter)

    def end(self, error: Callable[[], Exception]) -> None:
        """From now on `check` and `wait` raise what this gives: an error of its own for each task."""
        if self._ended is None:
            self._ended = error
            self.notify()

    def check(self) -> None:
        if self._ended is not None:
            raise self._ended()

    async def wait(self, seconds: Optional[float] = None) -> bool:
        """Until the next `notify`; False if the time ran out first."""
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
