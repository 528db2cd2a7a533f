"""The Pipecat transport with the real framework, against scripted participants."""

from __future__ import annotations

import asyncio
import importlib.util
import shutil
import sys
from pathlib import Path

import numpy as np
import pytest

pytest.importorskip("pipecat", reason="Pipecat is not installed here: ./dev integrations")

from pipecat.frames import frames  # noqa: E402
from pipecat.pipeline.pipeline import Pipeline  # noqa: E402
from pipecat.pipeline.worker import PipelineWorker  # noqa: E402
from pipecat.processors.frame_processor import FrameDirection, FrameProcessor  # noqa: E402
from pipecat.workers.runner import WorkerRunner  # noqa: E402

from tavrin_media_relay import aio  # noqa: E402
from tavrin_media_relay.integrations.pipecat import TavrinParams, TavrinTransport  # noqa: E402
from tavrin_media_relay.testing import babble, tone  # noqa: E402

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


class Witness(FrameProcessor):
    """Keeps what passes, and lets it pass."""

    def __init__(self) -> None:
        super().__init__()
        self.seen: list[frames.Frame] = []

    async def process_frame(self, frame, direction) -> None:
        await super().process_frame(frame, direction)
        if direction == FrameDirection.DOWNSTREAM:
            self.seen.append(frame)
        await self.push_frame(frame, direction)

    def of(self, kind):
        return [each for each in self.seen if isinstance(each, kind)]


class Bot:
    """A pipeline of a transport's two ends, with a witness between them."""

    def __init__(self, transport: TavrinTransport) -> None:
        self.transport, self.witness, self.told = transport, Witness(), []
        self.worker = PipelineWorker(
            Pipeline([transport.input(), self.witness, transport.output()]), idle_timeout_secs=None
        )
        for name in ("on_connected", "on_first_participant_joined", "on_participant_left", "on_disconnected"):
            transport.event_handler(name)(self._note(name))

    def _note(self, name):
        async def handler(_transport, *arguments) -> None:
            self.told.append((name, *arguments))

        return handler

    async def run(self) -> None:
        runner = WorkerRunner(handle_sigint=False)
        await runner.add_workers(self.worker)
        await runner.run()

    async def end(self, running: asyncio.Task) -> None:
        await self.worker.queue_frame(frames.EndFrame())
        await asyncio.wait_for(running, 10)


