"""Media files as streams of samples and pictures: plain WAV by Python itself, others by the program
ffmpeg."""

from __future__ import annotations

import contextlib
import json
import shutil
import subprocess
from dataclasses import dataclass
from pathlib import Path
from typing import AsyncGenerator

from .. import _media_files
from .._media_files import Unreadable, blocks, decoder, open_wave
from ..models import frame_buffer_size
from ._failure import Failure

STILL_SECONDS = 5.0
_MAX_FPS = 60


@dataclass(frozen=True)
class Form:
    """Of pictures."""

    width: int
    height: int
    fps: int


@dataclass(frozen=True)
class MediaFile:
    path: Path
    seconds: float | None
    """Length, if the file states it."""
    audio: bool
    video: Form | None
    still: bool = False


def _probe_wave(path: Path) -> MediaFile | None:
    file = open_wave(path)
    if file is None:
        return None
    with file:
        if file.getnchannels() > 2:
            return None
        return MediaFile(path, file.getnframes() / file.getframerate(), True, None)


def _rate(text: str) -> float:
    above, _, below = text.partition("/")
    with contextlib.suppress(ValueError, ZeroDivisionError):
        return float(above) / float(below or 1)
    return 0.0


def probe(path: Path) -> MediaFile:
    """What is in a file. Raises Failure with the file's name and the reason if nothing can be played."""
    if not path.is_file():
        raise Failure(f"{path}: {'not a file' if path.exists() else 'there is no such file'}")
    found = _probe_wave(path)
    if found is not None:
        return found
    if shutil.which("ffprobe") is None or shutil.which("ffmpeg") is None:
        raise Failure(
            f"{path}: needs the program ffmpeg, which is not installed (Debian: apt-get install ffmpeg); "
            "only WAV files of 16 bits and up to 48 kHz play without it"
        )
    done = subprocess.run(
        ["ffprobe", "-v", "error", "-of", "json", "-show_streams", "-show_format", f"file:{path}"],
        capture_output=True, text=True, stdin=subprocess.DEVNULL, errors="replace", start_new_session=True,
    )  # fmt: skip
    if done.returncode:
        reason = (done.stderr.strip().splitlines() or ["cannot be read"])[-1]
        raise Failure(f"{path}: {reason.removeprefix(f'file:{path}: ')}")
    told = json.loads(done.stdout)
    streams = told.get("streams", [])
    audio = any(each.get("codec_type") == "audio" for each in streams)
    video: Form | None = None
    for each in streams:
        cover = each.get("disposition", {}).get("attached_pic")
        if video is None and each.get("codec_type") == "video" and not cover:
            fps = round(_rate(each.get("avg_frame_rate", "")) or _rate(each.get("r_frame_rate", "")) or 30)
            video = Form(int(each["width"]), int(each["height"]), min(max(fps, 1), _MAX_FPS))
    if not audio and video is None:
        raise Failure(f"{path}: has neither sound nor pictures")
    kind = str(told.get("format", {}).get("format_name", ""))
    still = not audio and (kind == "image2" or kind.endswith("_pipe"))
    seconds = STILL_SECONDS if still else float(told.get("format", {}).get("duration") or 0) or None
    return MediaFile(path, seconds, audio, video, still)


async def samples(file: MediaFile) -> AsyncGenerator[tuple[bytes, int, int], None]:
    """Blocks of a tenth of a second: 16-bit samples, their rate and channels."""
    try:
        async with contextlib.aclosing(_media_files.samples(file.path)) as pieces:
            async for piece in pieces:
                yield piece
    except (Unreadable, FileNotFoundError) as error:
        raise Failure(str(error)) from error


async def pictures(file: MediaFile, form: Form) -> AsyncGenerator[bytes, None]:
    """YUV420P pictures of the form wanted, with black borders where the shapes differ."""
    width, height = form.width, form.height
    scale = f"scale={width}:{height}:force_original_aspect_ratio=decrease:out_range=tv"
    pad = f"pad={width}:{height}:(ow-iw)/2:(oh-ih)/2,setsar=1"
    size = frame_buffer_size(width, height, "YUV420P")
    before = ["-loop", "1", "-t", str(STILL_SECONDS)] if file.still else []
    after = ["-an", "-vf", f"fps={form.fps},{scale},{pad}", "-pix_fmt", "yuv420p", "-f", "rawvideo"]
    try:
        async with decoder(file.path, before, after, 2 * size) as pipe:
            async for picture in blocks(pipe, size):
                if len(picture) == size:
                    yield picture
    except Unreadable as error:
        raise Failure(str(error)) from error
