"""Picture layouts: what a buffer holds, and conversion between layouts by libyuv.

Every conversion passes through libyuv's 32-bit ARGB, so each layout needs only two functions. The input is
copied to `bytes`, since ctypes takes other buffers only if writable. Each thread keeps the memory
of the intermediate picture: allocating it costs more than the conversion.
"""

from __future__ import annotations

import ctypes
import threading
from typing import Any, Final, Literal

from ..models import VideoResolution, frame_buffer_size
from . import libraries

#: Layouts that can be written: the session's three, and those of picture libraries.
Layout = Literal["YUV420P", "RGB24", "ARGB32", "RGBA32", "GRAY8"]
LAYOUTS: Final = ("YUV420P", "RGB24", "ARGB32", "RGBA32", "GRAY8")

# Bytes of a pixel, and the functions to and from the common form. libyuv names its formats after words in
# little-endian memory: its "RAW" are the bytes R, G, B; its "BGRA" are A, R, G, B; its "ABGR" are R, G, B, A.
_PIXEL: Final = {"RGB24": 3, "ARGB32": 4, "RGBA32": 4, "GRAY8": 1}
_DECODE: Final = {"RGB24": "RAWToARGB", "ARGB32": "BGRAToARGB", "RGBA32": "ABGRToARGB", "GRAY8": "J400ToARGB"}
_ENCODE: Final = {"RGB24": "ARGBToRAW", "ARGB32": "ARGBToBGRA"}


class _Scratch(threading.local):
    memory: Any = (ctypes.c_char * 0)()

    def of(self, size: int) -> Any:
        if len(self.memory) != size:
            self.memory = (ctypes.c_char * size)()
        return self.memory


_scratch = _Scratch()


def size_of(width: int, height: int, layout: str) -> int:
    """Bytes of a tightly packed picture."""
    return width * height * _PIXEL[layout] if layout in _PIXEL else frame_buffer_size(width, height, layout)


def layout_of(view: memoryview, size: VideoResolution, wanted: str, layout: str | None) -> str:
    """The layout of a buffer, from its shape unless given. Raises ValueError for another size."""
    width, height = size.width, size.height
    if layout is not None:
        if layout not in LAYOUTS:
            raise ValueError(f"layout must be one of {', '.join(LAYOUTS)}, not {layout!r}")
        if view.nbytes != size_of(width, height, layout):
            raise ValueError(
                f"a {width}x{height} picture in {layout} has {size_of(width, height, layout)} bytes, "
                f"not {view.nbytes} (shape {view.shape})"
            )
        return layout
    known: dict[tuple[int, ...], str] = {
        (height, width, 3): "RGB24",
        (height, width, 4): "RGBA32",
        (height, width): "GRAY8",
        (size_of(width, height, wanted),): wanted,
    }
    if width % 2 == 0 and height % 2 == 0:
        known[(height * 3 // 2, width)] = "YUV420P"  # the planes under each other
    found = known.get(tuple(view.shape or ()))
    if found is None:
        raise ValueError(
            f"frame has the shape {view.shape}; the session's pictures are {width}x{height} "
            f"{wanted}: wanted is "
            f"({height}, {width}, 3) for RGB, ({height}, {width}, 4) for RGBA, ({height}, {width}) for grey, "
            f"or {size_of(width, height, wanted)} bytes of {wanted}; name any other with layout="
        )
    return found


def _planes(address: int, width: int, height: int) -> list[Any]:
    """Pointers and strides of the three planes, as libyuv's arguments."""
    half, rows = (width + 1) // 2, (height + 1) // 2
    starts = (address, address + width * height, address + width * height + half * rows)
    return [each for pair in zip(starts, (width, half, half)) for each in (ctypes.c_void_p(pair[0]), pair[1])]


def convert(pixels: bytes | memoryview, width: int, height: int, layout: str, wanted: str) -> bytearray:
    """A picture in another layout; YUV420P is video range, BT.601. Any thread."""
    library = libraries.load("libyuv", f"{layout} to {wanted}")
    pixels = bytes(pixels)
    source = ctypes.cast(ctypes.c_char_p(pixels), ctypes.c_void_p).value or 0
    common = _scratch.of(width * height * 4)
    if layout == "YUV420P":
        status = library.I420ToARGB(*_planes(source, width, height), common, width * 4, width, height)
    else:
        decode = getattr(library, _DECODE[layout])
        status = decode(ctypes.c_void_p(source), width * _PIXEL[layout], common, width * 4, width, height)
    result = bytearray(size_of(width, height, wanted))
    target = (ctypes.c_char * len(result)).from_buffer(result)
    if wanted == "YUV420P":
        planes = _planes(ctypes.addressof(target), width, height)
        status |= library.ARGBToI420(common, width * 4, *planes, width, height)
    else:
        encode = getattr(library, _ENCODE[wanted])
        status |= encode(common, width * 4, target, width * _PIXEL[wanted], width, height)
    if status:
        raise RuntimeError(f"libyuv could not convert {width}x{height} {layout} to {wanted}: status {status}")
    return result
