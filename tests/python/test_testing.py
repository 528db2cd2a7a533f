"""The pytest plug-in for agents: its example, and a file of rehearsals, each by a pytest of its own."""

from __future__ import annotations

import os
import re
import subprocess
import sys

from programs import ROOT, environment

REHEARSALS = r"""
import asyncio, json, os, sys, time, wave
import numpy as np
import pytest
from tavrin_media_relay import SessionAVSettings, SessionSettings, SessionVideoPublisherSettings
from tavrin_media_relay import VideoResolution, aio
from tavrin_media_relay.testing import babble, performance, tone

SPOKEN = np.repeat(babble(0.3, seed=5), 2)  # as the session's stereo


async def idle(session):
    await session.ended()


async def first_stream(session):
    return await anext(each.stream async for each in session.events() if isinstance(each, aio.StreamReceived))


def test_what_was_sent_is_told_sample_by_sample(rehearsal):
    sizes = SessionVideoPublisherSettings(VideoResolution(64, 48), 30)
    picture, noted = np.arange(64 * 72, dtype=np.uint8).reshape(72, 64), []

    async def agent(session):
        async with session.publish("me") as publisher:
            await asyncio.sleep(0.4)
            noted.append(time.monotonic())
            await publisher.audio.write(SPOKEN)
            await publisher.audio.drained()
            noted.append(time.monotonic())
            for _ in range(3):
                await publisher.video.write(picture)
            await publisher.video.drained()
        return "done"

    performance = rehearsal.run(agent, settings=SessionSettings(av=SessionAVSettings(video_publisher=sizes)))
    assert performance.result == "done" and performance.publication.name == "me"
    sound, film = performance.sound, performance.film
    at = sound.position_of(SPOKEN)
    wrote, dry = (each - performance.joined_at for each in noted)
    (said,) = sound.utterances()
    # Not before it was written, and all of it, but for a period, before the queue was dry.
    assert 0.4 <= wrote < at < wrote + 0.3, (wrote, said)
    assert said.end < dry + 0.01 and dry < said.end + 0.3, (said, dry)
    assert said.begin == pytest.approx(at, abs=0.01) and said.seconds == pytest.approx(0.3, abs=0.1)
    assert sound.position_of(SPOKEN[::-1]) is None
    assert sound.loudest(at, at + 0.3) == pytest.approx(0.4, rel=0.1) and sound.loudest(0, at - 0.001) == 0
    same = [n for n, (y, u, v) in enumerate(film) if (y == picture[:48]).all()]
    assert (film.width, film.height, film.fps) == (64, 48, 30) and len(same) >= 3
    assert (film[same[0]][1].ravel() == picture.ravel()[64 * 48 : 64 * 60]).all()


def test_times_hold_where_the_recording_has_gaps(tmp_path):
    with wave.open(str(tmp_path / "a.wav"), "wb") as file:
        file.setparams((1, 2, 1000, 0, "NONE", ""))
        file.writeframes(np.repeat(np.array([0, 9000, 9000, 0, 9000], np.int16), 100).tobytes())
    (tmp_path / "v.y4m").write_bytes(b"YUV4MPEG2 W2 H2 F10:1\n" + b"FRAME\n123456" * 3)
    publication, marks = {"publication": 1}, [(0, 100.5), (200, 101.5), (210, 101.506), (300, 102)]
    lines = [("joined", 100, {}), ("publication", 100.25, {"name": "me", **publication})]
    lines += [("mark", at, {"audio_frame": frame, **publication}) for frame, at in marks]
    lines += [("mark", at, {"picture": picture, **publication}) for picture, at in ((0, 100.4), (2, 101))]
    lines += [("recorded", 103, {"audio": "a.wav", "video": "v.y4m", **publication}), ("closed", 103, {})]
    (tmp_path / "events.jsonl").write_text(
        "\n".join(json.dumps({"event": event, "at": at, "time": "", **fields}) for event, at, fields in lines)
    )
    found = performance.read(tmp_path)
    sound, film = found.sound, found.film
    assert [each.name for each in found.entries] == ["joined", "publication", "recorded", "closed"]
    said = [(round(each.begin, 3), round(each.end, 3)) for each in sound.utterances(pause=0.3)]
    assert said == [(0.6, 0.7), (1.5, 1.596), (2.1, 2.2)] and (sound.begin, sound.end) == (0.5, 2.2)
    assert len(sound.between(0.6, 1.5)) == 100 and len(sound.between(1.0, 1.6)) == 100
    assert [film.time_of(number) for number in range(3)] == pytest.approx([0.4, 0.5, 1.0])


def test_participants_do_what_the_script_says(rehearsal, tmp_path):
    alice = rehearsal.participant("alice", data="host", join_at=0.3, leave_at=1.4)
    first = alice.says(tone(0.2, 500), at=0.5)
    alice.says(np.repeat(tone(0.2, 1000)[::3][:, None], 2, axis=1), at=1.0, sample_rate=16000)
    alice.caption("Late", at=0.9)
    alice.caption("Early", at=0.4, final=False)
    assert (first.begin, first.end) == (0.5, pytest.approx(0.7))
    with pytest.raises(ValueError, match="joins at 0.3 s"):
        alice.says(tone(0.1), at=0.2)
    with pytest.raises(ValueError, match="unique"):
        rehearsal.participant("alice")
    heard, captions = [], []

    async def agent(session):
        stream = await first_stream(session)
        async with session.subscribe(stream, video=False, captions=True) as subscriber:
            async def read():
                captions.extend([(each.text, each.is_final) async for each in subscriber.captions()])
            reading = asyncio.create_task(read())
            heard.extend([each.samples.tobytes() async for each in subscriber.audio_frames()])
            await reading
        await idle(session)  # the stream's end comes before the news of it

    performance = rehearsal.run(agent, until=1.8)
    kinds = [type(event).__name__ for _, event in performance.told]
    of_alice = [each for each in kinds if not each.startswith("Subscriber")]
    assert of_alice == ["ConnectionCreated", "StreamReceived", "StreamDropped", "ConnectionDropped"]
    first_at, last_at = performance.told[0][0], performance.told[-1][0]
    assert first_at == pytest.approx(0.3, abs=0.2) and last_at == pytest.approx(1.4, abs=0.3)
    assert captions == [("Early", False), ("Late", True)]
    samples = np.frombuffer(b"".join(heard), "i2")[::2].astype(float)
    loud = np.flatnonzero(np.abs(samples) > 1000)
    (gap,) = [g for g in np.diff(loud) if g > 4800]
    assert gap / 48000 == pytest.approx(0.3, abs=0.05)
    first, last = samples[loud[0] : loud[0] + 8000], samples[loud[-1] - 8000 : loud[-1]]
    for part, hertz in ((first, 500), (last, 1000)):
        assert np.abs(np.fft.rfft(part)).argmax() * 6 == pytest.approx(hertz, rel=0.03)


@pytest.mark.parametrize("what, event", [
    (lambda r, p: r.fail(0.3, code=2003, text="Cut"), "SessionFailed"),
    (lambda r, p: r.disconnect(0.3), "SessionDisconnected"),
    (lambda r, p: r.drop_stream(p, 0.3), "StreamDropped"),
    (lambda r, p: r.fail_publisher(0.3), "PublisherFailed"),
    (lambda r, p: r.fail_subscriber(p, 0.3, code=7), "SubscriberFailed"),
])
def test_what_goes_wrong(rehearsal, what, event):
    alice = rehearsal.participant("alice")
    alice.sounds(440)
    what(rehearsal, alice)

    async def agent(session):
        async with session.publish("me", video=False):
            stream = await first_stream(session)
            async with session.subscribe(stream, video=False):
                await asyncio.sleep(10)

    told = {type(each).__name__: at for at, each in rehearsal.run(agent, until=0.8).told}
    assert told[event] == pytest.approx(0.3, abs=0.25)


def test_joining_may_fail(rehearsal):
    rehearsal.refuse(1030, "Not today")
    with pytest.raises(aio.SessionError, match="Not today"):
        rehearsal.run(idle)
    assert rehearsal.performance.entry("refused").fields["text"] == "Not today"
    with pytest.raises(RuntimeError, match="runs once"):
        rehearsal.run(idle)


def test_agents_that_join_by_themselves(rehearsal):
    rehearsal.accept_only("secret")

    async def agent():
        async with aio.connect(os.environ["APPLICATION_ID"], os.environ["SESSION_ID"], os.environ["TOKEN"]):
            raise LookupError("of the agent")

    with pytest.raises(LookupError, match="of the agent"):
        rehearsal.run_alone(agent)
    assert [each.name for each in rehearsal.performance.entries][::2] == ["joined", "closed"]


def test_programs(rehearsal):
    rehearsal.participant("alice").says(babble(0.5), at=0.3)
    performance = rehearsal.run_program([os.environ["AGENT"]], until=2.0)
    assert performance.exit_code == 0, performance.output
    assert len(performance.sound.utterances()) == 1


def test_hanging_agents_are_told(rehearsal):
    with pytest.raises(AssertionError, match="still running after 0.3 s"):
        rehearsal.run(idle, timeout=0.3)


async def mute(session):
    async with session.publish("mute", video=False):
        await asyncio.sleep(0.3)


def test_fails_and_shows_why(rehearsal):
    assert rehearsal.run(mute).sound.utterances()
"""


