"""Text as speech. Another voice goes in here: a class with these two members."""

from __future__ import annotations

import asyncio
import io
import re
import wave
from collections.abc import AsyncIterator
from typing import Protocol


class Voice(Protocol):
    """Makes speech, piece by piece, faster than it is spoken."""

    sample_rate: int
    """Hz, of what `speak` yields."""

    def speak(self, text: str) -> AsyncIterator[bytes]:
        """16-bit samples, one channel. Closed early when it is interrupted."""
        ...


def sentences(text: str) -> list[str]:
    """A voice that makes one sentence after the other is heard after the first."""
    return [each.strip() for each in re.findall(r"[^.!?]+[.!?]*", text) if each.strip()]


class Flite:
    """A small voice that Debian has. Takes 40 ms for a sentence."""

    sample_rate = 16000

    async def speak(self, text: str) -> AsyncIterator[bytes]:
        for sentence in sentences(text):
            yield await self._sentence(sentence)

    async def _sentence(self, text: str) -> bytes:
        program = await asyncio.create_subprocess_exec(
            "flite", "-voice", "slt", "-t", text, "-o", "/dev/stdout", stdout=asyncio.subprocess.PIPE
        )
        try:
            sound, _ = await program.communicate()
        finally:
            if program.returncode is None:
                program.kill()
        with wave.open(io.BytesIO(sound)) as file:
            return file.readframes(len(sound))
