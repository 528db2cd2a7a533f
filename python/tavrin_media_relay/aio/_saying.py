"""Speech under way: what a synthesiser yields is said as it comes, and stops when somebody interrupts."""

from __future__ import annotations

import asyncio
import contextlib
import time
from array import array
from dataclasses import dataclass
from typing import Any, AsyncIterator, Generator, Iterable, Protocol

from .. import _tasks
from .._native.resample import Converter
from . import _pieces
from .errors import ClosedError


class Listened(Protocol):
    """A `Subscriber` or the `Session`."""

    def turns(self) -> AsyncIterator[Any]:
        """Whatever comes, somebody speaks."""
        ...


class Speaker(Protocol):
    """The output that a speech goes to."""

    floor: asyncio.Lock

    @property
    def sample_rate(self) -> int:
        ...

    @property
    def channels(self) -> int:
        ...

    @property
    def period(self) -> int:
        ...

    @property
    def cuts(self) -> int:
        ...

    @property
    def lost(self) -> float:
        ...

    @property
    def dry_since(self) -> float | None:
        ...

    async def hand_over(self, samples: Any, cuts: int) -> bool:
        ...

    async def wait_dry(self) -> None:
        ...

    async def wait_ended(self) -> None:
        ...

    async def fall_silent(self) -> None:
        ...


#: Seconds for which a synthesiser that was stopped may clean up, before it is left to itself.
_CLEAN_UP = 1.0
#: Small pieces are put together up to this many seconds, unless the queue is about to run dry.
_TOGETHER = 0.06
_LOW = 0.2
#: A gap shorter than this is one period that came late.
_SHORTEST_GAP = 0.02

#: Synthesisers that would not stop: held here, since asyncio does not hold its tasks.
_left: set[asyncio.Future[Any]] = set()


@dataclass(frozen=True, slots=True)
class Said:
    """What became of a speech: all times are seconds of sound."""

    played: float = 0.0
    """Handed over to the session in time: what the others heard."""
    dropped: float = 0.0
    """Given by the synthesiser and not heard."""
    interrupted: bool = False
    """It was cut short: by `interrupt`, `clear`, a cancellation, the participant listened to, or the end of
    the stream."""
    interrupted_by: Listened | None = None
    """Of those named in `interrupt_on`, who spoke."""
    gaps: int = 0
    """Times that the others heard silence because the synthesiser was late."""
    silence: float = 0.0
    """How long these gaps were together."""

    @property
    def complete(self) -> bool:
        """All of it was heard."""
        return not self.interrupted and not self.dropped


