"""One subscriber of several streams for an hour: does anything grow, or drift apart?

    PYTHONPATH=<build>/python:python /usr/bin/python3 benchmarks/relay/endurance.py [--minutes 60]
    [--streams 4] [--json FILE]

Each stream comes from a process of its own, 320x180 at 15 a second and stereo sound, over 127.0.0.1. A line a
minute tells the subscriber's memory, threads, descriptors and processor time, and of its streams the worst
delay of sound and pictures, by marks in the media, and how far sound and picture of one stream are apart.
In the end the last tenth of the time is held against the first, once all had settled."""

from __future__ import annotations

import argparse
import json
import os
import queue
import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path
from typing import Any

import content
import numpy as np

import tavrin_media_relay as tavrin
from tavrin_media_relay.server import tokens
from tavrin_media_relay.server.server import RelayServer
from tavrin_media_relay.server.settings import Settings

HERE = Path(__file__).resolve().parent
ROOM = "endurance"
SIZE, RATE = (320, 180), 15
# Of the last tenth against the first: more is growth, less is the noise of a machine that does other things.
MOST_MIB, MOST_MS = 4.0, 15.0


class Stream:
    """What one stream brought in the minute that runs."""

    def __init__(self, bursts: Path) -> None:
        self._bursts = content.Bursts(bursts)
        self._listener = content.Listener(content.now_ms())
        self._listener.measuring = True
        self._lock = threading.Lock()

    def picture(self, frame: tavrin.VideoFrame) -> None:
        width, height = frame.resolution.width, frame.resolution.height
        luma = np.frombuffer(frame.frame_buffer, np.uint8)[: width * height].reshape(height, width)
        with self._lock:
            self._listener.picture(luma)

    def sound(self, audio: tavrin.AudioData) -> None:
        with self._lock:
            self._listener.sound(np.frombuffer(audio.sample_buffer, np.int16))

    def minute(self) -> dict[str, float]:
        with self._lock:
            ages, heard = self._listener.ages, self._listener.heard
            frames, self._listener.frames = self._listener.frames, 0
            self._listener.ages, self._listener.heard, self._listener.shown = [], [], []
        delays = self._bursts.delays(heard)
        video = statistics.median(ages) if ages else float("nan")
        audio = statistics.median(delays) if delays else float("nan")
        return {"video_ms": video, "audio_ms": audio, "apart_ms": audio - video, "frames": float(frames)}


class Subscriber:
    def __init__(self, url: str, token: str) -> None:
        self._found: queue.Queue[tavrin.Stream] = queue.Queue()
        self.streams: list[Stream] = []
        self.client = tavrin.TavrinVideoClient()
        os.environ["API_HOSTNAME"] = url
        settings = tavrin.SessionSettings(logging=tavrin.LoggingSettings(level="error"))
        if not self.client.connect(
            "bench",
            ROOM,
            token,
            session_settings=settings,
            on_error_cb=lambda session, text, code: print(f"session error {code}: {text}", flush=True),
            on_stream_received_cb=lambda session, stream: self._found.put(stream),
        ):
            raise SystemExit("joining failed")

    def subscribe(self, bursts: Path) -> None:
        """To the next stream that comes, which marks its sound as `bursts` says."""
        found = self._found.get(timeout=30)
        stream = Stream(bursts)
        self.streams.append(stream)
        self.client.subscribe(
            found,
            on_render_frame_cb=lambda subscriber, frame: stream.picture(frame),
            on_audio_data_cb=lambda subscriber, audio: stream.sound(audio),
        )


def start_publisher(url: str, token: str, bursts: Path, seconds: float) -> subprocess.Popen[bytes]:
    arguments = [
        sys.executable, str(HERE / "peer_ours.py"), "pub", "--room", ROOM, "--url", url,
        "--bursts", str(bursts), "--size", f"{SIZE[0]}x{SIZE[1]}", "--fps", str(RATE),
        "--seconds", str(seconds),
    ]  # fmt: skip
    environment = dict(os.environ, API_HOSTNAME=url, TOKEN=token)
    return subprocess.Popen(arguments, stdout=subprocess.DEVNULL, env=environment)


def descriptors() -> int:
    return len(os.listdir("/proc/self/fd"))


def watch(subscriber: Subscriber, minutes: int) -> list[dict[str, Any]]:
    lines: list[dict[str, Any]] = []
    begin, used = time.monotonic(), content.processor_seconds()
    for minute in range(1, minutes + 1):
        time.sleep(max(0.0, begin + minute * 60 - time.monotonic()))
        streams = [stream.minute() for stream in subscriber.streams]
        now = content.processor_seconds()
        line = {
            "minute": minute,
            "resident_mib": content.resident_mib(),
            "threads": content.threads(),
            "descriptors": descriptors(),
            "cpu_per_second": round((now - used) / 60, 4),
            "video_ms": round(max(each["video_ms"] for each in streams), 1),
            "audio_ms": round(max(each["audio_ms"] for each in streams), 1),
            "apart_ms": round(max((each["apart_ms"] for each in streams), key=abs), 1),
            "frames": int(min(each["frames"] for each in streams)),
        }
        used = now
        lines.append(line)
        print(json.dumps(line), flush=True)
    return lines


def judge(lines: list[dict[str, Any]]) -> list[str]:
    """What grew between the first tenth, after a minute to settle, and the last."""
    tenth = max(1, len(lines) // 10)
    early, late = lines[1 : 1 + tenth] or lines, lines[-tenth:]
    limits = {
        "resident_mib": MOST_MIB,
        "threads": 0,
        "descriptors": 0,
        "video_ms": MOST_MS,
        "audio_ms": MOST_MS,
    }
    found = []
    for key, limit in limits.items():
        before, after = (statistics.median(line[key] for line in part) for part in (early, late))
        if after - before > limit:
            found.append(f"{key}: {before} in the beginning, {after} in the end")
    before, after = (statistics.median(line["apart_ms"] for line in part) for part in (early, late))
    if abs(after - before) > MOST_MS:
        found.append(f"apart_ms: {before} in the beginning, {after} in the end")
    return found


def main() -> int:
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=int, default=60)
    parser.add_argument("--streams", type=int, default=4)
    parser.add_argument("--json", type=Path)
    parser.add_argument("--port", type=int, default=8688)
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        settings = Settings(
            folder=folder / "server", port=options.port, rtp_ports=(25000, 25999), rooms=[ROOM]
        )
        with RelayServer(settings) as server:
            secret = server.settings.token_secret
            token = tokens.join_token(ROOM, secret, lifetime=(options.minutes + 10) * 60)
            subscriber = Subscriber(settings.host, token)
            seconds = options.minutes * 60 + 60
            publishers = []
            try:
                for number in range(options.streams):
                    bursts = folder / f"bursts-{number}.txt"
                    publishers.append(start_publisher(settings.host, token, bursts, seconds))
                    subscriber.subscribe(bursts)
                lines = watch(subscriber, options.minutes)
            finally:
                for publisher in publishers:
                    publisher.kill()
                    publisher.wait()
                subscriber.client.disconnect()
    if options.json:
        options.json.write_text(json.dumps(lines, indent=1) + "\n")
    found = judge(lines)
    print("\n".join(found) or "nothing grew, nothing drifted apart")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
