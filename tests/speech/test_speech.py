"""Turns of speech, and speech that is said: against scripted participants, on the embedded engine."""

from __future__ import annotations

import array
import asyncio
import contextlib
import math
import time

import numpy as np
import pytest

from tavrin_media_relay import aio
from tavrin_media_relay.testing import babble, tone

RATE = 16000


def words(seconds: float) -> "array.array[int]":
    """Stands in for a synthesiser's speech."""
    return array.array("h", (int(9000 * math.sin(i * 0.2)) for i in range(int(seconds * RATE))))


async def whoever(session, count: int = 1):
    """Subscribers to the first streams."""
    found = []
    async for event in session.events():
        if isinstance(event, aio.StreamReceived):
            found.append(await session.subscribe(event.stream, video=False))
            if len(found) == count:
                return found


def test_turns_begin_and_end_as_their_speakers_do(rehearsal):
    said = {}
    for number, name in enumerate(("ada", "bob")):
        who = rehearsal.participant(name)
        said[name] = [
            who.says(babble(length, seed=3), at=at + 0.35 * number) for at, length in ((1, 0.9), (3, 1.2))
        ]
        who.says(tone(0.01, 3000, 0.9), at=2.6 + 0.1 * number)  # a click is no speech

    async def agent(session):
        begun = time.monotonic()
        heard = {}

        async def listen(name, turns):
            heard[name] = []
            async for turn in turns:
                heard[name].append((turn, time.monotonic() - begun))

        subscribers = await whoever(session, 2)
        tasks = [
            asyncio.create_task(listen(each.stream.connection.id, each.turns(pause=0.4)))
            for each in subscribers
        ]
        tasks.append(asyncio.create_task(listen("everybody", session.turns(pause=0.4, sample_rate=8000))))
        await asyncio.sleep(3.2)
        time.sleep(1.0)  # a loop that is blocked loses nothing
        await asyncio.sleep(1.6)
        for task in tasks:
            task.cancel()
        return begun, heard

    performance = rehearsal.run(agent)
    begun, heard = performance.result
    offset = begun - performance.joined_at
    for name, utterances in said.items():
        events = heard[name]
        assert [type(turn).__name__ for turn, _ in events] == ["SpeechStarted", "SpeechEnded"] * 2, name
        first = utterances[0]
        # Found 60 ms after it began; the sound itself is 40 to 60 ms on its way.
        assert events[0][1] + offset - first.begin < 0.2
        assert 0.35 < events[1][1] + offset - first.end < 0.75
        for number, utterance in enumerate(utterances):
            turn = events[2 * number + 1][0]
            assert turn.sample_rate == 16000 and turn.duration == pytest.approx(utterance.seconds, abs=0.25)
            loud = np.flatnonzero(np.abs(np.frombuffer(turn.samples, np.int16)) > 1000) / 16000
            # What was before it; the stream itself begins with its first sound.
            assert loud[0] == pytest.approx(0.2 if number else 0.0, abs=0.12)
            assert loud[-1] - loud[0] == pytest.approx(utterance.seconds, abs=0.12)
    # Two who speak at a time are one turn of the mix.
    kinds = [type(turn).__name__ for turn, _ in heard["everybody"]]
    assert kinds == ["SpeechStarted", "SpeechEnded"] * 2 and heard["everybody"][1][0].sample_rate == 8000


def test_noise_and_music_alone_are_no_turns(rehearsal):
    who = rehearsal.participant("fan")
    rng = np.random.default_rng(7)
    who.says((rng.normal(0, 300, 48000 * 3)).astype(np.int16), at=0.3)

    async def agent(session):
        (subscriber,) = await whoever(session)
        turns = subscriber.turns()
        with contextlib.suppress(TimeoutError):
            return await asyncio.wait_for(anext(turns), 3)

    assert rehearsal.run(agent).result is None


def test_who_is_interrupted_falls_silent_and_knows_what_was_heard(rehearsal):
    guest = rehearsal.participant("guest")
    words_of_guest = guest.says(babble(1.0), at=1.5)

    async def agent(session):
        async with session.publish("agent", video=False) as publisher:
            (subscriber,) = await whoever(session)

            async def synthesiser():
                for _ in range(100):
                    yield words(0.1)

            said = await publisher.audio.say(synthesiser(), sample_rate=RATE, interrupt_on=subscriber)
            await asyncio.sleep(0.5)
            again = await publisher.audio.say([words(0.3).tobytes()], sample_rate=RATE)
            return said, again, said.interrupted_by is subscriber

    performance = rehearsal.run(agent)
    said, again, by_guest = performance.result
    first, second = performance.sound.utterances()
    assert said.interrupted and by_guest and not said.gaps
    assert first.end - words_of_guest.begin < 0.3  # of which the detector and the way of the sound are 0.15
    assert said.played == pytest.approx(first.seconds, abs=0.08) and said.played + said.dropped <= 10.01
    assert again.complete and second.seconds == pytest.approx(0.3, abs=0.05)


