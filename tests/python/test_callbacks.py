"""The nineteen events: what each callable is called with, and what its failures do."""

from __future__ import annotations

import threading
from collections import namedtuple
from datetime import datetime, timedelta

import pytest
from scripted import until

LOUD = b"\x01\x02" * 960
SUBSCRIBER, PUBLISHER, SESSION = "subscriber", "publisher", "session"


def session(m):
    return m.Session("session")


def stream(m, stream_id="s", connection=("c", 1.5, "data")):
    connection_id, seconds, data = connection
    return m.Stream(stream_id, m.Connection(connection_id, datetime.fromtimestamp(seconds), data))


def subscriber(m):
    return m.Subscriber(stream(m))


def publisher(m):
    return m.Publisher(stream(m, "published-1", ("own-connection", 1_700_000_000, "own-data")))


class Row(namedtuple("Row", "owner keyword raise_event arguments model")):
    """One event: where its callable goes, what raises it, what the callable is given,
    a class that is built for it."""

    @property
    def name(self):
        owner, keyword = self.owner, self.keyword
        return ("" if owner == SESSION else owner + "_") + keyword.removesuffix("_cb")


BAD = "bad \u20ac"
ROWS = [
    Row(SESSION, "on_connected_cb", lambda w: w.lib.session_connected(), lambda m: (session(m),), "Session"),
    Row(SESSION, "on_disconnected_cb", lambda w: w.lib.session_disconnected(), lambda m: (session(m),),
        "Session"),
    Row(SESSION, "on_error_cb", lambda w: w.lib.session_error(-7, BAD), lambda m: (session(m), BAD, -7),
        "Session"),
    Row(SESSION, "on_connection_created_cb", lambda w: w.lib.connection_created("c", "data", 1500),
        lambda m: (session(m), stream(m).connection), "Connection"),
    Row(SESSION, "on_connection_dropped_cb", lambda w: w.lib.connection_dropped("c", "data", 1500),
        lambda m: (session(m), stream(m).connection), "Session"),
    Row(SESSION, "on_stream_received_cb", lambda w: w.lib.stream_received("s", "c", "data", 1500),
        lambda m: (session(m), stream(m)), "Stream"),
    Row(SESSION, "on_stream_dropped_cb", lambda w: w.lib.stream_dropped("s", "c", "data", 1500),
        lambda m: (session(m), stream(m)), "Connection"),
    Row(SESSION, "on_audio_data_cb", lambda w: True, lambda m: (session(m), ("AudioData", 48000, 2, 480,
        960)), "AudioData"),
    Row(SESSION, "on_ready_for_audio_cb",
        lambda w: (w.lib.device_slot("stop_capturer"), w.lib.device_slot("start_capturer")),
        lambda m: (session(m),), "Session"),
    Row(SESSION, "on_media_buffer_drained_cb", lambda w: w.client.add_audio(w.models.AudioData(48000, 2,
        480, LOUD)),
        lambda m: (m.MediaBufferStats(audio=m.AudioBufferStats(timedelta(0))),), "MediaBufferStats"),
    Row(SUBSCRIBER, "on_connected_cb", lambda w: w.lib.subscriber_connected("s"),
        lambda m: (subscriber(m),), "Subscriber"),
    Row(SUBSCRIBER, "on_disconnected_cb", lambda w: w.lib.subscriber_disconnected("s"),
        lambda m: (subscriber(m),), "Stream"),
    Row(SUBSCRIBER, "on_error_cb", lambda w: w.lib.subscriber_error("s", -7, BAD), lambda m: (subscriber(m),
        BAD, -7),
        "Connection"),
    Row(SUBSCRIBER, "on_audio_data_cb", lambda w: w.lib.send_audio("s", LOUD),
        lambda m: (subscriber(m), ("AudioData", 48000, 2, 480, 960)), "AudioData"),
    Row(SUBSCRIBER, "on_render_frame_cb", lambda w: w.lib.send_frame("s", 4, 2),
        lambda m: (subscriber(m), ("VideoFrame", 4, 2, "YUV420P", 12)), "VideoResolution"),
    Row(SUBSCRIBER, "on_caption_text_cb", lambda w: w.lib.caption("s", BAD, 1),
        lambda m: (subscriber(m), m.CaptionsData(BAD, True)), "CaptionsData"),
    Row(PUBLISHER, "on_stream_created_cb", lambda w: w.lib.publisher_stream_created("published-1"),
        lambda m: (publisher(m),), "Publisher"),
    Row(PUBLISHER, "on_stream_destroyed_cb", lambda w: w.lib.publisher_stream_destroyed("published-1"),
        lambda m: (publisher(m),), "Publisher"),
    Row(PUBLISHER, "on_error_cb", lambda w: w.lib.publisher_error(-7, BAD), lambda m: (publisher(m), BAD,
        -7), "Stream"),
]  # fmt: skip

