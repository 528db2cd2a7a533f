"""Cuts what is heard into utterances: from the first loud moment to half a second of quiet."""

from __future__ import annotations

import collections
import math
import threading

import numpy as np

RATE = 48000
CHANNELS = 2
LOUD = 10 ** (-42 / 20) * 32768  # root mean square of a period that counts as voice
BEFORE = 20  # periods of 10 ms that are kept from before the first loud one
QUIET = 50  # quiet periods that end an utterance
SHORTEST, LONGEST = 10, 1000  # loud periods; all periods


class Listener:
    """`hear` is called by the thread that brings audio, everything else by others."""

    def __init__(self) -> None:
        self.level = 0.0  # 0 to 1 over 60 dB, falling slowly
        self._changed = threading.Condition()
        self._finished: collections.deque[np.ndarray] = collections.deque(maxlen=4)
        self._deaf = 0  # periods to ignore
        self._before: collections.deque[np.ndarray] = collections.deque(maxlen=BEFORE)
        self._current: list[np.ndarray] = []
        self._loud = 0
        self._quiet = 0

    def hear(self, period: np.ndarray) -> None:
        loudness = math.sqrt(float(np.mean(np.square(period, dtype=np.float32)))) if len(period) else 0.0
        level = (20 * math.log10(loudness / 32768 + 1e-6) + 60) / 60
        self.level = max(0.0, min(1.0, level), self.level - 0.02)
        with self._changed:
            if self._deaf > 0:
                self._deaf -= 1
                self._current, self._loud = [], 0
                return
        loud = loudness > LOUD
        if not self._current:
            self._before.append(period)
            if loud:
                self._current, self._loud, self._quiet = list(self._before), 1, 0
                self._before.clear()
            return
        self._current.append(period)
        self._loud += loud
        self._quiet = 0 if loud else self._quiet + 1
        if self._quiet >= QUIET or len(self._current) >= LONGEST:
            if self._loud >= SHORTEST:
                with self._changed:
                    self._finished.append(np.concatenate(self._current))
                    self._changed.notify_all()
            self._current = []

    def next_utterance(self, timeout: float) -> np.ndarray | None:
        """Interleaved samples of the oldest one not yet taken, or None after `timeout` seconds."""
        with self._changed:
            if not self._changed.wait_for(lambda: self._finished, timeout):
                return None
            return self._finished.popleft()

    def deafen(self, seconds: float) -> None:
        """Drops what was heard, and ignores input for a while."""
        with self._changed:
            self._deaf = round(seconds * 100)
            self._finished.clear()
