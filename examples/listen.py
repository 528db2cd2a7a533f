"""Writes the first stream's sound to a WAV file: 16 kHz, one channel, as speech recognisers expect.

Usage: ./dev python examples/listen.py OUT.wav [SECONDS]
"""

import asyncio
import os
import sys
import wave

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))
RATE = 16000


async def main(path: str, seconds: float) -> None:
    with wave.open(path, "wb") as file:
        file.setnchannels(1)
        file.setsampwidth(2)
        file.setframerate(RATE)
        async with aio.connect(*WHERE, settings=QUIET) as session:
            stream = await session.wait_for_stream()
            async with session.subscribe(stream, video=False) as subscriber:
                frames = subscriber.audio_frames(sample_rate=RATE, channels=1)
                async for frame in frames:  # ends when the stream goes
                    file.writeframes(frame.samples)
                    if file.tell() >= seconds * RATE:
                        break
        print(f"Wrote {file.tell() / RATE:.1f} s to {path}; {frames.dropped} frames were lost")


if len(sys.argv) < 2:
    sys.exit(__doc__)
asyncio.run(main(sys.argv[1], float(sys.argv[2]) if len(sys.argv) > 2 else 10))
