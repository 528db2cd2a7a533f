"""Rehearsals: runs an agent against scripted participants, with no server, and tells what it really did.

The pytest plug-in gives the fixture `rehearsal`. A `Rehearsal` scripts who comes, says, shows and captions what, and
what goes wrong when; `run` plays it to an agent in real time and gives a `Performance`: what the agent published,
sample by sample and picture by picture, and the log of events. Needs numpy.
"""

try:
    import numpy  # noqa: F401
except ImportError as _error:
    raise ImportError(
        "tavrin_media_relay.testing needs numpy, which is not installed (Debian: python3-numpy)"
    ) from _error

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
