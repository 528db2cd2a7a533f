"""One source of media, and the iterators that listen to it now."""

from __future__ import annotations

import time
import weakref
from typing import Generic, Iterator, Optional, TypeVar

from ._channel import Channel, Totals, Waker

T = TypeVar("T")


class Listeners(Generic[T]):
    """Iterators that are given the same. `put` runs on one thread at a time, all else on the loop.

    They are held weakly: one that a program has left behind costs nothing from then on.
    """

    def __init__(self) -> None:
        self._channels: tuple[weakref.ref[Channel[T]], ...] = ()
        self._closed = False

    def add(self, channel: Channel[T]) -> None:
        if self._closed:
            channel.close()
        else:
            self._channels = (*(weakref.ref(each) for each in self._living()), weakref.ref(channel))

    def put(self, item: T, now: float) -> bool:
        """False if nobody took it."""
        taken = False
        for channel in self._living():
            taken = channel.put(item, now) or taken
        return taken

    @property
    def waiting(self) -> int:
        """Items in the queues of all of them now."""
        return sum(channel.waiting for channel in self._living())

    def close(self, error: Optional[Exception] = None) -> None:
        """The end of each, after what it has queued."""
        self._closed = True
        for channel in self._living():
            channel.close(error)

    def _living(self) -> Iterator[Channel[T]]:
        return (channel for each in self._channels if (channel := each()) is not None)


class Fan(Listeners[T]):
    """Listeners to media, and what became of it. `put` runs on a native thread."""

    def __init__(self, waker: Waker, what: str) -> None:
        super().__init__()
        self.totals = Totals()
        self._waker = waker
        self._what = what

    def open(self, capacity: int) -> Channel[T]:
        channel: Channel[T] = Channel(self._waker, capacity, self._what, self.totals)
        self.add(channel)
        return channel

    def put(self, item: T, arrived: float) -> bool:
        self.totals.received += 1
        kept = super().put(item, arrived)
        self.totals.kept += kept
        self.totals.spent.add(time.monotonic() - arrived)
        return kept
