"""Take part in a real-time video session from Python: publish audio and pictures, hear and see others.

`TavrinVideoClient` does the work; the other names are its argument and result records.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from .models import (
    LOG_LEVELS,
    VIDEO_FORMATS,
    AudioBufferStats,
    AudioData,
    CaptionsData,
    Connection,
    LoggingSettings,
    MediaBufferStats,
    Publisher,
    PublisherAudioSettings,
    PublisherSettings,
    Session,
    SessionAudioSettings,
    SessionAVSettings,
    SessionSettings,
    SessionVideoPublisherSettings,
    Stream,
    Subscriber,
    SubscriberSettings,
    SubscriberVideoSettings,
    VideoBufferStats,
    VideoFrame,
    VideoResolution,
    frame_buffer_size,
)

if TYPE_CHECKING:
    from _tavrin_video import TavrinVideoClient

__version__ = "1.0.3"

__all__ = [
    "LOG_LEVELS",
    "VIDEO_FORMATS",
    "AudioBufferStats",
    "AudioData",
    "CaptionsData",
    "Connection",
    "LoggingSettings",
    "MediaBufferStats",
    "Publisher",
    "PublisherAudioSettings",
    "PublisherSettings",
    "Session",
    "SessionAVSettings",
    "SessionAudioSettings",
    "SessionSettings",
    "SessionVideoPublisherSettings",
    "Stream",
    "Subscriber",
    "SubscriberSettings",
    "SubscriberVideoSettings",
    "TavrinVideoClient",
    "VideoBufferStats",
    "VideoFrame",
    "VideoResolution",
    "frame_buffer_size",
]


def __getattr__(name: str) -> Any:
    # The extension imports this package's models while it is itself being imported, so the client is only
    # loaded on first access.
    if name == "TavrinVideoClient":
        from _tavrin_video import TavrinVideoClient

        globals()[name] = TavrinVideoClient
        return TavrinVideoClient
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
