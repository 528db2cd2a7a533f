"""The records of tavrin_media_relay.models: what the settings refuse, and what they say then."""

from __future__ import annotations

import subprocess
import sys
from datetime import datetime, timedelta
from pathlib import Path
from typing import Any

import numpy
import pytest

from tavrin_media_relay import models as m

PACKAGE_FOLDER = Path(m.__file__).resolve().parent.parent

SOUND, VIDEO, VIEW = m.SessionAudioSettings, m.SessionVideoPublisherSettings, m.SubscriberVideoSettings
LARGEST, TOO_LARGE = m.VideoResolution(32767, 16384), m.VideoResolution(32768, 16384)
#: (what is built, its keywords, the exception, words of its message)
REFUSED: list[tuple[Any, dict[str, Any], type[Exception], str]] = [
    (SOUND, {"sample_rate": 7999}, ValueError, "sample_rate .*8000 to 48000 Hz, not 7999"),
    (SOUND, {"number_of_channels": True}, TypeError, "number_of_channels .*not True"),
    (m.LoggingSettings, {"level": "loud"}, ValueError, "level must be one of off, .*not 'loud'"),
    (VIDEO, {"format": "yuv420p"}, ValueError, "format .*YUV420P.*not 'yuv420p'"),
    (VIDEO, {"fps": 29.97}, TypeError, "fps must be an int, not 29.97"),
    (VIDEO, {"resolution": m.VideoResolution(640, -1)}, ValueError, "resolution.height .*not -1"),
    (VIDEO, {"resolution": TOO_LARGE, "format": "ARGB32"}, ValueError, "resolution .*2147483648 bytes"),
    (m.SessionSettings, {"av": SOUND()}, TypeError, "av must be a SessionAVSettings"),
    (m.PublisherSettings, {"name": ""}, ValueError, "name must not be empty"),
    (m.SubscriberSettings, {"subscribe_to_captions": "yes"}, TypeError, "subscribe_to_captions .*'yes'"),
    (VIEW, {"preferred_resolution": m.VideoResolution(-1, 2)}, ValueError, "preferred_resolution.width"),
]


@pytest.mark.parametrize(("kind", "keywords", "error", "words"), REFUSED, ids=range(len(REFUSED)))
def test_settings_refuse_and_name_the_field(kind, keywords, error, words):
    with pytest.raises(error, match=f"^{kind.__name__}\\.{words}"):
        kind(**keywords)


def test_settings_take_their_limits():
    limits: list[tuple[Any, dict[str, Any]]] = [
        (SOUND, {"sample_rate": 8000, "number_of_channels": 1}),
        (SOUND, {"sample_rate": numpy.int32(44100)}),
        (m.LoggingSettings, {"level": "TraCE"}),
        (VIDEO, {"resolution": m.VideoResolution(1, 1), "fps": 1000}),
        (VIDEO, {"resolution": LARGEST, "format": "ARGB32"}),
    ]
    for kind, keywords in limits:
        made = kind(**keywords)
        assert {name: getattr(made, name) for name in keywords} == keywords


def test_frame_buffer_size():
    for width, height, format, size in [(3, 3, "YUV420P", 17), (3, 5, "RGB24", 45), (3, 5, "ARGB32", 60)]:
        assert m.frame_buffer_size(width, height, format) == size


def test_what_the_module_builds_takes_its_keywords_and_nothing_else():
    connection = m.Connection(id="c", creation_time=datetime(2024, 1, 2), data="d")
    subscriber = m.Subscriber(stream=m.Stream(id="s", connection=connection))
    assert subscriber.stream.connection.data == "d"
    view, size = memoryview(b"\1\2\3\4\5\6"), m.VideoResolution(width=2, height=2)
    frame = m.VideoFrame.model_construct(resolution=size, format="YUV420P", frame_buffer=view)
    assert frame.frame_buffer is view and isinstance(frame, m.VideoFrame)
    stats = m.MediaBufferStats(audio=m.AudioBufferStats(duration=timedelta(milliseconds=20.0)))
    assert stats.audio and stats.audio.duration.microseconds == 20000 and stats.video is None
    # A misspelled attribute is an error, not a new attribute that nobody reads.
    with pytest.raises(AttributeError):
        m.SessionSettings().loging = None  # type: ignore[attr-defined]
    # Each object has a resolution of its own.
    VIDEO().resolution.width = 1
    assert VIDEO().resolution == m.VideoResolution(640, 480)
    with pytest.raises(TypeError):
        m.Session(id="s", name="x")  # type: ignore[call-arg]


def test_models_import_without_the_extension():
    """The extension imports the models while it is being imported itself."""
    code = (
        f"import sys; sys.path.insert(0, {str(PACKAGE_FOLDER)!r}); sys.modules['_tavrin_video'] = None\n"
        "import tavrin_media_relay.models, tavrin_media_relay as package\n"
        "try: package.TavrinVideoClient\n"
        "except ModuleNotFoundError: print('ok')\n"
    )
    done = subprocess.run([sys.executable, "-I", "-c", code], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stdout) == (0, "ok\n"), done.stderr
