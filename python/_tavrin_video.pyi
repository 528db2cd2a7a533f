"""Types of the native module. Programs import `TavrinVideoClient` from `tavrin_media_relay`.

Threads: callables run on native threads, one at a time per source. Session, stream, connection and
publisher events, and a subscriber's connected, disconnected and error events, come from one worker; mixed
session audio from the audio thread; a stream's audio, frames and captions from threads of the library.
While a callable runs on the worker no other such event is delivered, so keep it short. Methods may be
called from any thread, and from within callables.

An exception of a callable (`SystemExit` too) is printed and logged, and stops nothing. Its return value is
ignored. An argument that is not callable is ignored as well: its event goes unreported.
"""

from typing import Any, Callable, Final, Literal, Protocol, Union, final

from tavrin_media_relay.models import (
    AudioData,
    CaptionsData,
    Connection,
    MediaBufferStats,
    Publisher,
    PublisherSettings,
    Session,
    SessionSettings,
    Stream,
    Subscriber,
    SubscriberSettings,
    VideoFrame,
)

class _SessionCallback(Protocol):
    def __call__(self, session: Session, /) -> object: ...

class _SessionErrorCallback(Protocol):
    def __call__(self, session: Session, message: str, code: int, /) -> object: ...

class _ConnectionCallback(Protocol):
    def __call__(self, session: Session, connection: Connection, /) -> object: ...

class _StreamCallback(Protocol):
    def __call__(self, session: Session, stream: Stream, /) -> object: ...

class _SessionAudioCallback(Protocol):
    def __call__(self, session: Session, audio: AudioData, /) -> object: ...

class _SubscriberErrorCallback(Protocol):
    def __call__(self, subscriber: Subscriber, message: str, code: int, /) -> object: ...

class _PublisherErrorCallback(Protocol):
    def __call__(self, publisher: Publisher, message: str, code: int, /) -> object: ...

@final
class _Statistics:
    """Counters of the process, each current when it is read."""

    @property
    def escaped_views(self) -> int:
        """Audio blocks and frames of which a program still had a view when its callable returned."""

__statistics__: Final[_Statistics]

