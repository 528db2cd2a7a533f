"""The loudness of samples, for bars."""

from __future__ import annotations

import math
from typing import Sequence, Union

from ._terminal import Bar

_FLOOR = -60.0  # dB of full scale that is an empty bar


def peak(samples: Union[memoryview, Sequence[int]]) -> int:
    return max(max(samples), -min(samples)) if len(samples) else 0


def decibels(loudest: int) -> float:
    """Of full scale; silence is minus infinity."""
    return 20 * math.log10(loudest / 32768) if loudest else -math.inf


def level_bar(label: str, loudest: int, text: str) -> Bar:
    level = decibels(loudest)
    fraction = min(max(1 - level / _FLOOR, 0.0), 1.0)
    return Bar(label, fraction, f"{level:6.1f} dB  {text}" if loudest else f"  silent   {text}")
