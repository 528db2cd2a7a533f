"""How attributes of Python objects are read: by name, and with which exceptions."""

from __future__ import annotations

from datetime import datetime, timezone
from types import SimpleNamespace as Namespace

import pytest


class NoTruth:
    def __bool__(self):
        raise LookupError("no truth in it")


def session_settings(**change):
    return Namespace(**{"enable_migration": False, "av": None, "logging": None, **change})


def av_settings(**change):
    return session_settings(
        av=Namespace(
            audio_publisher=None, **{"audio_subscribers_mix": None, "video_publisher": None, **change}
        )
    )


def sound(rate):
    return av_settings(audio_subscribers_mix=Namespace(sample_rate=rate, number_of_channels=2))


def publisher(**change):
    settings = Namespace(
        name="p", has_audio=True, has_video=False, enable_captions=False, audio_settings=None
    )
    vars(settings).update(change)
    return settings


def stream(time, **change):
    return Namespace(id="s", connection=Namespace(creation_time=time, **{"id": "c", "data": "", **change}))


def calling(timestamp):
    return stream(Namespace(timestamp=timestamp))


(
    CONNECT,
    PUBLISH,
    SUBSCRIBE,
    STREAM,
) = "SessionSettings MRPublisherSettings MRSubscriberSettings MRStreamInfo".split()
MISSING = "Object has no member "
NO_NUMBER = "'NoneType' object cannot be interpreted as an integer"
PICTURE = Namespace(resolution=None, fps=30, format="YUV420P")


@pytest.mark.parametrize(
    ("what", "value", "exception", "text"),
    [
        (CONNECT, Namespace(), AttributeError, MISSING + "'enable_migration'"),
        (CONNECT, session_settings(enable_migration=NoTruth()), LookupError, "no truth in it"),
        (CONNECT, session_settings(logging=5), AttributeError, MISSING + "'level'"),
        (CONNECT, session_settings(logging=Namespace(level="\ud800")), UnicodeEncodeError, None),
        (CONNECT, sound(None), TypeError, NO_NUMBER),
        (CONNECT, sound(2**64), OverflowError, "Python int too large to convert to C long"),
        (CONNECT, av_settings(video_publisher=PICTURE), AttributeError, "Failed to get resolution attribute"),
        (PUBLISH, publisher(name=""), ValueError, "PublisherSettings name cannot be empty"),
        (SUBSCRIBE, Namespace(), AttributeError, MISSING + "'subscribe_to_audio'"),
        (STREAM, None, TypeError, "Python Stream object is None"),
        (STREAM, Namespace(id="s", connection=None), TypeError, "Python Connection object is None"),
        (STREAM, stream(None), TypeError, "creation_time must be a datetime object"),
        (STREAM, calling(lambda: 5), TypeError, "creation_time.timestamp() did not return a float"),
        (STREAM, calling(lambda: 1 / 0), ZeroDivisionError, "division by zero"),
    ],
)
def test_bad_objects(world, what, value, exception, text):
    known = None
    if what != CONNECT:
        world.connect(level="warn")
        known = world.stream("s")
    world.log.clear()
    calls = {
        CONNECT: lambda: world.client.connect("key", "session", "token", session_settings=value),
        PUBLISH: lambda: world.client.publish(value),
        SUBSCRIBE: lambda: world.client.subscribe(known, settings=value),
        STREAM: lambda: world.client.subscribe(value),
    }
    with pytest.raises(exception) as raised:
        calls[what]()
    assert type(raised.value) is exception and text in (None, str(raised.value))
    assert world.log.of("TavrinVideoClient", "ERROR") == [("ERROR", f"Failed to parse {what}")]
    assert world.client.is_connected() is (what != CONNECT)
    if what == STREAM:
        with pytest.raises(exception):
            world.client.unsubscribe(value)


class Name(str):
    pass


@pytest.mark.parametrize(
    ("given", "read"),
    [
        (calling(lambda: 0.0019999), "c, creationTime: 1,"),
        (calling(lambda: -0.0019999), "c, creationTime: -1,"),
        (calling(lambda: float("nan")), "c, creationTime: 0,"),
        (calling(lambda: float("inf")), f"c, creationTime: {2**63 - 1},"),
        (calling(lambda: -1e300), f"c, creationTime: {-(2**63)},"),
        (stream(datetime(1970, 1, 1, 0, 0, 2, tzinfo=timezone.utc), id=Name("sub"), data="caf\u00e9"),
         "sub, creationTime: 2000, data: caf\u00e9,"),
    ],
)  # fmt: skip
def test_streams_are_read_to_the_millisecond(world, given, read):
    world.connect(level="info")
    world.client.subscribe(given)
    (text,) = (text for _, text in world.log.texts() if text.startswith("Subscribing to stream: "))
    assert f"connectionId: {read}" in text


def test_values_by_truth_and_minus_one(world):
    """Any truth value is a boolean, and -1 is a number like others."""
    world.connect(level="warn")
    audio = Namespace(enable_stereo_mode=0, enable_opus_dtx={1})
    settings = publisher(has_audio="no", has_video=[], enable_captions=3, audio_settings=audio)
    assert world.client.publish(settings) is True
    size = Namespace(width=-1, height=2**33 + 5)
    video = Namespace(preferred_resolution=size, preferred_framerate=-1)
    wanted = Namespace(
        subscribe_to_audio=1, subscribe_to_video=1, subscribe_to_captions=0, video_settings=video
    )
    assert world.client.subscribe(world.stream(), settings=wanted) is True
    for expected in ("audio_track(settings=1, enabled=1)", "video_track(settings=1, enabled=0)",
                     "stereo(settings=1, enabled=0)", "opus_dtx(settings=1, enabled=1)",
                     "publish_captions(publisher=1, enabled=1)",
                     "preferred_resolution(subscriber=1, width=4294967295, height=5)",
                     "preferred_framerate(subscriber=1, framerate=-1)"):  # fmt: skip
        assert expected in world.lib.calls()
