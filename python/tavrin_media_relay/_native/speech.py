"""Voice activity: libtavrin_speech.so, which asks Debian's libwebrtc-audio-processing."""

from __future__ import annotations

import ctypes
import functools
import importlib.util
from pathlib import Path
from typing import Any

from .libraries import _mapped

RATE = 16000
BLOCK = 160
"""Samples of 10 ms."""
_CAPACITY = 16
# The library's decision lasts 70 ms longer than the voice; what is quieter than -60 dB is none.
_LEAST_LEVEL = 0.001
_NAME = "libtavrin_speech.so"


class _Block(ctypes.Structure):
    _fields_ = (
        ("probability", ctypes.c_float),
        ("level", ctypes.c_float),
        ("voice", ctypes.c_int32),
    )


@functools.cache
def _library() -> ctypes.CDLL:
    """Beside the native module, or where a wheel puts its libraries. RuntimeError if it is missing."""
    module = importlib.util.find_spec("_tavrin_video")
    place = Path(str(module.origin)).parent if module else Path()
    found = [place / _NAME, place / "tavrin_media_relay.libs" / _NAME]
    path = _mapped("libtavrin_speech") or next((str(each) for each in found if each.exists()), _NAME)
    try:
        library = ctypes.CDLL(path)
    except OSError as error:
        raise RuntimeError(f"turns of speech need {_NAME}, which cannot be loaded: {error}") from error
    library.tavrin_speech_new.restype = ctypes.c_void_p
    library.tavrin_speech_delete.argtypes = [ctypes.c_void_p]
    library.tavrin_speech_process.argtypes = [
        ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_int, ctypes.c_int,
        ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int,
    ]  # fmt: skip
    return library


class Detector:
    """Of one stream; for one thread at a time."""

    def __init__(self) -> None:
        self._library = _library()
        self._handle = self._library.tavrin_speech_new()
        if not self._handle:
            raise MemoryError("a voice activity detector")
        self._samples = (ctypes.c_int16 * (_CAPACITY * BLOCK))()
        self._blocks = (_Block * _CAPACITY)()

    def process(self, samples: Any, rate: int, channels: int) -> list[tuple[bytes, bool]]:
        """Takes up to 100 ms of interleaved 16-bit samples. Each complete 10 ms as 16 kHz mono, and whether
        there is a voice in it."""
        view = memoryview(samples).cast("B")
        source: Any
        if view.readonly:
            source = ctypes.c_char_p(view.tobytes())
        else:
            source = (ctypes.c_char * len(view)).from_buffer(view)
        count = self._library.tavrin_speech_process(
            self._handle, source, len(view) // 2 // channels, rate, channels,
            self._samples, self._blocks, _CAPACITY,
        )  # fmt: skip
        if count <= 0:
            return []
        sound = memoryview(self._samples).cast("B")
        size = 2 * BLOCK
        found = []
        for each in range(count):
            block = self._blocks[each]
            voice = bool(block.voice) and block.level > _LEAST_LEVEL
            found.append((bytes(sound[each * size : (each + 1) * size]), voice))
        return found

    def __del__(self) -> None:
        handle, self._handle = getattr(self, "_handle", None), None
        if handle:
            self._library.tavrin_speech_delete(handle)
