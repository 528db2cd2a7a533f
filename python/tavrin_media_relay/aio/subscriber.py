"""A received stream of another participant."""

from __future__ import annotations

import asyncio
import time
from typing import Any, Callable, Mapping

from ..models import AudioData, CaptionsData, Stream, SubscriberSettings
from ..models import Subscriber as NativeSubscriber
from ..models import VideoFrame as NativeFrame
from . import _module, events
from ._channel import Policy
from ._fan import Fan
from ._media import CAPTIONS_CAPACITY, VIDEO_CAPACITY, AudioIterator, MediaIterator, take_audio
from ._opening import attempt, settled_or_assumed
from ._session_state import SessionState
from ._turns import Turns
from ._wakeups import settle
from .errors import ClosedError, SubscriberError
from .frames import AudioFrame, Caption, VideoFrame
from .statistics import StreamFigures


class Subscriber:
    """Made by `Session.subscribe`. Ends with its `async with`, with `close`, with the stream or the session.

    Each call of the three methods below gives an iterator of its own, which receives everything from that
    call on, and ends when the subscription does. `capacity` items are queued for a slow consumer; then the
    oldest is dropped and counted in `dropped`. With the policy "latest" only the newest one is queued.
    """

    def __init__(
        self,
        state: SessionState,
        stream: Stream,
        settings: SubscriberSettings,
        forget: Callable[[Subscriber], bool],
    ) -> None:
        """forget: removes it from the session; False if it was removed before."""
        self.stream = stream
        """The stream that is subscribed to."""
        self._state = state
        self._forget = forget
        self._settings = settings
        self._audio_fan: Fan[AudioFrame] = Fan(state.waker, "audio frames")
        self._video_fan: Fan[VideoFrame] = Fan(state.waker, "video frames")
        self._caption_fan: Fan[Caption] = Fan(state.waker, "captions")
        self._outcome: asyncio.Future[None] = asyncio.get_running_loop().create_future()
        self._media_seen = False
        self._closing: asyncio.Future[bool] | None = None
        self._ended: str | None = None
        self._closed = False
        self._started = False

    @property
    def active(self) -> bool:
        """False once it has ended in any way."""
        return self._ended is None

    def audio_frames(
        self,
        *,
        capacity: int | None = None,
        policy: Policy = "drop_oldest",
        sample_rate: int | None = None,
        channels: int | None = None,
    ) -> AudioIterator:
        """The stream's sound, about 10 ms at a time, from its first sound on.

        capacity: frames, 50 if left out. sample_rate: 8000 to 48000 Hz, and channels: 1 or 2, if another form
        is wanted than the stream's own.
        """
        self._check("audio", self._settings.subscribe_to_audio)
        return AudioIterator(self._audio_fan, capacity, policy, sample_rate, channels)

    def turns(self, *, pause: float = 0.5, sample_rate: int = 16000) -> Turns:
        """What the participant says, turn by turn: `SpeechStarted` within 60 ms, and `SpeechEnded`, with what
        was said, once they were silent for `pause` seconds.

        sample_rate: of what was said, 8000 to 48000 Hz, one channel. The detector runs where the sound
        arrives, from this call on. RuntimeError where libtavrin_speech.so is missing.
        """
        self._check("audio", self._settings.subscribe_to_audio)
        return Turns(self._audio_fan, self._state.waker, pause, sample_rate)

    def video_frames(
        self, *, capacity: int | None = None, policy: Policy = "drop_oldest"
    ) -> MediaIterator[VideoFrame]:
        """The stream's pictures. capacity: pictures, 6 if left out; each queued one keeps its pixels."""
        self._check("video", self._settings.subscribe_to_video)
        return MediaIterator(self._video_fan, capacity, policy, VIDEO_CAPACITY)

    def captions(
        self, *, capacity: int | None = None, policy: Policy = "drop_oldest"
    ) -> MediaIterator[Caption]:
        """The stream's captions. capacity: 100 if left out."""
        self._check("captions", self._settings.subscribe_to_captions)
        return MediaIterator(self._caption_fan, capacity, policy, CAPTIONS_CAPACITY)

    async def close(self) -> None:
        """Ends the subscription and its iterators. May be called more than once."""
        self._closed = True
        self.end("has been closed")
        if self._closing is None:
            known = self._forget(self)
            if self._state.ended is not None or not known or not self._started:
                return
            self._closing = _module.start(_module.client().unsubscribe, self.stream)
        await _module.finish(self._closing)

    # ---- for the other classes of this package ----------------------------------------------------------

    async def open(self) -> Subscriber:
        async with attempt(self.close, self._outcome):
            if not await _module.call(self._start):
                raise SubscriberError(
                    SubscriberError.NOT_STARTED,
                    f"stream {self.stream.id!r} can't be subscribed to: it has gone, or never "
                    f"was in this session",
                )
            await settled_or_assumed(self._outcome)
        return self

    def end(self, how: str, error: SubscriberError | None = None) -> None:
        """Ends all iterators, with an error if there was one."""
        if self._ended is not None:
            return
        self._ended = f"the subscription to stream {self.stream.id!r} {how}"
        self._audio_fan.close(error)
        self._video_fan.close(error)
        self._caption_fan.close(error)
        settle(self._outcome, error or SubscriberError(SubscriberError.NOT_STARTED, self._ended))

    def figures(self, lost: Mapping[str, Any]) -> StreamFigures:
        """lost: the library's counters of this stream."""
        return StreamFigures(
            self._audio_fan.figures(lost.get("audio_blocks_dropped", 0)),
            self._video_fan.figures(lost.get("pictures_dropped", 0)),
            self._caption_fan.figures(lost.get("captions_dropped", 0), views=False),
        )

    # ---- events of the worker, and media of the library's threads -----------------------------------------

    def _start(self) -> bool:
        state, settings = self._state, self._settings
        self._started = _module.client().subscribe(
            self.stream,
            settings=settings,
            on_connected_cb=lambda subscriber: state.post(self._on_connected),
            on_disconnected_cb=lambda subscriber: state.post(self._on_disconnected),
            on_error_cb=lambda subscriber, message, code: state.post(self._on_error, message, code),
            on_audio_data_cb=self._on_audio if settings.subscribe_to_audio else None,
            on_render_frame_cb=self._on_frame if settings.subscribe_to_video else None,
            on_caption_text_cb=self._on_captions if settings.subscribe_to_captions else None,
        )
        return self._started

    def _on_connected(self) -> None:
        if self.active:
            settle(self._outcome)
            self._state.notify(events.SubscriberConnected(self.stream))

    def _on_disconnected(self) -> None:
        if self.active:
            self.end("was ended by the session")
            self._forget(self)
            self._state.notify(events.SubscriberDisconnected(self.stream))

    def _on_error(self, message: str, code: int) -> None:
        if self.active:
            error = SubscriberError(code, message)
            self.end(f"has failed: {error}", error)
            self._state.notify(events.SubscriberFailed(self.stream, error))

    def _see_media(self) -> None:
        # Media prove the subscription too: its event may have been lost.
        self._media_seen = True
        self._state.post(settle, self._outcome)

    def _on_audio(self, _subscriber: NativeSubscriber, audio: AudioData) -> None:
        if not self._media_seen:
            self._see_media()
        take_audio(self._audio_fan, audio)

    def _on_frame(self, _subscriber: NativeSubscriber, frame: NativeFrame) -> None:
        if not self._media_seen:
            self._see_media()
        now, size = time.monotonic(), frame.resolution
        self._video_fan.put(VideoFrame(size.width, size.height, memoryview(frame.frame_buffer), now), now)

    def _on_captions(self, _subscriber: NativeSubscriber, captions: CaptionsData) -> None:
        now = time.monotonic()
        self._caption_fan.put(Caption(captions.text, captions.is_final, now), now)

    def _check(self, what: str, wanted: bool) -> None:
        if not self._closed:
            self._state.check_place()
        else:  # of a stream that has gone, iterators end at once
            raise ClosedError(f"the subscription to stream {self.stream.id!r} has been closed")
        if not wanted:
            raise RuntimeError(
                f"stream {self.stream.id!r} is subscribed to without {what}: subscribe(..., {what}=True)"
            )
