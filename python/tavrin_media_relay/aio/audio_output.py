"""The audio side of a publisher."""

from __future__ import annotations

import asyncio
import contextlib
import os
from array import array
from pathlib import Path
from typing import Any, AsyncIterator, Awaitable, Callable, Iterable

from .. import _media_files
from .._checks import integer
from .._native.resample import Converter, Samples
from ..models import AudioData, SessionAudioSettings
from . import _module, _pieces
from ._output import Output
from ._saying import Listened, Saying, listened_to
from .frames import AudioFrame

#: Milliseconds handed over at a time, so that a clear takes effect between two pieces.
_PIECE = 100
_PERIODS_A_SECOND = 100


def as_samples(samples: Any, channels: int | None, default: int) -> tuple[memoryview, int]:
    """A flat view on 16-bit samples, and their number of channels."""
    if channels is not None:
        channels = integer("channels", channels, 1, 2)
    try:
        view = memoryview(samples)
    except TypeError:
        raise TypeError(
            f"samples must be a buffer of 16-bit integers (bytes, array('h'), numpy int16), not "
            f"{samples!r:.80}"
        ) from None
    if not view.c_contiguous:
        raise ValueError(
            f"samples must be contiguous, not of shape {view.shape} with strides {view.strides}: "
            f"copy them first"
        )
    if view.format not in ("h", "<h", "=h", "B", "b", "c"):
        raise TypeError(
            f"samples must be 16-bit integers ('h') or their bytes, not items of format {view.format!r}"
        )
    if view.ndim == 2 and view.itemsize == 2:
        frames, width = view.shape or (0, 0)
        if width not in (1, 2) or (channels or width) != width:
            asked = f" with channels={channels}" if channels else ""
            raise ValueError(
                f"samples must be of shape (frames, channels), one or two of them, not {view.shape}{asked}"
            )
        channels = width
    elif view.ndim != 1:
        raise ValueError(f"samples must be flat or of shape (frames, channels), not {view.shape}")
    channels = channels or default
    if view.nbytes % (2 * channels):
        raise ValueError(f"samples must be whole frames of {2 * channels} bytes; {view.nbytes} bytes are not")
    if view.nbytes == 0:
        return memoryview(b"").cast("h"), channels
    if view.format in ("<h", "=h"):
        view = memoryview(view.tobytes())
    return view.cast("B").cast("h"), channels


async def _file_pieces(path: Path) -> AsyncIterator[AudioFrame]:
    async with contextlib.aclosing(_media_files.samples(path)) as pieces:
        async for data, rate, channels in pieces:
            yield AudioFrame(rate, channels, memoryview(data).cast("h"), 0.0)


