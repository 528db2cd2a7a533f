"""Gives a long speech, and stops at once when somebody interrupts.

Usage: API_HOSTNAME=embedded:examples/scenarios/interruption.json ./dev python examples/barge_in.py
"""

import array
import asyncio
import math
import os

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))
LOUD = 1000  # of 32767
RATE = 16000


def speech(seconds: int) -> "array.array[int]":
    """Stands in for a speech synthesiser, which is faster than real time."""
    return array.array("h", (int(6000 * math.sin(i * i / 4e7)) for i in range(seconds * RATE)))


async def somebody_speaks(session: aio.Session) -> None:
    async for frame in session.audio_frames(sample_rate=RATE, channels=1):
        if max(frame.samples) > LOUD:
            return


async def main() -> None:
    async with (
        aio.connect(*WHERE, settings=QUIET) as session,
        session.publish("Speaker", video=False) as publisher,
    ):

        async def listen() -> None:
            async for event in session.events():
                if isinstance(event, aio.StreamReceived):
                    await session.subscribe(event.stream, video=False)

        listening = asyncio.create_task(listen())
        saying = asyncio.create_task(publisher.audio.write(speech(60), sample_rate=RATE, channels=1))
        await somebody_speaks(session)
        dropped = await publisher.audio.clear()
        complete = await saying  # False: it was cut short
        print(f"Interrupted {dropped / 1000:.1f} s before the end" if not complete else "Nobody interrupted")
        listening.cancel()


asyncio.run(main())
