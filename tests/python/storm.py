"""A storm on the scripted library: several threads do anything in any order, the library says anything, and
the program ends somehow in the midst of it. `python storm.py SEED`; the seed chooses what is done, the
machine when.

Ends with code 0 unless it crashes, hangs (whoever starts it sets the limit), or the library was mistreated.
"""

from __future__ import annotations

import gc
import random
import sys
import threading
import time
from typing import Any

from _tavrin_video import TavrinVideoClient
from scripted import lib
from tavrin_media_relay import models

chance = random.Random(int(sys.argv[1]))
# How often a callable does what callables should not: 0 is never.
CALLS_BACK = chance.choice([0, 0.01, 0.1])
RAISES = chance.choice([0, 0.02])
SLEEPS = chance.choice([0, 0.02])
KEEPS = 0.02

client = TavrinVideoClient()
size = models.VideoResolution(64, 48)
settings = models.SessionSettings(
    av=models.SessionAVSettings(video_publisher=models.SessionVideoPublisherSettings(size, 100)),
    logging=models.LoggingSettings("off"),
)
streams = [models.Stream(str(number), models.Connection()) for number in range(4)]
sounds = [models.AudioData(48000, 2, frames, bytes(frames * 4)) for frames in (480, 48000)]
picture = models.VideoFrame(size, "YUV420P", bytes(64 * 48 * 3 // 2))
everything = models.SubscriberSettings(subscribe_to_captions=True)

inside = threading.local()
kept: list[tuple] = []


def callable_of(own: random.Random):
    def call(*arguments):
        if own.random() < KEEPS:
            kept.append(arguments)
            del kept[:-50]
        if own.random() < SLEEPS:
            time.sleep(own.random() / 100)
        if own.random() < CALLS_BACK and not getattr(inside, "a_callable", False):
            inside.a_callable = True
            try:
                do(PROGRAM, own)
            finally:
                inside.a_callable = False
        if own.random() < RAISES:
            raise own.choice([ValueError, SystemExit, KeyboardInterrupt])("a callable's own")

    return call


def some_callables(own: random.Random, names: str) -> dict[str, Any]:
    return {f"on_{name}_cb": callable_of(own) for name in names.split() if own.random() < 0.7}


SESSION = (
    "connected disconnected stream_received stream_dropped connection_created connection_dropped audio_data "
    "ready_for_audio media_buffer_drained"
)


def connect(own: random.Random) -> None:
    callables = {"on_error_cb": callable_of(own), **some_callables(own, SESSION)}
    if client.connect("key", "session", "token", session_settings=settings, **callables):
        for stream in streams:
            lib.stream_received(stream.id, "c", "", 0)


def subscribe(own: random.Random) -> None:
    names = "error connected disconnected audio_data render_frame caption_text"
    client.subscribe(own.choice(streams), settings=everything, **some_callables(own, names))


def publish(own: random.Random) -> None:
    wanted = models.PublisherSettings("p", has_audio=own.random() < 0.9)
    client.publish(wanted, **some_callables(own, "error stream_created stream_destroyed"))


# (how often, what)
PROGRAM = [
    (6, subscribe),
    (5, lambda own: client.unsubscribe(own.choice(streams))),
    (3, publish),
    (2, lambda own: client.unpublish()),
    (8, lambda own: client.add_audio(own.choice(sounds))),
    (8, lambda own: client.add_video(picture)),
    (2, lambda own: client.clear_media_buffers()),
    (3, lambda own: client.get_media_buffer_stats()),
    (3, lambda own: client.get_connection()),
    (3, lambda own: (client.is_connected(), client.is_publishing())),
    (0.4, lambda own: client.disconnect()),
    (1.5, connect),
    (1, lambda own: TavrinVideoClient()),
    (0.2, lambda own: gc.collect()),
]
ANSWERED = ["subscriber_connected", "stream_created"]
LIBRARY = [
    (5, lambda own: lib.stream_received(own.choice("0123"), "c", "", 0)),
    (3, lambda own: lib.stream_dropped(own.choice("0123"), "c", "", 0)),
    (4, lambda own: (lib.connection_created("c", "d", 0), lib.connection_dropped("c", "d", 0))),
    (1, lambda own: lib.publisher_error(1, "x")),
    (2, lambda own: (lib.publisher_stream_created("x"), lib.publisher_stream_destroyed("x"))),
    (3, lambda own: lib.subscriber_connected(own.choice("0123"))),
    (1, lambda own: lib.subscriber_disconnected(own.choice("0123"))),
    (1, lambda own: lib.subscriber_error(own.choice("0123"), 3, "x")),
    (5, lambda own: lib.caption(own.choice("0123"), "text", 1)),
    (0.1, lambda own: lib.session_error(2000, "x")),
    (0.1, lambda own: lib.session_disconnected()),
    (0.5, lambda own: lib.session_connected()),
    (0.5, lambda own: lib.device_start()),
    (0.3, lambda own: lib.answer(own.choice(ANSWERED), own.choice(["normal", "twice"]))),
]


def do(table, own: random.Random) -> None:
    own.choices([what for _, what in table], [often for often, _ in table])[0](own)


over = threading.Event()


def keep_doing(table, seed: float, pause: float) -> None:
    own = random.Random(seed)
    while not over.is_set():
        do(table, own)
        time.sleep(own.random() * pause)


lib.media_on_delivery_threads(1)
lib.delay("audio_device", 1)
connect(chance)
publish(chance)
lib.storm_start("0,1,2,3", 200, 200, 64, 48, 3)
end = chance.choice(["by its end", "by sys.exit", "after disconnect", "in order"])
daemons = end != "in order" and chance.random() < 0.6
threads = [
    threading.Thread(target=keep_doing, args=(table, chance.random(), pause), daemon=daemons)
    for table, pause in [(LIBRARY, 0.002)]
    + [(PROGRAM, chance.choice([0, 0.001, 0.005]))] * chance.choice([1, 2, 4])
]
for thread in threads:
    thread.start()
time.sleep(chance.random())
if not daemons:
    over.set()
    for thread in threads:
        thread.join()
if end == "in order":
    lib.storm_stop()
    client.disconnect()
    assert lib.wait_idle(15000)
    assert lib.faults() == 0, lib.fault_texts()
    assert [lib.live(kind) for kind in ("session", "publisher", "subscriber")] == [0, 0, 0]
if end == "after disconnect":
    client.disconnect()
if end == "by sys.exit":
    sys.exit()
