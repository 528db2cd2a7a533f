"""Turns of speech: who begins to speak, and what was said once they have finished.

The detector runs where the sound arrives, on the delivery thread of the stream, so that the loop is woken for
turns alone, and a loop that is blocked loses none of them.
"""

from __future__ import annotations

import asyncio
import time
from array import array
from collections import deque
from dataclasses import dataclass
from typing import TYPE_CHECKING, Any

from .._checks import integer, number
from .._native.resample import Converter
from .._native.speech import BLOCK, RATE, Detector
from ._channel import Channel, ChannelWriter
from ._fan import Fan
from .frames import AudioFrame

if TYPE_CHECKING:
    from .frames import Samples

_BLOCK_SECONDS = BLOCK / RATE
_BEFORE_SECONDS = 0.2  # of a turn's samples, from before it began
# So many of the last so many blocks have a voice in them: it begins. Fewer are a click or a cough.
_VOICED, _OF = 3, 5
_GAP_SECONDS = 0.3
_LONGEST_SECONDS = 60.0  # a longer turn is given in parts
_CAPACITY = 64  # events


@dataclass(frozen=True, slots=True)
class SpeechStarted:
    """Somebody begins to speak."""

    at: float
    """`time.monotonic()`, about: it is found a few hundredths of a second later."""


@dataclass(frozen=True, slots=True)
class SpeechEnded:
    """They have finished, and were silent for the pause; or the stream has ended, or a minute has passed."""

    samples: Samples
    """What was said, with 0.2 s from before and the pause after: 16 bits, one channel."""
    sample_rate: int
    """Hz, as asked for."""
    started: float
    """`time.monotonic()` when it began."""
    ended: float
    """`time.monotonic()` when the last of it was heard."""

    @property
    def duration(self) -> float:
        """Seconds of speech, without what is before and after it."""
        return self.ended - self.started


Turn = SpeechStarted | SpeechEnded


class _TurnWriter(ChannelWriter[Any]):
    """Takes sound on the stream's delivery thread, and queues events for the loop."""

    def __init__(self, fan: Fan[AudioFrame], waker: Any, pause: float, rate: int) -> None:
        super().__init__(waker, _CAPACITY, "turns")
        self._fan = fan
        self._detector = Detector()
        self._converter = Converter(RATE, 1, rate, 1) if rate != RATE else None
        self._rate = rate
        self._pause = round(pause / _BLOCK_SECONDS)
        self._before: deque[bytes] = deque(maxlen=round(_BEFORE_SECONDS / _BLOCK_SECONDS) + _OF)
        self._last = deque[bool](maxlen=_OF)
        self._said: list[bytes] | None = None  # while somebody speaks
        self._silent = 0
        self._last_put = 0.0
        self._started = self._heard = 0.0

    def put(self, item: Any, now: float) -> bool:
        if self.closed:
            return False
        if now - self._last_put > _GAP_SECONDS:  # what was before is not next to what comes
            self._before.clear()
            self._last.clear()
        self._last_put = now
        for block, voice in self._detector.process(item.samples, item.sample_rate, item.channels):
            self._hear(block, voice, now)
        return True

    def close(self, error: Exception | None = None) -> None:
        # With the stream or the consumer; whoever was speaking had no more to say to us.
        if not self.closed and self._said is not None:
            self._end()
        super().close(error)

    @property
    def speaking(self) -> bool:
        return self._said is not None

    def end_if_nothing_comes(self) -> None:
        """On the loop: who sends nothing at all while silent has finished as well."""
        quiet = time.monotonic() - self._last_put
        if self._said is not None and quiet > max(self._pause * _BLOCK_SECONDS, _GAP_SECONDS):
            self._end()

    def _hear(self, block: bytes, voice: bool, now: float) -> None:
        self._last.append(voice)
        said = self._said
        if said is None:
            self._before.append(block)
            if sum(self._last) >= _VOICED:
                self._said, self._silent = list(self._before), 0
                self._before.clear()
                self._started = now - _OF * _BLOCK_SECONDS
                self._heard = now
                super().put(SpeechStarted(self._started), now)
            return
        said.append(block)
        if sum(self._last) >= _VOICED:
            self._silent, self._heard = 0, now
        else:
            self._silent += 1
        if self._silent >= self._pause or len(said) * _BLOCK_SECONDS >= _LONGEST_SECONDS:
            self._end()

    def _end(self) -> None:
        said, self._said = self._said, None
        if not said:
            return  # the other thread was faster
        self._last.clear()
        samples: Samples = memoryview(b"".join(said)).cast("h")
        if self._converter is not None:
            whole = array("h", self._converter.convert(samples))
            whole.extend(self._converter.flush())
            self._converter = Converter(RATE, 1, self._rate, 1)
            samples = memoryview(whole)
        super().put(SpeechEnded(samples, self._rate, self._started, self._heard), time.monotonic())


class Turns(Channel[Turn]):
    """An async iterator over turns; see `Subscriber.turns`."""

    def __init__(self, fan: Fan[AudioFrame], waker: Any, pause: float, sample_rate: int) -> None:
        number("pause", pause, 0.1, 10.0, "seconds")
        integer("sample_rate", sample_rate, 8000, 48000)
        writer = _TurnWriter(fan, waker, pause, sample_rate)
        super().__init__(writer)
        self._turns = writer
        fan.add(writer)

    async def _wait(self) -> None:
        if not self._turns.speaking:
            await super()._wait()
            return
        try:
            await asyncio.wait_for(super()._wait(), _GAP_SECONDS)
        except asyncio.TimeoutError:
            self._turns.end_if_nothing_comes()
