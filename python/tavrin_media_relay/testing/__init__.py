"""Rehearsals: run an agent against scripted participants, with no server, and report what it really did.

The pytest plug-in provides the fixture `rehearsal`. A `Rehearsal` scripts who comes, says, shows and captions
what, and what goes wrong when; `run` plays it to an agent in real time and gives a `Performance`: what the
agent published, sample by sample and picture by picture, and the log of events. Needs numpy.
"""

from __future__ import annotations

import importlib
from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from .performance import Entry, Performance, Publication
    from .recordings import Film, Sound, Utterance
    from .rehearsal import Rehearsal
    from .script import Participant
    from .sounds import babble, tone

__all__ = [
    "Entry",
    "Film",
    "Participant",
    "Performance",
    "Publication",
    "Rehearsal",
    "Sound",
    "Utterance",
    "babble",
    "tone",
]

_PLACES = {
    "performance": ("Entry", "Performance", "Publication"),
    "recordings": ("Film", "Sound", "Utterance"),
    "rehearsal": ("Rehearsal",),
    "script": ("Participant",),
    "sounds": ("babble", "tone"),
}


def __getattr__(name: str) -> Any:
    # Imported on demand: every pytest of an environment imports the plug-in, with or without numpy.
    for module, names in _PLACES.items():
        if name in names:
            try:
                return getattr(importlib.import_module(f".{module}", __name__), name)
            except ModuleNotFoundError as error:
                if error.name != "numpy":
                    raise
                raise ImportError(
                    f"{__name__} needs numpy, which is not installed (Debian: python3-numpy)"
                ) from error
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
