"""Finds shared libraries in this process, for the few direct calls into them."""

from __future__ import annotations

import ctypes
import functools
import re

_DEBIAN = {"libsamplerate": ("libsamplerate.so.0", "libsamplerate0"), "libyuv": ("libyuv.so.0", "libyuv0")}


def _mapped(name: str) -> str | None:
    """The path of a library in this process. Wheels append a hash to its name."""
    wanted = re.compile(rf"/({re.escape(name)}(-[0-9a-f]+)?\.so[.0-9]*)$")
    with open("/proc/self/maps", encoding="utf-8", errors="surrogateescape") as maps:
        for line in maps:
            path = line.rstrip("\n").partition("/")[2]
            if wanted.search("/" + path):
                return "/" + path
    return None


_sarnet: ctypes.CDLL | None = None


def find_sarnet() -> ctypes.CDLL | None:
    """The real-time library that the module runs on; None before the module is imported."""
    global _sarnet
    if _sarnet is None and (path := _mapped("libsarnet")):
        _sarnet = ctypes.CDLL(path)
    return _sarnet


@functools.cache
def load(name: str, purpose: str) -> ctypes.CDLL:
    """A helper library: the one in the process, else the system's."""
    soname, package = _DEBIAN[name]
    try:
        return ctypes.CDLL(_mapped(name) or soname)
    except OSError as error:
        raise RuntimeError(
            f"{purpose} needs {soname}, which is not on this machine (Debian: apt-get install {package})"
        ) from error