class AudioOutput:
    """Sound for our stream. Writes of several tasks follow one another."""

    def __init__(
        self,
        output: Output,
        form: SessionAudioSettings,
        ready: Callable[[], Awaitable[None]],
        clear: Callable[[], Awaitable[tuple[float, float]]],
    ) -> None:
        """ready: waits until the session takes audio. clear: drops what both outputs have queued, ms of
        each."""
        self._output = output
        self._ready, self._clear = ready, clear
        self._rate, self._channels = form.sample_rate, form.number_of_channels
        self._converter: Converter | None = None
        self._begun = 0  # frames since silence last began: the module starts with a full period only
        self._saying: tuple[Saying, ...] = ()
        self.floor = asyncio.Lock()
        """Held by the speech that is being said."""

    @property
    def sample_rate(self) -> int:
        """Hz: the session's form, which needs no conversion."""
        return self._rate

    @property
    def channels(self) -> int:
        """The session's number of channels."""
        return self._channels

    async def write(
        self, samples: Any, *, sample_rate: int | None = None, channels: int | None = None
    ) -> bool:
        """Queues samples: 16-bit, native byte order, any contiguous buffer of any length; or an `AudioFrame`,
        which carries its format.

        sample_rate: of these samples, 8000 to 48000 Hz; None: the session's. Another rate is resampled;
            successive writes at one rate are resampled without seams.
        channels: of these samples, 1 or 2; None: from an array of shape (frames, channels), else the
            session's.

        Waits while more than the publisher's `audio_queue` is queued. The buffer must not be changed before
        it returns. Returns False if `clear` has cut it short, True when all has been handed over.
        """
        output = self._output
        output.check()
        if isinstance(samples, AudioFrame):
            samples, sample_rate, channels = samples.samples, samples.sample_rate, samples.channels
        rate = self._rate if sample_rate is None else integer("sample_rate", sample_rate, 8000, 48000)
        view, channels = as_samples(samples, channels, self._channels)
        cuts, done = output.cuts, 0
        async with output.turn:
            await self._ready()
            await self._change_form(rate, channels, cuts)
            piece = rate * _PIECE // 1000 * channels
            while done < len(view):
                part = view[done : done + piece]
                if not await output.room(len(part) / channels / rate * 1000, cuts):
                    output.cut_ms += (len(view) - done) / channels / rate * 1000
                    return False
                await self._add(self._converter.convert(part) if self._converter else part)
                done += len(part)
                if done < len(view):
                    await asyncio.sleep(0)  # a long write must not block the loop
        return True

    async def drained(self) -> None:
        """Waits until the module reports that everything written has left its queue."""
        output = self._output
        async with output.turn:
            await self._change_form(self._rate, self._channels, output.cuts)
            period = self._rate // _PERIODS_A_SECOND
            if self._begun % period:
                await self._add(array("h", bytes((period - self._begun % period) * self._channels * 2)))
        await output.wait_dry()

    async def clear(self) -> int:
        """Falls silent at once, as for barge-in: ends writes under way, and drops what is queued.

        Returns the milliseconds of sound dropped: queued sound, and the rest of the ended writes. Queued
        pictures are dropped with it.
        """
        return round((await self._clear())[0])

    def say(
        self,
        pieces: Any,
        *,
        sample_rate: int,
        channels: int | None = None,
        interrupt_on: Listened | Iterable[Listened] | None = None,
    ) -> Saying:
        """Speaks what a synthesiser yields, as it comes: `said = await publisher.audio.say(...)`, or keep the
        `Saying` that it returns, which speaks already, and `interrupt()` it. Several are said in turn.

        pieces: an async or plain iterable, or one piece. A piece is any buffer of 16-bit samples or of floats
            from -1 to 1, flat or of shape (frames, channels), of any length; or an `AudioFrame`, which
            carries its format. A plain iterator runs on a thread of its own: it may compute or wait.
        sample_rate: of the pieces, 8000 to 48000 Hz. channels: of flat pieces, 1 unless given.
        interrupt_on: falls silent when this `Subscriber` begins to speak (or any of several, or anybody: the
            `Session`), by the detector of `turns`.

        Returns `Said` once all was heard, or was interrupted. What the iterable raises is raised after what
        it gave before has been said; `Saying.said` tells what was heard then, and after a cancellation.
        Don't `write` meanwhile.
        """
        self._output.check()
        form = _pieces.Form(sample_rate, channels)
        _pieces.check(pieces)
        return self._begin(_pieces.each(pieces), form, interrupt_on)

    def play(
        self,
        path: str | os.PathLike[str],
        *,
        interrupt_on: Listened | Iterable[Listened] | None = None,
    ) -> Saying:
        """Like `say`, for the sound of a file: WAV, and with the program ffmpeg whatever that reads.

        Awaiting it raises `FileNotFoundError`, or `ValueError` for a file without sound.
        """
        self._output.check()
        form = _pieces.Form(_media_files.RATE, _media_files.CHANNELS)
        return self._begin(_file_pieces(Path(path)), form, interrupt_on)

    def interrupt(self) -> None:
        """Falls silent: ends every speech begun by `say` and `play`. Does nothing if there is none."""
        for saying in self._saying:
            saying.interrupt()

    @property
    def saying(self) -> Saying | None:
        """The speech begun last, or None: its `said` tells what was heard."""
        return self._saying[-1] if self._saying else None

    def _begin(self, pieces: AsyncIterator[Any], form: _pieces.Form, interrupt_on: Any) -> Saying:
        sources = listened_to(interrupt_on)
        saying = Saying(self, pieces, form, sources)
        self._saying = (*(each for each in self._saying if not each.done), saying)
        return saying

    # ---- for a speech -------------------------------------------------------------------------------------

    @property
    def period(self) -> int:
        """Frames that the module hands over at a time."""
        return self._rate // _PERIODS_A_SECOND

    @property
    def cuts(self) -> int:
        """How often it was cleared."""
        return self._output.cuts

    @property
    def lost(self) -> float:
        """Seconds that clears have dropped from the module's queue."""
        return self._output.lost_ms / 1000

    @property
    def dry_since(self) -> float | None:
        """`time.monotonic()` when the module told that its queue had run dry; None while it is not."""
        return self._output.dry_since

    async def hand_over(self, samples: Samples, cuts: int) -> bool:
        """Queues whole periods in the session's form, once there is room; False if a clear came first."""
        output = self._output
        async with output.turn:
            await self._ready()
            await self._change_form(self._rate, self._channels, cuts)
            if not await output.room(len(samples) / self._channels / self._rate * 1000, cuts):
                return False
            await self._add(samples)
        return True

    async def wait_dry(self) -> None:
        """Until the module tells that its queue has run dry, or it is cleared."""
        await self._output.wait_dry()

    async def wait_ended(self) -> None:
        """Raises ClosedError when the stream ends."""
        while True:
            await self._output.changed.wait()

    async def fall_silent(self) -> None:
        await self._clear()

    async def _change_form(self, rate: int, channels: int, cuts: int) -> None:
        """Prepares the conversion from this form, after writing out the rest of another form's converter."""
        old, same = self._converter, (rate, channels) == (self._rate, self._channels)
        if old is None and same or old is not None and old.form_in == (rate, channels):
            return
        self._converter = None if same else Converter(rate, channels, self._rate, self._channels)
        if old is not None and cuts == self._output.cuts:
            await self._add(old.flush())

    async def _add(self, samples: Samples) -> None:
        frames = len(samples) // self._channels
        if frames:
            data = AudioData(self._rate, self._channels, frames, samples)
            self._begun += frames
            await self._output.hand_over(lambda: _module.client().add_audio(data), frames / self._rate * 1000)

    def forget(self) -> None:
        """Drops what the resampler holds, after a clear."""
        self._converter = None
        self._begun = 0
