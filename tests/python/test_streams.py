"""publish, unpublish, is_publishing, subscribe, unsubscribe, also from inside callables."""

from __future__ import annotations

import re

import pytest


def test_subscriber_asks_for_what_its_settings_and_callables_want(world):
    m = world.models
    world.connect()
    video = m.SubscriberVideoSettings(m.VideoResolution(320, 240), 15)
    captions = {"subscribe_to_captions": True, "subscribe_to_video": False}
    for settings, flags, wishes in [
        (None, (1, 1, 0), 0), (captions, (0, 1, 1), 0), ({"subscribe_to_audio": False}, (1, 0, 0), 2),
    ]:  # fmt: skip
        stream = world.stream()
        before = len(world.lib.calls())
        wanted = m.SubscriberSettings(video_settings=video, **settings) if settings else None
        assert world.client.subscribe(stream, settings=wanted) is True
        calls = world.lib.calls()[before:]
        kinds = {"video": "on_render_frame", "audio": "on_audio_data", "captions": "on_caption_text"}
        for (kind, slot), flag in zip(kinds.items(), flags):
            assert re.search(rf"subscribe_to_{kind}\(subscriber=\d+, enabled={flag}\)", calls)
            assert (f" {slot} " in calls) == flag
        assert calls.count("_preferred_") == wishes
        assert world.client.unsubscribe(stream) is True


def test_subscriber_states(world):
    world.connect()
    stream = world.subscribe("s", on_error_cb=world.rec("error"), on_disconnected_cb=world.rec("gone"))
    assert world.client.subscribe(stream, on_error_cb=world.rec("second")) is False
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
        world.rec("gone")(
            world.client.subscribe(stream), world.client.disconnect(), world.client.is_connected()
        )

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


def test_disconnect_from_a_media_callable(world):
    """The stop on a spoken word: the delivering thread waits for the worker, which deletes its subscriber."""
    world.connect()
    world.subscribe("s", on_audio_data_cb=lambda *_: world.rec("done")(world.client.disconnect()))
    world.lib.send_audio("s", b"\x01\x02" * 960)
    assert world.rec.wait("done").args == (True,)
    assert world.client.is_connected() is False and world.lib.live("subscriber") == 0
