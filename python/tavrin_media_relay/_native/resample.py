"""Converts 16-bit audio to other rates and channel counts. libsamplerate resamples, and keeps the phase
between blocks, so that a long stream does not drift."""

from __future__ import annotations

import ctypes
import math
from array import array
from typing import Any, Union

from . import libraries

Samples = Union[memoryview, "array[int]"]

_MEDIUM_QUALITY = 1  # 121 dB, 90 % of the band
_PIECE = 4800  # frames per call at most
_SPARE = 64  # spare output frames beyond the ratio


class _Data(ctypes.Structure):
    _fields_ = [
        ("data_in", ctypes.c_void_p),
        ("data_out", ctypes.c_void_p),
        ("input_frames", ctypes.c_long),
        ("output_frames", ctypes.c_long),
        ("input_frames_used", ctypes.c_long),
        ("output_frames_gen", ctypes.c_long),
        ("end_of_input", ctypes.c_int),
        ("src_ratio", ctypes.c_double),
    ]


def _library() -> ctypes.CDLL:
    library = libraries.load("libsamplerate", "audio at another rate than the session's")
    library.src_new.restype = ctypes.c_void_p
    library.src_new.argtypes = [ctypes.c_int, ctypes.c_int, ctypes.POINTER(ctypes.c_int)]
    library.src_process.argtypes = [ctypes.c_void_p, ctypes.POINTER(_Data)]
    library.src_reset.argtypes = library.src_delete.argtypes = [ctypes.c_void_p]
    library.src_short_to_float_array.argtypes = [ctypes.c_char_p, ctypes.c_void_p, ctypes.c_int]
    library.src_float_to_short_array.argtypes = [ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int]
    library.src_strerror.restype = ctypes.c_char_p
    return library


def from_float(samples: memoryview) -> array[int]:
    """Floats from -1 to 1, of any size, as 16-bit samples; what exceeds them is clipped, NaN is silence."""
    floats: array[float] = array("f", samples)
    result = array("h", bytes(2 * len(floats)))
    if floats:
        if not math.isfinite(sum(floats)):
            floats = array("f", (each if math.isfinite(each) else 0.0 for each in floats))
        into = _library().src_float_to_short_array
        into(floats.buffer_info()[0], result.buffer_info()[0], len(floats))
    return result


class _Resampler:
    """One stream of interleaved samples from one rate to another."""

    def __init__(self, rate_in: int, rate_out: int, channels: int) -> None:
        self._state: Any = None
        self._library = _library()
        error = ctypes.c_int()
        self._state = self._library.src_new(_MEDIUM_QUALITY, channels, ctypes.byref(error))
        if not self._state:
            raise MemoryError(f"no resampler: {self._library.src_strerror(error.value)!r}")
        self._channels = channels
        room = int(_PIECE * rate_out / rate_in) + _SPARE
        self._in = (ctypes.c_float * (_PIECE * channels))()
        self._out = (ctypes.c_float * (room * channels))()
        self._data = _Data(
            data_out=ctypes.addressof(self._out), output_frames=room, src_ratio=rate_out / rate_in
        )

    def __del__(self) -> None:
        if self._state:
            self._library.src_delete(self._state)

    def process(self, samples: Samples) -> array[int]:
        result: array[int] = array("h")
        piece = _PIECE * self._channels
        for begin in range(0, len(samples), piece):
            part = samples[begin : begin + piece]
            self._library.src_short_to_float_array(bytes(part), self._in, len(part))
            self._run(len(part) // self._channels, False, result)
        return result

    def flush(self) -> array[int]:
        """Returns the filter's rest; the next samples start a new stream."""
        result: array[int] = array("h")
        self._run(0, True, result)
        self._library.src_reset(self._state)
        return result

    def _run(self, frames: int, last: bool, result: array[int]) -> None:
        data, used = self._data, 0
        while True:
            data.data_in = ctypes.addressof(self._in) + used * self._channels * 4
            data.input_frames, data.end_of_input = frames - used, last
            status = self._library.src_process(self._state, ctypes.byref(data))
            if status:
                raise RuntimeError(f"resampling failed: {self._library.src_strerror(status)!r}")
            used += data.input_frames_used
            made = data.output_frames_gen * self._channels
            if made:
                block = array("h", bytes(made * 2))
                self._library.src_float_to_short_array(self._out, block.buffer_info()[0], made)
                result.extend(block)
            if used >= frames and data.output_frames_gen < data.output_frames and not (last and made):
                return


def _mono(samples: Samples) -> array[int]:
    return array("h", [(left + right) >> 1 for left, right in zip(samples[0::2], samples[1::2])])


def _stereo(samples: Samples) -> array[int]:
    both = array("h", bytes(len(samples) * 4))
    both[0::2] = both[1::2] = array("h", samples)
    return both


class Converter:
    """From one form to another: rate, channels, or both. Keeps the phase between calls."""

    def __init__(self, rate_in: int, channels_in: int, rate_out: int, channels_out: int) -> None:
        self.form_in = (rate_in, channels_in)
        self._channels_in, self._channels_out = channels_in, channels_out
        # Two channels are resampled only where there are two on both sides.
        fewest = min(channels_in, channels_out)
        self._resampler = _Resampler(rate_in, rate_out, fewest) if rate_in != rate_out else None

    def convert(self, samples: Samples) -> Samples:
        """Takes any number of whole frames; returns those complete so far, which may be none."""
        if self._channels_in > self._channels_out:
            samples = _mono(samples)
        if self._resampler is not None:
            samples = self._resampler.process(samples)
        return _stereo(samples) if self._channels_in < self._channels_out else samples

    def flush(self) -> Samples:
        """The rest."""
        if self._resampler is None:
            return array("h")
        rest = self._resampler.flush()
        return _stereo(rest) if self._channels_in < self._channels_out else rest
