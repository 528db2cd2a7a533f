"""Programs on the asyncio face, each run by test_aio.py in a process of its own: `aio_cases.py NAME`."""

from __future__ import annotations

import array
import asyncio
import ctypes
import gc
import json
import math
import os
import sys
import threading
import time
import wave
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from tavrin_media_relay import (
    SessionAudioSettings,
    SessionAVSettings,
    SessionSettings,
    SessionVideoPublisherSettings,
    VideoResolution,
    aio,
)

PATIENCE = 15
TALKER: dict[str, Any] = {
    "id": "talker",
    "audio": {"tone_hz": 440},
    "video": {"testcard": True, "width": 320, "height": 240},
}
FOLDER = Path.cwd()  # the test's own


def scenario(**keys: object) -> None:
    """What the next sessions play; a recording goes to FOLDER."""
    path = FOLDER / f"scenario-{time.monotonic_ns()}.json"
    path.write_text(json.dumps(keys))
    os.environ["API_HOSTNAME"] = f"embedded:{path}"


def connect(token: str = "t", **keys: Any):
    return aio.connect("app-id", "a-session", token, **keys)


def recorded(kind: str) -> Path:
    (found,) = (FOLDER / "recording").rglob(f"*.{kind}")
    return found


def heard() -> np.ndarray:
    """The left channel of what we published."""
    with wave.open(str(recorded("wav"))) as file:
        samples = np.frombuffer(file.readframes(file.getnframes()), "<i2").reshape(-1, file.getnchannels())
        assert file.getframerate() == 48000
    return samples[:, 0].astype(float)


def tone(hertz: float, seconds: float, rate: int) -> array.array:
    count = int(seconds * rate)
    return array.array("h", (int(10000 * math.sin(2 * math.pi * hertz * i / rate)) for i in range(count)))


async def pulse(gaps: list[float]) -> None:
    """Measures for how long the loop was kept from running."""
    while True:
        before = time.monotonic()
        await asyncio.sleep(0.01)
        gaps.append(time.monotonic() - before)


async def joins_and_leaves() -> None:
    scenario(participants=[{"id": "silent", "data": "here"}, {**TALKER, "join_at_ms": 300}])
    async with connect() as session:
        events = session.events()
        kinds = [type(await anext(events)).__name__ for _ in range(3)]
        assert kinds == ["ConnectionCreated", "ConnectionCreated", "StreamReceived"], kinds
        assert [each.data for each in session.connections] == ["here", ""] and session.connection.id
        assert [stream.id for stream in session.streams] == [(await session.wait_for_stream()).id]
        late = session.events()  # begins with what is there
        assert [type(await anext(late)).__name__ for _ in range(3)] == kinds
        with pytest.raises(aio.SessionError) as busy:
            await connect()
        assert busy.value.code == aio.SessionError.BUSY
        waiting = asyncio.create_task(anext(events))
        await asyncio.sleep(0)
        await asyncio.gather(session.close(), session.close())
        with pytest.raises(StopAsyncIteration):
            await waiting
    await session.close()
    await session.ended()
    for use in (lambda: session.publish("x"), lambda: session.subscribe(late), session.audio_frames):
        with pytest.raises(aio.ClosedError, match="has been left"):
            use()


async def refusals() -> None:
    scenario(token="right")
    with pytest.raises(aio.SessionError) as refused:
        await connect("wrong")
    assert refused.value.code == 1004 and refused.value.message
    scenario(refuse={"code": 1030, "text": "Not today"})
    with pytest.raises(aio.SessionError, match=r"Not today.*\(code 1030\)"):
        await connect()
    scenario(join_delay_ms=60000)
    with pytest.raises(aio.SessionError) as late:
        await connect(timeout=0.1)
    assert late.value.code == aio.SessionError.TIMED_OUT
    scenario()
    with pytest.raises(ValueError, match="body"):
        async with connect():
            raise ValueError("body")
    async with connect():
        pass


async def cancelled_attempts() -> None:
    gaps: list[float] = []
    heart = asyncio.create_task(pulse(gaps))
    for _ in range(2):
        scenario(join_delay_ms=60000)
        with pytest.raises(asyncio.TimeoutError):
            await asyncio.wait_for(connect().__aenter__(), 0.1)
        task = asyncio.create_task(connect().__aenter__())
        await asyncio.sleep(0.05)
        task.cancel(), await asyncio.sleep(0), task.cancel()
        with pytest.raises(asyncio.CancelledError):
            await task
        scenario(participants=[TALKER])
        async with connect() as session:
            stream = await session.wait_for_stream()
            opening = asyncio.create_task(session.subscribe(stream).__aenter__())
            publishing = asyncio.create_task(session.publish("me").__aenter__())
            await asyncio.sleep(0), opening.cancel(), publishing.cancel()
            await asyncio.wait([opening, publishing])
            async with session.subscribe(stream), session.publish("me"):  # nothing was left behind
                pass
    heart.cancel()
    assert max(gaps) < 1, max(gaps)


