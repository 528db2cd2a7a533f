"""Figures of a session: the library's own, and those of the asyncio API."""

from __future__ import annotations

import ctypes
import json
from dataclasses import dataclass, field
from typing import Any

from .._native import libraries


@dataclass(frozen=True, slots=True)
class Received:
    """One kind of media of one source."""

    received: int = 0
    """Delivered by the module."""
    delivered: int = 0
    """Taken from the iterators, all of them together."""
    dropped: int = 0
    """Dropped by the iterators, for slow consumers."""
    lost: int = 0
    """Dropped by the library, because the module did not take them in time."""
    waiting: int = 0
    """Now queued in the iterators, all of them together."""
    escaped_views: int = 0
    """Blocks or pictures whose memory outlived the module's call, because an iterator took them. None for
    captions, which are plain text."""
    delay_p50: float = 0.0
    """Seconds from the module's call to the consumer's body: at most an eighth above the true value, like the
    others."""
    delay_p99: float = 0.0
    delay_max: float = 0.0
    callable_p50: float = 0.0
    """Seconds that the module's thread was occupied."""
    callable_p99: float = 0.0
    callable_max: float = 0.0


@dataclass(frozen=True, slots=True)
class StreamFigures:
    """The media of one subscribed stream."""

    audio: Received = field(default_factory=Received)
    video: Received = field(default_factory=Received)
    captions: Received = field(default_factory=Received)


@dataclass(frozen=True, slots=True)
class Statistics:
    """The result of `Session.statistics()`; `dataclasses.asdict` makes plain data of it."""

    library: dict[str, Any] | None
    """Pacing, gaps, repeated and dropped pictures, and under "callbacks" how long each kind of media waited
    for the module and how long each call to our callable took: counters of our real-time library since it was
    loaded, named as in its header sarnet_statistics.h. None with a library that has none."""
    mix: Received
    """The mixed audio of the session."""
    streams: dict[str, StreamFigures]
    """By stream id, for the current subscriptions."""
    audio_written_ms: float
    """By the current publisher."""
    video_written_ms: float
    escaped_views: int = 0
    """The module's own count, for the whole process: blocks and pictures that still had a view when their
    callable had returned."""


class Delays:
    """A histogram of times from 1 us up, in steps of at most an eighth."""

    def __init__(self) -> None:
        self.counts = [0] * 320
        self.maximum = 0.0

    def add(self, seconds: float) -> None:
        # The four highest bits of the number, and the count of bits below them.
        microseconds = min(int(seconds * 1e6), 1 << 40)
        below = max(0, microseconds.bit_length() - 4)
        self.counts[8 * below + (microseconds >> below)] += 1
        if seconds > self.maximum:
            self.maximum = seconds

    def quantile(self, share: float) -> float:
        """Seconds, the upper bound of the step that the quantile falls into; 0 if it is empty."""
        rank, seen = share * sum(self.counts), 0
        for step, count in enumerate(self.counts):
            seen += count
            if count and seen >= rank:
                below = max(0, step // 8 - 1)
                return min(float((step - 8 * below + 1) << below) / 1e6, self.maximum)
        return 0.0


class Totals:
    """Counts of the items of one source. The source's thread writes the counts of arrivals and drops, the
    loop the others."""

    def __init__(self) -> None:
        self.received = 0
        self.dropped = 0
        self.kept = 0
        """Items that an iterator took, so that they outlive the module's call."""
        self.spent = Delays()
        """Time that the module's thread was occupied."""
        self.delivered = 0
        self.delays = Delays()
        """From the arrival of an item to its consumer's body."""

    def figures(self, waiting: int, lost: int, views: bool) -> Received:
        delays, spent = self.delays, self.spent
        return Received(
            self.received,
            self.delivered,
            self.dropped,
            lost,
            waiting,
            self.kept if views else 0,
            delays.quantile(0.5),
            delays.quantile(0.99),
            delays.maximum,
            spent.quantile(0.5),
            spent.quantile(0.99),
            spent.maximum,
        )


def library_statistics() -> dict[str, Any] | None:
    """The counters of the real-time library in this process; None if it has none."""
    library = libraries.find_sarnet()
    function = getattr(library, "srn_statistics_json", None) if library is not None else None
    if function is None:
        return None
    function.restype = ctypes.c_size_t
    function.argtypes = [ctypes.c_char_p, ctypes.c_size_t]
    capacity = 16384
    while True:  # it may grow from one call to the next
        buffer = ctypes.create_string_buffer(capacity)
        length = function(buffer, capacity)
        if length < capacity:
            figures: dict[str, Any] = json.loads(buffer.value)
            return figures
        capacity = length + 1024
