"""The session object of a program."""

from __future__ import annotations

import asyncio
import functools
import random
from typing import Callable

from .._checks import number, of_type
from ..models import (
    AudioData,
    Connection,
    MediaBufferStats,
    PublisherAudioSettings,
    PublisherSettings,
    SessionAudioSettings,
    SessionAVSettings,
    SessionSettings,
    SessionVideoPublisherSettings,
    Stream,
    SubscriberSettings,
    SubscriberVideoSettings,
    VideoResolution,
)
from . import _module, events
from ._channel import Channel, Policy
from ._fan import Fan
from ._media import AudioIterator, take_audio
from ._opening import Opening, attempt
from ._session_state import SessionState
from ._turns import Turns
from ._wakeups import settle
from .errors import ClosedError, PublisherError, SessionError, SubscriberError
from .events import Event
from .frames import AudioFrame
from .publisher import Publisher
from .statistics import Statistics, library_statistics
from .subscriber import Subscriber

# The server, or the way to it, is gone: of all codes those that a second attempt may change.
_LOST = frozenset({1021, 1022})
_REJOIN_PAUSE = (0.1, 2.0)  # s between attempts: at first, and at most
_REJOIN_TIMEOUT = 10.0  # s for an attempt


def _connection() -> Connection | None:
    return _module.client().get_connection() or None


