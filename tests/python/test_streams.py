"""publish, unpublish, is_publishing, subscribe, unsubscribe."""

from __future__ import annotations

import re

import pytest

PUBLISH_CALLS = """\
srn_publisher_settings_new()
srn_publisher_settings_set_name(settings=1, name="café")
srn_publisher_settings_set_audio_track(settings=1, enabled=1)
srn_publisher_settings_set_video_track(settings=1, enabled=0)
srn_publisher_settings_set_stereo(settings=1, enabled=0)
srn_publisher_settings_set_noise_suppression(settings=1, enabled=0)
srn_publisher_settings_set_echo_cancellation(settings=1, enabled=0)
srn_publisher_settings_set_disable_audio_processing(settings=1, disabled=1)
srn_publisher_settings_set_opus_dtx(settings=1, enabled=1)
srn_publisher_settings_set_video_capturer(settings=1, callbacks=[init destroy start get_capture_settings user_data])
srn_publisher_new_with_settings(callbacks=[on_stream_created on_stream_destroyed on_error user_data], settings=1)
srn_publisher_settings_delete(settings=1)
srn_publisher_set_publish_captions(publisher=1, enabled=1)
srn_session_publish(session=1, publisher=1)
srn_publisher_get_publisher_id(publisher=1)""".splitlines()


def calls_of(world, action):
    """What the library was called with meanwhile, without the events that the calls raise."""
    world.settle()
    before = len(world.lib.calls().splitlines())
    result = action()
    return result, world.lib.calls().splitlines()[before:]


def errors(world) -> list[str]:
    return [text for level, text in world.log.texts() if level == "ERROR"]


def test_publish_calls_the_library_in_order(world):
    world.connect()
    audio = world.models.PublisherAudioSettings(enable_stereo_mode=False, enable_opus_dtx=True)
    settings = world.models.PublisherSettings(
        "café", has_audio=True, has_video=False, enable_captions=True, audio_settings=audio
    )
    result, calls = calls_of(world, lambda: world.client.publish(settings))
    assert result is True and calls == PUBLISH_CALLS
    assert world.log.of("TavrinVideoClient", "INFO")[-2:] == [
        ("INFO", "Publishing stream"),
        ("INFO", "Publishing initiated with publisher ID: publisher-1"),
    ]
    assert world.lib.provided_count() == 0  # no video track, no pictures asked for


PREFIX = "MRPublisherInfo::createSrnEquivalent: Couldn't "


@pytest.mark.parametrize(
    ("function", "text", "deleted"),
    [
        ("srn_publisher_settings_new", PREFIX + "create srn settings", []),
        ("srn_publisher_settings_set_name", PREFIX + "set the name. status:7", ["settings"]),
        ("srn_publisher_settings_set_opus_dtx", PREFIX + "(de)activate the audio DTX. status:7", ["settings"]),
        (
            "srn_publisher_settings_set_video_capturer",
            "MRPublisher::publish:: Couldn't bind the video capturer. status:7",
            ["settings"],
        ),
        ("srn_publisher_new_with_settings", "MRPublisher::publish: Couldn't create publisher", ["settings"]),
        (
            "srn_publisher_set_publish_captions",
            "MRPublisher::publish: Failed to enable caption publishing. status:7",
            ["settings", "publisher"],
        ),
        (
            "srn_session_publish",
            "MRPublisher::publish: Failed to bind publisher to session. status=7",
            ["settings", "publisher"],
        ),
    ],
)
def test_publish_that_fails_half_way(world, function, text, deleted):
    world.connect()
    world.fail(function)
    settings = world.models.PublisherSettings("p")
    result, calls = calls_of(world, lambda: world.client.publish(settings, on_error_cb=world.rec("error")))
    assert result is False and world.client.is_publishing() is False
    assert text in errors(world) and ("WARN", "Failed to publish a stream") in world.log.texts()
    names = [call.split("(")[0] for call in calls]
    assert [name for name in names if name.endswith("_delete")] == [
        {"settings": "srn_publisher_settings_delete", "publisher": "srn_publisher_delete"}[each] for each in deleted
    ]
    assert "srn_session_unpublish" not in names
    assert world.lib.live("publisher") == world.lib.live("publisher_settings") == 0
    world.mend()
    assert world.client.publish(settings) is True


