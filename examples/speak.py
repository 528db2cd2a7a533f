"""Plays a WAV file of any rate to the session.

Usage: ./dev python examples/speak.py FILE.wav
"""

import asyncio
import os
import sys
import wave

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))


async def main(path: str) -> None:
    with wave.open(path) as file:
        if file.getsampwidth() != 2:
            sys.exit(f"{path} has {8 * file.getsampwidth()}-bit samples; 16 are wanted")
        rate, channels = file.getframerate(), file.getnchannels()
        async with (
            aio.connect(*WHERE, settings=QUIET) as session,
            session.publish("Speaker", video=False) as publisher,
        ):
            while samples := file.readframes(rate // 10):
                await publisher.audio.write(samples, sample_rate=rate, channels=channels)
            await publisher.audio.drained()  # all of it has been said
            print(f"Said {publisher.written_ms[0] / 1000:.1f} s")


if len(sys.argv) != 2:
    sys.exit(__doc__)
asyncio.run(main(sys.argv[1]))
