"""What the thirteen methods say when they cannot do what they are asked: results, levels, exact texts."""

from __future__ import annotations

import re
from types import SimpleNamespace

import pytest


def connect(world, *args, **kwargs):
    return world.client.connect(*(args or ("key", "session", "token")), **kwargs)


def publish(world):
    return world.client.publish(world.models.PublisherSettings("p"), on_error_cb=world.rec("publisher"))


def publish_nothing(world):
    settings = {"name": "p", "has_audio": [], "has_video": 0, "enable_captions": 0, "audio_settings": None}
    return world.client.publish(SimpleNamespace(**settings))


def subscribe(world, stream_id="s", **arguments):
    return world.client.subscribe(world.stream(stream_id, received=False), **arguments)


def subscribe_to_captions(world):
    settings = {"subscribe_to_audio": False, "subscribe_to_video": False, "subscribe_to_captions": True}
    return subscribe(world, settings=SimpleNamespace(**settings, video_settings=None))


def unsubscribe(world, stream_id="s"):
    return world.client.unsubscribe(world.stream(stream_id, received=False))


def add_audio(world):
    return world.client.add_audio(world.models.AudioData(48000, 2, 480, bytes(1920)))


def frame(world):
    return world.models.VideoFrame(world.models.VideoResolution(640, 480), "YUV420P", bytes(460_800))


def method(name, *args, **kwargs):
    return lambda world: getattr(world.client, name)(*args, **kwargs)


NONE, JOINED, PUBLISHING, SUBSCRIBED = "no session", "joined", "publishing", "subscribed"
MISSING = "TypeError: function missing required argument "
NO_SESSION = "Not connected to any session"
#: (state, what is called, what comes of it, how the warnings and errors end): one or two of each method.
ROWS = [
    (NONE, method("connect", "k", "s", 5), "TypeError: argument 3 must be str, not int", ["connect() args"]),
    (NONE, method("connect", "k", "s", "t\0"), "ValueError: embedded null character", ["connect() args"]),
    (NONE, method("connect", "k", "", "t"), False, ["Invalid session info provided", "to session"]),
    (JOINED, method("connect", 1), False, ["Already connected to a session"]),
    (NONE, method("disconnect", x=1), "TypeError: disconnect() takes no keyword arguments", []),
    (NONE, method("disconnect", 1, 2), True, []),
    (NONE, method("get_connection", 1, x=2), None, ["No session"]),
    (NONE, method("is_connected", 1, x=2), False, []),
    (NONE, method("is_publishing", 1, x=2), False, []),
    (NONE, publish, False, ["Invalid session", "Failed to publish a stream"]),
    (JOINED, method("publish"), MISSING + "'settings' (pos 1)", ["publish() args"]),
    (JOINED, publish_nothing, False, ["at least audio or video", "create publisher", "publish a stream"]),
    (PUBLISHING, publish, False, ["Already publishing", "Failed to publish a stream"]),
    (NONE, method("unpublish", 1, x=2), True, []),
    (JOINED, lambda w: subscribe(w, "x"), False, ["Stream not connected. stream_id:x"]),
    (SUBSCRIBED, subscribe, False, ["Already subscribed to stream. stream_id:s"]),
    (JOINED, subscribe_to_captions, False, ["subscribe_to_video must be true", "stream. stream_id:s"]),
    (NONE, unsubscribe, True, []),
    (JOINED, lambda w: unsubscribe(w, "x"), False, ["exist. stream_id:x", "Failed to unsubscribe"]),
    (NONE, method("add_audio", data=1), MISSING + "'audio_data' (pos 1)", ["add_audio() args"]),
    (NONE, add_audio, False, [NO_SESSION + ".", "Failed to inject audio data"]),
    (JOINED, add_audio, False, ["Failed to inject audio data"]),  # the device does not run
    (NONE, method("add_video", x=3), False, [NO_SESSION]),
    (JOINED, method("add_video"), "TypeError: function takes exactly 1 argument (0 given)", []),
    (PUBLISHING, method("add_video", None), "ValueError: Python VideoFrame cannot be None", []),
    (PUBLISHING, lambda w: w.client.add_video(frame(w), keyword="ignored"), True, []),
    (JOINED, lambda w: w.client.add_video(frame(w)), False, ["Failed to add video frame"]),
    (NONE, method("clear_media_buffers", 1, x=2), False, [NO_SESSION + ".", "clear the media buffers"]),
    (JOINED, method("clear_media_buffers"), False, ["capturer is not initialized", "the media buffers"]),
]


