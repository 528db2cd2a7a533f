"""Sounds for scripted participants: from files, from samples, or synthetic. All 48 kHz, one channel."""

from __future__ import annotations

import os
import shutil
import subprocess
from array import array
from pathlib import Path
from typing import Any, Union

import numpy as np
import numpy.typing as npt

from .._media_files import decoding, open_wave, sound_options
from .._native.resample import Converter

RATE = 48000
Samples = npt.NDArray[np.int16]
Source = Union[str, "os.PathLike[str]", Any]


def tone(seconds: float, hertz: float = 440.0, level: float = 0.25) -> Samples:
    """A sine; a level of 1 is full scale."""
    at = np.arange(int(seconds * RATE)) / RATE
    return np.asarray(np.sin(2 * np.pi * hertz * at) * level * 32767, np.int16)


def babble(seconds: float, level: float = 0.4, seed: int = 1) -> Samples:
    """Speech-like sound: noise in a voice's frequencies, in syllables, without a pause. The same for each
    seed."""
    count = int(seconds * RATE)
    noise = np.random.default_rng(seed).normal(size=count)
    spectrum, frequencies = np.fft.rfft(noise), np.fft.rfftfreq(count, 1 / RATE)
    voice = np.fft.irfft(spectrum * ((frequencies > 150) & (frequencies < 3500)), count)
    syllables = 0.6 + 0.4 * np.sin(2 * np.pi * 4 * np.arange(count) / RATE)
    sound = voice * syllables
    loudest = max(float(np.abs(sound).max(initial=0)), 1e-9)
    return np.asarray(sound / loudest * level * 32767, np.int16)


def _converted(samples: Samples, rate: int) -> Samples:
    if rate == RATE:
        return samples
    converter = Converter(rate, 1, RATE, 1)
    parts = [array("h", converter.convert(memoryview(samples.tobytes()).cast("h"))), converter.flush()]
    return np.concatenate([np.frombuffer(each, np.int16) for each in parts])


def load(source: Source, rate: int = RATE) -> Samples:
    """A file, or samples of the given rate: 16-bit, flat or of shape (frames, channels)."""
    if not isinstance(source, (str, os.PathLike)):
        samples = np.asarray(source)
        if samples.dtype != np.int16 or samples.ndim not in (1, 2):
            raise TypeError(
                "a sound is a file's path or an int16 array, flat or of shape (frames, channels), "
                f"not {samples.dtype} of shape {samples.shape}"
            )
        mono = samples if samples.ndim == 1 else samples.mean(axis=1).astype(np.int16)
        return _converted(mono, rate)
    path = Path(source)
    if not path.is_file():
        raise FileNotFoundError(f"there is no sound file {path}")
    file = open_wave(path)
    if file is not None:
        with file:
            read = np.frombuffer(file.readframes(file.getnframes()), "<i2").reshape(-1, file.getnchannels())
            return _converted(read.mean(axis=1).astype(np.int16), file.getframerate())
    if shutil.which("ffmpeg") is None:
        raise RuntimeError(
            f"{path} needs the program ffmpeg, which is not installed: only 16-bit WAV is read without"
        )
    done = subprocess.run(decoding(path, sound_options(RATE, 1)), capture_output=True)
    if done.returncode:
        raise ValueError(f"{path} can't be decoded: {done.stderr.decode(errors='replace').strip()}")
    return np.frombuffer(done.stdout, "<i2")
