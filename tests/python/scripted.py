"""The scripted library from Python: its header is read, so that there is one list of its functions.

`lib.stream_received("s", ...)` calls `scripted_stream_received`, with texts as `str`. Importing this module
loads the library; a module loaded afterwards that asks for `libsarnet.so` gets this one.
"""

from __future__ import annotations

import ctypes
import re
import time
from typing import TYPE_CHECKING, Any

from programs import BUILD, ROOT

SUPPORT = BUILD / "scripted"

_TYPES = {
    "void": None,
    "int": ctypes.c_int,
    "long": ctypes.c_long,
    "double": ctypes.c_double,
    "size_t": ctypes.c_size_t,
    "int32_t": ctypes.c_int32,
    "uint32_t": ctypes.c_uint32,
    "int64_t": ctypes.c_int64,
    "uint64_t": ctypes.c_uint64,
    "const char*": ctypes.c_char_p,
}
YUV420P = 1
DEADLINE = 20.0
# What the texts of programs of their own begin with.
PRELUDE = """
import os, sys, threading, time
from scripted import lib
from _tavrin_video import TavrinVideoClient
from tavrin_media_relay.models import *
lib.media_on_delivery_threads(1)
"""


def until(condition, what: str = "", seconds: float = DEADLINE) -> None:
    """For what has no event to wait on. Fails after the deadline."""
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, f"timed out waiting for {what or condition}"
        time.sleep(0.002)


class FrameSpec(ctypes.Structure):
    """See scripted_frame_spec."""

    _fields_ = [
        *((name, ctypes.c_int32) for name in ("format", "width", "height", "apart", "missing", "fill")),
        ("stride", ctypes.c_int32 * 3),
        ("rows", ctypes.c_int32 * 3),
        ("buffer_size", ctypes.c_int64),
        ("plane_rows", ctypes.c_int32 * 3),
    ]


class ProvidedFrame(ctypes.Structure):
    """See scripted_provided_frame."""

    _fields_ = [
        ("handle", ctypes.c_int64),
        *((name, ctypes.c_int32) for name in ("rotation", "format", "width", "height")),
        ("size", ctypes.c_uint64),
        ("checksum", ctypes.c_uint32),
        ("first", ctypes.c_uint8 * 12),
    ]


def _argument_type(declaration: str) -> object:
    kind = re.sub(r"\s*\w+$", "", declaration.strip())
    return _TYPES.get(kind, ctypes.c_void_p)


class Library:
    """The control functions, without their prefix; results that are texts are `str`."""

    if TYPE_CHECKING:

        def __getattr__(self, name: str) -> Any:
            ...

    def __init__(self) -> None:
        self._library = ctypes.CDLL(str(SUPPORT / "libsarnet.so"))
        header = (ROOT / "tools/scripted_sarnet/scripted_sarnet.h").read_text()
        declared = re.findall(r"SCRIPTED_API ([\w ]+?\**)\s*scripted_(\w+)\(([^)]*)\);", header)
        assert len(declared) > 60, "the header of the scripted library was not understood"
        for result, name, arguments in declared:
            function = getattr(self._library, f"scripted_{name}")
            function.restype = _TYPES.get(result.strip(), ctypes.c_void_p)
            function.argtypes = [_argument_type(each) for each in arguments.split(",") if each != "void"]
            setattr(self, name, self._textual(function))

    @staticmethod
    def _textual(function):
        def call(*arguments):
            given = [each.encode() if isinstance(each, str) else each for each in arguments]
            result = function(*given)
            return result.decode(errors="replace") if isinstance(result, bytes) else result

        return call

    def call_names(self) -> list[str]:
        return [line.split("(")[0] for line in self.calls().splitlines()]

    def send_audio(self, stream: str, samples: bytes, channels: int = 2, rate: int = 48000) -> int:
        return self.audio(stream, samples, channels, len(samples) // 2 // max(channels, 1), rate)

    def send_frame(self, stream: str, width: int, height: int, format: int = YUV420P, **rest: object) -> int:
        spec = FrameSpec(format=format, width=width, height=height)
        for name, value in rest.items():
            setattr(spec, name, (ctypes.c_int32 * 3)(*value) if isinstance(value, tuple) else value)
        return self.frame(stream, ctypes.byref(spec))

    def captured_bytes(self, start: int, samples: int) -> bytes:
        out = (ctypes.c_int16 * samples)()
        got = self.captured(start, out, samples)
        return bytes(out)[: 2 * got]

    def provided_frames(self) -> list[ProvidedFrame]:
        frames = []
        for position in range(self.provided_count()):
            frame = ProvidedFrame()
            if self.provided(position, ctypes.byref(frame)):
                frames.append(frame)
        return frames


lib = Library()
