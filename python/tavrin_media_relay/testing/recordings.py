"""An agent's published media, recorded by the embedded engine. Times are seconds since it joined."""

from __future__ import annotations

import wave
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Iterator, Sequence

import numpy as np
import numpy.typing as npt

from .sounds import Samples

Plane = npt.NDArray[np.uint8]


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


class Timeline:
    """When each position in a file was sent: the recording marks the beginning, and each position sent
    earlier or later than the marks before it predict."""

    def __init__(self, marks: Sequence[tuple[float, float]], begin: float) -> None:
        """marks: seconds into the file and the time there, in order. begin: start time of a file without
        marks."""
        places, times = zip(*(marks or [(0.0, begin)]))
        self._places, self._times = np.array(places), np.array(times)
        self._ends = np.append(self._times[1:], np.inf)
        self._lengths = np.append(self._places[1:], np.inf)

    def times(self, places: Any) -> npt.NDArray[np.float64]:
        """The times of positions in seconds."""
        last = np.maximum(np.searchsorted(self._places, places, "right") - 1, 0)
        told = self._times[last] + places - self._places[last]
        result: npt.NDArray[np.float64] = np.minimum(told, self._ends[last])
        return result

    def time(self, place: float) -> float:
        return float(self.times(place))

    def place(self, time: float) -> float:
        """The position sent at a time; the next one sent, if nothing was."""
        last = max(int(np.searchsorted(self._times, time, "right")) - 1, 0)
        return float(min(self._places[last] + max(time - self._times[last], 0.0), self._lengths[last]))


class Sound:
    """Every sample that was sent."""

    def __init__(self, path: Path, marks: Sequence[tuple[int, float]], begin: float) -> None:
        """marks: frame numbers, and when each was sent."""
        self.path = path
        """The WAV file."""
        with wave.open(str(path), "rb") as file:
            self.rate = file.getframerate()
            """Hz."""
            samples = np.frombuffer(file.readframes(file.getnframes()), "<i2")
            self.samples: Samples = samples.reshape(-1, file.getnchannels())
            """Of shape (frames, channels)."""
        self._line = Timeline([(frame / self.rate, time) for frame, time in marks], begin)

    @property
    def begin(self) -> float:
        """When the first sample was sent."""
        return self._line.time(0.0)

    @property
    def end(self) -> float:
        return self._line.time(len(self.samples) / self.rate)

    def between(self, begin: float, end: float) -> Samples:
        """The samples of a stretch of time."""
        length = len(self.samples)
        first, last = (round(min(self._line.place(each) * self.rate, length)) for each in (begin, end))
        return self.samples[first:last]

    def loudest(self, begin: float = 0.0, end: float = float("inf")) -> float:
        """The peak in a stretch of time; 1 is full scale."""
        part = self.between(begin, end)
        return float(np.abs(part.astype(np.int32)).max(initial=0)) / 32768

    def utterances(self, pause: float = 0.25, level: float = 0.01) -> tuple[Utterance, ...]:
        """Stretches of sound above a level, where 1 is full scale; shorter pauses do not split them."""
        heard = np.flatnonzero((np.abs(self.samples.astype(np.int32)) > level * 32768).any(axis=1))
        if not len(heard):
            return ()
        times = self._line.times(heard / self.rate)
        breaks = np.flatnonzero(np.diff(times) > pause)
        begins, ends = times[np.append(0, breaks + 1)], times[np.append(breaks, -1)] + 1 / self.rate
        return tuple(Utterance(float(begin), float(end)) for begin, end in zip(begins, ends))

    def position_of(self, samples: Any) -> float | None:
        """When exactly these samples were sent, in the session's own form; None unless all of them were."""
        wanted = np.ascontiguousarray(np.asarray(samples, np.int16)).tobytes()
        whole, frame = self.samples.tobytes(), 2 * self.samples.shape[1]
        found = whole.find(wanted)
        while found >= 0 and found % frame:
            found = whole.find(wanted, found + 1)
        return None if found < 0 else self._line.time(found / frame / self.rate)

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

    def __init__(self, path: Path, marks: Sequence[tuple[int, float]], begin: float) -> None:
        """marks: numbers of pictures, and when each was sent."""
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
        self._line = Timeline([(number / self.fps, time) for number, time in marks], begin)

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
        """When a picture was sent."""
        return self._line.time(number / self.fps)
