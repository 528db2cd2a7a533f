"""What somebody said, as words. Another recogniser goes in here: a class with these two members."""

from __future__ import annotations

import tempfile
from pathlib import Path
from typing import Protocol

MODEL = Path("/usr/share/pocketsphinx/model/en-us")
# Log likelihood for a hundredth of a second. What fits the grammar has -9 to -18 with clear speech, and short
# words down to -24; words that are not in it, forced into it, have -28 and less.
LEAST_LIKELY = -25.0
PERIODS_A_SECOND = 100


class Recogniser(Protocol):
    """Turns speech into words. Made once for a process; called from one thread at a time, off the loop."""

    sample_rate: int
    """Hz, of what `recognise` wants."""

    def recognise(self, samples: bytes) -> str:
        """The words of one turn: 16-bit samples, one channel. "" if it made no sense. May take its time."""
        ...


class Pocketsphinx:
    """Knows the sentences of a grammar, and nothing else: quick, offline, and from 2005."""

    sample_rate = 16000

    def __init__(self, grammar: str) -> None:
        """grammar: in JSGF. Takes 0.15 s."""
        from pocketsphinx import Decoder

        settings = Decoder.default_config()
        settings.set_string("-hmm", str(MODEL / "en-us"))
        settings.set_string("-dict", str(MODEL / "cmudict-en-us.dict"))
        settings.set_string("-logfn", "/dev/null")
        self._decoder = Decoder(settings)
        with tempfile.NamedTemporaryFile("w", suffix=".gram") as file:
            file.write(grammar)
            file.flush()
            self._decoder.set_jsgf_file("grammar", file.name)
        self._decoder.set_search("grammar")

    def recognise(self, samples: bytes) -> str:
        self._decoder.start_utt()
        self._decoder.process_raw(samples, False, True)
        self._decoder.end_utt()
        found = self._decoder.hyp()
        periods = len(samples) / 2 / self.sample_rate * PERIODS_A_SECOND
        if found is None or found.best_score < LEAST_LIKELY * periods:
            return ""
        return str(found.hypstr)
