"""What both libraries send in the benchmark, and what is read from it at the other end."""

from __future__ import annotations

import resource
import time
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np

RATE, CHANNELS = 48000, 2
BITS, CELL = 32, 16
BURST_MS = 20
LOUD = 12000
# Seconds between joining and subscribing: what a library makes once in a process, as keys, is made by then.
SETTLED = 1.0


def now_ms() -> float:
    return time.monotonic() * 1000


class Pictures:
    """Stripes that move everywhere, with the time of their making, in tenths of a millisecond, in the first
    rows."""

    def __init__(self, width: int, height: int) -> None:
        self.width, self.height = width, height
        y, x = np.mgrid[0:height, 0:width]
        self._luma = [(((x + 4 * k) // 3 + (y * 2) // 5) % 200 + 28).astype(np.uint8) for k in range(16)]
        self._grey = np.full(width * height // 2, 128, np.uint8)
        self.made: list[int] = []

    def make(self, number: int) -> np.ndarray[Any, np.dtype[np.uint8]]:
        pixels: np.ndarray[Any, np.dtype[np.uint8]] = np.concatenate(
            [self._luma[number % 16].ravel(), self._grey]
        )
        stamp = int(now_ms() * 10) & 0xFFFFFFFF
        self.made.append(stamp)
        cell = min(CELL, self.width // BITS)
        marks = np.array([235 if stamp >> i & 1 else 16 for i in range(BITS)], np.uint8)
        pixels[: self.width * cell].reshape(cell, self.width)[:, : BITS * cell] = np.repeat(marks, cell)
        return pixels


def read_stamp(luma: np.ndarray[Any, np.dtype[np.uint8]]) -> int:
    cell = min(CELL, luma.shape[1] // BITS)
    bits = luma[cell // 2, cell // 2 : BITS * cell : cell] > 126
    return int(bits @ (1 << np.arange(BITS, dtype=np.int64)))


def age(stamp: int) -> float:
    """Milliseconds since the picture was made."""
    return ((int(now_ms() * 10) - stamp) & 0xFFFFFFFF) / 10


def tone(milliseconds: int) -> Iterator[tuple[bytes, bool]]:
    """Pieces of stereo sound: quiet, and loud for 20 ms in each second."""
    frames = RATE * milliseconds // 1000
    wave = np.sin(2 * np.pi * 1000 * np.arange(frames) / RATE)
    quiet, loud = (np.repeat((wave * peak).astype(np.int16), CHANNELS).tobytes() for peak in (800, 30000))
    while True:
        for at in range(0, 1000, milliseconds):
            yield (loud, at == 0) if at < BURST_MS else (quiet, False)


class Bursts:
    """The times of the bursts that were sent, in a file for the other end."""

    def __init__(self, file: Path) -> None:
        self._file = file

    def sent(self) -> None:
        with self._file.open("a") as file:
            file.write(f"{now_ms()}\n")

    def delays(self, heard: list[float]) -> list[float]:
        sent = (
            np.array([float(line) for line in self._file.read_text().split()])
            if self._file.exists()
            else np.zeros(0)
        )
        delays = []
        for time_heard in heard:
            before = sent[sent <= time_heard]
            if len(before) and time_heard - before[-1] < 900:
                delays.append(time_heard - before[-1])
        return delays


class Listener:
    """Counts and times what arrives. `measuring` says from when on."""

    def __init__(self, started: float) -> None:
        self.started = started
        self.first: dict[str, float] = {}
        self.measuring = False
        self.frames = self.samples = 0
        self.ages: list[float] = []
        self.shown: list[tuple[float, int]] = []
        self.heard: list[float] = []
        self._quiet_since = 0

    def picture(self, luma: np.ndarray[Any, np.dtype[np.uint8]]) -> None:
        self.first.setdefault("video", now_ms() - self.started)
        if self.measuring:
            stamp = read_stamp(luma)
            self.frames += 1
            self.ages.append(age(stamp))
            self.shown.append((now_ms(), stamp))

    def sound(self, samples: np.ndarray[Any, np.dtype[np.int16]]) -> None:
        """`samples` are interleaved."""
        self.first.setdefault("audio", now_ms() - self.started)
        frames = len(samples) // CHANNELS
        loud = np.flatnonzero(samples[::CHANNELS] > LOUD)
        if len(loud) and self._quiet_since > RATE // 4 and self.measuring:
            self.heard.append(now_ms() + (loud[0] - frames) / RATE * 1000)
        self._quiet_since = 0 if len(loud) else self._quiet_since + frames
        if self.measuring:
            self.samples += frames


def quantiles(values: list[float]) -> dict[str, float]:
    if not values:
        return {}
    p50, p95, p99 = np.percentile(np.array(values), [50, 95, 99])
    return {
        "p50": round(float(p50), 1),
        "p95": round(float(p95), 1),
        "p99": round(float(p99), 1),
        "n": len(values),
    }


def processor_seconds() -> float:
    used = resource.getrusage(resource.RUSAGE_SELF)
    return used.ru_utime + used.ru_stime


def resident_mib() -> float:
    for line in Path("/proc/self/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return round(int(line.split()[1]) / 1024, 1)
    return 0.0


def threads() -> int:
    return len(list(Path("/proc/self/task").iterdir()))
