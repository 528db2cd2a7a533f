"""Tells voice from quiet in the audio of one stream."""

from __future__ import annotations

import threading
import time

import numpy as np

VOICE_LEVEL = -40.0  # dB of full scale, of a block of 10 ms
VOICE_BLOCKS = 10  # this many loud blocks within a second are a voice
QUIET_SECONDS = 0.8


def level(samples: np.ndarray) -> float:
    """Loudness in dB of full scale; -120 for silence."""
    rms = np.sqrt(np.mean(np.square(samples, dtype=np.float64))) if len(samples) else 0.0
    return max(-120.0, 20 * np.log10(max(rms, 1e-9) / 32768))


class Ear:
    """Fed by the audio callable, read by the program's own thread."""

    def __init__(self) -> None:
        self._changed = threading.Condition()
        self._loud: list[float] = []  # times of the loud blocks of the last second
        self.now = -120.0  # level of the last block

    def hear(self, samples: np.ndarray) -> None:
        loudness, now = level(samples), time.monotonic()
        with self._changed:
            self.now = loudness
            if loudness > VOICE_LEVEL:
                self._loud = [at for at in self._loud if now - at < 1.0] + [now]
                self._changed.notify_all()

    def _quiet_for(self) -> float:
        return time.monotonic() - self._loud[-1] if self._loud else 0.0

    def wait_for_voice(self, patience: float) -> None:
        with self._changed:
            self._loud.clear()
            if not self._changed.wait_for(lambda: len(self._loud) >= VOICE_BLOCKS, patience):
                raise RuntimeError(f"nobody spoke for {patience:.0f} s")

    def wait_for_quiet(self, patience: float) -> None:
        """Returns once there has been no voice for QUIET_SECONDS."""
        deadline = time.monotonic() + patience
        with self._changed:
            while self._quiet_for() < QUIET_SECONDS:
                if time.monotonic() > deadline:
                    raise RuntimeError(f"it was never quiet in {patience:.0f} s")
                self._changed.wait(QUIET_SECONDS - min(self._quiet_for(), QUIET_SECONDS) + 0.01)
