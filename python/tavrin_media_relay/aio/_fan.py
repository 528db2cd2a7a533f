"""One source of media, and the iterators that listen to it now."""

from __future__ import annotations

import time
import weakref
from typing import Generic, Optional, TypeVar

from ._channel import Channel, Totals, Waker

T = TypeVar("T")


class Fan(Generic[T]):
    """`put` runs on a native thread, one at a time; all else on the loop.

    Iterators are held weakly: one that a program has left behind costs nothing from then on.
    """

    def __init__(self, waker: Waker, what: str) -> None:
        self.totals = Totals()
        self._waker = waker
        self._what = what
        self._channels: tuple[weakref.ref[Channel[T]], ...] = ()
        self._closed = False

    def open(self, capacity: int) -> Channel[T]:
        channel: Channel[T] = Channel(self._waker, capacity, self._what, self.totals)
        if self._closed:
            channel.close()
        else:
            living = tuple(each for each in self._channels if each() is not None)
            self._channels = (*living, weakref.ref(channel))
        return channel

    def put(self, item: T, arrived: float) -> None:
        self.totals.received += 1
        kept = False
        for each in self._channels:
            channel = each()
            if channel is not None:
                kept = channel.put(item, arrived) or kept
        if kept:
            self.totals.kept += 1
        self.totals.spent.add(time.monotonic() - arrived)

    @property
    def waiting(self) -> int:
        """Items in the queues of all iterators now."""
        return sum(channel.waiting for each in self._channels if (channel := each()) is not None)

    def close(self, error: Optional[Exception] = None) -> None:
        """The end of every iterator, after what it has queued."""
        self._closed = True
        for each in self._channels:
            channel = each()
            if channel is not None:
                channel.close(error)
