"""Our own stream in the session."""

from __future__ import annotations

import asyncio
from typing import TYPE_CHECKING, Optional

from ..models import Publisher as NativePublisher
from ..models import PublisherSettings, SessionAudioSettings, SessionVideoPublisherSettings, Stream
from . import _native, events
from ._channel import settle
from ._opening import attempt, likely
from ._output import queued
from .audio_output import AudioOutput
from .errors import ClosedError, PublisherError
from .video_output import VideoOutput

if TYPE_CHECKING:
    from ._core import Core

def _measured() -> tuple[float, float]:
    """Throws away what is queued, and tells how much it was, in ms."""
    before = queued()
    _native.client().clear_media_buffers()
    return before


class Publisher:
    """Made by `Session.publish`. Ends with its `async with`, with `close`, or with the session."""

    def __init__(
        self,
        core: Core,
        settings: PublisherSettings,
        audio: SessionAudioSettings,
        video: SessionVideoPublisherSettings,
        audio_queue: float,
        video_queue: float,
    ) -> None:
        self._core = core
        self._settings = settings
        self.stream: Optional[Stream] = None
        """Our stream as the session knows it, once it has told."""
        self._audio = AudioOutput(self, audio, audio_queue * 1000) if settings.has_audio else None
        self._video = VideoOutput(self, video, video_queue * 1000) if settings.has_video else None
        self._outputs = [each._output for each in (self._audio, self._video) if each is not None]
        self._outcome: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._closing: Optional[asyncio.Future[bool]] = None
        self._ended: Optional[str] = None

    @property
    def name(self) -> str:
        """Of our stream, as given to `Session.publish`."""
        return self._settings.name

    @property
    def audio(self) -> AudioOutput:
        """Where sound is written. Raises RuntimeError if the stream is published without."""
        if self._audio is None:
            raise RuntimeError(f"{self.name!r} is published without audio: publish(..., audio=True)")
        return self._audio

    @property
    def video(self) -> VideoOutput:
        """Where pictures are written. Raises RuntimeError if the stream is published without."""
        if self._video is None:
            raise RuntimeError(f"{self.name!r} is published without video: publish(..., video=True)")
        return self._video

    @property
    def active(self) -> bool:
        """False once it has ended in any way."""
        return self._ended is None

    @property
    def written_ms(self) -> tuple[float, float]:
        """Milliseconds of audio and of video that have been handed to the session so far."""
        audio, video = (each._output.written_ms if each is not None else 0.0 for each in (self._audio, self._video))
        return audio, video

    async def clear(self) -> tuple[float, float]:
        """Drops all that waits to be heard and seen, and ends the writes under way; ms of audio and of video
        that were dropped. See `AudioOutput.clear`."""
        self.check()
        for output in self._outputs:
            output.cut()
        turns = [output.turn for output in self._outputs]
        for number, turn in enumerate(turns):
            try:
                await turn.acquire()
            except BaseException:
                for held in turns[:number]:
                    held.release()
                raise
        try:
            self.check()
            # Agents clear with every sound that they hear: the module's worker is asked only if there may be something.
            dry = all(output.is_dry for output in self._outputs)
            dropped = [0.0, 0.0] if dry else list(await _native.call(_measured))
            for output in self._outputs:
                dropped[output.side] += output.cut_ms
                output.cut_ms = 0.0
                output.emptied()
            if self._audio is not None:
                self._audio.forget()
        finally:
            for turn in turns:
                turn.release()
        return dropped[0], dropped[1]

    async def close(self) -> None:
        """Ends our stream. May be called more than once."""
        self._end(f"publisher {self.name!r} has been closed")
        if self._closing is None:
            if self._core.ended is not None:
                return
            self._closing = _native.start(_native.client().unpublish)
        await _native.finish(self._closing)
        self._core.forget_publisher(self)

    # ---- for the other classes of this package ----------------------------------------------------------

    def check(self) -> None:
        """Raises if we may not be used here and now."""
        self._core.check()
        if self._ended is not None:
            raise ClosedError(self._ended)

    async def open(self) -> Publisher:
        async with attempt(self.close, self._outcome):
            if not await _native.call(self._start):
                raise PublisherError(
                    PublisherError.NOT_STARTED, f"the module would not publish {self.name!r}; its log tells why"
                )
            await likely(self._outcome)
            self.check()
        return self

    async def audio_ready(self) -> None:
        await self._core.wait_audio_ready()
        self.check()

    def session_over(self, reason: str) -> None:
        self._end(reason)

    def ran_dry(self, audio: Optional[int], video: Optional[int]) -> None:
        for output in self._outputs:
            count = (audio, video)[output.side]
            if count is not None:
                output.ran_dry(count)

    def on_drained(self) -> None:
        """On the module's worker. What is queued now tells which side is meant, and whether a write came since:
        then there will be another notice."""
        audio = self._audio._output.added if self._audio is not None else None
        video = self._video._output.added if self._video is not None else None
        audio_ms, video_ms = queued()
        self._core.post(self.ran_dry, None if audio_ms else audio, None if video_ms else video)

    # ---- events -----------------------------------------------------------------------------------------

    def _start(self) -> bool:
        core = self._core
        return _native.client().publish(
            self._settings,
            on_stream_created_cb=lambda publisher: core.post(self._on_created, publisher),
            on_stream_destroyed_cb=lambda publisher: core.post(self._on_destroyed),
            on_error_cb=lambda publisher, message, code: core.post(self._on_error, message, code),
        )

    def _on_created(self, publisher: NativePublisher) -> None:
        self.stream = publisher.stream
        settle(self._outcome)

    def _on_destroyed(self) -> None:
        if self.active:
            self._end(f"publisher {self.name!r} was ended by the session")
            self._core.tell(events.PublisherEnded())

    def _on_error(self, message: str, code: int) -> None:
        if self.active:
            settle(self._outcome, PublisherError(code, message))
            self._end(f"publisher {self.name!r} has failed: {message} (code {code})")
            self._core.tell(events.PublisherFailed(PublisherError(code, message)))

    def _end(self, reason: str) -> None:
        if self._ended is None:
            self._ended = reason
            for output in self._outputs:
                output.changed.end(lambda: ClosedError(reason))
            settle(self._outcome, PublisherError(PublisherError.NOT_STARTED, reason))