def test_publisher_states(world):
    world.connect()
    settings = world.models.PublisherSettings("p")
    assert world.client.unpublish() is True  # none
    world.publish(on_stream_created_cb=world.rec("created"), on_stream_destroyed_cb=world.rec("destroyed"))
    world.rec.wait("created")
    assert world.client.is_publishing() is True
    assert world.client.publish(settings, on_stream_destroyed_cb=world.rec("second")) is False
    assert ("WARN", "MRPublisherManager::publish: Already publishing") in world.log.texts()
    world.lib.publisher_stream_destroyed("published-1")
    world.lib.publisher_error(-1, "after")
    world.rec.wait("destroyed")
    world.settle()
    assert not world.rec.named("second")
    # The publisher is lost: it stands in the way until it is given up.
    assert world.client.is_publishing() is False and world.client.publish(settings) is False
    assert world.client.unpublish() is True and world.client.unpublish(1, x=2) is True
    world.publish(on_stream_destroyed_cb=world.rec("asked for"))
    assert world.client.unpublish() is True
    world.settle()
    assert world.client.is_publishing() is False and not world.rec.named("asked for")
    assert world.log.of("TavrinVideoClient", "INFO")[-1] == ("INFO", "Successfully unpublished stream")


@pytest.mark.parametrize(
    ("make", "exception", "text"),
    [
        (lambda m: None, TypeError, "Python PublisherSettings object is None"),
        (lambda m: m.PublisherSettings.__new__(m.PublisherSettings), AttributeError, "Object has no member 'name'"),
        (lambda m: m.Stream("s"), AttributeError, "Object has no member 'name'"),
    ],
)
def test_publish_with_bad_settings(world, make, exception, text):
    world.connect()
    with pytest.raises(exception) as raised:
        world.client.publish(make(world.models))
    assert str(raised.value) == text
    assert "Failed to parse MRPublisherSettings" in errors(world)


@pytest.mark.parametrize("method", ["publish", "subscribe", "unsubscribe"])
def test_bad_arguments(world, method):
    for args, kwargs in [((), {}), ((1, 2), {}), ((1,), {"nothing": 2})]:
        with pytest.raises(TypeError):
            getattr(world.client, method)(*args, **kwargs)
    assert errors(world) == [f"Failed to parse {method}() args"] * 3


def test_publish_without_tracks_or_session(world):
    from types import SimpleNamespace

    silent = SimpleNamespace(name="p", has_audio=[], has_video=0, enable_captions=False, audio_settings=None)
    world.connect()
    result, calls = calls_of(world, lambda: world.client.publish(silent))
    assert result is False and calls == []
    assert "MRPublisher::publish: publisher must have at least audio or video" in errors(world)
    world.client.disconnect()
    assert world.client.publish(world.models.PublisherSettings("p")) is False
    assert world.client.unpublish() is True and world.client.is_publishing() is False


ALWAYS = "on_connected on_disconnected"