def test_an_interruption_by_hand_is_silence_at_once(rehearsal):
    async def agent(session):
        async with session.publish("agent", video=False) as publisher:
            saying = publisher.audio.say([words(20)], sample_rate=RATE)
            await asyncio.sleep(1.0)
            at = time.monotonic()
            publisher.audio.interrupt()
            said = await saying
            await asyncio.sleep(0.5)
            return at, said

    performance = rehearsal.run(agent)
    at, said = performance.result
    assert performance.sound.utterances()[-1].end - (at - performance.joined_at) < 0.12
    assert said.interrupted and said.played == pytest.approx(performance.sound.utterances()[-1].end, abs=0.2)


async def _slow():
    for _ in range(3):
        yield words(0.2)
        await asyncio.sleep(0.5)


async def _failing():
    yield words(0.3)
    raise OSError("no voice left")


async def _endless():
    while True:
        yield words(0.1)


SYNTHESISERS = {
    # What it yields: seconds that were heard, gaps, what is raised.
    "slow": (_slow, 0.6, 3, None),
    "fails": (_failing, 0.3, 0, OSError),
    "nothing": (lambda: [], 0.0, 0, None),
    "floats": (lambda: [np.sin(np.arange(8000, dtype=np.float32) * 0.2)], 0.5, 0, None),
    "stereo": (lambda: [np.zeros((8000, 2), np.int16) + 5000], 0.5, 0, None),
}


@pytest.mark.parametrize("kind", SYNTHESISERS)
def test_what_synthesisers_do(rehearsal, kind):
    pieces, heard, gaps, error = SYNTHESISERS[kind]

    async def agent(session):
        async with session.publish("agent", video=False) as publisher:
            saying = publisher.audio.say(pieces(), sample_rate=RATE)
            with pytest.raises(error) if error else contextlib.nullcontext():
                await saying
            return saying.said

    performance = rehearsal.run(agent)
    said = performance.result
    assert said.played == pytest.approx(heard, abs=0.06) and said.gaps == gaps
    assert (said.silence > 0.2) == (gaps > 0) and not said.interrupted


@pytest.mark.parametrize("leave", ["publisher", "session"])
def test_leaving_in_the_midst_of_speech_ends_it(rehearsal, leave):
    async def agent(session):
        publisher = await session.publish("agent", video=False)
        saying = publisher.audio.say(_endless(), sample_rate=RATE)
        await asyncio.sleep(0.4)
        began = time.monotonic()
        await (publisher if leave == "publisher" else session).close()
        with pytest.raises(aio.ClosedError):
            await saying
        return time.monotonic() - began

    assert rehearsal.run(agent).result < 0.5  # of which leaving itself is most


WRONG = [
    (lambda audio: audio.say([b"\0" * 4], sample_rate=7999), ValueError, "sample_rate"),
    (lambda audio: audio.say([np.zeros((5, 3), np.int16)], sample_rate=RATE), ValueError, "channels|shape"),
    (lambda audio: audio.say(5, sample_rate=RATE), TypeError, "pieces"),
    (lambda audio: audio.say([b""], sample_rate=RATE, interrupt_on=5), TypeError, "interrupt_on"),
    (lambda audio: audio.play("/nowhere.wav"), FileNotFoundError, "nowhere"),
]


def test_wrong_arguments_are_named_and_nothing_is_said(rehearsal):
    async def agent(session):
        async with session.publish("agent", video=False) as publisher:
            for call, error, text in WRONG:
                with pytest.raises(error, match=text):
                    await call(publisher.audio)
            for wrong in ({"pause": 0.0}, {"sample_rate": 7000}):
                with pytest.raises(ValueError, match=next(iter(wrong))):
                    session.turns(**wrong)
            assert (await publisher.audio.say([words(0.2)], sample_rate=RATE)).complete

    performance = rehearsal.run(agent)
    assert [each.seconds for each in performance.sound.utterances()] == [pytest.approx(0.2, abs=0.05)]
