"""The script played to an agent. All times are seconds since it joined."""

from __future__ import annotations

import json
import math
import os
import wave
from pathlib import Path
from typing import Any, Union

import numpy as np

from .recordings import Utterance
from .sounds import RATE, Source, load


def milliseconds(name: str, seconds: float) -> int:
    if not (isinstance(seconds, (int, float)) and math.isfinite(seconds) and seconds >= 0):
        raise ValueError(f"{name} must be seconds, 0 or more, not {seconds!r}")
    return round(seconds * 1000)


class Participant:
    """A scripted participant. Made by `Rehearsal.participant`."""

    def __init__(self, id: str, name: str, data: str, join_at: float, leave_at: float | None) -> None:
        self.id = id
        self._keys: dict[str, Any] = {"id": id, "name": name, "data": data}
        self._join_ms = milliseconds("join_at", join_at)
        self._keys["join_at_ms"] = self._join_ms
        if leave_at is not None:
            self._keys["leave_at_ms"] = milliseconds("leave_at", leave_at)
        self._sayings: list[tuple[int, Any]] = []
        self._captions: list[dict[str, Any]] = []

    @property
    def stream_id(self) -> str:
        """Id of the participant's stream."""
        return f"{self.id}-stream"

    def says(self, sound: Source, at: float, *, sample_rate: int = RATE) -> Utterance:
        """Speaks at a time: a sound file, or 16-bit samples of `sample_rate`. Returns the stretch of time."""
        if "audio" in self._keys:
            raise ValueError(f"{self.id} has a continuous sound already")
        samples = load(sound, sample_rate)
        begin = self._own_ms(at)
        self._sayings.append((begin, samples))
        return Utterance(at, at + len(samples) / RATE)

    def sounds(self, source: Union[str, "os.PathLike[str]", float], *, loop: bool = True) -> None:
        """Plays a continuous sound from joining on: a file, or a tone in Hz."""
        if self._sayings:
            raise ValueError(f"{self.id} says something already")
        if isinstance(source, (int, float)):
            self._keys["audio"] = {"tone_hz": source}
        else:
            self._keys["audio"] = {"file": str(Path(source).resolve()), "loop": loop}

    def shows(
        self,
        file: Union[str, "os.PathLike[str]", None] = None,
        *,
        width: int | None = None,
        height: int | None = None,
        fps: int | None = None,
    ) -> None:
        """Shows a video or a still picture from joining on; without a file, a moving test card."""
        source: dict[str, Any] = {"testcard": True} if file is None else {"file": str(Path(file).resolve())}
        given = {"width": width, "height": height, "fps": fps}
        self._keys["video"] = source | {name: value for name, value in given.items() if value is not None}

    def caption(self, text: str, at: float, *, final: bool = True) -> None:
        """Sends a caption at a time."""
        self._captions.append({"at_ms": self._own_ms(at), "text": text, "final": final})

    def _own_ms(self, at: float) -> int:
        ms = milliseconds("at", at)
        if ms < self._join_ms:
            raise ValueError(
                f"{self.id} joins at {self._join_ms / 1000:g} s, and cannot do anything at {at:g} s"
            )
        return ms - self._join_ms

    def keys(self, folder: Path) -> dict[str, Any]:
        """For the scenario. All that is said becomes one sound file in the folder."""
        keys = dict(self._keys)
        if self._captions:
            keys["captions"] = sorted(self._captions, key=lambda each: int(each["at_ms"]))
        if self._sayings:
            places = [(ms * RATE // 1000, samples) for ms, samples in self._sayings]
            whole = np.zeros(max(at + len(samples) for at, samples in places), np.int32)
            for at, samples in places:
                whole[at : at + len(samples)] += samples
            path = folder / f"{self.id}.wav"
            with wave.open(str(path), "wb") as file:
                file.setnchannels(1)
                file.setsampwidth(2)
                file.setframerate(RATE)
                file.writeframes(whole.clip(-32768, 32767).astype("<i2").tobytes())
            keys["audio"] = {"file": str(path), "loop": False}
        return keys


class Script:
    """A scenario being built."""

    def __init__(self) -> None:
        self.participants: dict[str, Participant] = {}
        self.events: list[dict[str, Any]] = []
        self.keys: dict[str, Any] = {}

    def add(self, participant: Participant) -> Participant:
        plain = participant.id.replace("-", "").replace("_", "")
        if not plain.isalnum() or participant.id in self.participants:
            raise ValueError(
                f"an id is made of letters, digits, '-' and '_', and unique, not {participant.id!r}"
            )
        self.participants[participant.id] = participant
        return participant

    def write(self, folder: Path) -> Path:
        keys = self.keys | {"record": "recording"}
        keys["participants"] = [each.keys(folder) for each in self.participants.values()]
        keys["events"] = self.events
        path = folder / "scenario.json"
        path.write_text(json.dumps(keys, indent=2, ensure_ascii=False), encoding="utf-8")
        return path