class Session:
    """Made by `connect`. All of it belongs to the event loop in which it was opened."""

    def __init__(self, session_id: str, settings: SessionSettings, rejoin_seconds: float = 0.0) -> None:
        self._id = session_id
        self._settings = settings
        self._state = SessionState()
        self._connection: Connection | None = None
        self._publisher: Publisher | None = None
        self._subscribers: dict[str, Subscriber] = {}
        self._mix: Fan[AudioFrame] = Fan(self._state.waker, "audio frames")
        self._outcome: asyncio.Future[None] = self._state.loop.create_future()
        self._started = False  # the module has begun joining, so the session must be left
        self._closing: asyncio.Future[bool] | None = None
        self._rejoin_seconds = rejoin_seconds
        self._state.rejoins = rejoin_seconds > 0
        self._rejoining: asyncio.Task[None] | None = None
        self._where = ("", "")  # application id and token
        self._visit = 0  # what the module tells of an earlier one is ignored

    @property
    def id(self) -> str:
        """Session id, as given to `connect`."""
        return self._id

    @property
    def connection(self) -> Connection | None:
        """Our own connection, as the session knows it."""
        return self._connection

    @property
    def connections(self) -> tuple[Connection, ...]:
        """The other participants now present."""
        return tuple(self._state.presence.connections.values())

    @property
    def streams(self) -> tuple[Stream, ...]:
        """The streams of the others now present."""
        return tuple(self._state.presence.streams.values())

    @property
    def publisher(self) -> Publisher | None:
        """What we publish now, if anything."""
        return self._publisher

    @property
    def subscribers(self) -> tuple[Subscriber, ...]:
        """What we receive now."""
        return tuple(self._subscribers.values())

    @property
    def over(self) -> bool:
        """True once the session has been left, has failed or was ended by the server."""
        return self._state.ended is not None

    @property
    def failure(self) -> SessionError | None:
        """What the session failed of, if it did."""
        return self._state.failure

    def events(self, *, capacity: int | None = None) -> Channel[Event]:
        """An async iterator over the session's events, which begins with the current connections and streams.

        It ends with the session; a failure or an end by the server is its last event. Each call gives an
        iterator of its own; when a consumer lags by more than `capacity` (1,000) events, the oldest are
        dropped.
        """
        self._state.check_place()
        return self._state.presence.listen(capacity)

    def audio_frames(
        self,
        *,
        capacity: int | None = None,
        policy: Policy = "drop_oldest",
        sample_rate: int | None = None,
        channels: int | None = None,
    ) -> AudioIterator:
        """The mix of all subscribed streams, 10 ms at a time, silence too; see `Subscriber.audio_frames`."""
        self._state.check()
        return AudioIterator(self._mix, capacity, policy, sample_rate, channels)

    def turns(self, *, pause: float = 0.5, sample_rate: int = 16000) -> Turns:
        """What is said by anybody whose stream is subscribed to, turn by turn; see `Subscriber.turns`."""
        self._state.check()
        return Turns(self._mix, self._state.waker, pause, sample_rate)

    async def wait_for_stream(self, suits: Callable[[Stream], bool] | None = None) -> Stream:
        """The first matching stream, present or future; ClosedError if the session ends first."""
        async for event in self.events():
            if isinstance(event, events.StreamReceived) and (suits is None or suits(event.stream)):
                return event.stream
        raise ClosedError(self._state.ended)

    async def ended(self) -> None:
        """Waits for the end of the session. Raises SessionError if it has failed."""
        while not self.over:
            self._state.check_place()
            try:
                await self._state.changed.wait()
            except ClosedError:
                break
        failure = self._state.failure
        if failure is not None:
            raise SessionError(failure.code, failure.message)

    def statistics(self) -> Statistics:
        """Figures of the library and of this session's outputs and iterators. Also after the end."""
        _module.check_process()
        library = library_statistics()
        deliveries = {each["stream"]: each for each in (library or {}).get("subscribers", {}).values()}
        streams = {name: each.figures(deliveries.get(name, {})) for name, each in self._subscribers.items()}
        written = self._publisher.written_ms if self._publisher is not None else (0.0, 0.0)
        import _tavrin_video  # here: the command line imports this package where nothing is built

        escaped = _tavrin_video.__statistics__.escaped_views
        return Statistics(library, self._mix.figures(), streams, *written, escaped)

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

        audio, video: what the stream has. captions: let the server caption our speech.
        stereo, dtx: how the sound is coded. audio_queue, video_queue: seconds that may be queued before a
        `write` waits. Raises PublisherError if it is refused; one stream is published at a time.
        """
        self._state.check()
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
        resolution: VideoResolution | None = None,
        framerate: int | None = None,
    ) -> Opening[Subscriber]:
        """Receives a stream: `async with session.subscribe(stream) as subscriber:`, or `await` and `close`.

        audio, video, captions: what is wanted; captions only with one of the others. resolution, framerate:
        what is preferred, where the stream is offered in several. Raises SubscriberError if it is refused.
        """
        self._state.check()
        of_type("stream", stream, Stream)
        if not (audio or video):
            raise ValueError("audio and video must not both be False: captions come with one of them")
        settings = SubscriberSettings(audio, video, captions, SubscriberVideoSettings(resolution, framerate))
        return Opening(lambda: self._subscribe(stream, settings))

    async def close(self) -> None:
        """Leaves the session and waits until it is left. May be called more than once, and by several
        tasks."""
        if self._closing is not None and self._closing.done():
            return
        self._state.check_place()
        if self._rejoining is not None:
            self._rejoining.cancel()
            await asyncio.wait([self._rejoining])
        if self._closing is None and self._started:
            self._closing = _module.start(_module.client().disconnect)
        self._end(f"session {self.id!r} has been left")
        try:
            if self._closing is not None:
                await _module.finish(self._closing)
        finally:
            _module.release(self)

    # ---- for the other classes of this package ----------------------------------------------------------

    async def open(self, application_id: str, token: str, timeout: float) -> Session:
        if not await _module.claim(self, self._state.loop):
            raise SessionError(
                SessionError.BUSY, "this process is in a session already: it is in one at a time"
            )
        self._where = application_id, token
        async with attempt(self.close, self._outcome):
            await self._join(timeout)
        return self

    async def _join(self, timeout: float) -> None:
        await _module.call(self._start, *self._where)
        done, _ = await asyncio.wait([self._outcome], timeout=timeout)
        if not done:
            raise SessionError(
                SessionError.TIMED_OUT, f"session {self.id!r} has not answered in {timeout:g} s"
            )
        self._outcome.result()
        self._connection = await _module.call(_connection)

    # ---- joining again ----------------------------------------------------------------------------------

    def _lose(self, error: SessionError) -> None:
        self._visit += 1
        subscribers = tuple(self._subscribers.values())
        self._subscribers.clear()
        for subscriber in subscribers:
            subscriber.end("was lost with its server")
        self._state.leave()
        if self._publisher is not None:
            self._publisher.lost()
        self._state.presence.all_gone()
        self._state.notify(events.SessionLost(error))
        self._rejoining = self._state.loop.create_task(self._rejoin(error))

    async def _rejoin(self, error: SessionError) -> None:
        """Until it is joined, `rejoin_seconds` have passed, or `close` cancels it."""
        loop, pause = self._state.loop, _REJOIN_PAUSE[0]
        end = loop.time() + self._rejoin_seconds
        while True:
            try:
                await _module.call(_module.client().disconnect)
                self._outcome = loop.create_future()
                await self._join(min(_REJOIN_TIMEOUT, self._rejoin_seconds))
                publisher = self._publisher
                if publisher is not None and publisher.active:
                    await publisher.publish_again()
                break
            except (SessionError, PublisherError):
                if loop.time() >= end:
                    self._fail(error)
                    return
            self._visit += 1
            await asyncio.sleep(pause * random.uniform(0.5, 1.0))  # many are lost at a time
            pause = min(2 * pause, _REJOIN_PAUSE[1])
        self._state.come_back()
        self._state.notify(events.SessionRejoined())

    # ---- publishing and subscribing ---------------------------------------------------------------------

    async def _publish(
        self, settings: PublisherSettings, audio_queue: float, video_queue: float
    ) -> Publisher:
        self._state.check()
        await self._state.wait_here()
        old = self._publisher
        if old is not None:
            if old.active:
                raise PublisherError(
                    PublisherError.BUSY, f"{old.name!r} is published already: close it first"
                )
            await old.close()
            self._state.check()
        av = self._settings.av or SessionAVSettings()
        self._publisher = publisher = Publisher(
            self._state,
            settings,
            av.audio_publisher or SessionAudioSettings(),
            av.video_publisher or SessionVideoPublisherSettings(),
            audio_queue,
            video_queue,
            self._forget_publisher,
        )
        return await publisher.open()

    async def _subscribe(self, stream: Stream, settings: SubscriberSettings) -> Subscriber:
        self._state.check()
        if stream.id in self._subscribers:
            raise SubscriberError(
                SubscriberError.BUSY,
                f"stream {stream.id!r} is subscribed to already: its iterators may be taken more than once",
            )
        self._subscribers[stream.id] = subscriber = Subscriber(
            self._state, stream, settings, self._forget_subscriber
        )
        return await subscriber.open()

    def _forget_publisher(self, publisher: Publisher) -> None:
        if self._publisher is publisher:
            self._publisher = None

    def _forget_subscriber(self, subscriber: Subscriber) -> bool:
        """False if it was removed before, with its stream."""
        if self._subscribers.get(subscriber.stream.id) is not subscriber:
            return False
        del self._subscribers[subscriber.stream.id]
        return True

    # ---- events, on the loop ---------------------------------------------------------------------------

    def _told(self, handler: Callable[..., object]) -> Callable[..., object]:
        """A callable for the module's worker: runs the handler on the loop, without the argument
        `session`."""

        visit = self._visit

        def callable_(_session: object, *arguments: object) -> None:
            self._state.post(self._on_event, visit, functools.partial(handler, *arguments))

        return callable_

    def _on_event(self, visit: int, handler: Callable[[], object]) -> None:
        if self._state.ended is not None or visit != self._visit:
            return
        settle(self._outcome)
        handler()

    def _on_stream_dropped(self, stream: Stream) -> None:
        subscriber = self._subscribers.pop(stream.id, None)
        if subscriber is not None:
            subscriber.end("has ended with the stream")
        self._state.presence.stream_dropped(stream)

    def _on_error(self, visit: int, message: str, code: int) -> None:
        if self._state.ended is not None or visit != self._visit:
            return
        error = SessionError(code, message)
        joined = self._outcome.done()
        settle(self._outcome, error)
        if self._state.away:
            return  # this attempt has failed
        if joined and self._rejoin_seconds > 0 and code in _LOST:
            self._lose(error)
        else:
            self._fail(error)

    def _fail(self, error: SessionError) -> None:
        self._state.failure = error
        self._end(f"session {self.id!r} has failed: {error}", events.SessionFailed(error))

    def _on_disconnected(self, visit: int) -> None:
        if self._state.ended is not None or visit != self._visit:
            return
        settle(self._outcome, SessionError(SessionError.NOT_STARTED, "the server ended the session"))
        self._end(f"session {self.id!r} was ended by the server", events.SessionDisconnected())

    def _end(self, reason: str, event: Event | None = None) -> None:
        if self._state.ended is not None:
            return
        self._state.ended = reason
        for subscriber in tuple(self._subscribers.values()):
            subscriber.end("has ended with the session")
        if self._publisher is not None:
            self._publisher.session_over(reason)
        self._mix.close()
        self._state.changed.end(lambda: ClosedError(reason))
        self._state.presence.close(event)

    # ---- on the module's threads ------------------------------------------------------------------------

    def _start(self, application_id: str, token: str) -> None:
        client = _module.client()
        if client.is_connected():
            raise SessionError(
                SessionError.BUSY, "a TavrinVideoClient of this process is in a session already"
            )
        told, visit = self._told, self._visit
        self._started = client.connect(
            application_id,
            self.id,
            token,
            session_settings=self._settings,
            on_error_cb=lambda session, message, code: self._state.post(self._on_error, visit, message, code),
            on_connected_cb=told(lambda: None),
            on_disconnected_cb=lambda session: self._state.post(self._on_disconnected, visit),
            on_connection_created_cb=told(self._state.presence.connection_created),
            on_connection_dropped_cb=told(self._state.presence.connection_dropped),
            on_stream_received_cb=told(self._state.presence.stream_received),
            on_stream_dropped_cb=told(self._on_stream_dropped),
            on_audio_data_cb=self._on_audio,
            on_ready_for_audio_cb=told(self._state.audio_ready),
            on_media_buffer_drained_cb=self._on_drained,
        )
        if not self._started:
            raise SessionError(
                SessionError.NOT_STARTED, f"the module would not join session {self.id!r}; its log tells why"
            )

    def _on_audio(self, _session: object, audio: AudioData) -> None:
        take_audio(self._mix, audio)

    def _on_drained(self, _stats: MediaBufferStats) -> None:
        publisher = self._publisher
        if publisher is not None:
            publisher.on_drained()
