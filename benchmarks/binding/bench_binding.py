"""What the Python boundary costs, measured with the built module on the scripted library.

    LD_LIBRARY_PATH=<build>/tests/support PYTHONPATH=<build>/python:python \\
        /usr/bin/python3 benchmarks/binding/bench_binding.py [--json FILE]

Times are medians over batches, with the fastest and slowest batch beside them: other work on the
machine shows as a wide spread. Native work of the core is part of every number.
"""

from __future__ import annotations

import argparse
import ctypes
import itertools
import json
import statistics
import sys
import threading
import time
from typing import Any, Callable


def resident_kib() -> int:
    with open("/proc/self/status", encoding="ascii") as status:
        for line in status:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS")


START_KIB = resident_kib()

from tavrin_media_relay import models  # noqa: E402

MODELS_KIB = resident_kib()

import _tavrin_video  # noqa: E402

IMPORT_KIB = resident_kib()

WIDTH, HEIGHT = 640, 480
FRAME_BYTES = WIDTH * HEIGHT * 3 // 2
AUDIO_FRAMES = 960  # 20 ms
AUDIO_BYTES = AUDIO_FRAMES * 4
STREAMS = 20


def load_scripted() -> ctypes.CDLL:
    """The library that the module was linked to, which must be the scripted one."""
    library = ctypes.CDLL("libsarnet.so")
    for name in ("scripted_fire_audio", "scripted_fire_frames"):
        getattr(library, name).restype = ctypes.c_double
    library.scripted_storm_stop.restype = ctypes.c_long
    library.scripted_log(0)
    return library


def batches(call: Callable[[], Any], size: int, count: int, between: Callable[[], Any]) -> dict[str, float]:
    """Microseconds of one call."""
    times = []
    for _ in range(count):
        between()
        start = time.perf_counter_ns()
        for _ in range(size):
            call()
        times.append((time.perf_counter_ns() - start) / size / 1000)
    return {"median": statistics.median(times), "min": min(times), "max": max(times)}


class Session:
    """A client in a session of the scripted library, publishing, with streams to subscribe to."""

    def __init__(self, library: ctypes.CDLL) -> None:
        self.library = library
        self.client = _tavrin_video.TavrinVideoClient()
        self.constructed_kib = resident_kib()
        self.streams: list[models.Stream] = []
        arrived, ready = threading.Semaphore(0), threading.Event()

        def on_stream(_session: models.Session, stream: models.Stream) -> None:
            self.streams.append(stream)
            arrived.release()

        assert self.client.connect(
            "key", "session", "token",
            on_stream_received_cb=on_stream,
            on_ready_for_audio_cb=lambda _session: ready.set(),
        )
        assert ready.wait(10), "the audio capturer did not start"
        for number in range(STREAMS):
            library.scripted_stream_received(b"stream-%d" % number, b"peer", b"data", ctypes.c_int64(0))
        for _ in range(STREAMS):
            assert arrived.acquire(timeout=10), "a stream did not arrive"
        assert self.client.publish(models.PublisherSettings("bench"))
        assert library.scripted_wait_idle(10000) == 1
        time.sleep(0.5)  # some periods of audio and video, for the resident memory
        self.publishing_kib = resident_kib()

    def subscribe(self, count: int, **callables: Callable[..., Any]) -> None:
        for stream in self.streams[:count]:
            assert self.client.subscribe(stream, **callables)


def injection(session: Session) -> dict[str, dict[str, float]]:
    client = session.client
    samples, pixels = bytes(AUDIO_BYTES), bytes(FRAME_BYTES)
    audio = models.AudioData(48000, 2, AUDIO_FRAMES, samples)
    frame = models.VideoFrame(models.VideoResolution(WIDTH, HEIGHT), "YUV420P", pixels)

    # The copies go to as many places as the module's do: where those stay in a cache, so do these.
    def copier(source: bytes, places: int) -> Callable[[], Any]:
        target = ctypes.create_string_buffer(len(source) * places)
        addresses = itertools.cycle(ctypes.addressof(target) + len(source) * i for i in range(places))
        return lambda _target=target: ctypes.memmove(next(addresses), source, len(source))

    def checked(call: Callable[[Any], bool], what: Any) -> Callable[[], None]:
        assert call(what), "refused"
        return lambda: call(what) or sys.exit("refused")  # type: ignore[func-returns-value]

    def nothing() -> None:
        pass

    clear = client.clear_media_buffers
    return {
        "memmove of 20 ms stereo": batches(copier(samples, 2000), 2000, 20, nothing),
        "add_audio, 20 ms stereo": batches(checked(client.add_audio, audio), 2000, 20, clear),
        "memmove of 640x480 I420": batches(copier(pixels, 100), 100, 20, nothing),
        "add_video, 640x480 I420": batches(checked(client.add_video, frame), 100, 20, clear),
    }