@pytest.mark.parametrize(
    ("settings", "slots", "setters"),
    [
        (None, "on_render_frame on_error on_audio_data", "video=1 audio=1 captions=0"),
        (
            {"subscribe_to_captions": True, "subscribe_to_video": False, "resolution": (320, 240)},
            "on_caption_text on_error on_audio_data",
            "video=0 audio=1 captions=1",
        ),
        (
            {"subscribe_to_audio": False, "resolution": (320, 240), "rate": 15},
            "on_render_frame on_error",
            "video=1 resolution=320,240 framerate=15 audio=0 captions=0",
        ),
    ],
)
def test_subscribe_calls_the_library_in_order(world, settings, slots, setters):
    world.connect()
    stream = world.stream()
    if settings:
        video = world.models.SubscriberVideoSettings(
            preferred_resolution=world.models.VideoResolution(*settings.pop("resolution")),
            preferred_framerate=settings.pop("rate", None),
        )
        settings = world.models.SubscriberSettings(video_settings=video, **settings)
    result, calls = calls_of(world, lambda: world.client.subscribe(stream, settings=settings))
    assert result is True
    calls = [re.sub(r"stream=\d+", "stream=N", call) for call in calls]
    expected = [f"srn_subscriber_new(stream=N, callbacks=[{ALWAYS} {slots} user_data])"]
    for setter in setters.split():
        name, value = setter.split("=")
        if name == "resolution":
            width, height = value.split(",")
            argument = f"preferred_resolution(subscriber=1, width={width}, height={height})"
        elif name == "framerate":
            argument = f"preferred_framerate(subscriber=1, framerate={value})"
        else:
            argument = f"subscribe_to_{name}(subscriber=1, enabled={value})"
        expected.append("srn_subscriber_set_" + argument)
    assert calls == [
        *expected,
        "srn_session_subscribe(session=1, subscriber=1)",
        "srn_subscriber_get_subscriber_id(subscriber=1)",
    ]
    form = (
        "MRStreamInfo: {streamId: s, connection: MRConnectionInfo: {connectionId: c, creationTime: 1500, "
        "data: data, sessionId: }}"
    )
    assert world.log.of("TavrinVideoClient", "INFO")[-2:] == [
        ("INFO", "Subscribing to stream: " + form),
        ("INFO", "Subscription initiated for stream with subscriber ID: subscriber-1"),
    ]


@pytest.mark.parametrize(
    ("function", "text"),
    [
        ("srn_subscriber_new", "Couldn't create subscriber for stream:"),
        ("srn_subscriber_set_subscribe_to_video", "Failed to configure video subscription. status:7"),
        ("srn_subscriber_set_subscribe_to_audio", "Failed to configure audio subscription. status:7"),
        ("srn_subscriber_set_subscribe_to_captions", "Failed to configure caption subscription. status:7"),
        ("srn_session_subscribe", "Failed to bind subscriber to session. status:7"),
    ],
)
def test_subscribe_that_fails_half_way(world, function, text):
    world.connect()
    stream = world.stream()
    world.fail(function)
    result, calls = calls_of(world, lambda: world.client.subscribe(stream, on_connected_cb=world.rec("c")))
    assert result is False
    assert any(line.startswith("MRSubscriber::subscribe (static): " + text) for line in errors(world))
    assert not [text for level, text in world.log.of("TavrinVideoClient", "WARN", "ERROR")]
    assert not [call for call in calls if "unsubscribe" in call]
    assert world.lib.live("subscriber") == 0
    world.mend()
    assert world.client.subscribe(stream, on_connected_cb=world.rec("c")) is True
    world.lib.subscriber_connected("s")
    world.rec.wait("c")


def test_subscriber_states(world):
    world.connect()
    unknown = world.stream("x", received=False)
    assert world.client.subscribe(unknown) is False
    assert world.client.unsubscribe(unknown) is False
    stream = world.subscribe("s", on_error_cb=world.rec("error"), on_disconnected_cb=world.rec("gone"))
    assert world.client.subscribe(stream, on_error_cb=world.rec("second")) is False
    prefix = "MRSubscriberManager::"
    warnings = [text for level, text in world.log.texts() if level == "WARN"]
    assert warnings == [
        f"{prefix}subscribe: Stream not connected. stream_id:x",
        f"{prefix}unsubscribe: Subscriber doesn't exist. stream_id:x",
        "Failed to unsubscribe",
        f"{prefix}subscribe: Already subscribed to stream. stream_id:s",
    ]
    world.lib.subscriber_error("s", -3, "bad")
    world.rec.wait("error")
    assert not world.rec.named("second")  # the first one's callables stay
    assert world.client.subscribe(stream) is False  # and so does the subscriber
    world.lib.subscriber_disconnected("s")
    world.rec.wait("gone")
    world.settle()
    assert world.lib.live("subscriber") == 0
    assert world.client.subscribe(stream, on_disconnected_cb=world.rec("late")) is True
    assert world.client.unsubscribe(stream) is True
    world.lib.stream_dropped("s", "c", "data", 1500)
    world.settle()
    assert world.client.subscribe(stream) is False  # the stream has gone
    assert not world.rec.named("late")
    world.client.disconnect()
    assert world.client.unsubscribe(stream) is True  # no session: done
    assert world.client.subscribe(stream) is False


