"""The video side of a publisher."""

from __future__ import annotations

import asyncio
from concurrent.futures import ThreadPoolExecutor
from typing import Any

from .._native import pictures
from ..models import SessionVideoPublisherSettings, VideoFormat, VideoResolution
from ..models import VideoFrame as NativeFrame
from . import _module, frames
from ._output import Output

#: Pixels that take 0.2 to 0.4 ms to convert. More, 1 to 2 ms for 1920x1080, would block the loop too long.
_SMALL = 1280 * 720

_worker: ThreadPoolExecutor | None = None


async def convert_aside(pixels: memoryview, width: int, height: int, layout: str, wanted: str) -> bytearray:
    """`pictures.convert` from a loop: large pictures are converted on a thread that all loops share."""
    global _worker
    if width * height <= _SMALL:
        return pictures.convert(pixels, width, height, layout, wanted)
    if _worker is None:
        _worker = ThreadPoolExecutor(max_workers=1, thread_name_prefix="tavrin-pictures")
    loop = asyncio.get_running_loop()
    return await loop.run_in_executor(_worker, pictures.convert, pixels, width, height, layout, wanted)


class VideoOutput:
    """Pictures for our stream, each shown for one frame period."""

    def __init__(self, output: Output, form: SessionVideoPublisherSettings) -> None:
        self._output = output
        self._size = VideoResolution(form.resolution.width, form.resolution.height)
        self._format: VideoFormat = form.format
        self._fps = form.fps

    @property
    def width(self) -> int:
        """Pixels: the session's form, which every picture must have."""
        return self._size.width

    @property
    def height(self) -> int:
        """Pixels."""
        return self._size.height

    @property
    def fps(self) -> int:
        """Pictures a second: the session's rate."""
        return self._fps

    @property
    def format(self) -> VideoFormat:
        """The layout that needs no conversion."""
        return self._format

    async def write(self, frame: Any, *, layout: pictures.Layout | None = None) -> bool:
        """Shows a picture: a contiguous buffer of bytes, or a received `VideoFrame`.

        layout: "YUV420P", "RGB24", "ARGB32", "RGBA32" (as picture libraries give it) or "GRAY8". None: by its
            shape, (height, width, 3) for RGB, (height, width, 4) for RGBA, (height, width) for grey,
            (height * 3 // 2, width) for YUV420P; flat bytes have the session's own format.

        Waits while more than the publisher's `video_queue` is queued. The buffer must not be changed before
        it returns. Returns False if a clear came first.
        """
        output = self._output
        output.check()
        pixels, found = self._pixels(frame, layout)
        cuts, ms = output.cuts, 1000 / self._fps
        async with output.turn:
            if found != self._format:
                pixels = await convert_aside(pixels, self.width, self.height, found, self._format)
            picture = NativeFrame(self._size, self._format, pixels)
            if not await output.room(ms, cuts):
                output.cut_ms += ms
                return False
            await output.hand_over(lambda: _module.client().add_video(picture), ms)
        return True

    async def drained(self) -> None:
        """Waits until the module reports that everything written has been shown."""
        await self._output.wait_dry()

    def _pixels(self, frame: Any, layout: str | None) -> tuple[Any, str]:
        """What is in the buffer, and in which layout."""
        if isinstance(frame, frames.VideoFrame):
            if (frame.width, frame.height) != (self.width, self.height):
                raise ValueError(
                    f"frame must be {self.width}x{self.height}, as the session's, not "
                    f"{frame.width}x{frame.height}"
                )
            frame, layout = frame.pixels, "YUV420P"
        try:
            view = memoryview(frame)
        except TypeError:
            raise TypeError(
                f"frame must be a buffer of bytes (bytes, numpy uint8), not {frame!r:.80}"
            ) from None
        if view.itemsize != 1:
            raise TypeError(f"frame must be bytes ('B'), not items of format {view.format!r}")
        if not view.c_contiguous:
            raise ValueError(
                f"frame must be contiguous, not of shape {view.shape} with strides "
                f"{view.strides}: copy it first"
            )
        return view, pictures.layout_of(view, self._size, self._format, layout)
