"""What the Python boundary costs, measured with the built module on the scripted library.

    LD_LIBRARY_PATH=<build>/scripted PYTHONPATH=<build>/python:python \\
        /usr/bin/python3 benchmarks/binding/bench_binding.py [--json FILE]

Times are medians over batches, with the fastest and slowest batch beside them: other work on the
machine shows as a wide spread. Native work of the core is part of every number.
"""

from __future__ import annotations

import argparse
import contextlib
import ctypes
import itertools
import json
import statistics
import subprocess
import sys
import threading
import time
from typing import Any, Callable, Iterator, Sequence


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
    library.scripted_times.restype = ctypes.c_size_t
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

        library.scripted_answer(b"audio_device", b"none")
        assert self.client.connect(
            "key",
            "session",
            "token",
            session_settings=models.SessionSettings(logging=models.LoggingSettings("error")),
            on_stream_received_cb=on_stream,
            on_ready_for_audio_cb=lambda _session: ready.set(),
        )
        assert library.scripted_wait_idle(10000) == 1 and self.client.get_connection() is not None
        assert library.scripted_device_start() == 1
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
    """Per cent of one core: nothing but the session, with the ticks of the delivering thread, with media
    nobody listens to, with callables. What is delivered was prepared before, and costs its thread a look
    for the subscriber and the call."""
    calls = 0

    def count(_subscriber: models.Subscriber, _media: Any) -> None:
        nonlocal calls
        calls += 1

    def load() -> float:
        start, cpu = time.monotonic(), time.process_time()
        time.sleep(seconds)
        return 100 * (time.process_time() - cpu) / (time.monotonic() - start)

    def storm() -> float:
        rates = ctypes.c_double(100), ctypes.c_double(30)
        session.library.scripted_storm_start(ids, *rates, WIDTH, HEIGHT, 1)
        try:
            return load()
        finally:
            session.library.scripted_storm_stop()

    ids = ",".join(stream.id for stream in session.streams).encode()
    loads = {"idle": load(), "ticks without subscribers": storm()}
    for label, callables in (
        ("nobody listens", {}),
        ("with callables", {"on_audio_data_cb": count, "on_render_frame_cb": count}),
    ):
        session.subscribe(STREAMS, **callables)
        loads[label] = storm()
        for stream in session.streams:
            session.client.unsubscribe(stream)
    loads["share of the boundary"] = loads["with callables"] - loads["nobody listens"]
    loads["events per second"] = calls / seconds
    return loads


@contextlib.contextmanager
def busy_processes(count: int) -> Iterator[None]:
    running = [subprocess.Popen([sys.executable, "-c", "while True: pass"]) for _ in range(count)]
    try:
        yield
    finally:
        for process in running:
            process.kill()
            process.wait()


def pacing(session: Session, seconds: float) -> dict[str, dict[str, float]]:
    """Microseconds by which intervals differ from the period, beside those of a bare clock in the same
    seconds: a native thread that does nothing but sleep until the next instant."""
    audio_ns, video_ns = 10_000_000, 1_000_000_000 // 30
    session.client.clear_media_buffers()  # silence and the black picture, each period

    def off(times: Sequence[int], period: int) -> dict[str, float]:
        deviations = sorted(abs(after - before - period) / 1000 for before, after in zip(times, times[1:]))
        last = len(deviations) - 1
        return {"p50": deviations[last // 2], "p99": deviations[last * 99 // 100], "max": deviations[last]}

    def measure(label: str) -> None:
        ticks = (ctypes.c_int64 * round(seconds * 1e9 / audio_ns))()
        start = time.monotonic_ns()
        session.library.scripted_bare_ticks(ctypes.c_int64(audio_ns), ticks, ctypes.c_size_t(len(ticks)))
        results[f"{label}, bare clock"] = off(list(ticks), audio_ns)
        for name, function, period in (
            ("audio", b"srn_audio_device_write_capture_data", audio_ns),
            ("video", b"srn_video_capturer_provide_frame", video_ns),
        ):
            times = (ctypes.c_int64 * 4096)()
            count = session.library.scripted_times(function, times, ctypes.c_size_t(len(times)))
            within = [each for each in times[:count] if each >= start]
            assert len(within) > 0.5 * seconds * 1e9 / period, f"{name} came {len(within)} times"
            results[f"{label}, {name}"] = off(within, period)

    results: dict[str, dict[str, float]] = {}
    measure("idle")
    with busy_processes(2):
        measure("two busy processes")
    return results


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--json", metavar="FILE", help="write the numbers to FILE, too")
    parser.add_argument("--seconds", type=float, default=5, help="length of each load measurement")
    parser.add_argument("--pacing-seconds", type=float, default=10, help="length of each pacing measurement")
    arguments = parser.parse_args()

    session = Session(load_scripted())
    results = {
        "microseconds": injection(session) | events(session),
        "per cent of a core, 20 streams": many_streams(session, arguments.seconds),
        "microseconds off the period": pacing(session, arguments.pacing_seconds),
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
            if not isinstance(value, dict):
                text = f"{value:9.2f}"
            elif "median" in value:
                text = f"{value['median']:9.2f}   ({value['min']:.2f} to {value['max']:.2f})"
            else:
                text = "   ".join(f"{key} {number:8.1f}" for key, number in value.items())
            print(f"  {name:40s} {text}")
    if arguments.json:
        with open(arguments.json, "w", encoding="utf-8") as file:
            json.dump(results, file, indent=2)


if __name__ == "__main__":
    main()
