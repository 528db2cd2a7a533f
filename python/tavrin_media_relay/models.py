"""The records that cross the border between a Python program and the native module.

Two families live here, both plain dataclasses with slots:

* Records that the module builds for callables: `Session`, `Connection`, `Stream`, `Subscriber`, `Publisher`,
  `AudioData`, `VideoFrame`, `CaptionsData` and the buffer statistics. Some of them are made thousands of
  times a second, so they check nothing.
* Records that a program fills in: the `...Settings` classes. They check their fields when made and raise
  `ValueError` (a value out of range) or `TypeError` (the wrong kind of value), naming field and value.

A program also makes `AudioData` and `VideoFrame` objects itself, for `add_audio` and `add_video`; the
module checks sizes then.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from datetime import datetime, timedelta
from typing import TYPE_CHECKING, Any, Final, Literal, Union

from ._checks import Fields, integer, of_type

if TYPE_CHECKING:
    import array
    import mmap

    #: The type that `add_audio` and `add_video` read: any contiguous buffer (numpy arrays too).
    Buffer = Union[bytes, bytearray, memoryview, "array.array[Any]", mmap.mmap, Any]
else:
    Buffer = Any

#: Colour formats, in the module's spelling (upper case).
VideoFormat = Literal["YUV420P", "RGB24", "ARGB32"]
VIDEO_FORMATS: Final = ("YUV420P", "RGB24", "ARGB32")

#: Log levels, from silent to verbose. Case-insensitive.
LogLevel = Literal["off", "error", "warn", "info", "debug", "trace"]
LOG_LEVELS: Final = ("off", "error", "warn", "info", "debug", "trace")

#: The native side addresses a frame with signed 32-bit sizes.
_MAX_FRAME_BYTES: Final = 2**31 - 1


def frame_buffer_size(width: int, height: int, format: str) -> int:
    """Bytes of one tightly packed frame: the minimum size of `VideoFrame.frame_buffer`.

    YUV420P: w*h + 2 * ceil(w/2) * ceil(h/2); RGB24: 3*w*h; ARGB32: 4*w*h.
    Raises ValueError for an unknown format.
    """
    if format == "YUV420P":
        return width * height + 2 * ((width + 1) // 2) * ((height + 1) // 2)
    if format == "RGB24":
        return width * height * 3
    if format == "ARGB32":
        return width * height * 4
    raise ValueError(f"format must be one of {', '.join(VIDEO_FORMATS)}, not {format!r}")


# ---- what callables receive -----------------------------------------------------------------------------


@dataclass(slots=True)
class Session:
    """The session that an event belongs to."""

    id: str
    """Session id, as given to `connect`."""


@dataclass(slots=True)
class Connection:
    """A participant's connection to the session."""

    id: str = ""
    """Connection id, unique within the session."""
    creation_time: datetime = field(default_factory=lambda: datetime.fromtimestamp(0))
    """When the connection was made: a naive datetime in local time, millisecond resolution."""
    data: str = ""
    """Text that the participant's token carries, often a name or JSON; empty if it carries none."""


@dataclass(slots=True)
class Stream:
    """A stream that a participant publishes. What `subscribe` and `unsubscribe` take."""

    id: str
    """Stream id, unique within the session."""
    connection: Connection = field(default_factory=Connection)
    """The connection of the participant that publishes it."""


@dataclass(slots=True)
class Subscriber:
    """Our subscription to a stream: the first argument of every subscriber callable."""

    stream: Stream
    """The stream that is subscribed to."""


@dataclass(slots=True)
class Publisher:
    """The stream that this program publishes: the first argument of every publisher callable."""

    stream: Stream
    """The published stream, as the session knows it."""


@dataclass(slots=True)
class AudioData:
    """A run of audio: interleaved signed 16-bit samples in native (little-endian) byte order."""

    sample_rate: int
    """Samples per second and channel, in Hz."""
    number_of_channels: int
    """1 (mono) or 2 (stereo, samples in the order left, right)."""
    number_of_frames: int
    """Samples per channel. The buffer holds number_of_frames * number_of_channels samples."""
    sample_buffer: Buffer
    """The samples. In `add_audio`: any contiguous buffer of at least
    number_of_frames * number_of_channels * 2 bytes. In callables: a read-only memoryview of shape
    (number_of_frames * number_of_channels,), format "h", which stays valid for as long as it is kept."""


