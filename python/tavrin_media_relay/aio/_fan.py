"""One source of media, and the iterators that listen to it now."""

from __future__ import annotations

import time
import weakref
from typing import Generic, Iterator, TypeVar

from ._channel import ChannelWriter
from ._wakeups import Waker
from .statistics import Received, Totals

T = TypeVar("T")


class Listeners(Generic[T]):
    """Iterators that receive the same items. `put` runs on one thread at a time, everything else on the loop.

    They are held weakly: an abandoned one costs nothing.
    """

    def __init__(self) -> None:
        self._writers: tuple[weakref.ref[ChannelWriter[T]], ...] = ()
        self._closed = False

    def add(self, writer: ChannelWriter[T]) -> None:
        if self._closed:
            writer.close()
        else:
            self._writers = (*(weakref.ref(each) for each in self._living()), weakref.ref(writer))

    def put(self, item: T, now: float) -> bool:
        """False if there was no taker."""
        taken = False
        for writer in self._living():
            taken = writer.put(item, now) or taken
        return taken

    @property
    def waiting(self) -> int:
        """Items in the queues of all of them now."""
        return sum(writer.waiting for writer in self._living())

    def close(self, error: Exception | None = None) -> None:
        """Ends each after its queued items."""
        self._closed = True
        for writer in self._living():
            writer.close(error)

    def _living(self) -> Iterator[ChannelWriter[T]]:
        return (writer for each in self._writers if (writer := each()) is not None)


class Fan(Listeners[T]):
    """Listeners to media, with their counters. `put` runs on a native thread."""

    def __init__(self, waker: Waker, what: str) -> None:
        super().__init__()
        self.totals = Totals()
        self._waker = waker
        self._what = what

    def open(self, capacity: int) -> ChannelWriter[T]:
        writer: ChannelWriter[T] = ChannelWriter(self._waker, capacity, self._what, self.totals)
        self.add(writer)
        return writer

    def put(self, item: T, arrived: float) -> bool:
        self.totals.received += 1
        kept = super().put(item, arrived)
        self.totals.kept += kept
        self.totals.spent.add(time.monotonic() - arrived)
        return kept

    def figures(self, lost: int = 0, *, views: bool = True) -> Received:
        """lost: dropped by the library. views: whether items are views on memory of the module."""
        return self.totals.figures(self.waiting, lost, views)
