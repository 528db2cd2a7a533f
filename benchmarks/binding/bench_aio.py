"""What the asyncio face costs, and what it holds to, measured on the scripted library.

    LD_LIBRARY_PATH=<build>/scripted PYTHONPATH=<build>/python:python \\
        /usr/bin/python3 benchmarks/binding/bench_aio.py [--json FILE]

Latency: a feeding thread hands the module 10 ms of audio for each stream, every 10 ms, with the time in its
samples; the callable, or the body of the `async for`, looks at its watch. The processor time is that of the
whole process, less that of the same feed that nobody listens to. Drift: an hour of a tone in blocks of odd
sizes through the resampler, on no clock at all; its phase at the end. Memory: 100,000 media events for
iterators whose consumer has stopped reading."""

from __future__ import annotations

import argparse
import asyncio
import ctypes
import functools
import gc
import json
import multiprocessing
import random
import time
from concurrent.futures import ProcessPoolExecutor
from typing import Any

import numpy as np

from tavrin_media_relay import LoggingSettings, SessionSettings, TavrinVideoClient, aio
from tavrin_media_relay._native.resample import Converter

FRAMES = 480
STREAMS = (1, 20)
LISTENERS = ("nobody", "callable", "async for")


def load_scripted() -> ctypes.CDLL:
    library = ctypes.CDLL("libsarnet.so")
    library.scripted_log(0)
    library.scripted_media_on_delivery_threads(0)  # on the thread that calls
    library.scripted_fire_audio.restype = library.scripted_fire_frames.restype = ctypes.c_double
    return library


def resident_kib() -> int:
    with open("/proc/self/status", encoding="ascii") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def feed(library: ctypes.CDLL, ids: list[bytes], ticks: int) -> float:
    """Plays the library's thread; gives the processor time of the process for it, in s."""
    block = np.zeros(FRAMES * 2, np.int16)
    stamp, address = block[:4].view(np.int64), ctypes.c_void_p(block.ctypes.data)
    begin = time.process_time()
    start = time.monotonic()
    for tick in range(ticks):
        time.sleep(max(0.0, start + tick / 100 - time.monotonic()))
        for stream_id in ids:
            stamp[0] = time.perf_counter_ns()
            library.scripted_audio(stream_id, address, ctypes.c_size_t(2), ctypes.c_size_t(FRAMES), 48000)
    return time.process_time() - begin


def microseconds(times: list[int]) -> dict[str, float]:
    p50, p99 = np.percentile(np.array(times) / 1000, [50, 99])
    return {"events": len(times), "p50": round(float(p50), 1), "p99": round(float(p99), 1)}


def age(samples: Any) -> int:
    """Nanoseconds since the feeding thread let go of the samples."""
    return time.perf_counter_ns() - int.from_bytes(bytes(samples[:4].cast("B")), "little")


async def latency(
    library: ctypes.CDLL, session: aio.Session, count: int, ticks: int, who: str
) -> dict[str, float]:
    client = TavrinVideoClient()  # for the callables, beside the face's own: both drive the same session
    streams, times = session.streams[:count], []
    loop = asyncio.get_running_loop()
    subscribers: list[aio.Subscriber] = []
    tasks: list[asyncio.Task[None]] = []

    async def consume(frames: aio.AudioIterator) -> None:
        async for frame in frames:
            times.append(age(frame.samples))

    def on_audio(_subscriber: object, audio: Any) -> None:
        times.append(age(audio.sample_buffer))

    for stream in streams:
        if who == "async for":
            subscriber = await session.subscribe(stream, video=False)
            subscribers.append(subscriber)
            tasks.append(asyncio.create_task(consume(subscriber.audio_frames())))
        else:
            listener = on_audio if who == "callable" else None
            await loop.run_in_executor(
                None, functools.partial(client.subscribe, stream, on_audio_data_cb=listener)
            )
    await asyncio.sleep(0.1)
    processor = await loop.run_in_executor(None, feed, library, [each.id.encode() for each in streams], ticks)
    await asyncio.sleep(0.1)
    for subscriber in subscribers:
        await subscriber.close()
    for stream in streams if not subscribers else ():
        await loop.run_in_executor(None, client.unsubscribe, stream)
    await asyncio.gather(*tasks)
    result = microseconds(times) if times else {}
    return result | {"per cent of a core": round(processor / ticks * 10000, 2)}


async def latencies(library: ctypes.CDLL, session: aio.Session, seconds: float) -> dict[str, Any]:
    results: dict[str, Any] = {}
    for count in STREAMS:
        for who in LISTENERS:
            measured = await latency(library, session, count, int(seconds * 100), who)
            if who == "nobody":
                nobody = measured["per cent of a core"]
                continue
            measured["per cent of a core"] = round(measured["per cent of a core"] - nobody, 2)
            results[f"{count} stream{'s' * (count > 1)}, {who}"] = measured
    return results