@dataclass(slots=True)
class VideoResolution:
    """A size in pixels."""

    width: int
    height: int


@dataclass(slots=True)
class VideoFrame:
    """One picture, tightly packed: no padding between rows or planes."""

    resolution: VideoResolution
    """Size in pixels."""
    format: VideoFormat
    """Layout of the buffer:

    * "YUV420P": planes Y (w*h bytes), U, V (each ceil(w/2) * ceil(h/2): chroma rounds up), in this order;
      video range, so black is Y 16, U 128, V 128.
    * "RGB24": three bytes a pixel: R, G, B.
    * "ARGB32": four bytes a pixel: A, R, G, B.

    Callables always receive "YUV420P".
    """
    frame_buffer: Buffer
    """The pixels. In `add_video`: any contiguous buffer of at least `frame_buffer_size(...)` bytes. In
    callables: a read-only memoryview of bytes, which stays valid for as long as it is kept."""

    @classmethod
    def model_construct(
        cls, *, resolution: VideoResolution, format: VideoFormat, frame_buffer: Buffer
    ) -> "VideoFrame":
        """Builds a frame from its fields, unchecked. Used by the module."""
        return cls(resolution, format, frame_buffer)


@dataclass(slots=True)
class CaptionsData:
    """A piece of live captions of a subscribed stream."""

    text: str
    is_final: bool
    """False while the words may still change: the next text of the same utterance replaces this one."""


@dataclass(slots=True)
class AudioBufferStats:
    """How much published audio is buffered."""

    duration: timedelta = timedelta(0)
    """Playing time of the buffered audio, millisecond resolution."""


@dataclass(slots=True)
class VideoBufferStats:
    """How much published video is buffered."""

    duration: timedelta = timedelta(0)
    """Playing time of the queued frames, millisecond resolution."""


@dataclass(slots=True)
class MediaBufferStats:
    """State of the publishing buffers. A side that is not measured is None; in the drained event, zero
    duration marks the side that has just run dry."""

    audio: AudioBufferStats | None = None
    video: VideoBufferStats | None = None


# ---- what a program fills in ----------------------------------------------------------------------------


@dataclass(slots=True)
class SessionAudioSettings:
    """Form of the audio in one direction: interleaved signed 16-bit samples."""

    sample_rate: int = 48000
    """Hz, 8000 to 48000."""
    number_of_channels: int = 2
    """1 or 2."""

    def __post_init__(self) -> None:
        fields = Fields(self)
        fields.integer("sample_rate", 8000, 48000, " Hz")
        fields.integer("number_of_channels", 1, 2)


@dataclass(slots=True)
class LoggingSettings:
    """How much the module and the library print on standard output.

    "debug" and "trace" print the token of the session: keep them out of shared logs. The level is the
    process's, and stays when the session ends.
    """

    level: str = "warn"
    """One of `LOG_LEVELS`, in any letter case."""

    def __post_init__(self) -> None:
        Fields(self).text("level")
        if self.level.lower() not in LOG_LEVELS:
            raise ValueError(
                f"LoggingSettings.level must be one of {', '.join(LOG_LEVELS)}, not {self.level!r}"
            )


def _check_resolution(name: str, resolution: VideoResolution) -> None:
    """Checks that both sides are positive and that the native side can address a frame of any format."""
    for side in ("width", "height"):
        value = getattr(resolution, side)
        setattr(resolution, side, integer(f"{name}.{side}", value, 1, _MAX_FRAME_BYTES, " pixels"))


@dataclass(slots=True)
class SessionVideoPublisherSettings:
    """Form of the published pictures. Every frame given to `add_video` must have it."""

    resolution: VideoResolution = field(default_factory=lambda: VideoResolution(640, 480))
    """Pixels, both sides positive."""
    fps: int = 30
    """Pictures per second, 1 to 1000."""
    format: VideoFormat = "YUV420P"
    """One of `VIDEO_FORMATS`, in capitals."""

    def __post_init__(self) -> None:
        fields = Fields(self)
        of_type(fields.name("resolution"), self.resolution, VideoResolution)
        _check_resolution(fields.name("resolution"), self.resolution)
        fields.integer("fps", 1, 1000)
        fields.one_of("format", VIDEO_FORMATS)
        size = frame_buffer_size(self.resolution.width, self.resolution.height, self.format)
        if size > _MAX_FRAME_BYTES:
            raise ValueError(
                "SessionVideoPublisherSettings.resolution must give frames of at most "
                f"{_MAX_FRAME_BYTES} bytes, not {self.resolution!r} ({size} bytes)"
            )


