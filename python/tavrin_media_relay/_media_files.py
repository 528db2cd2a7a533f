"""Reads media files: 16-bit WAV by Python itself, others by the program ffmpeg."""

from __future__ import annotations

import asyncio
import contextlib
import shutil
import tempfile
import wave
from pathlib import Path
from typing import AsyncGenerator, AsyncIterator, Sequence

RATE, CHANNELS = 48000, 2  # of what ffmpeg gives
_PIECE = 0.1  # seconds of sound at a time


class Unreadable(ValueError):
    """The text names the file, and says what is the matter."""


def open_wave(path: Path) -> wave.Wave_read | None:
    """A WAV file of 16 bits and 8 to 48 kHz, for the caller to close; None for any other file."""
    with contextlib.suppress(wave.Error, EOFError):
        file = wave.open(str(path), "rb")
        if file.getsampwidth() == 2 and 8000 <= file.getframerate() <= 48000:
            return file
        file.close()
    return None


def decoding(path: Path, after: Sequence[str], before: Sequence[str] = ()) -> list[str]:
    """The command that decodes a file to its standard output. after, before: ffmpeg's options around the
    input."""
    return ["ffmpeg", "-v", "error", "-nostdin", *before, "-i", f"file:{path}", *after, "pipe:1"]


def sound_options(rate: int, channels: int) -> list[str]:
    """The arguments of `decoding` for interleaved 16-bit samples."""
    return ["-vn", "-f", "s16le", "-ac", str(channels), "-ar", str(rate)]


@contextlib.asynccontextmanager
async def decoder(
    path: Path, before: Sequence[str], after: Sequence[str], limit: int
) -> AsyncIterator[asyncio.StreamReader]:
    """ffmpeg's output. Raises Unreadable at its end if it failed; ends it if we stop first. before, after:
    its options around the input. limit: bytes to read ahead."""
    with tempfile.TemporaryFile() as complaints:
        process = await asyncio.create_subprocess_exec(
            *decoding(path, after, before),
            stdin=asyncio.subprocess.DEVNULL, stdout=asyncio.subprocess.PIPE, stderr=complaints,
            limit=limit, start_new_session=True,  # Ctrl-C is for us
        )  # fmt: skip
        assert process.stdout is not None
        try:
            yield process.stdout
            code = await process.wait()
        finally:
            if process.returncode is None:
                process.kill()
                while await process.stdout.read(65536):  # to the end: until then asyncio keeps the pipe
                    pass
                await process.wait()
        if code:
            complaints.seek(0)
            lines = complaints.read().decode(errors="replace").strip().splitlines()
            reason = (lines or [f"ffmpeg ended with code {code}"])[-1]
            raise Unreadable(f"{path}: {reason.removeprefix(f'file:{path}: ')}")


async def blocks(pipe: asyncio.StreamReader, size: int) -> AsyncIterator[bytes]:
    """The last one may be short."""
    while True:
        try:
            yield await pipe.readexactly(size)
        except asyncio.IncompleteReadError as error:
            if error.partial:
                yield error.partial
            return


async def samples(path: Path) -> AsyncGenerator[tuple[bytes, int, int], None]:
    """A file's sound in blocks of a tenth of a second: 16-bit samples, their rate and channels. Raises
    FileNotFoundError, or Unreadable."""
    if not path.is_file():
        raise FileNotFoundError(f"{path}: {'not a file' if path.exists() else 'there is no such file'}")
    reader = open_wave(path)
    if reader is not None and reader.getnchannels() <= 2:
        with reader:
            rate, channels = reader.getframerate(), reader.getnchannels()
            while piece := reader.readframes(int(rate * _PIECE)):
                yield piece, rate, channels
        return
    if reader is not None:
        reader.close()
    if shutil.which("ffmpeg") is None:
        raise Unreadable(
            f"{path}: needs the program ffmpeg, which is not installed (Debian: apt-get install ffmpeg); "
            "only WAV files of 16 bits and up to 48 kHz play without it"
        )
    size = int(RATE * _PIECE) * CHANNELS * 2
    async with decoder(path, [], sound_options(RATE, CHANNELS), 2 * size) as pipe:
        async for piece in blocks(pipe, size):
            yield piece[: len(piece) // (2 * CHANNELS) * (2 * CHANNELS)], RATE, CHANNELS
