"""Reads media files: 16-bit WAV by Python itself, others by the program ffmpeg."""

from __future__ import annotations

import contextlib
import wave
from pathlib import Path
from typing import Sequence


def open_wave(path: Path) -> wave.Wave_read | None:
    """A WAV file of 16 bits and 8 to 48 kHz, for the caller to close; None for any other file."""
    with contextlib.suppress(wave.Error, EOFError):
        file = wave.open(str(path), "rb")
        if file.getsampwidth() == 2 and 8000 <= file.getframerate() <= 48000:
            return file
        file.close()
    return None


def decoding(path: Path, after: Sequence[str], before: Sequence[str] = ()) -> list[str]:
    """The command that decodes a file to its standard output. after, before: ffmpeg's options around the
    input."""
    return ["ffmpeg", "-v", "error", "-nostdin", *before, "-i", f"file:{path}", *after, "pipe:1"]


def sound_options(rate: int, channels: int) -> list[str]:
    """The arguments of `decoding` for interleaved 16-bit samples."""
    return ["-vn", "-f", "s16le", "-ac", str(channels), "-ar", str(rate)]