def drift(rate_in: int, rate_out: int, minutes: int) -> dict[str, float]:
    """Of a 400 Hz tone in one channel."""
    hertz, dice = 400, random.Random(1)
    period = np.round(12000 * np.sin(2 * np.pi * hertz * np.arange(rate_in) / rate_in)).astype(np.int16)
    phases: list[float] = []
    looped = np.concatenate([period, period])
    converter = Converter(rate_in, 1, rate_out, 1)
    total, made, position = rate_in * 60 * minutes, 0, 0
    tail = np.zeros(0, np.int16)
    begin = time.process_time()
    while position < total:
        size = min(dice.randrange(1, rate_in // 5), total - position)
        offset = position % rate_in
        block = np.asarray(converter.convert(memoryview(looped[offset : offset + size])))
        position, made = position + size, made + len(block)
        tail = np.concatenate([tail, block])[-rate_out:]
        if len(tail) == rate_out and (not phases or position == total):
            when = np.arange(made - rate_out, made) / rate_out
            phases.append(np.angle(np.sum(tail * np.exp(-2j * np.pi * hertz * when))))
    processor = time.process_time() - begin
    made += len(converter.flush())
    moved = (phases[-1] - phases[0] + np.pi) % (2 * np.pi) - np.pi
    return {
        "minutes": minutes,
        "frames too many": made - total * rate_out / rate_in,
        "moved, microseconds": round(float(moved / (2 * np.pi * hertz) * 1e6), 3) + 0.0,
        "processor seconds": round(processor, 1),
    }


async def memory(library: ctypes.CDLL, session: aio.Session, count: int) -> dict[str, float]:
    """Of two iterators that have been read once. The library fires without a pause: 9 of 10 events
    are audio."""
    loop = asyncio.get_running_loop()
    stream = session.streams[0]
    async with session.subscribe(stream) as subscriber:
        audio, video = subscriber.audio_frames(), subscriber.video_frames()
        stream_id = stream.id.encode()

        def fire(events: int) -> None:
            for _ in range(10):
                library.scripted_fire_audio(stream_id, ctypes.c_long(events * 9 // 100))
                library.scripted_fire_frames(stream_id, ctypes.c_long(events // 100), 320, 240)

        await loop.run_in_executor(None, fire, 2000)
        await anext(audio), await anext(video)
        gc.collect()
        before = resident_kib()
        await loop.run_in_executor(None, fire, count)
        gc.collect()
        return {
            "events": count,
            "grown, KiB": resident_kib() - before,
            "audio frames kept": audio.waiting,
            "video frames kept": video.waiting,
            "dropped": audio.dropped + video.dropped,
        }


async def measure(arguments: argparse.Namespace) -> dict[str, Any]:
    library = load_scripted()
    quiet = SessionSettings(logging=LoggingSettings("error"))
    async with aio.connect("key", "session", "token", settings=quiet) as session:
        for number in range(max(STREAMS)):
            library.scripted_stream_received(b"stream-%d" % number, b"peer", b"data", ctypes.c_int64(0))
        while len(session.streams) < max(STREAMS):
            await asyncio.sleep(0.01)
        results = {
            "latency, microseconds": await latencies(library, session, arguments.seconds),
            "memory": {"a consumer that stopped": await memory(library, session, arguments.frames)},
        }
    return results


def drifts(minutes: int) -> dict[str, Any]:
    """Each in a process of its own, at the same time: nothing else is measured then."""
    with ProcessPoolExecutor(mp_context=multiprocessing.get_context("spawn")) as pool:
        running = {
            f"{a} to {b} Hz": pool.submit(drift, a, b, minutes) for a, b in ((44100, 48000), (48000, 16000))
        }
        return {name: each.result() for name, each in running.items()}


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--json", metavar="FILE", help="write the numbers to FILE, too")
    parser.add_argument("--seconds", type=float, default=5, help="length of each latency measurement")
    parser.add_argument("--minutes", type=int, default=60, help="length of the resampled tone")
    parser.add_argument("--frames", type=int, default=100_000, help="media events for the stopped consumer")
    arguments = parser.parse_args()
    results = asyncio.run(measure(arguments)) | {"drift": drifts(arguments.minutes)}
    for title, rows in results.items():
        print(title)
        for name, values in rows.items():
            print(f"  {name:28s} " + "   ".join(f"{key} {value:g}" for key, value in values.items()))
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(results, file, indent=2)


if __name__ == "__main__":
    main()
