"""The asyncio API: take part in a session with `async with`, `await` and `async for`.

    async with connect("app-id", "session", "token") as session:
        async with session.publish("me", video=False) as publisher:
            await publisher.audio.write(samples, sample_rate=16000, channels=1)
            await publisher.audio.drained()
"""

from .._native.pictures import Layout
from ..models import Connection, Stream
from ._channel import Channel, Policy
from ._connect import connect
from ._media import AudioIterator, MediaIterator
from ._opening import Opening
from ._turns import SpeechEnded, SpeechStarted, Turns
from ._saying import Listened, Said, Saying
from .audio_output import AudioOutput
from .errors import ClosedError, MediaError, PublisherError, SessionError, SubscriberError
from .events import (
    ConnectionCreated,
    ConnectionDropped,
    Event,
    PublisherEnded,
    PublisherFailed,
    SessionDisconnected,
    SessionFailed,
    SessionLost,
    SessionRejoined,
    StreamDropped,
    StreamReceived,
    SubscriberConnected,
    SubscriberDisconnected,
    SubscriberFailed,
)
from .frames import AudioFrame, Caption, VideoFrame
from .publisher import Publisher
from .session import Session
from .statistics import Received, Statistics, StreamFigures, library_statistics
from .subscriber import Subscriber
from .video_output import VideoOutput

__all__ = [
    "AudioFrame",
    "AudioIterator",
    "AudioOutput",
    "Caption",
    "Channel",
    "ClosedError",
    "Connection",
    "ConnectionCreated",
    "ConnectionDropped",
    "Event",
    "Layout",
    "Listened",
    "MediaError",
    "MediaIterator",
    "Opening",
    "Policy",
    "Publisher",
    "PublisherEnded",
    "PublisherError",
    "PublisherFailed",
    "Received",
    "Said",
    "Saying",
    "Session",
    "SessionDisconnected",
    "SessionError",
    "SessionFailed",
    "SessionLost",
    "SessionRejoined",
    "SpeechEnded",
    "SpeechStarted",
    "Statistics",
    "Stream",
    "StreamDropped",
    "StreamFigures",
    "StreamReceived",
    "Subscriber",
    "SubscriberConnected",
    "SubscriberDisconnected",
    "SubscriberError",
    "SubscriberFailed",
    "Turns",
    "VideoFrame",
    "VideoOutput",
    "connect",
    "library_statistics",
]