async def audio_out() -> None:
    scenario(record=str(FOLDER / "recording"))
    async with connect() as session, session.publish("me", video=False, audio_queue=0.2) as publisher:
        audio = publisher.audio
        assert await audio.write(tone(1000, 0.25, 8000), sample_rate=8000, channels=1)
        at_44k = np.repeat(np.frombuffer(tone(1000, 0.25, 44100), "i2")[:, None], 2, axis=1)
        for part in np.array_split(at_44k, 37):
            assert await audio.write(part, sample_rate=44100)
        await asyncio.wait_for(audio.drained(), PATIENCE)
        await asyncio.wait_for(audio.drained(), 1)  # it is dry already
        await audio.write(bytes(4))  # less than a period
        await asyncio.wait_for(audio.drained(), PATIENCE)
        begin = time.monotonic()
        assert await audio.write(tone(500, 2, 48000).tobytes(), channels=1)
        assert time.monotonic() - begin > 1.5, "a fast writer was not held back"
        queue = session.statistics().audio_written_ms
        assert queue > 2490, queue
    sound = heard()
    loud = np.flatnonzero(np.abs(sound) > 1000)
    first = sound[loud[0] : loud[0] + 24000]  # the end of it lies in the silence after it
    spectrum = np.abs(np.fft.rfft(first))
    assert abs(np.argmax(spectrum) * 2 - 1000) <= 4, np.argmax(spectrum)
    assert abs(np.count_nonzero(np.abs(first) > 200) / 24000 - 0.98) < 0.04


async def barge_in() -> None:
    scenario()
    async with connect() as session, session.publish("me") as publisher:
        audio = publisher.audio
        speech = asyncio.create_task(audio.write(bytes(48000 * 4 * 20)))
        second = asyncio.create_task(audio.write(bytes(48000 * 4)))
        await asyncio.sleep(0.5)
        begin = time.monotonic()
        dropped = await audio.clear()
        assert not await speech and not await second
        assert time.monotonic() - begin < 1
        assert 18000 < dropped < 20990, dropped
        await asyncio.wait_for(audio.drained(), PATIENCE)
        assert await audio.clear() == 0
        speech = asyncio.create_task(audio.write(bytes(48000 * 4 * 20)))
        await asyncio.sleep(0.1)
        speech.cancel()
        assert 0 < await audio.clear() <= 600
        assert await audio.write(bytes(8))
        await asyncio.wait_for(audio.drained(), PATIENCE)
        speech = asyncio.create_task(audio.write(bytes(48000 * 4 * 20)))
        waiting = asyncio.create_task(publisher.video.drained())
        await asyncio.sleep(0.1)
        await publisher.close()
        with pytest.raises(aio.ClosedError, match="has been closed"):
            await speech
        await waiting
        with pytest.raises(aio.ClosedError):
            await audio.write(b"")
        async with session.publish("again", audio=False) as publisher:
            with pytest.raises(RuntimeError, match="published without audio"):
                publisher.audio


async def video_out() -> None:
    scenario(record=str(FOLDER / "recording"))
    form = SessionVideoPublisherSettings(VideoResolution(64, 48), 20, "RGB24")
    settings = SessionSettings(av=SessionAVSettings(SessionAudioSettings(16000, 1), None, form))
    red = np.zeros((48, 64, 3), np.uint8)
    red[:, :, 0] = 255
    rgba = np.dstack([red, np.full((48, 64), 255, np.uint8)])
    argb = np.ascontiguousarray(np.roll(rgba, 1, axis=2))
    async with connect(settings=settings) as session, session.publish("me") as publisher:
        video, begin = publisher.video, time.monotonic()
        for _ in range(5):
            for picture, layout in ((red, None), (red.tobytes(), None), (rgba, None), (argb, "ARGB32")):
                assert await video.write(picture, layout=layout)
        assert time.monotonic() - begin > 0.5, "a fast writer was not held back"
        await asyncio.wait_for(video.drained(), PATIENCE)
    data = recorded("y4m").read_bytes()
    pictures = data.split(b"FRAME")[1:]
    shown = [each[each.index(b"\n") + 1 :] for each in pictures]
    reds = [each for each in shown if abs(each[0] - 81) < 4]
    assert len(reds) >= 20, len(reds)
    # U and V of red; all ways of writing it look the same.
    assert all(abs(each[64 * 48] - 90) < 5 and abs(each[-1] - 240) < 5 for each in reds)


