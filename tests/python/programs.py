"""Where the build is, and what programs of their own are started with and looked through for."""

from __future__ import annotations

import os
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("TAVRIN_BUILD") or ROOT / "build" / os.environ.get("TAVRIN_PRESET", "release"))
PYTHON_PATH = [str(BUILD / "python"), str(ROOT / "python"), str(Path(__file__).parent)]

#: On standard error these tell of something that was left behind.
COMPLAINTS = (
    "Traceback",
    "was destroyed",
    "never awaited",
    "never retrieved",
    "Exception in",
    "Exception ignored",
    "ResourceWarning",
)

_OTHERS = ("LD_LIBRARY_PATH", "API_HOSTNAME", "SESSION_ID", "TOKEN", "SARNET_RELAY_TOKEN_SECRET")


def environment(**extra: object) -> dict[str, str]:
    """Of a program on the build's own library, with nothing of the caller's that would lead it elsewhere."""
    kept = {key: value for key, value in os.environ.items() if key not in _OTHERS}
    return (
        kept
        | {"PYTHONPATH": os.pathsep.join(PYTHON_PATH)}
        | {key: str(value) for key, value in extra.items()}
    )
