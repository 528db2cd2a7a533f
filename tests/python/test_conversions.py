"""How attributes of Python objects are read: by name, and with which exceptions."""

from __future__ import annotations

from datetime import datetime, timezone
from types import SimpleNamespace

import pytest


class NoTruth:
    def __bool__(self):
        raise LookupError("no truth in it")


def namespace(**values):
    return SimpleNamespace(**values)


def session_settings(**change):
    values = {"enable_migration": False, "av": None, "logging": None}
    return namespace(**{**values, **change})


def av_settings(**change):
    return session_settings(
        av=namespace(
            **{"audio_publisher": None, "audio_subscribers_mix": None, "video_publisher": None, **change}
        )
    )


def picture(**change):
    values = {"resolution": namespace(width=64, height=48), "fps": 30, "format": "YUV420P"}
    return av_settings(video_publisher=namespace(**{**values, **change}))


def sound(**change):
    return av_settings(
        audio_subscribers_mix=namespace(**{"sample_rate": 48000, "number_of_channels": 2, **change})
    )


def publisher(**change):
    values = {
        "name": "p",
        "has_audio": True,
        "has_video": False,
        "enable_captions": False,
        "audio_settings": None,
    }
    return namespace(**{**values, **change})


def subscriber(**change):
    values = {
        "subscribe_to_audio": True,
        "subscribe_to_video": True,
        "subscribe_to_captions": False,
        "video_settings": None,
    }
    return namespace(**{**values, **change})


def stream(**change):
    connection = {"id": "c", "creation_time": datetime.fromtimestamp(0), "data": ""}
    connection.update(change)
    return namespace(id="s", connection=namespace(**connection))


CONNECT, PUBLISH, SUBSCRIBE, STREAM = (
    "SessionSettings",
    "MRPublisherSettings",
    "MRSubscriberSettings",
    "MRStreamInfo",
)
TOO_BIG = "Python int too large to convert to C long"


def no_member(name):
    return f"Object has no member '{name}'"


@pytest.mark.parametrize(
    ("what", "value", "exception", "text"),
    [
        (CONNECT, namespace(), AttributeError, no_member("enable_migration")),
        (CONNECT, session_settings(enable_migration=NoTruth()), LookupError, "no truth in it"),
        (CONNECT, session_settings(logging=5), AttributeError, no_member("level")),
        (CONNECT, session_settings(logging=namespace(level="\ud800")), UnicodeEncodeError, None),
        (
            CONNECT,
            sound(sample_rate=None),
            TypeError,
            "'NoneType' object cannot be interpreted as an integer",
        ),
        (CONNECT, sound(sample_rate=2**64), OverflowError, TOO_BIG),
        (CONNECT, picture(resolution=None), AttributeError, "Failed to get resolution attribute"),
        (PUBLISH, publisher(name=""), ValueError, "PublisherSettings name cannot be empty"),
        (SUBSCRIBE, namespace(), AttributeError, no_member("subscribe_to_audio")),
        (STREAM, None, TypeError, "Python Stream object is None"),
        (STREAM, namespace(id="s", connection=None), TypeError, "Python Connection object is None"),
        (STREAM, stream(creation_time=None), TypeError, "creation_time must be a datetime object"),
        (
            STREAM,
            stream(creation_time=namespace(timestamp=lambda: 5)),
            TypeError,
            "creation_time.timestamp() did not return a float",
        ),
        (
            STREAM,
            stream(creation_time=namespace(timestamp=lambda: 1 / 0)),
            ZeroDivisionError,
            "division by zero",
        ),
    ],
)
def test_bad_objects(world, what, value, exception, text):
    if what != CONNECT:
        world.connect(level="warn")
    known = world.stream("s") if what == SUBSCRIBE else None
    world.log.clear()
    with pytest.raises(exception) as raised:
        if what == CONNECT:
            world.client.connect("key", "session", "token", session_settings=value)
        elif what == PUBLISH:
            world.client.publish(value)
        elif what == SUBSCRIBE:
            world.client.subscribe(known, settings=value)
        else:
            world.client.subscribe(value)
    assert type(raised.value) is exception and text in (None, str(raised.value))
    assert world.log.of("TavrinVideoClient", "ERROR") == [("ERROR", f"Failed to parse {what}")]
    if what == STREAM:
        with pytest.raises(exception):
            world.client.unsubscribe(value)
    if what == CONNECT:
        assert world.client.is_connected() is False


@pytest.mark.parametrize(
    ("seconds", "milliseconds"),
    [
        (1.5, 1500),
        (0.0019999, 1),
        (-0.0019999, -1),
        (float("nan"), 0),
        (float("inf"), 2**63 - 1),
        (-1e300, -(2**63)),
    ],
)
def test_creation_time_is_cut_to_milliseconds(world, seconds, milliseconds):
    world.connect(level="info")
    world.client.subscribe(stream(creation_time=namespace(timestamp=lambda: seconds)))
    text = [text for level, text in world.log.texts() if text.startswith("Subscribing to stream: ")][0]
    assert f"creationTime: {milliseconds}," in text


def test_aware_times_and_subclasses(world):
    class Name(str):
        pass

    world.connect(level="info")
    aware = datetime(1970, 1, 1, 0, 0, 2, tzinfo=timezone.utc)
    world.client.subscribe(stream(id=Name("sub"), data="caf\u00e9", creation_time=aware))
    text = [text for level, text in world.log.texts() if text.startswith("Subscribing to stream: ")][0]
    assert "connectionId: sub, creationTime: 2000, data: caf\u00e9," in text


def test_values_by_truth_and_minus_one(world):
    """Any truth value is a boolean, and -1 is a number like others."""
    world.connect(level="warn")
    settings = publisher(
        has_audio="no",
        has_video=[],
        enable_captions=3,
        audio_settings=namespace(enable_stereo_mode=0, enable_opus_dtx={1}),
    )
    assert world.client.publish(settings) is True
    calls = world.lib.calls()
    for expected in ("audio_track(settings=1, enabled=1)", "video_track(settings=1, enabled=0)",
                     "stereo(settings=1, enabled=0)", "opus_dtx(settings=1, enabled=1)",
                     "publish_captions(publisher=1, enabled=1)"):  # fmt: skip
        assert expected in calls
    video = namespace(preferred_resolution=namespace(width=-1, height=2**33 + 5), preferred_framerate=-1)
    assert world.client.subscribe(world.stream(), settings=subscriber(video_settings=video)) is True
    assert "preferred_resolution(subscriber=1, width=4294967295, height=5)" in world.lib.calls()
    assert "preferred_framerate(subscriber=1, framerate=-1)" in world.lib.calls()
