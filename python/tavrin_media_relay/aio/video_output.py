"""The video side of a publisher."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Optional

from ..models import SessionVideoPublisherSettings, VideoFormat, VideoResolution
from ..models import VideoFrame as NativeFrame
from . import _native, _pictures, frames
from ._output import Output

if TYPE_CHECKING:
    from .publisher import Publisher


class VideoOutput:
    """Pictures for our stream, each shown for one frame period."""

    def __init__(self, publisher: Publisher, form: SessionVideoPublisherSettings, limit: float) -> None:
        self._publisher = publisher
        self._size = VideoResolution(form.resolution.width, form.resolution.height)
        self._format: VideoFormat = form.format
        self._fps = form.fps
        self._output = Output(1, max(limit, 1000 / form.fps))

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

    async def write(self, frame: Any, *, layout: Optional[_pictures.Layout] = None) -> bool:
        """Shows a picture: a contiguous buffer of bytes, or a received `VideoFrame`.

        layout: "YUV420P", "RGB24", "ARGB32", "RGBA32" (as picture libraries give it) or "GRAY8". None: by its
            shape, (height, width, 3) for RGB, (height, width, 4) for RGBA, (height, width) for grey,
            (height * 3 // 2, width) for YUV420P; flat bytes have the session's own format.

        Waits while more than the publisher's `video_queue` is queued. The buffer must not be changed before it
        returns. Gives False if a clear came first.
        """
        output = self._output
        output.changed.check()
        self._publisher.check()
        pixels, found = self._pixels(frame, layout)
        cuts, ms = output.cuts, 1000 / self._fps
        async with output.turn:
            if found != self._format:
                pixels = await _pictures.convert_aside(pixels, self.width, self.height, found, self._format)
            picture = NativeFrame(self._size, self._format, pixels)
            if not await output.room(ms, cuts):
                output.cut_ms += ms
                return False
            await output.hand_over(lambda: _native.client().add_video(picture), ms)
        return True

    async def drained(self) -> None:
        """Waits until all that was written has been shown, as the module tells."""
        await self._output.wait_dry()

    def _pixels(self, frame: Any, layout: Optional[str]) -> tuple[Any, str]:
        """What is in the buffer, and in which layout."""
        if isinstance(frame, frames.VideoFrame):
            if (frame.width, frame.height) != (self.width, self.height):
                raise ValueError(
                    f"frame must be {self.width}x{self.height}, as the session's, not {frame.width}x{frame.height}"
                )
            frame, layout = frame.pixels, "YUV420P"
        try:
            view = memoryview(frame)
        except TypeError:
            raise TypeError(f"frame must be a buffer of bytes (bytes, numpy uint8), not {frame!r:.80}") from None
        if view.itemsize != 1:
            raise TypeError(f"frame must be bytes ('B'), not items of format {view.format!r}")
        if not view.c_contiguous:
            raise ValueError(
                f"frame must be contiguous, not of shape {view.shape} with strides {view.strides}: copy it first"
            )
        return view, _pictures.layout_of(view, self._size, self._format, layout)