def events(session: Session) -> dict[str, dict[str, float]]:
    """Microseconds from the library's thread through the callable and back, and of processor time."""

    def fire(label: str, function: str, count: int, *size: int) -> None:
        times, processor_times = [], []
        for _ in range(11):
            start = time.process_time_ns()
            nanoseconds = getattr(session.library, function)(b"stream-0", ctypes.c_long(count), *size)
            processor_times.append((time.process_time_ns() - start) / count / 1000)
            assert nanoseconds > 0, "nothing subscribed"
            times.append(nanoseconds / 1000)
        for name, values in ((label, times), (f"{label}, processor", processor_times)):
            results[name] = {"median": statistics.median(values), "min": min(values), "max": max(values)}

    def ignore(_subscriber: models.Subscriber, _media: Any) -> None:
        pass

    results: dict[str, dict[str, float]] = {}
    for label, callables in (
        ("", {"on_audio_data_cb": ignore, "on_render_frame_cb": ignore}),
        (", nobody listens", {}),
    ):
        session.subscribe(1, **callables)
        fire(f"audio event{label}", "scripted_fire_audio", 5000)
        fire(f"video event{label}", "scripted_fire_frames", 500, WIDTH, HEIGHT)
        session.client.unsubscribe(session.streams[0])
    return results


def many_streams(session: Session, seconds: float) -> dict[str, float]:
    """Per cent of one core: nothing but the session, with media nobody listens to, with callables."""
    calls = 0

    def count(_subscriber: models.Subscriber, _media: Any) -> None:
        nonlocal calls
        calls += 1

    def load() -> float:
        start, cpu = time.monotonic(), time.process_time()
        time.sleep(seconds)
        return 100 * (time.process_time() - cpu) / (time.monotonic() - start)

    ids = ",".join(stream.id for stream in session.streams).encode()
    loads = {"idle": load()}
    for label, callables in (
        ("nobody listens", {}),
        ("with callables", {"on_audio_data_cb": count, "on_render_frame_cb": count}),
    ):
        session.subscribe(STREAMS, **callables)
        session.library.scripted_storm_start(
            ids, ctypes.c_double(100), ctypes.c_double(30), WIDTH, HEIGHT, 2
        )
        loads[label] = load()
        session.library.scripted_storm_stop()
        for stream in session.streams:
            session.client.unsubscribe(stream)
    loads["share of the boundary"] = loads["with callables"] - loads["nobody listens"]
    loads["events per second"] = calls / seconds
    return loads


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--json", metavar="FILE", help="write the numbers to FILE, too")
    parser.add_argument("--seconds", type=float, default=5, help="length of each load measurement")
    arguments = parser.parse_args()

    session = Session(load_scripted())
    results = {
        "microseconds": injection(session) | events(session),
        "per cent of a core, 20 streams": many_streams(session, arguments.seconds),
        "resident MiB": {
            "interpreter": START_KIB / 1024,
            "models imported": MODELS_KIB / 1024,
            "module imported": IMPORT_KIB / 1024,
            "client constructed": session.constructed_kib / 1024,
            "publishing": session.publishing_kib / 1024,
            "at the end": resident_kib() / 1024,
        },
    }
    session.client.disconnect()

    for title, values in results.items():
        print(title)
        for name, value in values.items():
            if isinstance(value, dict):
                text = f"{value['median']:9.2f}   ({value['min']:.2f} to {value['max']:.2f})"
            else:
                text = f"{value:9.2f}"
            print(f"  {name:40s} {text}")
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(results, file, indent=2)


if __name__ == "__main__":
    main()
