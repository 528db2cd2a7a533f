"""A Pipecat bot in a session: greets whoever comes, and answers what the captions say they said.

Usage, in an environment with pipecat-ai and this package, and with espeak-ng installed:
    API_HOSTNAME=embedded: python examples/pipecat_bot.py
"""

import asyncio
import io
import os
import wave
from collections.abc import AsyncGenerator

from pipecat.frames.frames import EndFrame, Frame, TranscriptionFrame, TTSAudioRawFrame, TTSSpeakFrame
from pipecat.pipeline.pipeline import Pipeline
from pipecat.pipeline.worker import PipelineWorker
from pipecat.processors.frame_processor import FrameDirection, FrameProcessor
from pipecat.services.settings import TTSSettings
from pipecat.services.tts_service import TTSService
from pipecat.workers.runner import WorkerRunner

from tavrin_media_relay import aio
from tavrin_media_relay.integrations.pipecat import TavrinParams, TavrinTransport

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
PARAMS = {
    "audio_in_enabled": True,
    "audio_out_enabled": True,
    "captions_in_enabled": True,
    "captions_out_enabled": True,
}


class Espeak(TTSService):  # type: ignore[misc]
    """A voice that Debian has."""

    def __init__(self) -> None:
        settings = TTSSettings(model=None, voice="en", language=None)
        super().__init__(push_start_frame=True, push_stop_frames=True, settings=settings)

    async def run_tts(self, text: str, context_id: str) -> AsyncGenerator[Frame | None, None]:
        pipe = asyncio.subprocess.PIPE
        voice = await asyncio.create_subprocess_exec(
            "espeak-ng", "--stdin", "--stdout", stdin=pipe, stdout=pipe
        )
        sound, _ = await voice.communicate(text.encode())
        with wave.open(io.BytesIO(sound)) as file:
            rate, samples = file.getframerate(), sound[44:]
        for at in range(0, len(samples), rate // 10 * 2):
            yield TTSAudioRawFrame(samples[at : at + rate // 10 * 2], rate, 1, context_id=context_id)


class Answers(FrameProcessor):  # type: ignore[misc]
    """Where a language model would be."""

    async def process_frame(self, frame: Frame, direction: FrameDirection) -> None:
        await super().process_frame(frame, direction)
        if isinstance(frame, TranscriptionFrame):
            await self.push_frame(TTSSpeakFrame(f"You said: {frame.text}"))
        else:
            await self.push_frame(frame, direction)


async def run(transport: TavrinTransport) -> None:
    """The bot, whatever its transport."""
    pipeline = Pipeline([transport.input(), Answers(), Espeak(), transport.output()])
    worker = PipelineWorker(pipeline, idle_timeout_secs=None)

    @transport.event_handler("on_first_participant_joined")  # type: ignore[misc]
    async def greet(_transport: TavrinTransport, _participant: str) -> None:
        await worker.queue_frame(TTSSpeakFrame("Hello! Say something."))

    @transport.event_handler("on_participant_left")  # type: ignore[misc]
    async def end(_transport: TavrinTransport, _participant: str, _reason: str) -> None:
        await worker.queue_frame(EndFrame())

    runner = WorkerRunner(handle_sigint=False)
    await runner.add_workers(worker)
    await runner.run()


async def agent(session: aio.Session) -> None:
    """The same bot for `tavrin-media-relay serve`, and for a rehearsal in a test."""
    await run(TavrinTransport(session=session, params=TavrinParams(**PARAMS)))


if __name__ == "__main__":
    asyncio.run(run(TavrinTransport(*WHERE, params=TavrinParams(**PARAMS))))
