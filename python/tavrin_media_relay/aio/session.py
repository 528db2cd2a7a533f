"""A session as a program sees it."""

from __future__ import annotations

from typing import Callable, Optional

from .._checks import number, of_type
from ..models import (
    Connection,
    PublisherAudioSettings,
    PublisherSettings,
    SessionAudioSettings,
    SessionAVSettings,
    SessionVideoPublisherSettings,
    Stream,
    SubscriberSettings,
    SubscriberVideoSettings,
    VideoResolution,
)
from . import _native, events
from ._channel import Channel, Policy
from ._core import Core
from ._media import AudioIterator
from ._opening import Opening
from .errors import ClosedError, PublisherError, SessionError, SubscriberError
from .events import Event
from .publisher import Publisher
from .statistics import Statistics, of_session
from .subscriber import Subscriber


class Session:
    """Made by `connect`. All of it belongs to the event loop in which it was opened."""

    def __init__(self, core: Core) -> None:
        self._core = core

    @property
    def id(self) -> str:
        """Session id, as given to `connect`."""
        return self._core.id

    @property
    def connection(self) -> Optional[Connection]:
        """Our own connection, as the session knows it."""
        return self._core.connection

    @property
    def connections(self) -> tuple[Connection, ...]:
        """The other participants that are there now."""
        return tuple(self._core.presence.connections.values())

    @property
    def streams(self) -> tuple[Stream, ...]:
        """The streams of others that are there now."""
        return tuple(self._core.presence.streams.values())

    @property
    def publisher(self) -> Optional[Publisher]:
        """What we publish now, if anything."""
        return self._core.publisher

    @property
    def subscribers(self) -> tuple[Subscriber, ...]:
        """What we receive now."""
        return tuple(self._core.subscribers.values())

    @property
    def over(self) -> bool:
        """True once the session has been left, has failed or was ended by the server."""
        return self._core.ended is not None

    def events(self, *, capacity: Optional[int] = None) -> Channel[Event]:
        """An async iterator over what happens, which begins with the connections and streams that are there now.

        It ends with the session; a failure or an end by the server is its last event. Each call gives an iterator
        of its own; of a consumer that lags behind `capacity` (1,000) events the oldest are dropped.
        """
        self._core.check_place()
        return self._core.presence.listen(capacity)

    def audio_frames(
        self,
        *,
        capacity: Optional[int] = None,
        policy: Policy = "drop_oldest",
        sample_rate: Optional[int] = None,
        channels: Optional[int] = None,
    ) -> AudioIterator:
        """The mix of all subscribed streams, 10 ms at a time, silence too; see `Subscriber.audio_frames`."""
        self._core.check()
        return AudioIterator(self._core.mix, capacity, policy, sample_rate, channels)

    async def wait_for_stream(self, suits: Optional[Callable[[Stream], bool]] = None) -> Stream:
        """The first stream that is there or comes, of those that suit; ClosedError if the session ends first."""
        async for event in self.events():
            if isinstance(event, events.StreamReceived) and (suits is None or suits(event.stream)):
                return event.stream
        raise ClosedError(self._core.ended)

    async def ended(self) -> None:
        """Waits for the end of the session. Raises SessionError if it has failed."""
        while not self.over:
            self._core.check_place()
            try:
                await self._core.changed.wait()
            except ClosedError:
                break
        failure = self._core.failure
        if failure is not None:
            raise SessionError(failure.code, failure.message)

    def statistics(self) -> Statistics:
        """Figures of the library, and of what this session's outputs and iterators did. Also after the end."""
        _native.check_process()
        return of_session(self._core)

    def publish(
        self,
        name: str,
        *,
        audio: bool = True,
        video: bool = True,
        captions: bool = False,
        stereo: bool = True,
        dtx: bool = False,
        audio_queue: float = 0.5,
        video_queue: float = 0.2,
    ) -> Opening[Publisher]:
        """Publishes our stream: `async with session.publish("me") as publisher:`, or `await` and `close`.

        audio, video: what the stream has. captions: let the server make captions of what we say.
        stereo, dtx: how the sound is coded. audio_queue, video_queue: seconds that may be queued before a `write`
        waits. Raises PublisherError if it is refused; one stream is published at a time.
        """
        self._core.check()
        coding = PublisherAudioSettings(enable_stereo_mode=stereo, enable_opus_dtx=dtx)
        settings = PublisherSettings(
            name, has_audio=audio, has_video=video, enable_captions=captions, audio_settings=coding
        )
        if not (audio or video):
            raise ValueError("audio and video must not both be False: there would be nothing to publish")
        number("audio_queue", audio_queue, 0.02, 60.0, "seconds")
        number("video_queue", video_queue, 0.0, 2.0, "seconds")
        return Opening(lambda: self._publish(settings, audio_queue, video_queue))

    def subscribe(
        self,
        stream: Stream,
        *,
        audio: bool = True,
        video: bool = True,
        captions: bool = False,
        resolution: Optional[VideoResolution] = None,
        framerate: Optional[int] = None,
    ) -> Opening[Subscriber]:
        """Receives a stream: `async with session.subscribe(stream) as subscriber:`, or `await` and `close`.

        audio, video, captions: what is wanted; captions only with one of the others. resolution, framerate: what
        is preferred, where the stream is offered in several. Raises SubscriberError if it is refused.
        """
        self._core.check()
        of_type("stream", stream, Stream)
        if not (audio or video):
            raise ValueError("audio and video must not both be False: captions come with one of them")
        settings = SubscriberSettings(
            audio, video, captions, SubscriberVideoSettings(resolution, framerate)
        )
        return Opening(lambda: self._subscribe(stream, settings))

    async def close(self) -> None:
        """Leaves the session and waits until it is left. May be called more than once, and by several tasks."""
        await self._core.close()

    async def _publish(self, settings: PublisherSettings, audio_queue: float, video_queue: float) -> Publisher:
        self._core.check()
        old = self._core.publisher
        if old is not None:
            if old.active:
                raise PublisherError(PublisherError.BUSY, f"{old.name!r} is published already: close it first")
            await old.close()
            self._core.check()
        av = self._core.settings.av or SessionAVSettings()
        self._core.publisher = publisher = Publisher(
            self._core,
            settings,
            av.audio_publisher or SessionAudioSettings(),
            av.video_publisher or SessionVideoPublisherSettings(),
            audio_queue,
            video_queue,
        )
        return await publisher.open()

    async def _subscribe(self, stream: Stream, settings: SubscriberSettings) -> Subscriber:
        self._core.check()
        if stream.id in self._core.subscribers:
            raise SubscriberError(
                SubscriberError.BUSY,
                f"stream {stream.id!r} is subscribed to already: its iterators may be taken more than once",
            )
        self._core.subscribers[stream.id] = subscriber = Subscriber(self._core, stream, settings)
        return await subscriber.open()