async def media_in() -> None:
    spoken = [{"at_ms": 300, "text": "Hel", "final": False}, {"at_ms": 350, "text": "Hello"}]
    scenario(
        participants=[{**TALKER, "captions": spoken}],
        events=[{"at_ms": 2500, "kind": "drop_stream", "participant": "talker"}],
    )
    async with connect() as session:
        stream, events = await session.wait_for_stream(), session.events()
        async with session.subscribe(stream, captions=True) as subscriber:
            slow, latest = subscriber.audio_frames(capacity=7), subscriber.video_frames(policy="latest")
            speech = subscriber.audio_frames(sample_rate=16000, channels=1, capacity=1000)
            mix, captions, abandoned = (
                session.audio_frames(),
                subscriber.captions(),
                subscriber.video_frames(),
            )
            with pytest.raises(aio.SubscriberError) as twice:
                await session.subscribe(stream)
            assert twice.value.code == aio.SubscriberError.BUSY
            picture = await anext(latest)
            y, u, v = picture.numpy()
            assert (y.shape, u.shape, v.shape) == ((240, 320), (120, 160), (120, 160))
            rgb = np.asarray(picture.to_rgb())
            assert rgb.shape == (240, 320, 3) and rgb.std() > 20
            kept = picture.pixels.tobytes()
            frame = await anext(mix)
            assert frame.numpy().shape == (480, 2)
            assert np.shares_memory(frame.numpy(), np.asarray(frame.samples))
            nobody = asyncio.create_task(anext(captions))
            await asyncio.sleep(0)
            with pytest.raises(RuntimeError, match="another task"):
                await anext(captions)
            first, second = await nobody, await anext(captions)
            assert (first.text, first.is_final, second.text, second.is_final) == ("Hel", False, "Hello", True)
            del abandoned
            gc.collect()
            sound = [each async for each in speech]  # ends with the stream
            assert sum(each.frame_count for each in sound) > 16000
            waves = np.concatenate([each.numpy()[:, 0] for each in sound])[3200:16000].astype(float)
            assert abs(np.argmax(np.abs(np.fft.rfft(waves))) * 16000 / len(waves) - 440) < 3
            assert slow.waiting == 7 and slow.dropped > 100 and slow.delivered == 0
            assert len([each async for each in slow]) == 7
            assert latest.capacity == 1 and latest.dropped > 20
            assert len([each async for each in latest]) == 1
            assert picture.pixels.tobytes() == kept, "a frame that was kept has changed"
            assert [each async for each in subscriber.video_frames()] == [] and not subscriber.active
        with pytest.raises(aio.ClosedError, match="has been closed"):
            subscriber.audio_frames()
        async for event in events:
            if isinstance(event, aio.StreamDropped):
                break
        assert session.streams == ()
        with pytest.raises(aio.SubscriberError):
            await session.subscribe(stream)
        await mix.aclose()
        with pytest.raises(StopAsyncIteration):
            await anext(mix)


async def failures() -> None:
    scenario(
        participants=[TALKER],
        events=[
            {"at_ms": 600, "kind": "subscriber_error", "code": 1600, "text": "No more"},
            {"at_ms": 700, "kind": "publisher_error", "code": 1500, "text": "Mute"},
            {"at_ms": 1500, "kind": "error", "code": 2001, "text": "Over"},
        ],
    )
    async with connect() as session:
        events = session.events()
        stream = await session.wait_for_stream()
        subscriber = await session.subscribe(stream)
        publisher = await session.publish("me")
        with pytest.raises(aio.SubscriberError, match="No more"):
            async for _ in subscriber.audio_frames(capacity=1000):
                pass
        with pytest.raises(aio.ClosedError, match="Mute"):
            while True:
                await publisher.audio.write(bytes(1920), channels=1)
        await subscriber.close()
        async with session.publish("again", video=False) as publisher, session.subscribe(
            stream
        ) as subscriber:
            with pytest.raises(aio.ClosedError, match="failed: Over|ended by the session"):
                while True:
                    await publisher.audio.write(bytes(1920), channels=1)
            async for _ in subscriber.video_frames():
                pass
            told = [each async for each in events]
            assert told[-1] == aio.SessionFailed(told[-1].error) and told[-1].error.code == 2001
            kinds = {type(each) for each in told}
            assert {aio.SubscriberFailed, aio.PublisherFailed, aio.SubscriberConnected} <= kinds
        with pytest.raises(aio.SessionError, match="Over"):
            await session.ended()
    scenario(events=[{"at_ms": 100, "kind": "disconnect"}])
    async with connect() as session:
        with pytest.raises(aio.ClosedError, match="ended by the server"):
            await session.wait_for_stream()
        await asyncio.wait_for(session.ended(), PATIENCE)
        assert [each async for each in session.events()] == [aio.SessionDisconnected()]
    async with connect():
        pass


