"""The counters of our libsarnet.so (include/sarnet/sarnet_statistics.h), read through ctypes.

Another library behind the module need not have them, so they are looked up at run time.
"""

from __future__ import annotations

import ctypes
import json
import os
from typing import Any


def read_counters() -> dict[str, Any]:
    """The library's figures; empty if the library in use has none."""
    # The module has already loaded the library: this finds it, and loads no second one.
    library = ctypes.CDLL("libsarnet.so", mode=os.RTLD_NOW | os.RTLD_NOLOAD)
    try:
        write = library.srn_statistics_json
    except AttributeError:
        return {}
    write.restype = ctypes.c_size_t
    write.argtypes = [ctypes.c_char_p, ctypes.c_size_t]
    capacity = write(None, 0) + 4096  # the figures may grow between the two calls
    buffer = ctypes.create_string_buffer(capacity)
    write(buffer, capacity)
    return json.loads(buffer.value)
