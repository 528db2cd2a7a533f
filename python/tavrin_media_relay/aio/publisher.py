"""Our own stream in the session."""

from __future__ import annotations

import asyncio
from typing import Callable

from ..models import Publisher as NativePublisher
from ..models import PublisherSettings, SessionAudioSettings, SessionVideoPublisherSettings, Stream
from . import _module, events
from ._opening import attempt, settled_or_assumed
from ._output import Output, queued
from ._session_state import SessionState
from ._wakeups import settle
from .audio_output import AudioOutput
from .errors import ClosedError, PublisherError
from .video_output import VideoOutput

_LOST_TOGETHER = 0.5  # s


def _clear_and_measure() -> tuple[float, float]:
    """Drops the queued media; returns the ms of audio and of video dropped."""
    before = queued()
    _module.client().clear_media_buffers()
    return before


class Publisher:
    """Made by `Session.publish`. Ends with its `async with`, with `close`, or with the session."""

    def __init__(
        self,
        state: SessionState,
        settings: PublisherSettings,
        audio: SessionAudioSettings,
        video: SessionVideoPublisherSettings,
        audio_queue: float,
        video_queue: float,
        forget: Callable[[Publisher], None],
    ) -> None:
        """forget: removes it from the session, once it is closed."""
        self._state = state
        self._forget = forget
        self._settings = settings
        self.stream: Stream | None = None
        """Our stream as the session knows it; None until the session has announced it."""
        self._outputs: list[Output] = []
        self._audio: AudioOutput | None = None
        self._video: VideoOutput | None = None
        if settings.has_audio:
            output = Output(0, audio_queue * 1000, self.check, lambda: state.away)
            self._outputs.append(output)
            self._audio = AudioOutput(output, audio, self._audio_ready, self.clear)
        if settings.has_video:
            output = Output(1, max(video_queue * 1000, 1000 / video.fps), self.check, lambda: state.away)
            self._outputs.append(output)
            self._video = VideoOutput(output, video)
        self._outcome: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._closing: asyncio.Future[bool] | None = None
        self._ended: str | None = None
        self._visit = 0  # of the session: what is told of an earlier one is ignored

    @property
    def name(self) -> str:
        """Of our stream, as given to `Session.publish`."""
        return self._settings.name

    @property
    def audio(self) -> AudioOutput:
        """The output for sound. Raises RuntimeError if the stream is published without."""
        if self._audio is None:
            raise RuntimeError(f"{self.name!r} is published without audio: publish(..., audio=True)")
        return self._audio

    @property
    def video(self) -> VideoOutput:
        """The output for pictures. Raises RuntimeError if the stream is published without."""
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
        written = [0.0, 0.0]
        for output in self._outputs:
            written[output.side] = output.written_ms
        return written[0], written[1]

    async def clear(self) -> tuple[float, float]:
        """Drops all queued sound and pictures, and ends the writes under way; returns the ms of audio and of
        video dropped. See `AudioOutput.clear`."""
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
            # Agents clear at every sound they hear: the module's worker is asked only if something may be
            # queued.
            dry = all(output.is_dry for output in self._outputs)
            dropped = [0.0, 0.0] if dry else list(await _module.call(_clear_and_measure))
            for output in self._outputs:
                output.lost_ms += dropped[output.side]
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
            if self._state.ended is not None:
                return
            self._closing = _module.start(_module.client().unpublish)
        await _module.finish(self._closing)
        self._forget(self)

    # ---- for the other classes of this package ----------------------------------------------------------

    def check(self) -> None:
        """Raises if nothing may be published here or now."""
        self._state.check()
        if self._ended is not None:
            raise ClosedError(self._ended)

    async def queued(self) -> tuple[float, float]:
        """Milliseconds of audio and of video queued."""
        return await _module.call(queued)

    async def open(self) -> Publisher:
        async with attempt(self.close, self._outcome):
            if not await _module.call(self._start):
                raise PublisherError(
                    PublisherError.NOT_STARTED,
                    f"the module would not publish {self.name!r}; its log tells why",
                )
            await settled_or_assumed(self._outcome)
            self.check()
        return self

    def session_over(self, reason: str) -> None:
        self._end(reason)

    def lost(self) -> None:
        """The session is being joined again; what was queued is gone."""
        self._visit += 1
        self.stream = None
        for output in self._outputs:
            output.emptied()

    async def publish_again(self) -> None:
        """In the session that was joined again."""
        self._outcome = self._state.loop.create_future()
        if not await _module.call(self._start):
            raise PublisherError(
                PublisherError.NOT_STARTED, f"the module would not publish {self.name!r} again"
            )
        await settled_or_assumed(self._outcome)

    def on_drained(self) -> None:
        """On the module's worker. The current queues show which side has drained; if a write came in between,
        another notice follows."""
        added = [(output, output.added) for output in self._outputs]
        left = queued()
        for output, count in added:
            if not left[output.side]:
                self._state.post(output.ran_dry, count)

    async def _audio_ready(self) -> None:
        await self._state.wait_audio_ready()
        self.check()

    # ---- events -----------------------------------------------------------------------------------------

    def _start(self) -> bool:
        state, visit = self._state, self._visit

        def of_this_visit(handler: Callable[..., None], *arguments: object) -> None:
            if visit == self._visit:
                handler(*arguments)

        def of_this_visit_alone(handler: Callable[..., None], *arguments: object) -> None:
            # The end of a lost session takes our stream with it, and says so before it speaks of itself.
            if state.rejoins and visit == self._visit:
                state.loop.call_later(_LOST_TOGETHER, of_this_visit, handler, *arguments)
            else:
                of_this_visit(handler, *arguments)

        return _module.client().publish(
            self._settings,
            on_stream_created_cb=lambda publisher: state.post(of_this_visit, self._on_created, publisher),
            on_stream_destroyed_cb=lambda publisher: state.post(of_this_visit_alone, self._on_destroyed),
            on_error_cb=lambda publisher, message, code: state.post(
                of_this_visit_alone, self._on_error, message, code
            ),
        )

    def _on_created(self, publisher: NativePublisher) -> None:
        self.stream = publisher.stream
        settle(self._outcome)

    def _on_destroyed(self) -> None:
        if self.active:
            self._end(f"publisher {self.name!r} was ended by the session")
            self._state.notify(events.PublisherEnded())

    def _on_error(self, message: str, code: int) -> None:
        if self.active:
            settle(self._outcome, PublisherError(code, message))
            self._end(f"publisher {self.name!r} has failed: {message} (code {code})")
            self._state.notify(events.PublisherFailed(PublisherError(code, message)))

    def _end(self, reason: str) -> None:
        if self._ended is None:
            self._ended = reason
            for output in self._outputs:
                output.changed.end(lambda: ClosedError(reason))
            settle(self._outcome, PublisherError(PublisherError.NOT_STARTED, reason))