def bring_to(world, state) -> None:
    world.lib.answer("audio_device", "none")
    if state != NONE:
        world.connect(level="warn")
        world.stream()
    if state == PUBLISHING:
        world.publish()
    if state == SUBSCRIBED:
        world.subscribe()
    world.log.clear()


def outcome(world, call):
    """The result, or the exception as text; the warnings and errors."""
    try:
        result = call(world)
    except Exception as error:
        result = f"{type(error).__name__}: {error}"
    lines = [f"{level[0]} {text}" for level, text in world.log.texts() if level in ("WARN", "ERROR")]
    return result, [re.sub(r"0x[0-9a-f]+", "0x", line) for line in lines]


@pytest.mark.parametrize("row", ROWS, ids=range(len(ROWS)))
def test_refusals(world, row):
    state, call, result, lines = row
    bring_to(world, state)
    calls = world.lib.calls()
    given, said = outcome(world, call)
    assert given == result and len(said) == len(lines), (given, said)
    assert all(line.endswith(end) for line, end in zip(said, lines)), said
    assert world.lib.calls() == calls  # nothing of it reaches the library


#: (what is called, what it makes, the functions that fail); what was made by then is deleted again.
FAILURES = [
    (connect, "session session_settings", "session_new_with_settings session_connect_to_host"),
    (publish, "publisher publisher_settings", "publisher_settings_new publisher_settings_set_name"
     " publisher_settings_set_audio_track publisher_settings_set_opus_dtx"
     " publisher_settings_set_video_capturer publisher_new_with_settings publisher_set_publish_captions"
     " session_publish"),
    (subscribe, "subscriber", "subscriber_new subscriber_set_subscribe_to_video"
     " subscriber_set_subscribe_to_audio subscriber_set_subscribe_to_captions session_subscribe"),
]  # fmt: skip


@pytest.mark.parametrize(
    ("call", "kinds", "function"),
    [(call, kinds, function) for call, kinds, functions in FAILURES for function in functions.split()],
)
def test_failures_half_way_leave_nothing_behind(world, call, kinds, function):
    bring_to(world, NONE if call == connect else JOINED)
    world.fail("srn_" + function)
    result, errors = outcome(world, call)
    assert result is False and errors
    assert not any(world.lib.live(kind) for kind in kinds.split())
    assert not {"srn_session_unpublish", "srn_session_unsubscribe"} & set(world.lib.call_names())
    assert world.client.is_connected() is (call != connect) and world.client.is_publishing() is False
    world.mend()
    assert call(world) is True


@pytest.mark.parametrize(
    ("state", "name", "call"),
    [(PUBLISHING, "unpublish", method("unpublish")), (SUBSCRIBED, "unsubscribe", unsubscribe)],
)
def test_what_the_library_does_not_let_go_is_deleted_all_the_same(world, state, name, call):
    bring_to(world, state)
    world.fail("srn_session_" + name)
    result, (error,) = outcome(world, call)
    assert result is True and f"::{name}: Failed to unbind" in error and "status:7" in error
    assert world.lib.live("publisher") == world.lib.live("subscriber") == 0


@pytest.mark.parametrize("host", ["http://", "HTTP://x", "https://relay", "HttpS://y"])
def test_host_with_a_protocol_is_refused(world, monkeypatch, host):
    monkeypatch.setenv("API_HOSTNAME", host)
    text = "E API_HOSTNAME should not include a protocol (http:// or https://): "
    bring_to(world, NONE)
    assert outcome(world, connect) == (False, [text + host, "E Failed to connect to session"])
    assert not [name for name in world.lib.call_names() if name.startswith("srn_session")]


def test_library_that_cannot_be_initialised(run):
    program = run(
        """
lib.fail("srn_init", 5, 2)
try:
    TavrinVideoClient()
except RuntimeError as error:
    assert str(error) == "Failed to initialize MR library"
else:
    raise AssertionError
assert lib.call_names() == ["srn_set_audio_device", "srn_init", "srn_init", "srn_destroy"], lib.calls()
assert TavrinVideoClient().is_connected() is False
assert TavrinVideoClient().connect("key", "session", "token") is True
"""
    )
    assert program.code == 0, program


def test_device_that_cannot_be_installed(run):
    program = run('lib.fail("srn_set_audio_device", 5, 1)\nassert TavrinVideoClient().connect("k", "s", "t")')
    assert program.code == 0, program
    assert ("ERROR", "Failed to set the global audio device.") in program.texts()
