"""Figures of a session: the library's own, and what this face did with the media."""

from __future__ import annotations

import ctypes
import json
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, Optional

import _tavrin_video

from . import _libraries
from ._fan import Fan

if TYPE_CHECKING:
    from ._core import Core


@dataclass(frozen=True, slots=True)
class Received:
    """One kind of media of one source."""

    received: int = 0
    """Told by the module."""
    delivered: int = 0
    """Taken from the iterators, all of them together."""
    dropped: int = 0
    """Given up by the iterators, for slow consumers."""
    lost: int = 0
    """Given up by the library, because the module did not take them in time."""
    waiting: int = 0
    """In the queues of the iterators now, all of them together."""
    escaped_views: int = 0
    """Blocks or pictures whose memory outlived the module's call, because an iterator took them. Captions are plain
    text: of those there are none."""
    delay_p50: float = 0.0
    """Seconds from the module's call to the consumer's body: at most an eighth above the true value, as the others."""
    delay_p99: float = 0.0
    delay_max: float = 0.0
    callable_p50: float = 0.0
    """Seconds that the module's thread was kept."""
    callable_p99: float = 0.0
    callable_max: float = 0.0


@dataclass(frozen=True, slots=True)
class StreamFigures:
    """What came of one subscribed stream."""

    audio: Received = field(default_factory=Received)
    video: Received = field(default_factory=Received)
    captions: Received = field(default_factory=Received)


@dataclass(frozen=True, slots=True)
class Statistics:
    """What `Session.statistics()` gives; `dataclasses.asdict` makes plain data of it."""

    library: Optional[dict[str, Any]]
    """Pacing, gaps, repeated and dropped pictures, and under "callbacks" how long each kind of media waited for the
    module and how long each call took, to our callable and back: counters of our real-time library since it was
    loaded, in the words of its header sarnet_statistics.h. None with a library that keeps none."""
    mix: Received
    """The mixed audio of the session."""
    streams: dict[str, StreamFigures]
    """By stream id: what is subscribed to now."""
    audio_written_ms: float
    """By the present publisher."""
    video_written_ms: float
    escaped_views: int = 0
    """The module's own count, for the whole process: blocks and pictures of which somebody still had a view when the
    callable that got them had returned."""


def _received(fan: Fan[Any], lost: int = 0, views: bool = True) -> Received:
    totals = fan.totals
    delays, spent = totals.delays, totals.spent
    return Received(
        totals.received,
        totals.delivered,
        totals.dropped,
        lost,
        fan.waiting,
        totals.kept if views else 0,
        delays.quantile(0.5),
        delays.quantile(0.99),
        delays.maximum,
        spent.quantile(0.5),
        spent.quantile(0.99),
        spent.maximum,
    )


def library_statistics() -> Optional[dict[str, Any]]:
    """The counters of the real-time library in this process; None if there is none that keeps any."""
    library = _libraries.find_sarnet()
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


def of_session(core: Core) -> Statistics:
    library = library_statistics()
    deliveries = {each["stream"]: each for each in (library or {}).get("subscribers", {}).values()}
    streams = {}
    for stream_id, each in core.subscribers.items():
        known = deliveries.get(stream_id, {})
        audio, video, captions = (
            known.get(f"{kind}_dropped", 0) for kind in ("audio_blocks", "pictures", "captions")
        )
        streams[stream_id] = StreamFigures(
            _received(each.audio_fan, audio),
            _received(each.video_fan, video),
            _received(each.caption_fan, captions, views=False),
        )
    written = core.publisher.written_ms if core.publisher is not None else (0.0, 0.0)
    escaped = _tavrin_video.__statistics__.escaped_views
    return Statistics(library, _received(core.mix), streams, written[0], written[1], escaped)