# What comes once: the session, the subscriber or the publisher is lost with it.
LAST = ("subscriber_on_disconnected on_disconnected on_error"
        " publisher_on_stream_destroyed publisher_on_error").split()  # fmt: skip
all_rows = pytest.mark.parametrize("row", ROWS, ids=lambda row: row.name)


def fail(self, *args, **kwargs):
    raise ValueError("not today")


def set_up(world, row, callable_) -> int:
    """Everything stands that the event needs, the callable is the event's. How often it has come by now."""
    keywords = {
        owner: {row.keyword: callable_} if row.owner == owner else {}
        for owner in (SESSION, SUBSCRIBER, PUBLISHER)
    }
    world.ready(**keywords[SESSION])
    world.publish(has_video=False, **keywords[PUBLISHER])
    if row.owner == SUBSCRIBER:
        everything = world.models.SubscriberSettings(subscribe_to_captions=True)
        world.subscribe("s", settings=everything, **keywords[SUBSCRIBER])
    world.settle()
    return len(world.rec.named(row.name))


def plain(argument):
    """Media objects by their visible facts."""
    kind = type(argument).__name__
    if kind == "AudioData":
        numbers = (argument.sample_rate, argument.number_of_channels, argument.number_of_frames)
        return kind, *numbers, len(argument.sample_buffer)
    if kind == "VideoFrame":
        size = argument.resolution
        return kind, size.width, size.height, argument.format, len(argument.frame_buffer)
    return argument


@all_rows
def test_event_reaches_its_callable_which_may_raise(world, row):
    def raising(*_):
        kind: type[BaseException] = SystemExit if row.name.startswith("subscriber") else ValueError
        raise kind("no such luck")

    before = set_up(world, row, world.rec(row.name, then=raising))
    row.raise_event(world)
    event = world.rec.wait(row.name, before + 1)
    assert tuple(plain(each) for each in event.args) == row.arguments(world.models)
    world.log.wait("ERROR", f"Failed to call {row.name} callback")
    assert "Traceback" in world.log.errors() and "in raising" in world.log.errors()
    if row.name in LAST:
        return
    row.raise_event(world)
    world.rec.wait(row.name, before + 2)
    world.log.wait("ERROR", f"Failed to call {row.name} callback", before + 2)


@all_rows
def test_model_that_cannot_be_built_loses_the_event(world, row, monkeypatch):
    before = set_up(world, row, world.rec(row.name))
    with monkeypatch.context() as patch:
        patch.setattr(getattr(world.models, row.model), "__init__", fail)
        if row.name == "on_audio_data":
            before = len(world.rec.named(row.name)) + 1  # one may be under way
        row.raise_event(world)
        until(lambda: world.log.of("TavrinVideoClient", "ERROR"), "word of the loss")
    if row.name != "on_audio_data":
        assert len(world.rec.named(row.name)) == before
    assert "not today" not in world.log.errors()
    world.settle()


def test_nobody_listening_builds_nothing(world, monkeypatch):
    world.ready()
    world.subscribe("s", settings=world.models.SubscriberSettings(subscribe_to_captions=True))
    world.publish(has_video=False)
    audio = world.models.AudioData(48000, 2, 480, LOUD)
    for name in ("Subscriber", "Publisher", "AudioData", "MediaBufferStats", "CaptionsData"):
        monkeypatch.setattr(getattr(world.models, name), "__init__", fail)
    for row in ROWS:
        if row.name == "on_media_buffer_drained":
            world.client.add_audio(audio)
        elif row.name not in (*LAST[:3], "on_ready_for_audio"):
            row.raise_event(world)
    assert world.lib.wait_idle(20_000) == 1
    assert not world.log.of("TavrinVideoClient", "ERROR")


def test_unheard_media_does_not_wait_for_the_interpreter(world):
    """The caller holds the interpreter lock while a native thread delivers: it must not need it."""
    import ctypes

    import scripted

    fire = ctypes.PyDLL(str(scripted.SUPPORT / "libsarnet.so")).scripted_fire_audio  # keeps the lock
    fire.restype, fire.argtypes = ctypes.c_double, [ctypes.c_char_p, ctypes.c_long]
    world.connect(level="warn")
    world.subscribe("s", on_caption_text_cb=world.rec("captions only"))
    assert fire(b"s", 1000) > 0


