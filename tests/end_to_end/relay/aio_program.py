"""A participant on the asyncio face: says a tone, shows marked pictures and sends captions until it has had
enough of another one's, and tells what that was. Leaves at the end of its standard input."""

from __future__ import annotations

import argparse
import asyncio
import os
import sys

import marks
import numpy as np
from program import tell

from tavrin_media_relay import (
    LoggingSettings,
    SessionAVSettings,
    SessionSettings,
    SessionVideoPublisherSettings,
    VideoResolution,
    aio,
    captions,
)

RATE = 16000  # of what is said; the session has another
ENOUGH = 40


async def say(audio: aio.AudioOutput, hertz: int) -> None:
    tone = (9000 * np.sin(2 * np.pi * hertz * np.arange(RATE) / RATE)).astype(np.int16)
    while True:
        await audio.write(tone, sample_rate=RATE, channels=1)


async def show(video: aio.VideoOutput, maker: int) -> None:
    for number in range(1 << marks.NUMBER_BITS):
        await video.write(marks.picture(maker, number).reshape(-1, marks.WIDTH))
        if number % 10 == 0:
            captions.send(f"Grüße {number} von {maker}")


async def hear(frames: aio.AudioIterator) -> float:
    """The strongest frequency of what is loud."""
    loud: list[np.ndarray] = []
    async for frame in frames:
        samples = frame.numpy()[:, 0].astype(float)
        loud = [*loud, samples] if np.sqrt((samples**2).mean()) > marks.LOUD else []
        if len(loud) == ENOUGH:
            break
    samples = np.concatenate(loud)
    strongest = np.abs(np.fft.rfft(samples * np.hanning(len(samples)))).argmax()
    return float(strongest) * frame.sample_rate / len(samples)


async def see(frames: aio.MediaIterator[aio.VideoFrame]) -> list[tuple[int, int]]:
    seen: list[tuple[int, int]] = []
    async for frame in frames:
        mark = marks.read(frame.numpy()[0]) if frame.width == marks.WIDTH else None
        seen += [mark] if mark else []
        if len(seen) == ENOUGH:
            break
    return seen


async def visit(maker: int) -> None:
    size = SessionVideoPublisherSettings(VideoResolution(marks.WIDTH, marks.HEIGHT), marks.FPS, "YUV420P")
    settings = SessionSettings(av=SessionAVSettings(video_publisher=size), logging=LoggingSettings("error"))
    async with aio.connect("tests", "marks", os.environ["TOKEN"], settings=settings) as session:
        async with session.publish(f"Program {maker}", captions=True) as publisher:
            work = [say(publisher.audio, 500 + 200 * maker), show(publisher.video, maker)]
            tasks = [asyncio.create_task(each) for each in work]
            stream = await session.wait_for_stream()
            async with session.subscribe(stream, captions=True) as other:
                heard, seen, caption = await asyncio.gather(
                    hear(other.audio_frames()), see(other.video_frames()), anext(other.captions())
                )
                tell("enough", hertz=heard, seen=seen, caption=caption.text)
                await asyncio.to_thread(sys.stdin.read)
            for task in tasks:
                task.cancel()
            await asyncio.gather(*tasks, return_exceptions=True)
            await publisher.audio.clear()
            await publisher.audio.drained()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--maker", type=int, required=True)
    parser.add_argument("--tones", nargs=2)
    try:
        asyncio.run(visit(parser.parse_args().maker))
        tell("left")
    except aio.SessionError as error:
        tell("refused", code=error.code, text=error.message)
