"""What a synthesiser yields, as 16-bit samples."""

from __future__ import annotations

import asyncio
import contextlib
import inspect
import sys
from array import array
from concurrent.futures import ThreadPoolExecutor
from typing import Any, AsyncIterator, Final, Iterator

from .._checks import integer
from .._native.resample import Samples, from_float
from .frames import AudioFrame

#: What is spoken is resampled, queued and cut in parts of this many seconds at most.
PART = 0.1

_BYTES: Final = ("B", "b", "c")
_FLOATS: Final = ("f", "d", "e")


class Form:
    """Rate and channels of the pieces, and what is left of a frame that two pieces of bytes share."""

    def __init__(self, sample_rate: int, channels: int | None) -> None:
        self.rate = integer("sample_rate", sample_rate, 8000, 48000)
        self.channels = None if channels is None else integer("channels", channels, 1, 2)
        self._rest = b""

    def samples(self, piece: Any) -> tuple[Samples, int, int]:
        """Flat 16-bit samples, their rate and channels. TypeError or ValueError for what is no sound."""
        if isinstance(piece, AudioFrame):
            return piece.samples, piece.sample_rate, piece.channels
        view = _view(piece)
        channels, flat = self._shape(view)
        kind = flat.format.lstrip("@=" + ("<" if sys.byteorder == "little" else ">"))
        if kind in _BYTES:
            data = self._rest + flat.tobytes()
            whole = len(data) // (2 * channels) * 2 * channels
            self._rest = data[whole:]
            return memoryview(data[:whole]).cast("h") if whole else array("h"), self.rate, channels
        if kind == "h":
            return memoryview(flat.tobytes()).cast("h") if flat.nbytes else array("h"), self.rate, channels
        if kind in _FLOATS:
            return from_float(flat), self.rate, channels
        raise TypeError(
            "a piece must hold 16-bit integers ('h'), floats from -1 to 1, or the bytes of 16-bit integers, "
            f"not items of format {view.format!r}"
        )

    def _shape(self, view: memoryview) -> tuple[int, memoryview]:
        """The channels of a piece, and its items in one row."""
        channels, shape = self.channels or 1, tuple(view.shape or ())
        if view.ndim == 2 and view.format not in _BYTES:
            # A row is what some synthesisers give for one channel.
            width = 1 if shape[0] == 1 and shape[1] > 2 else shape[1]
            if width not in (1, 2) or (self.channels or width) != width:
                asked = f" with channels={self.channels}" if self.channels else ""
                raise ValueError(
                    f"a piece must be flat or of shape (frames, 1) or (frames, 2), not {shape}{asked}"
                )
            channels = width
        elif view.ndim != 1:
            raise ValueError(f"a piece must be flat or of shape (frames, channels), not {shape}")
        if view.ndim != 1 or not view.c_contiguous:
            view = memoryview(view.tobytes()).cast(view.format.lstrip("@=<")) if view.nbytes else view
        items = view.nbytes // view.itemsize
        if view.format not in _BYTES and items % channels:
            raise ValueError(f"a piece must be whole frames of {channels} samples; {items} samples are not")
        return channels, view


def _view(piece: Any) -> memoryview:
    with contextlib.suppress(TypeError):
        return memoryview(piece)
    array_of: Any = getattr(piece, "__array__", None)  # tensors have it
    if callable(array_of):
        with contextlib.suppress(TypeError):
            return memoryview(array_of())
    raise TypeError(
        "a piece must be a buffer of samples (bytes, array, memoryview, numpy) or an AudioFrame, not "
        f"{piece!r:.80}"
    )


def check(pieces: Any) -> None:
    """TypeError unless `each` can iterate over it."""
    if not (_is_piece(pieces) or hasattr(pieces, "__aiter__") or hasattr(pieces, "__iter__")):
        raise TypeError(
            "pieces must be an iterable or an async iterable of samples, or samples themselves, not "
            f"{pieces!r:.80}"
        )


def _is_piece(pieces: Any) -> bool:
    """Whether it is one piece of sound, rather than several."""
    if isinstance(pieces, AudioFrame):
        return True
    with contextlib.suppress(TypeError):
        memoryview(pieces)
        return True
    return not isinstance(pieces, (list, tuple)) and hasattr(pieces, "__array__")


_END: Final = object()


async def each(pieces: Any) -> AsyncIterator[Any]:
    """The pieces of any kind of iterable. A plain iterator, which may compute or wait, runs on a thread."""
    if _is_piece(pieces):
        yield pieces
    elif isinstance(pieces, (list, tuple)):
        for piece in pieces:
            yield piece
    elif hasattr(pieces, "__aiter__"):
        source = aiter(pieces)
        try:
            async for piece in source:
                yield piece
        finally:
            if inspect.isasyncgen(source):
                await source.aclose()
    else:
        async for piece in _aside(iter(pieces)):
            yield piece


async def _aside(source: Iterator[Any]) -> AsyncIterator[Any]:
    loop = asyncio.get_running_loop()
    thread = ThreadPoolExecutor(max_workers=1, thread_name_prefix="tavrin-synthesiser")
    try:
        while (piece := await loop.run_in_executor(thread, next, source, _END)) is not _END:
            yield piece
    finally:
        # Behind the call of `next` that may be under way; nobody waits for it.
        close = getattr(source, "close", None)
        if close is not None:
            thread.submit(close)
        thread.shutdown(wait=False)