@pytest.mark.parametrize(
    ("text", "expected"),
    [(b"caf\xe9 \xff!", "caf\ufffd \ufffd!"), (b"cut \xe2\x82", "cut \ufffd"), (b"", ""), (None, "")],
)
def test_error_texts_of_any_kind(world, text, expected):
    world.connect(on_error_cb=world.rec("session"))
    world.subscribe("s", on_error_cb=world.rec("subscriber"))
    world.publish(on_error_cb=world.rec("publisher"))
    world.lib.publisher_error(2_147_483_647, text)
    world.lib.subscriber_error("s", 0, text)
    world.lib.session_error(-2_147_483_648, text)
    got = [world.rec.wait(who).args[1:] for who in ("publisher", "subscriber", "session")]
    assert got == [(expected, 2_147_483_647), (expected, 0), (expected, -2_147_483_648)]


def test_library_that_gives_nothing(world):
    """Null handles, null texts, null records: told or dropped, never a fault."""
    everything = world.models.SubscriberSettings(subscribe_to_captions=True)
    events = ("connection_created", "connection_dropped", "stream_received", "stream_dropped")
    world.connect(**{f"on_{name}_cb": world.rec(f"on_{name}_cb") for name in events})
    world.subscribe(
        "s", settings=everything, on_audio_data_cb=world.rec("audio"), on_render_frame_cb=world.rec("frame"),
        on_caption_text_cb=world.rec("caption"),
    )  # fmt: skip
    world.publish()
    for what in events:
        getattr(world.lib, what + "_null")()
    world.lib.publisher_stream_created_null()
    for flag, is_final in [(1, True), (0, False), (2, False), (-1, False)]:
        world.rec.events.clear()
        world.lib.caption("s", None, flag)
        assert world.rec.wait("caption").args[1] == world.models.CaptionsData("", is_final)
    world.lib.audio_null("s")
    world.lib.audio("s", None, 2, 480, 48000)
    world.lib.frame_null("s")
    world.settle()
    assert not world.rec.named("audio") and not world.rec.named("frame")
    world.rec.events.clear()
    world.lib.connection_created(b"\xff\xfe", b"data", 0)  # not UTF-8: loses the event only
    world.lib.connection_created(None, None, 0)
    created = world.rec.wait("on_connection_created_cb").args[1]
    assert (created.id, created.data, created.creation_time) == ("", "", datetime.fromtimestamp(0))
    world.lib.stream_received("t", None, None, 0)
    assert world.rec.wait("on_stream_received_cb").args[1].connection.id == ""
    assert ("ERROR", "Failed to create Session or Connection objects for callback") in world.log.texts()


def test_threads_of_the_events(world):
    everything = world.models.SubscriberSettings(subscribe_to_captions=True)
    world.ready(on_stream_received_cb=world.rec("worker"), on_audio_data_cb=world.rec("renderer"))
    world.subscribe(
        "s", settings=everything, on_connected_cb=world.rec("worker"), on_audio_data_cb=world.rec("audio"),
        on_render_frame_cb=world.rec("frame"), on_caption_text_cb=world.rec("caption"),
    )  # fmt: skip
    world.publish(on_stream_created_cb=world.rec("worker"))
    world.lib.send_audio("s", LOUD), world.lib.send_frame("s", 4, 2), world.lib.caption("s", "x", 1)
    names = ("renderer", "audio", "frame", "caption")
    media = {name: world.rec.wait(name).thread for name in names}
    world.settle()
    worker = {event.thread for event in world.rec.named("worker")}
    assert len(world.rec.named("worker")) == 3 and len(worker) == 1
    assert len({*media.values(), *worker, threading.get_native_id()}) == 6


def test_events_come_in_the_order_of_the_library(world):
    order = []
    world.connect(
        on_stream_received_cb=lambda s, stream: order.append("+" + stream.id),
        on_stream_dropped_cb=lambda s, stream: order.append("-" + stream.id),
        on_connection_created_cb=lambda s, connection: order.append("c" + connection.id),
    )
    expected = []
    for number in range(200):
        world.lib.connection_created(str(number), "", 0)
        world.lib.stream_received(str(number), "c", "", 0)
        world.lib.stream_dropped(str(number), "c", "", 0)
        expected += [f"c{number}", f"+{number}", f"-{number}"]
    world.settle()
    assert order == expected
