"""A second on the embedded engine: what we publish must be recorded, and what others send must arrive."""

from __future__ import annotations

import array
import asyncio
import json
import math
import os
import time
import wave
from dataclasses import asdict, dataclass
from pathlib import Path
from typing import Any

from .. import aio
from .._recording import has_told
from .._tasks import beside
from ..models import (
    LoggingSettings,
    SessionAVSettings,
    SessionSettings,
    SessionVideoPublisherSettings,
    VideoResolution,
    frame_buffer_size,
)
from ._figures import reset_library
from ._levels import peak

_RATE = 48000
_SPOKEN_S = 1.0
_PATIENCE = 10.0
_LOUD = 1000  # of a tone at a quarter of full scale
_SIZE = VideoResolution(160, 120)
_FPS = 30


@dataclass(frozen=True)
class LoopbackFigures:
    spoken_s: float
    sound_missing: bool
    picture_missing: bool
    heard_tone: bool
    pictures: int
    delays: dict[str, float]
    """Milliseconds from the library's call to our loop's body."""
    kept: dict[str, float]
    """Milliseconds that the library's thread was in our callable."""
    escaped_views: int
    """Received blocks of audio that outlived the module's call."""
    pacing: dict[str, Any] | None
    """The library's counters of our audio during speech only: after speech, three periods are skipped."""
    library: dict[str, Any] | None
    """The library's counters at the end."""

    def as_dict(self) -> dict[str, Any]:
        return asdict(self)


def _spoken() -> bytes:
    """Stereo samples that a recording can't contain by chance."""
    count = int(_SPOKEN_S * _RATE)
    wave_ = (int(6000 * math.sin(i * i / 4e6) + i % 97) for i in range(count) for _ in range(2))
    return array.array("h", wave_).tobytes()


async def _listen(session: aio.Session) -> tuple[int, int, aio.Received]:
    """The loudest sample and the number of pictures of the first stream."""
    stream = await anext(
        each.stream async for each in session.events() if isinstance(each, aio.StreamReceived)
    )
    loudest, pictures = 0, 0
    async with session.subscribe(stream) as subscriber:
        sound, frames = subscriber.audio_frames(), subscriber.video_frames()

        async def watch() -> None:
            nonlocal pictures
            async for _ in frames:
                pictures += 1

        end = time.monotonic() + _SPOKEN_S
        async with beside(watch()):
            async for frame in sound:
                loudest = max(loudest, peak(frame.samples))
                if time.monotonic() > end:
                    break
        received = session.statistics().streams[stream.id].audio
    return loudest, pictures, received


async def _pacing(session: aio.Session) -> dict[str, Any] | None:
    await asyncio.sleep(0.9 * _SPOKEN_S)
    library = session.statistics().library
    return library["capture"] if library is not None else None


async def _show(video: aio.VideoOutput, picture: bytes) -> None:
    for _ in range(int(_SPOKEN_S * _FPS)):
        await video.write(picture)
    await video.drained()


async def _recorded(folder: Path) -> tuple[bytes, bytes]:
    """Samples and pictures, once the log shows that the recording is complete."""
    end = time.monotonic() + _PATIENCE
    while not has_told(folder, "closed"):
        if time.monotonic() > end:
            raise TimeoutError(f"the recording was not closed within {_PATIENCE:g} s")
        await asyncio.sleep(0.01)
    with wave.open(str(next(folder.glob("*.wav"))), "rb") as file:
        samples = file.readframes(file.getnframes())
    return samples, next(folder.glob("*.y4m")).read_bytes()


async def loopback(folder: Path, logging: LoggingSettings) -> LoopbackFigures:
    """Joins a session of its own, with its scenario and recording in the folder. Raises any failure."""
    peer = {"id": "peer", "audio": {"tone_hz": 440}, "video": {"testcard": True, "width": 320, "height": 240}}
    scenario = folder / "scenario.json"
    scenario.write_text(json.dumps({"participants": [peer], "record": "recording"}))
    os.environ["API_HOSTNAME"] = f"embedded:{scenario}"
    spoken = _spoken()
    picture = bytes(16 + i * 7 % 200 for i in range(frame_buffer_size(_SIZE.width, _SIZE.height, "YUV420P")))
    av = SessionAVSettings(video_publisher=SessionVideoPublisherSettings(_SIZE, _FPS))
    settings = SessionSettings(av=av, logging=logging)
    opening = aio.connect("doctor-app", "doctor", "t", settings=settings, timeout=_PATIENCE)
    async with opening as session, session.publish("doctor", audio_queue=2.0) as publisher:
        reset_library()
        listening = asyncio.create_task(asyncio.wait_for(_listen(session), _PATIENCE))
        await publisher.audio.write(spoken)
        showing = asyncio.gather(_pacing(session), publisher.audio.drained(), _show(publisher.video, picture))
        pacing, *_ = await asyncio.wait_for(showing, _PATIENCE)
        loudest, pictures, received = await listening
        library = session.statistics().library
    samples, pictures_sent = await _recorded(folder / "recording")
    delayed = (received.delay_p50, received.delay_p99, received.delay_max)
    held = (received.callable_p50, received.callable_p99, received.callable_max)
    names = ("p50", "p99", "max")
    delays, kept = ({name: each * 1000 for name, each in zip(names, times)} for times in (delayed, held))
    return LoopbackFigures(
        _SPOKEN_S,
        spoken not in samples,
        picture not in pictures_sent,
        loudest > _LOUD,
        pictures,
        delays,
        kept,
        received.escaped_views,
        pacing,
        library,
    )
