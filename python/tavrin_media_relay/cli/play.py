"""`play FILE...`: publishes files, one after another."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import time
from pathlib import Path
from typing import Any

from ..aio import Publisher
from ..models import SessionAudioSettings, SessionAVSettings, SessionVideoPublisherSettings, VideoResolution
from .. import _media_files
from . import _media_file
from ._media_file import Form, MediaFile
from ._options import add_session_options, command, number
from ._terminal import Bar, Live, Terminal
from ._visit import Visit, run

_QUEUE = 0.4  # seconds that wait on either side, so that sound and pictures start together
_LINGER = 0.3  # seconds until media that left the queue have been sent
_DESCRIPTION = """\
Publishes audio and video files, one after another, as one stream of the session, and leaves at their end.

16-bit WAV files are read by Python itself; for all other kinds, pictures too, the program ffmpeg is used. All
pictures get the size of the first file that has some, with black borders where the shapes differ.

  play speech.wav --session try
  play intro.mp4 slide.png talk.mkv --session lobby --host wss://relay.example.org --size 1280x720 --fps 30
"""


def _size(text: str) -> tuple[int, int]:
    width, _, height = text.partition("x")
    if not (
        width.isdecimal() and height.isdecimal() and 2 <= int(width) <= 4096 and 2 <= int(height) <= 4096
    ):
        raise argparse.ArgumentTypeError(f"a size looks like 640x480, with sides of 2 to 4096, not {text!r}")
    return int(width), int(height)


def add(commands: Any) -> None:
    parser = command(commands, "play", play, "publish audio and video files", _DESCRIPTION)
    parser.add_argument("files", nargs="+", type=Path, metavar="FILE")
    parser.add_argument(
        "--size", type=_size, metavar="WxH", help="of the pictures (default: the first video's)"
    )
    parser.add_argument("--fps", type=number(1, 60, "pictures a second"), metavar="N",
                        help="pictures a second (default: the first video's)")  # fmt: skip
    parser.add_argument("--loop", action="store_true", help="begin again at the end, until Ctrl-C")
    add_session_options(parser, name="player")


def _form(files: list[MediaFile], options: argparse.Namespace) -> Form | None:
    first = next((each.video for each in files if each.video is not None), None)
    if first is None:
        return None
    width, height = options.size or (first.width, first.height)
    return Form((width + 1) // 2 * 2, (height + 1) // 2 * 2, int(options.fps or first.fps))


def _clock(seconds: float) -> str:
    return f"{int(seconds // 60)}:{seconds % 60:04.1f}"


class _Player:
    """One file at a time."""

    def __init__(self, publisher: Publisher, form: Form | None, live: Live) -> None:
        self._publisher = publisher
        self._form = form
        self._live = live

    async def play(self, file: MediaFile) -> None:
        self._file, self._audio_at, self._video_at = file, 0.0, 0.0
        self._sound_begun = asyncio.Event()
        try:
            async with asyncio.TaskGroup() as group:
                if file.audio:
                    group.create_task(self._play_sound())
                if file.video is not None and self._form is not None:
                    group.create_task(self._play_pictures(self._form))
        except BaseExceptionGroup as errors:
            raise errors.exceptions[0] from None

    async def _play_sound(self) -> None:
        audio = self._publisher.audio
        try:
            async with contextlib.aclosing(_media_file.samples(self._file)) as pieces:
                async for piece, rate, channels in pieces:
                    await audio.write(piece, sample_rate=rate, channels=channels)
                    self._sound_begun.set()
                    self._audio_at += len(piece) / (2 * channels * rate)
                    self._show()
            await audio.drained()
        finally:
            self._sound_begun.set()  # also if there was none: the pictures wait for it

    async def _play_pictures(self, form: Form) -> None:
        video, frame = self._publisher.video, 1 / form.fps
        async with contextlib.aclosing(_media_file.pictures(self._file, form)) as frames:
            async for picture in frames:
                if self._file.audio:
                    await self._sound_begun.wait()
                # If the decoder can't keep up, pictures are dropped to keep lip-sync.
                if self._video_at + 3 * frame > self._audio_at - _QUEUE or not self._file.audio:
                    await video.write(picture, layout="YUV420P")
                self._video_at += frame
                if not self._file.audio:
                    self._show()
        await video.drained()

    def _show(self) -> None:
        at = self._audio_at if self._file.audio else self._video_at
        total = self._file.seconds
        fraction = min(at / total, 1.0) if total else None
        text = _clock(at) + (f" / {_clock(total)}" if total else "")
        self._live.show([Bar(self._file.path.name, fraction, text)])


def play(options: argparse.Namespace, terminal: Terminal) -> int:
    files = [_media_file.probe(path) for path in options.files]
    form = _form(files, options)
    audio = any(each.audio for each in files)
    av = SessionAVSettings(audio_publisher=SessionAudioSettings(_media_files.RATE, _media_files.CHANNELS))
    if form is not None:
        av.video_publisher = SessionVideoPublisherSettings(VideoResolution(form.width, form.height), form.fps)

    async def play_all(visit: Visit, live: Live) -> None:
        publishing = visit.session.publish(
            options.name, audio=audio, video=form is not None, audio_queue=_QUEUE, video_queue=_QUEUE
        )
        async with publishing as publisher:
            player = _Player(publisher, form, live)
            while True:
                for file in files:
                    begin = time.monotonic()
                    visit.figures.event("play", file=str(file.path))
                    await player.play(file)
                    took = time.monotonic() - begin
                    text = f"Played {file.path} ({took:.1f} s)"
                    terminal.tell("played", text, file=str(file.path), seconds=round(took, 2))
                if not options.loop:
                    break
            await asyncio.sleep(_LINGER)

    async def body(visit: Visit) -> int:
        with terminal.live() as live:
            finished = await visit.until_stopped(play_all(visit, live))
        return 0 if finished or options.loop else 128 + (visit.stopped or 2)

    return run(options, terminal, body, av, options.figures)
