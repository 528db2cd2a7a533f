"""The one visit to a session behind a `Session`: what its module calls tell, and how it begins and ends."""

from __future__ import annotations

import asyncio
import contextlib
import functools
from typing import TYPE_CHECKING, Callable, Optional

from ..models import AudioData, Connection, MediaBufferStats, SessionSettings, Stream
from . import _native, events
from ._channel import Signal, Waker, post, settle
from ._fan import Fan
from ._media import take_audio
from ._opening import attempt
from ._presence import Presence
from .errors import ClosedError, PublisherError, SessionError
from .frames import AudioFrame

if TYPE_CHECKING:
    from .publisher import Publisher
    from .subscriber import Subscriber

_READY_PATIENCE = 10.0  # s


def _connection() -> Optional[Connection]:
    return _native.client().get_connection() or None


class Core:
    """Runs on the loop, but for what says otherwise. Publishers and subscribers are told of its end by it."""

    def __init__(self, session_id: str, settings: SessionSettings) -> None:
        self.id = session_id
        self.settings = settings
        self.loop = asyncio.get_running_loop()
        self.waker = Waker(self.loop)
        self.connection: Optional[Connection] = None
        self.presence = Presence(self.waker)
        self.subscribers: dict[str, Subscriber] = {}
        self.publisher: Optional[Publisher] = None
        self.mix: Fan[AudioFrame] = Fan(self.waker, "audio frames")
        self.ended: Optional[str] = None  # how
        self.failure: Optional[SessionError] = None
        self.changed = Signal()
        self._outcome: asyncio.Future[None] = self.loop.create_future()
        self._audio_ready = False
        self._started = False  # the module has begun, so that there is something to leave
        self._closing: Optional[asyncio.Future[bool]] = None

    async def open(self, application_id: str, token: str, timeout: float) -> None:
        if not await _native.claim(self, self.loop):
            raise SessionError(SessionError.BUSY, "this process is in a session already: it is in one at a time")
        async with attempt(self.close, self._outcome):
            await _native.call(self._start, application_id, token)
            done, _ = await asyncio.wait([self._outcome], timeout=timeout)
            if not done:
                raise SessionError(SessionError.TIMED_OUT, f"session {self.id!r} has not answered in {timeout:g} s")
            self._outcome.result()
            self.connection = await _native.call(_connection)

    def _start(self, application_id: str, token: str) -> None:
        client = _native.client()
        if client.is_connected():
            raise SessionError(SessionError.BUSY, "a TavrinVideoClient of this process is in a session already")
        told = self._told
        self._started = client.connect(
            application_id,
            self.id,
            token,
            session_settings=self.settings,
            on_error_cb=lambda session, message, code: self.post(self._on_error, message, code),
            on_connected_cb=told(lambda: None),
            on_disconnected_cb=lambda session: self.post(self._on_disconnected),
            on_connection_created_cb=told(self.presence.connection_created),
            on_connection_dropped_cb=told(self.presence.connection_dropped),
            on_stream_received_cb=told(self.presence.stream_received),
            on_stream_dropped_cb=told(self._on_stream_dropped),
            on_audio_data_cb=self._on_audio,
            on_ready_for_audio_cb=told(self._on_ready),
            on_media_buffer_drained_cb=self._on_drained,
        )
        if not self._started:
            raise SessionError(
                SessionError.NOT_STARTED, f"the module would not join session {self.id!r}; its log tells why"
            )

    async def close(self) -> None:
        """Leaves, and waits until the session is left. May be called again, and by several tasks."""
        if self._closing is not None and self._closing.done():
            return
        self.check_place()
        if self._closing is None and self._started:
            self._closing = _native.start(_native.client().disconnect)
        self._end(f"session {self.id!r} has been left")
        try:
            if self._closing is not None:
                await _native.finish(self._closing)
        finally:
            _native.release(self)

    def check_place(self) -> None:
        """Raises if this is not our process, or not our loop: of a session that is over, that it is."""
        _native.check_process()
        here: Optional[asyncio.AbstractEventLoop] = None
        with contextlib.suppress(RuntimeError):
            here = asyncio.get_running_loop()
        if here is not self.loop:
            if self.ended is not None:
                raise ClosedError(self.ended)
            raise RuntimeError(
                "a session is used from the event loop that opened it; from another thread, "
                "with asyncio.run_coroutine_threadsafe or loop.call_soon_threadsafe"
            )

    def check(self) -> None:
        """Raises if this is not our place, or if the session is over."""
        if self.ended is not None:
            raise ClosedError(self.ended)
        self.check_place()

    def post(self, function: Callable[..., object], *arguments: object) -> None:
        """To the loop, from a native thread."""
        post(self.loop, function, *arguments)

    def tell(self, event: events.Event) -> None:
        self.presence.tell(event)

    async def wait_audio_ready(self) -> None:
        end = self.loop.time() + _READY_PATIENCE
        while not self._audio_ready:
            if self.loop.time() > end:
                raise PublisherError(
                    PublisherError.TIMED_OUT, f"the session has not asked for audio in {_READY_PATIENCE:g} s"
                )
            await self.changed.wait(0.5)

    def forget_publisher(self, publisher: Publisher) -> None:
        if self.publisher is publisher:
            self.publisher = None

    def forget_subscriber(self, subscriber: Subscriber) -> bool:
        """False if it was forgotten before, with its stream."""
        if self.subscribers.get(subscriber.stream.id) is not subscriber:
            return False
        del self.subscribers[subscriber.stream.id]
        return True

    # ---- events, on the loop ------------------------------------------------------------------------------------

    def _told(self, handler: Callable[..., object]) -> Callable[..., object]:
        """A callable for the module's worker that runs the handler on the loop, with all but the session."""

        def callable_(_session: object, *arguments: object) -> None:
            self.post(self._on_event, functools.partial(handler, *arguments))

        return callable_

    def _on_event(self, handler: Callable[[], object]) -> None:
        if self.ended is not None:
            return
        settle(self._outcome)
        handler()

    def _on_stream_dropped(self, stream: Stream) -> None:
        subscriber = self.subscribers.pop(stream.id, None)
        if subscriber is not None:
            subscriber.end("has ended with the stream")
        self.presence.stream_dropped(stream)

    def _on_ready(self) -> None:
        self._audio_ready = True
        self.changed.notify()

    def _on_error(self, message: str, code: int) -> None:
        if self.ended is not None:
            return
        error = SessionError(code, message)
        settle(self._outcome, error)
        self.failure = error
        self._end(f"session {self.id!r} has failed: {error}", events.SessionFailed(error))

    def _on_disconnected(self) -> None:
        if self.ended is not None:
            return
        settle(self._outcome, SessionError(SessionError.NOT_STARTED, "the server ended the session"))
        self._end(f"session {self.id!r} was ended by the server", events.SessionDisconnected())

    def _end(self, reason: str, event: Optional[events.Event] = None) -> None:
        if self.ended is not None:
            return
        self.ended = reason
        for subscriber in tuple(self.subscribers.values()):
            subscriber.end("has ended with the session")
        if self.publisher is not None:
            self.publisher.session_over(reason)
        self.mix.close()
        self.changed.end(lambda: ClosedError(reason))
        self.presence.close(event)

    # ---- on native threads ----------------------------------------------------------------------------------------

    def _on_audio(self, _session: object, audio: AudioData) -> None:
        take_audio(self.mix, audio)

    def _on_drained(self, _stats: MediaBufferStats) -> None:
        publisher = self.publisher
        if publisher is not None:
            publisher.on_drained()