def test_captions_alone_are_refused(world):
    from types import SimpleNamespace

    settings = SimpleNamespace(
        subscribe_to_audio=False, subscribe_to_video=False, subscribe_to_captions=True, video_settings=None
    )
    world.connect()
    assert world.client.subscribe(world.stream(), settings=settings) is False
    text = "MRSubscriber::subscribe: At least one of subscribe_to_audio or subscribe_to_video must be true"
    assert text in errors(world)


def test_failed_unsubscribe_takes_the_callables_all_the_same(world):
    world.connect()
    stream = world.subscribe("s", on_caption_text_cb=world.rec("caption"))
    world.fail("srn_session_unsubscribe")
    assert world.client.unsubscribe(stream) is True  # deleted, whatever the library says
    assert any(text.startswith("MRSubscriber::unsubscribe: Failed to unbind") for text in errors(world))
    assert world.lib.caption("s", "text", 1) == 0 and world.lib.live("subscriber") == 0


def test_session_methods_from_inside_callables(world):
    """A callable on the worker may call any method; the stream is known when it is told of."""

    def received(session, stream):
        world.rec("subscribed")(world.client.subscribe(stream, on_connected_cb=world.rec("connected")))
        world.lib.subscriber_connected("s")
        settings = world.models.PublisherSettings("p")
        world.rec("published")(world.client.publish(settings, on_stream_created_cb=created))
        world.lib.publisher_stream_created("published-1")
        world.rec("connection")(world.client.get_connection(), world.client.get_media_buffer_stats())

    def created(publisher):
        world.rec("unpublished")(world.client.unpublish(), world.client.is_publishing())

    def dropped(session, stream):
        world.rec("gone")(world.client.subscribe(stream), world.client.disconnect(), world.client.is_connected())

    world.connect(on_stream_received_cb=received, on_stream_dropped_cb=dropped)
    world.stream("s")
    assert world.rec.wait("subscribed").args == world.rec.wait("published").args == (True,)
    assert world.rec.wait("connection").args[0].id == "own-connection"
    assert world.rec.wait("unpublished").args == (True, False)
    world.rec.wait("connected")
    world.lib.stream_dropped("s", "c", "data", 1500)
    assert world.rec.wait("gone").args == (False, True, False)


@pytest.mark.parametrize("action", ["unsubscribe", "disconnect", "replace"])
def test_subscriber_that_ends_itself_in_its_own_callable(world, action):
    """The callable that runs belongs to the entry that it removes."""

    def gone(subscriber):
        stream = subscriber.stream
        if action == "disconnect":
            world.client.disconnect()
        else:
            world.client.unsubscribe(stream)
        if action == "replace":
            world.rec("again")(world.client.subscribe(stream, on_caption_text_cb=world.rec("caption")))
        world.rec("done")()

    world.connect()
    world.subscribe("s", on_disconnected_cb=gone)
    world.lib.subscriber_disconnected("s")
    world.rec.wait("done")
    world.settle()
    assert world.lib.live("subscriber") == (1 if action == "replace" else 0)
    if action == "replace":
        assert world.rec.wait("again").args == (True,)