@dataclass(slots=True)
class SessionAVSettings:
    """Forms of a session's media; None means the defaults."""

    audio_publisher: SessionAudioSettings | None = None
    """The audio given to `add_audio`. Default: 48 kHz stereo."""
    audio_subscribers_mix: SessionAudioSettings | None = None
    """The audio that `on_audio_data_cb` receives. Default: 48 kHz stereo."""
    video_publisher: SessionVideoPublisherSettings | None = None
    """The pictures given to `add_video`. Default: 640x480 YUV420P at 30 pictures a second."""

    def __post_init__(self) -> None:
        fields = Fields(self)
        fields.optional("audio_publisher", SessionAudioSettings)
        fields.optional("audio_subscribers_mix", SessionAudioSettings)
        fields.optional("video_publisher", SessionVideoPublisherSettings)


@dataclass(slots=True)
class SessionSettings:
    """Settings of `connect`."""

    enable_migration: bool = False
    """Let the server move the running session to another server."""
    av: SessionAVSettings | None = None
    """Forms of the media; None for the defaults."""
    logging: LoggingSettings | None = None
    """Log level; None leaves it as it is (at the start of the process: warn)."""

    def __post_init__(self) -> None:
        fields = Fields(self)
        fields.flags("enable_migration")
        fields.optional("av", SessionAVSettings)
        fields.optional("logging", LoggingSettings)


@dataclass(slots=True)
class PublisherAudioSettings:
    """How the published audio is coded."""

    enable_stereo_mode: bool = True
    """Code two channels; False folds them into one."""
    enable_opus_dtx: bool = False
    """Send nothing while there is silence."""

    def __post_init__(self) -> None:
        Fields(self).flags("enable_stereo_mode", "enable_opus_dtx")


@dataclass(slots=True)
class PublisherSettings:
    """Settings of `publish`."""

    name: str
    """Name of the stream, shown to the other participants. Not empty."""
    has_audio: bool = True
    has_video: bool = True
    enable_captions: bool = False
    """Let the server caption the published audio."""
    audio_settings: PublisherAudioSettings | None = None
    """How the audio is coded; None for stereo without DTX."""

    def __post_init__(self) -> None:
        fields = Fields(self)
        fields.text("name")
        if not self.name:
            raise ValueError("PublisherSettings.name must not be empty, as '' is")
        fields.flags("has_audio", "has_video", "enable_captions")
        fields.optional("audio_settings", PublisherAudioSettings)


@dataclass(slots=True)
class SubscriberVideoSettings:
    """The preferred size and rate, where a stream is offered in several."""

    preferred_resolution: VideoResolution | None = None
    """Pixels, both sides positive; None: the stream's own."""
    preferred_framerate: int | None = None
    """Whole pictures per second, at least 1; None: the stream's own."""

    def __post_init__(self) -> None:
        fields = Fields(self)
        fields.optional("preferred_resolution", VideoResolution)
        if self.preferred_resolution is not None:
            _check_resolution(fields.name("preferred_resolution"), self.preferred_resolution)
        if self.preferred_framerate is not None:
            fields.integer("preferred_framerate", 1, 1000)


@dataclass(slots=True)
class SubscriberSettings:
    """Settings of `subscribe`. Without audio and video `subscribe` returns False."""

    subscribe_to_audio: bool = True
    subscribe_to_video: bool = True
    subscribe_to_captions: bool = False
    video_settings: SubscriberVideoSettings | None = None
    """None: no preference."""

    def __post_init__(self) -> None:
        fields = Fields(self)
        fields.flags("subscribe_to_audio", "subscribe_to_video", "subscribe_to_captions")
        fields.optional("video_settings", SubscriberVideoSettings)