async def rejoins() -> None:
    lost = {"at_ms": 900, "kind": "error", "code": 1022, "text": "The server is gone"}
    scenario(participants=[TALKER], events=[lost], record="recording")
    kinds: list[str] = []

    async def collect(session: aio.Session) -> None:
        async for event in session.events():
            kinds.append(type(event).__name__)
            if isinstance(event, aio.StreamReceived):
                await session.subscribe(event.stream, video=False)

    async with asyncio.timeout(PATIENCE), connect(rejoin=20) as session:
        collecting = asyncio.create_task(collect(session))
        mix = session.audio_frames()
        async with session.publish("me", video=False) as publisher:
            saying = asyncio.create_task(publisher.audio.write(tone(300, 4.0, 48000), channels=1))
            while kinds.count("SessionRejoined") < 2:
                await anext(mix)  # goes on, whatever happens
            assert publisher.active and not session.over
            assert await saying
            begun = kinds.index("SessionLost")
            assert kinds[begun - 2 : begun] == ["StreamDropped", "ConnectionDropped"], kinds
            assert kinds[begun:].count("StreamReceived") >= 1 and kinds.count("SubscriberConnected") >= 2
            while not session.subscribers:  # of the third visit
                await asyncio.sleep(0.01)
            assert len(session.subscribers) == 1

            # Nothing answers any more: it fails, with what it was lost of, once its time is over.
            os.environ["API_HOSTNAME"] = "embedded:/nothing.json"
            session._rejoin_seconds = 0.5
            with pytest.raises(aio.SessionError, match="The server is gone"):
                await session.ended()
            with pytest.raises(aio.ClosedError):
                await publisher.audio.write(bytes(9600))
        await collecting
        assert kinds[-2:] == ["SessionLost", "SessionFailed"], kinds

    scenario(participants=[TALKER], events=[lost])
    async with asyncio.timeout(PATIENCE), connect(rejoin=True) as session:
        async for event in session.events():
            if isinstance(event, aio.SessionLost):
                os.environ["API_HOSTNAME"] = "embedded:/nothing.json"
                break  # and leaves while it is being joined again
    scenario()
    async with connect(rejoin=True):
        pass


async def misuse() -> None:
    scenario(participants=[TALKER])
    outcome: list[BaseException] = []

    def use(call) -> None:
        try:
            call()
        except RuntimeError as error:
            outcome.append(error)

    class Careless:
        def __init__(self, call) -> None:
            self.call = call

        def __del__(self) -> None:
            use(self.call)

    def in_thread(call) -> None:
        thread = threading.Thread(target=use, args=[call])
        thread.start()
        thread.join()

    async with connect() as session:
        in_thread(lambda: session.publish("elsewhere"))
        subscriber = await session.subscribe(await session.wait_for_stream())
        child = os.fork()
        if child == 0:
            use(session.statistics)
            os._exit(0 if "forked" in str(outcome[-1]) and "spawn" in str(outcome[-1]) else 1)
        assert os.waitpid(child, 0)[1] == 0
        listening = session.audio_frames()
    for call in (session.audio_frames, session.events, subscriber.video_frames, subscriber.captions):
        in_thread(call)
    Careless(session.audio_frames)
    assert "event loop" in str(outcome[0]) and len(outcome) == 6, outcome
    assert all(isinstance(each, aio.ClosedError) for each in outcome[1:])
    async for _ in listening:
        pass


