"""Speaks back what it hears, one second later.

Usage: ./dev python examples/echo.py [SECONDS]
"""

import asyncio
import os
import sys

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))
DELAY = 1.0


async def echo(session: aio.Session, publisher: aio.Publisher) -> None:
    # The queue makes the delay: silence first, then each frame as it arrives.
    await publisher.audio.write(bytes(int(DELAY * 16000) * 2), sample_rate=16000, channels=1)
    async for frame in session.audio_frames():
        await publisher.audio.write(frame)


async def main(seconds: float) -> None:
    async with aio.connect(*WHERE, settings=QUIET) as session:
        # Room for the delay and a little more.
        async with session.publish("Echo", video=False, audio_queue=DELAY + 0.5) as publisher:
            talking = asyncio.create_task(echo(session, publisher))
            try:
                async with asyncio.timeout(seconds):
                    async for event in session.events():  # listen to everybody
                        if isinstance(event, aio.StreamReceived):
                            await session.subscribe(event.stream, video=False)
            except TimeoutError:
                print(f"Echoed {publisher.written_ms[0] / 1000 - DELAY:.1f} s")
            finally:
                talking.cancel()


asyncio.run(main(float(sys.argv[1]) if len(sys.argv) > 1 else 60))