def pytest_of(*arguments: object, **variables: object) -> subprocess.CompletedProcess[str]:
    options = ["-p", "tavrin_media_relay.testing.plugin", "-p", "no:cacheprovider", "-q", "-W", "error"]
    return subprocess.run(
        [sys.executable, "-X", "dev", "-m", "pytest", *options, *map(str, arguments)],
        env=environment(**variables), cwd=ROOT, capture_output=True, text=True, errors="replace", timeout=120,
    )  # fmt: skip


def test_the_example_is_quick():
    done = pytest_of("examples/testing")
    assert done.returncode == 0, done.stdout + done.stderr
    passed = re.search(r"(\d+) passed in ([\d.]+)s", done.stdout)
    assert passed and int(passed[1]) >= 4 and float(passed[2]) < 20, done.stdout  # six on a quiet machine


def test_rehearsals(tmp_path):
    (tmp_path / "test_rehearsals.py").write_text(REHEARSALS)
    done = pytest_of(tmp_path, AGENT=ROOT / "examples" / "testing" / "agent.py")
    assert re.search(r"1 failed, \d+ passed", done.stdout), done.stdout + done.stderr
    shown = done.stdout.partition("- rehearsal -")[2]
    for part in ("publication", "mute sent sound: silence only", "files in"):
        assert part in shown, done.stdout + done.stderr


def test_turns_of_speech_and_what_is_said():
    """Rehearsals, too: tests/speech."""
    done = pytest_of("tests/speech")
    assert done.returncode == 0, done.stdout + done.stderr


def test_the_plug_in_asks_for_nothing_until_it_is_used():
    """It is loaded by every pytest of an environment."""
    code = "import sys, tavrin_media_relay.testing.plugin; print(*sys.modules)"
    bare = {"PYTHONPATH": str(ROOT / "python"), "PATH": os.defpath}
    done = subprocess.run([sys.executable, "-c", code], env=bare, capture_output=True, text=True, check=True)
    assert not {"numpy", "_tavrin_video", "asyncio"} & set(done.stdout.split())