async def bad_values() -> None:
    scenario(participants=[TALKER])
    samples = np.zeros((480, 2), np.int16)
    async with connect() as session:
        stream = await session.wait_for_stream()
        async with session.publish("me") as publisher, session.subscribe(stream) as subscriber:
            say, show = publisher.audio.write, publisher.video.write
            for error, words, call in [
                (TypeError, "16-bit integers.*'f'", lambda: say(np.zeros(9, np.float32))),
                (TypeError, "buffer of 16-bit.*\\[1, 2\\]", lambda: say([1, 2])),
                (ValueError, "contiguous.*strides", lambda: say(samples[::2])),
                (ValueError, r"\(frames, channels\).*\(2, 480\)", lambda: say(samples.T.copy())),
                (ValueError, "8000 to 48000, not 96000", lambda: say(b"", sample_rate=96000)),
                (ValueError, r"\(480, 640, 3\) for RGB.*460800 bytes", lambda: show(bytes(100))),
                (TypeError, "format 'd'", lambda: show(np.zeros((480, 640)))),
                (ValueError, "policy.*'oldest'", lambda: subscriber.audio_frames(policy="oldest")),
                (RuntimeError, "without captions", lambda: subscriber.captions()),
                (ValueError, "not both be False", lambda: session.publish("x", audio=False, video=False)),
                (ValueError, "timeout must be from 0", lambda: connect(timeout=-1)),
            ]:
                with pytest.raises(error, match=words):
                    result = call()
                    if asyncio.iscoroutine(result):
                        await result
            assert await say(b"") and await say(samples)


async def statistics() -> None:
    scenario(participants=[TALKER])
    async with connect() as session:
        stream = await session.wait_for_stream()
        async with session.subscribe(stream) as subscriber:
            async for _ in subscriber.audio_frames():
                told = session.statistics()
                figures = told.streams[stream.id].audio
                if figures.delivered >= 20:
                    break
    (subscribed,) = told.library["subscribers"].values()
    assert subscribed["stream"] == stream.id and figures.lost == 0
    taken = figures.delivered + figures.dropped + figures.waiting
    assert (
        abs(figures.escaped_views - taken) <= 2 <= figures.received - 18
    ), figures  # counted while more came
    assert told.escaped_views >= figures.escaped_views - 2, told
    assert session.statistics().mix.escaped_views == 0  # nobody listens to the mix
    assert 0 < figures.delay_p50 <= figures.delay_p99 <= figures.delay_max < PATIENCE
    assert 0 < figures.callable_p50 <= figures.callable_max
    library = session.statistics().library
    assert library["delivery"]["audio_blocks_delivered"] >= 20
    # To our callable and back is more than our callable alone.
    assert library["callbacks"]["audio_took_p50_us"] > figures.callable_p50 * 1e6 / 2
    assert library["callbacks"]["picture_took_max_us"]


async def ends_while_nobody_leaves() -> None:
    """The loop is closed with a session up: the next one takes the process's session over."""
    session = await connect()
    keep.append(session)
    if len(keep) == 1:
        asyncio.create_task(anext(session.audio_frames()))


async def interrupted() -> None:
    scenario(participants=[TALKER])
    try:
        async with connect() as session, session.publish("me") as publisher:
            stream = await session.wait_for_stream()
            async with session.subscribe(stream) as subscriber, asyncio.TaskGroup() as tasks:
                tasks.create_task(anext(session.events()))
                tasks.create_task(publisher.audio.write(bytes(48000 * 4 * 60)))
                async for _ in subscriber.audio_frames():
                    print("running", flush=True)
    finally:
        assert session.over
        print("left", flush=True)


async def lost_outcomes() -> None:
    """On the scripted library: the events that tell of success never come, and there are no statistics."""
    library = ctypes.CDLL("libsarnet.so")
    for event in (b"stream_created", b"subscriber_connected"):
        assert library.scripted_answer(event, b"none") == 1
    async with connect() as session:
        library.scripted_stream_received(b"s", b"c", b"", ctypes.c_int64(0))
        stream = await session.wait_for_stream()
        async with session.subscribe(stream) as subscriber, session.publish("me") as publisher:
            assert publisher.active and publisher.stream is None
            frames, events = subscriber.audio_frames(), session.events()
            library.scripted_subscriber_connected(b"s")
            while await anext(events) != aio.SubscriberConnected(stream):
                pass
            library.scripted_audio(b"s", bytes([1]) * 1920, ctypes.c_size_t(2), ctypes.c_size_t(480), 48000)
            assert (await anext(frames)).frame_count == 480
            assert session.statistics().library is None


CASES = [
    joins_and_leaves, refusals, cancelled_attempts, audio_out, barge_in, video_out, media_in, failures,
    rejoins, misuse, bad_values, statistics, ends_while_nobody_leaves,
]  # fmt: skip
keep: list[aio.Session] = []

if __name__ == "__main__":
    case = globals()[sys.argv[1]]
    asyncio.run(case())
    if case is ends_while_nobody_leaves:
        asyncio.run(case())