@final
class TavrinVideoClient:
    """A handle on the process's one session.

    All objects of this type drive the same controller: a second one works, and logs a warning. Deleting an
    object disconnects nothing. Constructor arguments are ignored. The type cannot be subclassed.

    Raises RuntimeError ("Failed to initialize MR library") if the real-time library cannot be started.
    """

    def __new__(cls, *args: Any, **kwargs: Any) -> "TavrinVideoClient": ...
    def connect(
        self,
        application_id: str,
        session_id: str,
        token: str,
        *,
        session_settings: SessionSettings | None = None,
        on_error_cb: _SessionErrorCallback | None = None,
        on_connected_cb: _SessionCallback | None = None,
        on_disconnected_cb: _SessionCallback | None = None,
        on_connection_created_cb: _ConnectionCallback | None = None,
        on_connection_dropped_cb: _ConnectionCallback | None = None,
        on_stream_received_cb: _StreamCallback | None = None,
        on_stream_dropped_cb: _StreamCallback | None = None,
        on_audio_data_cb: _SessionAudioCallback | None = None,
        on_ready_for_audio_cb: _SessionCallback | None = None,
        on_media_buffer_drained_cb: Callable[[MediaBufferStats], object] | None = None,
    ) -> bool:
        """Starts joining a session.

        An `application_id` with a hyphen is an Application ID, one without is an API key; each kind has its
        own endpoint. The environment variable API_HOSTNAME, read at each call, names another host (no
        `https://` in front).

        Returns True when the attempt was started: its outcome comes as `on_connected_cb` or `on_error_cb`.
        Returns False, with a line in the log, when it could not be started, and when there already is a
        session, up or being set up.

        Raises for bad arguments: TypeError (kind or number), ValueError (a NUL in a text), UnicodeEncodeError
        (a text with lone surrogates); and with `session_settings`: AttributeError (a field is missing),
        TypeError (of another type), OverflowError (a number beyond 64 bits).

        on_connected_cb(session): the session is joined.
        on_disconnected_cb(session): the session has ended, other than by `disconnect`.
        on_error_cb(session, message, code): the session failed; it has ended, and `connect` may be called
            again, from within this callable too.
        on_connection_created_cb(session, connection), on_connection_dropped_cb(session, connection): another
            participant came or went.
        on_stream_received_cb(session, stream), on_stream_dropped_cb(session, stream): another participant
            began or ended a stream. The place to call `subscribe`.
        on_audio_data_cb(session, audio): the mix of all subscribed audio, 10 ms at a time, in the form of
            `SessionAVSettings.audio_subscribers_mix`; silence when nobody speaks.
        on_ready_for_audio_cb(session): audio given to `add_audio` is consumed from now on.
        on_media_buffer_drained_cb(stats): the queue of published audio or video has run dry; that side has a
            zero duration. Called once each time, after two empty periods.
        """
    def disconnect(self) -> bool:
        """Leaves the session and releases every callable.

        Blocks until the library has confirmed, at most 5 seconds. Returns True also when there was nothing to
        leave, and False, with a line in the log, when the session could not be left; the callables are
        released in any case. Raises no `on_disconnected_cb`.
        """
    def subscribe(
        self,
        stream: Stream,
        *,
        settings: SubscriberSettings | None = None,
        on_error_cb: _SubscriberErrorCallback | None = None,
        on_connected_cb: Callable[[Subscriber], object] | None = None,
        on_disconnected_cb: Callable[[Subscriber], object] | None = None,
        on_audio_data_cb: Callable[[Subscriber, AudioData], object] | None = None,
        on_render_frame_cb: Callable[[Subscriber, VideoFrame], object] | None = None,
        on_caption_text_cb: Callable[[Subscriber, CaptionsData], object] | None = None,
    ) -> bool:
        """Subscribes to a stream of the session: audio and video, unless `settings` say otherwise.

        Returns True when the subscription was started; `on_connected_cb` or `on_error_cb` follows. Events
        before this call returns are not delivered.

        on_audio_data_cb(subscriber, audio): 10 ms of this stream's audio at a time. Starts with the first
            sound; for a mix of all streams use `connect`'s callable.
        on_render_frame_cb(subscriber, frame): a YUV420P picture. Its view stays valid for as long as it is
            kept, and keeps one frame of the native pool in use.
        on_caption_text_cb(subscriber, captions): needs `subscribe_to_captions`.

        A slow callable makes the library drop the oldest media of this stream only.
        """
    def unsubscribe(self, stream: Stream) -> bool:
        """Ends the subscription to a stream and releases its callables, also when it returns False."""
    def publish(
        self,
        settings: PublisherSettings,
        *,
        on_error_cb: _PublisherErrorCallback | None = None,
        on_stream_created_cb: Callable[[Publisher], object] | None = None,
        on_stream_destroyed_cb: Callable[[Publisher], object] | None = None,
    ) -> bool:
        """Publishes our one stream, fed by `add_audio` and `add_video`.

        Returns True when publishing was started; `on_stream_created_cb` or `on_error_cb` follows. A stream
        that the library ended blocks the next `publish` until `unpublish` is called.
        """
    def unpublish(self) -> bool:
        """Ends our stream. Raises no `on_stream_destroyed_cb`, which reports only an end by the library."""
    def is_publishing(self) -> bool:
        """True from a successful `publish` to `unpublish`, the end of the stream or of the session."""
    def is_connected(self) -> bool:
        """True while a session is up or being set up."""
    def get_connection(self) -> Union[Connection, None, Literal[False]]:
        """Our own connection; None while there is none. (False once the module has shut down.)"""
    def add_audio(self, audio_data: AudioData) -> bool:
        """Appends audio to what is published, in the form of `SessionAVSettings.audio_publisher`.

        Copies the samples before it returns; never waits. 28,800,000 samples fit: 300 s at 48 kHz stereo.
        Returns False, with a warning in the log, when nothing was taken: no room, or audio is not consumed
        yet (wait for `on_ready_for_audio_cb`).

        Raises AttributeError (a field is missing), TypeError (of another type, or `sample_buffer` is no
        bytes-like object), BufferError (its memory is not contiguous or cannot be lent), OverflowError (a
        number beyond 64 bits), ValueError "sample_buffer is too small" (it holds less than it claims).

        The samples are assumed to have the session's form: the rate in the object is ignored.

        The library is fed 10 ms at a time. A gap is filled with silence.
        """
    def add_video(self, video_frame: VideoFrame, /) -> bool:
        """Queues a picture to be published, in the form of `SessionAVSettings.video_publisher`.

        Copies the pixels before it returns; never waits. 150 pictures fit: 5 s at 30 a second, 69 MB at
        640x480 YUV420P. Returns False, with a warning in the log, when it was not taken: no session, another
        form, or a full queue.

        Raises AttributeError, TypeError, BufferError and OverflowError as `add_audio` does,
        UnicodeEncodeError (`format` with lone surrogates), ValueError (None, or "frame_buffer is too
        small": it holds less than a frame), RuntimeError (no frame of that format and size).

        When the queue is empty the last picture is repeated for two seconds; then pictures are black.
        """
    def clear_media_buffers(self) -> bool:
        """Drops all audio and video queued to be published, as for barge-in."""
    def get_media_buffer_stats(self) -> Union[MediaBufferStats, Literal[False]]:
        """How much audio and video is queued to be published. Logs a line at level info for each side.

        A side that is not measured is None. (False once the module has shut down.)
        """
