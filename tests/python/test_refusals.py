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
    settings = SimpleNamespace(
        name="p", has_audio=[], has_video=0, enable_captions=False, audio_settings=None
    )
    return world.client.publish(settings)


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
ONE = "TypeError: function takes at most 1 "
INVALID = ["E MRController::connect: Invalid session info provided", "E Failed to connect to session"]
TIMED_OUT = [
    "E MRSession::~MRSession: Timed out disconnecting from session.",
    "E Failed to connect to session",
]
UNPUBLISHED = ["E MRPublisherManager::publish: Couldn't create publisher", "W Failed to publish a stream"]
UNSUBSCRIBED = ["E MRSubscriberManager::subscribe: Couldn't subscribe to stream. stream_id:s"]
#: (state, what is called, what comes of it, the warnings and errors)
ROWS = [
    (NONE, method("connect"), MISSING + "'application_id' (pos 1)", ["E Failed to parse connect() args"]),
    (
        NONE,
        method("connect", "k", "s", 5),
        "TypeError: argument 3 must be str, not int",
        ["E Failed to parse connect() args"],
    ),
    (
        NONE,
        method("connect", "k", "s", "t", None),
        "TypeError: function takes at most 3 positional arguments (4 given)",
        ["E Failed to parse connect() args"],
    ),
    (
        NONE,
        method("connect", "k", "s", "t\0"),
        "ValueError: embedded null character",
        ["E Failed to parse connect() args"],
    ),
    (
        NONE,
        method("connect", "k", "s", "t", on_nothing_cb=print),
        "TypeError: 'on_nothing_cb' is an invalid keyword argument for this function",
        ["E Failed to parse connect() args"],
    ),
    *[
        (NONE, method("connect", *given), False, INVALID)
        for given in [("", "s", "t"), ("k", "", "t"), ("k", "s", "")]
    ],
    (JOINED, connect, False, ["W Already connected to a session"]),
    (JOINED, method("connect", 1), False, ["W Already connected to a session"]),
    (NONE, method("disconnect", x=1), "TypeError: disconnect() takes no keyword arguments", []),
    (NONE, method("disconnect", 1, 2), True, []),
    (NONE, method("get_connection", 1, x=2), None, ["W MRController::getSessionConnectionInfo: No session"]),
    (NONE, method("is_connected", 1, x=2), False, []),
    (NONE, method("is_publishing", 1, x=2), False, []),
    (
        NONE,
        publish,
        False,
        ["E MRPublisherManager::publish: Invalid session", "W Failed to publish a stream"],
    ),
    (JOINED, method("publish"), MISSING + "'settings' (pos 1)", ["E Failed to parse publish() args"]),
    (
        JOINED,
        method("publish", 1, 2),
        ONE + "positional argument (2 given)",
        ["E Failed to parse publish() args"],
    ),
    (
        JOINED,
        method("publish", None),
        "TypeError: Python PublisherSettings object is None",
        ["E Failed to parse MRPublisherSettings"],
    ),
    (
        JOINED,
        publish_nothing,
        False,
        ["E MRPublisher::publish: publisher must have at least audio or video", *UNPUBLISHED],
    ),
    (
        PUBLISHING,
        publish,
        False,
        ["W MRPublisherManager::publish: Already publishing", "W Failed to publish a stream"],
    ),
    (NONE, method("unpublish", 1, x=2), True, []),
    (JOINED, method("unpublish"), True, []),
    (NONE, subscribe, False, ["W MRSubscriberManager::subscribe: Stream not connected. stream_id:s"]),
    (JOINED, method("subscribe"), MISSING + "'stream' (pos 1)", ["E Failed to parse subscribe() args"]),
    (
        JOINED,
        method("subscribe", 1, 2),
        ONE + "positional argument (2 given)",
        ["E Failed to parse subscribe() args"],
    ),
    (
        JOINED,
        lambda w: subscribe(w, "x"),
        False,
        ["W MRSubscriberManager::subscribe: Stream not connected. stream_id:x"],
    ),
    (
        SUBSCRIBED,
        subscribe,
        False,
        ["W MRSubscriberManager::subscribe: Already subscribed to stream. stream_id:s"],
    ),
    (
        JOINED,
        subscribe_to_captions,
        False,
        [
            "E MRSubscriber::subscribe: At least one of subscribe_to_audio or "
            "subscribe_to_video must be true",
            *UNSUBSCRIBED,
        ],
    ),
    (NONE, unsubscribe, True, []),
    (JOINED, method("unsubscribe"), MISSING + "'stream' (pos 1)", ["E Failed to parse unsubscribe() args"]),
    (
        JOINED,
        method("unsubscribe", 1, 2),
        ONE + "argument (2 given)",
        ["E Failed to parse unsubscribe() args"],
    ),
    (
        JOINED,
        lambda w: unsubscribe(w, "x"),
        False,
        [
            "W MRSubscriberManager::unsubscribe: Subscriber doesn't exist. stream_id:x",
            "W Failed to unsubscribe",
        ],
    ),
    (NONE, method("add_audio", 1, 2), ONE + "argument (2 given)", ["E Failed to parse add_audio() args"]),
    (
        NONE,
        method("add_audio", data=1),
        MISSING + "'audio_data' (pos 1)",
        ["E Failed to parse add_audio() args"],
    ),
    (
        NONE,
        add_audio,
        False,
        ["W MRController::addAudio: Not connected to any session.", "W Failed to inject audio data"],
    ),
    (JOINED, add_audio, False, ["W Failed to inject audio data"]),  # the device does not run
    (NONE, method("add_video", x=3), False, ["W Not connected to any session"]),
    (JOINED, method("add_video"), "TypeError: function takes exactly 1 argument (0 given)", []),
    (
        PUBLISHING,
        lambda w: w.client.add_video(video_frame=frame(w)),
        "TypeError: function takes exactly 1 argument (0 given)",
        [],
    ),
    (PUBLISHING, method("add_video", None), "ValueError: Python VideoFrame cannot be None", []),
    (PUBLISHING, lambda w: w.client.add_video(frame(w), keyword="ignored"), True, []),
    (JOINED, lambda w: w.client.add_video(frame(w)), False, ["W Failed to add video frame"]),
    (
        NONE,
        method("clear_media_buffers", 1, x=2),
        False,
        [
            "W MRController::clearMediaBuffers: Not connected to any session.",
            "E Failed to clear the media buffers",
        ],
    ),
    (
        JOINED,
        method("clear_media_buffers"),
        False,
        [
            "W MRAudioCapturer::clearAudioBuffers: audio capturer is not initialized",
            "E Failed to clear the media buffers",
        ],
    ),
    (
        NONE,
        method("get_media_buffer_stats", x=2),
        "TypeError: get_media_buffer_stats() takes no keyword arguments",
        [],
    ),
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
    assert outcome(world, call) == (result, lines)
    assert world.lib.calls() == calls  # nothing of it reaches the library


SETTINGS = "E MRPublisherInfo::createSrnEquivalent: Couldn't "
UNSET = ["E MRPublisher::publish: Couldn't create publisher settings", *UNPUBLISHED]
STATIC = "E MRSubscriber::subscribe (static): "
STREAM = (
    "MRStreamInfo: {streamId: s, connection: MRConnectionInfo: {connectionId: c, creationTime: "
    "1500, data: data, sessionId: session}}"
)
#: (the function that fails, what is called, the errors); what was made by then is deleted again.
FAILURES = [
    (
        "session_new_with_settings",
        connect,
        [
            "E MRSession::connect: Could not create session.",
            "E MRSession::disconnect: Failed to disconnect from the session. status:1011",
            *TIMED_OUT,
        ],
    ),
    (
        "session_connect_to_host",
        connect,
        ["E MRSession::connect: Failed to connect to the session. status:7", *TIMED_OUT],
    ),
    ("publisher_settings_new", publish, [SETTINGS + "create srn settings", *UNSET]),
    ("publisher_settings_set_name", publish, [SETTINGS + "set the name. status:7", *UNSET]),
    (
        "publisher_settings_set_audio_track",
        publish,
        [SETTINGS + "(de)activate the audio track. status:7", *UNSET],
    ),
    (
        "publisher_settings_set_video_track",
        publish,
        [SETTINGS + "(de)activate the video track. status:7", *UNSET],
    ),
    ("publisher_settings_set_stereo", publish, [SETTINGS + "set the stereo/mono audio. status:7", *UNSET]),
    (
        "publisher_settings_set_noise_suppression",
        publish,
        [SETTINGS + "(de)activate the audio noise suppresion. status:7", *UNSET],
    ),
    (
        "publisher_settings_set_echo_cancellation",
        publish,
        [SETTINGS + "(de)activate the audio echo cancellation. status:7", *UNSET],
    ),
    (
        "publisher_settings_set_disable_audio_processing",
        publish,
        [SETTINGS + "(de)activate the audio processsing. status:7", *UNSET],
    ),
    ("publisher_settings_set_opus_dtx", publish, [SETTINGS + "(de)activate the audio DTX. status:7", *UNSET]),
    (
        "publisher_settings_set_video_capturer",
        publish,
        ["E MRPublisher::publish:: Couldn't bind the video capturer. status:7", *UNPUBLISHED],
    ),
    (
        "publisher_new_with_settings",
        publish,
        ["E MRPublisher::publish: Couldn't create publisher", *UNPUBLISHED],
    ),
    (
        "publisher_set_publish_captions",
        publish,
        ["E MRPublisher::publish: Failed to enable caption publishing. status:7", *UNPUBLISHED],
    ),
    (
        "session_publish",
        publish,
        ["E MRPublisher::publish: Failed to bind publisher to session. status=7", *UNPUBLISHED],
    ),
    (
        "subscriber_new",
        subscribe,
        [STATIC + "Couldn't create subscriber for stream:" + STREAM, *UNSUBSCRIBED],
    ),
    (
        "subscriber_set_subscribe_to_video",
        subscribe,
        [STATIC + "Failed to configure video subscription. status:7", *UNSUBSCRIBED],
    ),
    (
        "subscriber_set_subscribe_to_audio",
        subscribe,
        [STATIC + "Failed to configure audio subscription. status:7", *UNSUBSCRIBED],
    ),
    (
        "subscriber_set_subscribe_to_captions",
        subscribe,
        [STATIC + "Failed to configure caption subscription. status:7", *UNSUBSCRIBED],
    ),
    (
        "session_subscribe",
        subscribe,
        [STATIC + "Failed to bind subscriber to session. status:7", *UNSUBSCRIBED],
    ),
]


@pytest.mark.parametrize("row", FAILURES, ids=[row[0] for row in FAILURES])
def test_failures_half_way_leave_nothing_behind(world, row):
    function, call, errors = row
    kinds = {
        connect: ["session", "session_settings"],
        publish: ["publisher", "publisher_settings"],
        subscribe: ["subscriber"],
    }
    bring_to(world, NONE if call == connect else JOINED)
    world.fail("srn_" + function)
    assert outcome(world, call) == (False, errors)
    assert [world.lib.live(kind) for kind in kinds[call]] == [0] * len(kinds[call])
    assert not [
        name
        for name in world.lib.call_names()
        if name in ("srn_session_unpublish", "srn_session_unsubscribe")
    ]
    assert world.client.is_connected() is (call != connect) and world.client.is_publishing() is False
    world.mend()
    assert call(world) is True


@pytest.mark.parametrize(
    ("state", "function", "call", "error"),
    [
        (
            PUBLISHING,
            "srn_session_unpublish",
            method("unpublish"),
            "E MRPublisher::unpublish: Failed to unbind publisher from session. status:7 "
            "session_:0x publisher_:0x",
        ),
        (
            SUBSCRIBED,
            "srn_session_unsubscribe",
            unsubscribe,
            "E MRSubscriber::unsubscribe: Failed to unbind subscriber from session. status:7, "
            "session_:0x, subscriber_:0x",
        ),
    ],
    ids=["unpublish", "unsubscribe"],
)
def test_what_the_library_does_not_let_go_is_deleted_all_the_same(world, state, function, call, error):
    bring_to(world, state)
    world.fail(function)
    assert outcome(world, call) == (True, [error])
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
lib.fail("srn_set_audio_device", 5, 1)
assert TavrinVideoClient().connect("key", "session", "token") is True
"""
    )
    assert program.code == 0, program
    failed = ("ERROR", "MRController::initSntLibrary: Sarnet couldn't init the library")
    assert [text for text in program.texts() if text[0] == "ERROR"] == [
        failed,
        failed,
        ("ERROR", "Failed to initialize MR library"),
        ("ERROR", "MRController::disconnect: MR library not initialised."),
    ]


def test_device_that_cannot_be_installed(run):
    program = run('lib.fail("srn_set_audio_device", 5, 1)\nassert TavrinVideoClient().connect("k", "s", "t")')
    assert (
        program.code == 0 and ("ERROR", "Failed to set the global audio device.") in program.texts()
    ), program
