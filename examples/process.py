"""Sends back what it sees and hears, processed with numpy: negative pictures, and sound with a tremolo.

Usage: ./dev python examples/process.py [SECONDS]        (needs numpy: python3-numpy)
"""

import asyncio
import os
import sys

import numpy as np

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))


async def pictures(subscriber: aio.Subscriber, out: aio.VideoOutput) -> None:
    # "latest": drop a picture that can't be processed in time, rather than fall behind.
    async for frame in subscriber.video_frames(policy="latest"):
        rgb = np.asarray(frame.to_rgb())
        if rgb.shape[:2] == (out.height, out.width):
            await out.write(255 - rgb)


async def sound(subscriber: aio.Subscriber, out: aio.AudioOutput) -> None:
    position = 0
    async for frame in subscriber.audio_frames(sample_rate=out.sample_rate, channels=out.channels):
        time = (position + np.arange(frame.frame_count)) / frame.sample_rate
        position += frame.frame_count
        swell = 0.6 + 0.4 * np.sin(2 * np.pi * 5 * time)
        await out.write((frame.numpy() * swell[:, None]).astype(np.int16))


async def main(seconds: float) -> None:
    async with aio.connect(*WHERE, settings=QUIET) as session, session.publish("Mirror") as publisher:
        stream = await session.wait_for_stream()
        async with session.subscribe(stream) as subscriber:
            work = [
                asyncio.create_task(pictures(subscriber, publisher.video)),
                asyncio.create_task(sound(subscriber, publisher.audio)),
            ]
            await asyncio.wait(work, timeout=seconds)
            for task in work:
                task.cancel()
            audio, video = publisher.written_ms
            print(f"Sent back {audio / 1000:.1f} s of sound and {video / 1000:.1f} s of pictures")


asyncio.run(main(float(sys.argv[1]) if len(sys.argv) > 1 else 60))
