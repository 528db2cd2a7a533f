"""Own captions: text sent with what the program publishes.

The session's server, or a transcriber, may send captions as well; this is for a program that knows what it
says. It needs `PublisherSettings(enable_captions=True)` and the open libsarnet.so: another library under the
module may be unable to send any.
"""

from __future__ import annotations

import ctypes
from typing import Any

from ._native.libraries import find_sarnet


def _sender() -> Any:
    import _tavrin_video  # noqa: F401  brings the library into the process

    return getattr(find_sarnet(), "srn_captions_send", None)


_send: Any = None


def send(text: str, is_final: bool = True) -> bool:
    """Shows `text` under our stream to everyone who subscribes to it with captions.

    At most 4096 bytes of UTF-8. `is_final=False` for words that may still change: the next text replaces
    them. Never waits. Returns False when nothing was sent: nothing is published with captions at the moment,
    or the library cannot send any. Raises ValueError for a text that is empty or too long.
    """
    global _send
    encoded = text.encode()
    if not encoded or len(encoded) > 4096 or b"\0" in encoded:
        raise ValueError("a caption has 1 to 4096 bytes of UTF-8 and no zero among them")
    _send = _send or _sender()
    return _send is not None and _send(ctypes.c_char_p(encoded), ctypes.c_int32(is_final)) == 0
