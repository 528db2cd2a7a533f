"""A stream of somebody else's that we receive."""

from __future__ import annotations

import asyncio
import time
from typing import TYPE_CHECKING, Optional

from ..models import AudioData, CaptionsData, Stream, SubscriberSettings
from ..models import Subscriber as NativeSubscriber
from ..models import VideoFrame as NativeFrame
from . import _native, events
from ._channel import Policy, settle
from ._fan import Fan
from ._media import CAPTIONS_CAPACITY, VIDEO_CAPACITY, AudioIterator, MediaIterator, take_audio
from ._opening import attempt, likely
from .errors import ClosedError, SubscriberError
from .frames import AudioFrame, Caption, VideoFrame

if TYPE_CHECKING:
    from ._core import Core


class Subscriber:
    """Made by `Session.subscribe`. Ends with its `async with`, with `close`, with the stream or the session.

    Each call of the three methods below gives an iterator of its own, which receives everything from that call
    on, and ends when the subscription does. `capacity` items wait for a slow consumer; then the oldest gives way
    and is counted in `dropped`. With the policy "latest" only the newest one waits.
    """

    def __init__(self, core: Core, stream: Stream, settings: SubscriberSettings) -> None:
        self.stream = stream
        """The stream that is subscribed to."""
        self._core = core
        self._settings = settings
        self.audio_fan: Fan[AudioFrame] = Fan(core.waker, "audio frames")
        self.video_fan: Fan[VideoFrame] = Fan(core.waker, "video frames")
        self.caption_fan: Fan[Caption] = Fan(core.waker, "captions")
        self._outcome: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._media_seen = False
        self._closing: Optional[asyncio.Future[bool]] = None
        self._ended: Optional[str] = None
        self._closed = False
        self._started = False

    @property
    def active(self) -> bool:
        """False once it has ended in any way."""
        return self._ended is None

    def audio_frames(
        self,
        *,
        capacity: Optional[int] = None,
        policy: Policy = "drop_oldest",
        sample_rate: Optional[int] = None,
        channels: Optional[int] = None,
    ) -> AudioIterator:
        """The stream's sound, about 10 ms at a time, from its first sound on.

        capacity: frames, 50 if left out. sample_rate: 8000 to 48000 Hz, and channels: 1 or 2, if another form
        is wanted than the stream's own.
        """
        self._check("audio", self._settings.subscribe_to_audio)
        return AudioIterator(self.audio_fan, capacity, policy, sample_rate, channels)

    def video_frames(
        self, *, capacity: Optional[int] = None, policy: Policy = "drop_oldest"
    ) -> MediaIterator[VideoFrame]:
        """The stream's pictures. capacity: pictures, 6 if left out; each that waits holds its pixels."""
        self._check("video", self._settings.subscribe_to_video)
        return MediaIterator(self.video_fan, capacity, policy, VIDEO_CAPACITY)

    def captions(
        self, *, capacity: Optional[int] = None, policy: Policy = "drop_oldest"
    ) -> MediaIterator[Caption]:
        """The stream's captions. capacity: 100 if left out."""
        self._check("captions", self._settings.subscribe_to_captions)
        return MediaIterator(self.caption_fan, capacity, policy, CAPTIONS_CAPACITY)

    async def close(self) -> None:
        """Ends the subscription and its iterators. May be called more than once."""
        self._closed = True
        self.end("has been closed")
        if self._closing is None:
            known = self._core.forget_subscriber(self)
            if self._core.ended is not None or not known or not self._started:
                return
            self._closing = _native.start(_native.client().unsubscribe, self.stream)
        await _native.finish(self._closing)

    # ---- for the other classes of this package ----------------------------------------------------------

    async def open(self) -> Subscriber:
        async with attempt(self.close, self._outcome):
            if not await _native.call(self._start):
                raise SubscriberError(
                    SubscriberError.NOT_STARTED,
                    f"stream {self.stream.id!r} can't be subscribed to: it has gone, or never was in this session",
                )
            await likely(self._outcome)
        return self

    def end(self, how: str, error: Optional[SubscriberError] = None) -> None:
        """The end of all iterators, with an error if there was one."""
        if self._ended is not None:
            return
        self._ended = f"the subscription to stream {self.stream.id!r} {how}"
        self.audio_fan.close(error)
        self.video_fan.close(error)
        self.caption_fan.close(error)
        settle(self._outcome, error or SubscriberError(SubscriberError.NOT_STARTED, self._ended))

    # ---- events of the worker, and media of the library's threads -----------------------------------------

    def _start(self) -> bool:
        core, settings = self._core, self._settings
        self._started = _native.client().subscribe(
            self.stream,
            settings=settings,
            on_connected_cb=lambda subscriber: core.post(self._on_connected),
            on_disconnected_cb=lambda subscriber: core.post(self._on_disconnected),
            on_error_cb=lambda subscriber, message, code: core.post(self._on_error, message, code),
            on_audio_data_cb=self._on_audio if settings.subscribe_to_audio else None,
            on_render_frame_cb=self._on_frame if settings.subscribe_to_video else None,
            on_caption_text_cb=self._on_captions if settings.subscribe_to_captions else None,
        )
        return self._started

    def _on_connected(self) -> None:
        if self.active:
            settle(self._outcome)
            self._core.tell(events.SubscriberConnected(self.stream))

    def _on_disconnected(self) -> None:
        if self.active:
            self.end("was ended by the session")
            self._core.forget_subscriber(self)
            self._core.tell(events.SubscriberDisconnected(self.stream))

    def _on_error(self, message: str, code: int) -> None:
        if self.active:
            error = SubscriberError(code, message)
            self.end(f"has failed: {error}", error)
            self._core.tell(events.SubscriberFailed(self.stream, error))

    def _see_media(self) -> None:
        # Media are as good an outcome as the event, which may have been lost.
        self._media_seen = True
        self._core.post(settle, self._outcome)

    def _on_audio(self, _subscriber: NativeSubscriber, audio: AudioData) -> None:
        if not self._media_seen:
            self._see_media()
        take_audio(self.audio_fan, audio)

    def _on_frame(self, _subscriber: NativeSubscriber, frame: NativeFrame) -> None:
        if not self._media_seen:
            self._see_media()
        now, size = time.monotonic(), frame.resolution
        self.video_fan.put(VideoFrame(size.width, size.height, memoryview(frame.frame_buffer), now), now)

    def _on_captions(self, _subscriber: NativeSubscriber, captions: CaptionsData) -> None:
        now = time.monotonic()
        self.caption_fan.put(Caption(captions.text, captions.is_final, now), now)

    def _check(self, what: str, wanted: bool) -> None:
        if not self._closed:
            self._core.check_place()
        else:  # of a stream that has gone, iterators end at once
            raise ClosedError(f"the subscription to stream {self.stream.id!r} has been closed")
        if not wanted:
            raise RuntimeError(
                f"stream {self.stream.id!r} is subscribed to without {what}: subscribe(..., {what}=True)"
            )