def sound(seconds: float, rate: int) -> bytes:
    return tone(seconds)[:: 48000 // rate].tobytes()


def test_what_participants_send_becomes_frames_and_their_coming_and_going_events(rehearsal):
    caller = rehearsal.participant("caller", join_at=0.2, leave_at=2.0)
    caller.says(babble(1.2), at=0.4)
    caller.shows(width=320, height=180, fps=15)
    caller.caption("good", at=0.6, final=False)
    caller.caption("good morning", at=0.9)

    async def agent(session):
        params = TavrinParams(
            audio_in_enabled=True, video_in_enabled=True, captions_in_enabled=True, audio_in_user_tracks=True
        )
        bot = Bot(TavrinTransport(session=session, params=params))
        running = asyncio.create_task(bot.run())
        await asyncio.sleep(2.5)
        assert not session.over
        await bot.end(running)
        return bot

    bot = rehearsal.run(agent).result
    witness = bot.witness
    sounds = witness.of(frames.UserAudioRawFrame)
    assert {(each.sample_rate, each.num_channels, each.user_id) for each in sounds} == {(16000, 1, "caller")}
    heard = np.concatenate([np.frombuffer(each.audio, np.int16) for each in sounds])
    loud = np.abs(heard[: len(heard) // 160 * 160]).reshape(-1, 160).max(axis=1) > 300
    assert loud.sum() / 100 == pytest.approx(1.2, abs=0.1)
    pictures = witness.of(frames.UserImageRawFrame)
    assert len(pictures) > 10
    assert {(each.size, each.format, each.user_id, len(each.image)) for each in pictures} == {
        ((320, 180), "RGB", "caller", 320 * 180 * 3)
    }
    assert [each.text for each in witness.of(frames.InterimTranscriptionFrame)] == ["good"]
    assert [(each.text, each.user_id) for each in witness.of(frames.TranscriptionFrame)] == [
        ("good morning", "caller")
    ]
    assert bot.told[:2] == [("on_connected",), ("on_first_participant_joined", "caller")]
    assert ("on_participant_left", "caller", "left") in bot.told


def test_an_interruption_silences_what_is_queued_and_what_comes_after_is_heard(rehearsal):
    async def agent(session):
        params = TavrinParams(audio_out_enabled=True, audio_out_end_silence_secs=0)
        bot = Bot(TavrinTransport(session=session, params=params))
        running = asyncio.create_task(bot.run())
        await bot.worker.queue_frame(frames.TTSAudioRawFrame(sound(5, 24000), 24000, 1))
        await asyncio.sleep(1.2)
        await bot.worker.queue_frame(frames.InterruptionFrame())
        interrupted = asyncio.get_running_loop().time()
        await asyncio.sleep(0.6)
        await bot.worker.queue_frame(frames.TTSAudioRawFrame(sound(0.4, 24000), 24000, 1))
        await bot.worker.queue_frame(frames.TTSStoppedFrame())
        await bot.end(running)
        return interrupted

    performance = rehearsal.run(agent)
    interrupted = performance.result - performance.joined_at
    first, second = performance.sound.utterances()
    assert 0.8 < first.seconds < 1.6
    assert first.end - interrupted < 0.12
    assert second.seconds == pytest.approx(0.4, abs=0.06)


def test_pictures_are_shown_and_requests_for_pictures_are_answered(rehearsal):
    rehearsal.participant("caller").shows(width=320, height=180, fps=15)

    async def agent(session):
        params = TavrinParams(video_in_enabled=True, video_out_enabled=True, video_out_is_live=True)
        transport = TavrinTransport(session=session, params=params)
        bot = Bot(transport)
        running = asyncio.create_task(bot.run())
        await transport.capture_participant_video("caller", on_request_only=True)
        await asyncio.sleep(0.8)
        assert not bot.witness.of(frames.UserImageRawFrame)
        answers = []

        async def answered(result) -> None:
            answers.append(result)

        ask = [
            frames.UserImageRequestFrame(user_id=who, result_callback=answered)
            for who in ("caller", "nobody")
        ]
        for each in ask:
            await bot.worker.queue_frame(each)
        red = frames.OutputImageRawFrame(bytes([255, 0, 0]) * (64 * 64), (64, 64), "RGB")
        for _ in range(10):
            await bot.worker.queue_frame(red)
        await asyncio.sleep(1.0)
        await bot.end(running)
        return len(bot.witness.of(frames.UserImageRawFrame)), answers

    performance = rehearsal.run(agent)
    pictures, answers = performance.result
    assert pictures == 1
    assert ["error" in each for each in answers] == [True]
    assert len(performance.film) >= 5


@pytest.mark.skipif(not shutil.which("espeak-ng"), reason="espeak-ng is not installed")
def test_the_example_greets_and_answers(rehearsal):
    spec = importlib.util.spec_from_file_location("pipecat_bot", EXAMPLES / "pipecat_bot.py")
    example = importlib.util.module_from_spec(spec)
    sys.modules["pipecat_bot"] = example
    spec.loader.exec_module(example)
    caller = rehearsal.participant("caller", join_at=0.3, leave_at=6.0)
    caller.caption("hello", at=3.0)
    spoken = rehearsal.run(example.agent).sound.utterances()
    assert any(each.begin < 2.5 for each in spoken) and any(each.begin > 3.0 for each in spoken)


def test_a_place_must_be_given_once():
    for arguments in ({}, {"session_id": "a", "session": object.__new__(aio.Session)}):
        with pytest.raises(ValueError, match="session_id or session"):
            TavrinTransport(**arguments)