class Saying:
    """A speech, which begins at once, or after those before it. `await` gives what became of it.

    Cancelling the task that awaits it interrupts it too.
    """

    def __init__(
        self,
        output: Speaker,
        pieces: AsyncIterator[Any],
        form: _pieces.Form,
        interrupt_on: tuple[Listened, ...],
    ) -> None:
        self._output = output
        self._pieces = pieces
        self._form = form
        self._form_given: tuple[int, int] | None = None
        self._converter: Converter | None = None
        self._pending: array[int] = array("h")  # in the session's form
        self._listening = [(source, source.turns()) for source in interrupt_on]
        self._given = 0.0  # s, by the synthesiser
        self._handed = 0.0  # s, to the module
        self._lost_before = 0.0
        self._plays_until = 0.0  # monotonic, of what has been handed over
        self._begun = False
        self._gaps, self._silence = 0, 0.0
        self._said: Said | None = None
        self._interrupted_by: Listened | None = None
        self._stop: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._cut = False
        self._task = asyncio.create_task(self._run())

    def __await__(self) -> Generator[Any, None, Said]:
        return self._task.__await__()

    @property
    def done(self) -> bool:
        """Nothing of it will be heard any more."""
        return self._task.done()

    @property
    def said(self) -> Said:
        """What has been heard so far; in the end the result, also if `await` raised."""
        return self._said or self._figures(max(self._plays_until - time.monotonic(), 0.0))

    def interrupt(self) -> None:
        """Falls silent, in the middle of a word. Does nothing once it is done."""
        if not self._stop.done():
            self._stop.set_result(None)

    async def _run(self) -> Said:
        output = self._output
        speaking = asyncio.create_task(self._speak())
        watching = [asyncio.create_task(self._watch(*each)) for each in self._listening]
        ended = asyncio.create_task(output.wait_ended())
        waits: set[asyncio.Future[Any]] = {speaking, ended, self._stop}
        try:
            await asyncio.wait(waits, return_when=asyncio.FIRST_COMPLETED)
            if self._stop.done() and not speaking.done():
                self._cut = True
            elif ended.done() and not speaking.done():
                self._cut = True
                ended.result()
            else:
                speaking.result()
                self._cut = self._cut or self._stop.done()
        except asyncio.CancelledError:
            self._cut = True
            raise
        finally:
            await self._end(speaking)
            await _tasks.end(ended, *watching)
        return self.said

    async def _end(self, speaking: asyncio.Task[None]) -> None:
        """Falls silent, unless all has been said; then settles what was heard."""
        output, running = self._output, not speaking.done()
        try:
            if running:
                speaking.cancel()
                if self._begun:
                    with contextlib.suppress(ClosedError):
                        await output.fall_silent()
                await asyncio.wait([speaking], timeout=_CLEAN_UP)
                if not speaking.done():
                    _left.add(speaking)
                    speaking.add_done_callback(_left.discard)
                elif not speaking.cancelled():
                    speaking.exception()
        finally:
            lost = output.lost - self._lost_before if self._begun else 0.0
            if lost <= 0 and self._cut:  # the session has ended, and its queue with it
                lost = max(self._plays_until - time.monotonic(), 0.0)
            self._said = self._figures(lost)
            self._stop.cancel()

    def _figures(self, lost: float) -> Said:
        played = min(max(self._handed - lost, 0.0), self._given)
        return Said(
            played,
            max(self._given - played, 0.0),
            self._cut,
            self._interrupted_by,
            self._gaps,
            self._silence,
        )

    async def _watch(self, source: Listened, turns: AsyncIterator[object]) -> None:
        async for _ in turns:  # the first is that somebody has begun to speak
            self._interrupted_by = self._interrupted_by or source
            self.interrupt()
            return

    # ---- speaking -----------------------------------------------------------------------------------------

    async def _speak(self) -> None:
        output = self._output
        async with output.floor:
            self._lost_before = output.lost
            cuts, self._begun = output.cuts, True
            try:
                async with contextlib.aclosing(self._pieces) as pieces:  # type: ignore[type-var]
                    async for piece in pieces:
                        samples, rate, channels = self._form.samples(piece)
                        if len(samples) and not await self._take(samples, rate, channels, cuts):
                            return
            finally:
                # Also after a synthesiser's failure: what it gave before is still said.
                await self._finish(cuts)

    async def _finish(self, cuts: int) -> None:
        task = asyncio.current_task()
        if task is not None and task.cancelling() or self._stop.done() or self._cut:
            return
        if self._converter is not None:
            self._pending.extend(self._converter.flush())
        if self._pending:
            frames = len(self._pending) // self._output.channels
            short = -frames % self._output.period
            self._pending.extend(array("h", bytes(2 * short * self._output.channels)))
            if not await self._hand_over(len(self._pending), cuts):
                return
        if self._handed:
            await self._output.wait_dry()
        if cuts != self._output.cuts:
            self._cut = True

    async def _take(self, samples: Any, rate: int, channels: int, cuts: int) -> bool:
        """False if a clear came first."""
        output = self._output
        if self._form_given != (rate, channels):
            if self._converter is not None:
                self._pending.extend(self._converter.flush())
            same = (rate, channels) == (output.sample_rate, output.channels)
            self._converter = None if same else Converter(rate, channels, output.sample_rate, output.channels)
            self._form_given = rate, channels
        self._given += len(samples) / channels / rate
        part = int(rate * _pieces.PART) * channels
        for begin in range(0, len(samples), part):
            block = samples[begin : begin + part]
            self._pending.extend(self._converter.convert(block) if self._converter else block)
            ready = len(self._pending) // output.channels
            soon = self._plays_until - time.monotonic() < _LOW
            if ready >= output.period and (soon or ready >= _TOGETHER * output.sample_rate):
                if not await self._hand_over(ready // output.period * output.period * output.channels, cuts):
                    return False
            await asyncio.sleep(0)  # a long piece must not block the loop
        return True

    async def _hand_over(self, count: int, cuts: int) -> bool:
        output = self._output
        part = int(output.sample_rate * _pieces.PART) * output.channels
        while count > 0:
            block, self._pending = self._pending[: min(count, part)], self._pending[min(count, part) :]
            dry = output.dry_since
            if not await output.hand_over(block, cuts):
                self._cut = True
                return False
            now, seconds = time.monotonic(), len(block) / output.channels / output.sample_rate
            if self._handed and dry is not None and now - dry >= _SHORTEST_GAP:
                self._gaps += 1
                self._silence += now - dry
            self._handed += seconds
            self._plays_until = max(self._plays_until, now) + seconds
            count -= len(block)
        return True


def listened_to(interrupt_on: Any) -> tuple[Listened, ...]:
    """Those whose speech interrupts. TypeError for what nobody can listen to."""
    if interrupt_on is None:
        return ()
    sources: Iterable[Any] = (
        (interrupt_on,)
        if hasattr(interrupt_on, "turns") or not hasattr(interrupt_on, "__iter__")
        else interrupt_on
    )
    found = tuple(sources)
    for source in found:
        if not hasattr(source, "turns"):
            raise TypeError(
                f"interrupt_on must be a Subscriber, the Session or several of them, not {source!r:.80}"
            )
    return found
