"""What an agent published, as the embedded engine recorded it. Times are seconds since it had joined."""

from __future__ import annotations

import wave
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Iterator, Optional

import numpy as np
import numpy.typing as npt

from .sounds import Samples

Plane = npt.NDArray[np.uint8]
_STEP = 0.01  # seconds: the finest that loudness is looked at


@dataclass(frozen=True)
class Utterance:
    """A stretch of sound."""

    begin: float
    end: float

    @property
    def seconds(self) -> float:
        return self.end - self.begin

    def __str__(self) -> str:
        return f"{self.begin:.2f}..{self.end:.2f} s"


@dataclass(frozen=True)
class Timing:
    """How places in a recording, which lacks periods in which nothing was sent, become times."""

    begin: float
    scale: float
    error: float

    @classmethod
    def of(cls, begin: float, end: float, recorded: float) -> Timing:
        if recorded <= 0 or end <= begin:
            return cls(begin, 1.0, max(end - begin, 0.0))
        return cls(begin, (end - begin) / recorded, abs(end - begin - recorded))

    def time(self, place: float) -> float:
        return self.begin + place * self.scale

    def place(self, time: float) -> float:
        return (time - self.begin) / self.scale


class Sound:
    """Every sample that was sent."""

    def __init__(self, path: Path, begin: float, end: float) -> None:
        self.path = path
        """The WAV file."""
        with wave.open(str(path), "rb") as file:
            self.rate = file.getframerate()
            """Hz."""
            samples = np.frombuffer(file.readframes(file.getnframes()), "<i2")
            self.samples: Samples = samples.reshape(-1, file.getnchannels())
            """Of shape (frames, channels)."""
        self._timing = Timing.of(begin, end, len(self.samples) / self.rate)

    @property
    def begin(self) -> float:
        return self._timing.begin

    @property
    def end(self) -> float:
        return self._timing.time(len(self.samples) / self.rate)

    @property
    def timing_error(self) -> float:
        """No time told here is wrong by more than this: by what a busy machine, or a queue that ran dry, left out."""
        return self._timing.error

    def between(self, begin: float, end: float) -> Samples:
        """The samples of a stretch of time."""
        first, last = (int(max(self._timing.place(each), 0.0) * self.rate) for each in (begin, end))
        return self.samples[first:last]

    def loudest(self, begin: float = 0.0, end: float = float("inf")) -> float:
        """The peak in a stretch of time; 1 is full scale."""
        part = self.between(begin, min(end, self.end + 1))
        return float(np.abs(part.astype(np.int32)).max(initial=0)) / 32768

    def utterances(self, pause: float = 0.25, level: float = 0.01) -> tuple[Utterance, ...]:
        """Stretches of sound above a level, where 1 is full scale; shorter pauses belong to them."""
        step = int(self.rate * _STEP)
        blocks = len(self.samples) // step
        loudness = np.abs(self.samples[: blocks * step].astype(np.int32)).reshape(blocks, -1).max(axis=1, initial=0)
        heard = np.flatnonzero(loudness > level * 32768)
        if not len(heard):
            return ()
        breaks = np.flatnonzero(np.diff(heard) * _STEP > pause)
        begins = [int(heard[0]), *(int(heard[each + 1]) for each in breaks)]
        ends = [*(int(heard[each]) + 1 for each in breaks), int(heard[-1]) + 1]
        time = self._timing.time
        return tuple(Utterance(time(b * _STEP), time(e * _STEP)) for b, e in zip(begins, ends))

    def position_of(self, samples: Any) -> Optional[float]:
        """When exactly these samples were sent, in the session's own form; None if they were not, or not whole."""
        wanted = np.ascontiguousarray(np.asarray(samples, np.int16)).tobytes()
        whole, frame = self.samples.tobytes(), 2 * self.samples.shape[1]
        found = whole.find(wanted)
        while found >= 0 and found % frame:
            found = whole.find(wanted, found + 1)
        return None if found < 0 else self._timing.time(found / frame / self.rate)

    def frequency(self, begin: float, end: float) -> float:
        """The strongest frequency of a stretch of time, in Hz."""
        part = self.between(begin, end).mean(axis=1)
        if len(part) < self.rate // 50:
            sent = f"the sound is from {self.begin:g} to {self.end:g} s"
            raise ValueError(f"nothing was sent from {begin:g} to {end:g} s: {sent}")
        spectrum = np.abs(np.fft.rfft(part * np.hanning(len(part))))
        return float(spectrum.argmax() * self.rate / len(part))


class Film:
    """Every picture that was sent, repeated and black ones too."""

    def __init__(self, path: Path, begin: float, end: float) -> None:
        self.path = path
        """The Y4M file, which is not read into memory."""
        with open(path, "rb") as file:
            header = file.readline()
        words = {word[:1]: word[1:] for word in header.decode("ascii").split()[1:]}
        self.width, self.height = int(words["W"]), int(words["H"])
        above, below = words["F"].split(":")
        self.fps = int(above) / int(below)
        chroma = ((self.height + 1) // 2) * ((self.width + 1) // 2)
        self._size = self.width * self.height + 2 * chroma
        data: Any = np.memmap(path, np.uint8, "r", offset=len(header))
        stride = self._size + len(b"FRAME\n")
        self._pictures = data[: len(data) // stride * stride].reshape(-1, stride)[:, len(b"FRAME\n") :]
        self._timing = Timing.of(begin, end, len(self) / self.fps)

    def __len__(self) -> int:
        return len(self._pictures)

    def __getitem__(self, number: int) -> tuple[Plane, Plane, Plane]:
        """Planes Y, U and V of a picture."""
        picture = self._pictures[number]
        half = ((self.height + 1) // 2, (self.width + 1) // 2)
        luma, chroma = self.width * self.height, half[0] * half[1]
        return (
            picture[:luma].reshape(self.height, self.width),
            picture[luma : luma + chroma].reshape(half),
            picture[luma + chroma :].reshape(half),
        )

    def __iter__(self) -> Iterator[tuple[Plane, Plane, Plane]]:
        return (self[number] for number in range(len(self)))

    def time_of(self, number: int) -> float:
        """When a picture was sent, to within `timing_error`."""
        return self._timing.time(number / self.fps)

    @property
    def timing_error(self) -> float:
        return self._timing.error
