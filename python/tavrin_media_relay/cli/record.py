"""`record --out DIR`: every stream of a session to files."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import re
import time
from pathlib import Path
from typing import Any

from .. import _tasks, aio
from . import _writers
from ._failure import Failure
from ._levels import level_bar, peak
from ._options import add_session_options, command, number
from ._terminal import Bar, Terminal
from ._visit import Visit, run
from ._writers import PictureFile, SoundFile

LOG = "session.jsonl"
_DESCRIPTION = f"""\
Writes every stream of a session to files of its own in a folder: the sound as WAV, the pictures as Matroska
(by the program ffmpeg) or Y4M, and captions, events and figures of each second in {LOG}, which the command
report draws.
Ends with Ctrl-C, after --seconds, or with the session.

  record --session try --out /tmp/heard --seconds 10
"""


def add(commands: Any) -> None:
    parser = command(commands, "record", record, "write every stream to files", _DESCRIPTION)
    parser.add_argument(
        "--out", type=Path, required=True, metavar="DIR", help="folder; made if it is not there"
    )
    parser.add_argument("--seconds", type=number(0.1, 1e6, "seconds"), metavar="N", help="end after so long")
    parser.add_argument(
        "--video",
        choices=("mkv", "y4m", "none"),
        default="mkv" if _writers.can_encode() else "y4m",
        help="how pictures are written (default: mkv where ffmpeg is installed, else y4m)",
    )
    parser.add_argument("--no-audio", dest="audio", action="store_false", help="write no sound")
    add_session_options(parser)


class _Recording:
    """Of one stream."""

    def __init__(
        self, visit: Visit, stream: aio.Stream, folder: Path, name: str, audio: bool, video: str
    ) -> None:
        self._visit = visit
        self._stream = stream
        self._folder, self.name = folder, name
        self._audio, self._video = audio, video
        self._loudest = 0
        self._seen: list[float] = []
        self._size = ""
        self._said = ""
        self._iterators: list[aio.MediaIterator[Any]] = []

    async def run(self) -> None:
        opening = self._visit.session.subscribe(
            self._stream, audio=self._audio, video=self._video != "none", captions=True
        )
        async with opening as subscriber:
            work = [self._write_captions(subscriber.captions())]
            if self._audio:
                frames = subscriber.audio_frames(
                    capacity=200, sample_rate=_writers.RATE, channels=_writers.CHANNELS
                )
                work.append(self._write_sound(frames))
            if self._video != "none":
                work.append(self._write_pictures(subscriber.video_frames(capacity=15)))
            async with asyncio.TaskGroup() as group:
                for each in work:
                    group.create_task(each)

    async def _write_captions(self, captions: aio.MediaIterator[aio.Caption]) -> None:
        self._iterators.append(captions)
        async for caption in captions:
            self._said = caption.text
            self._visit.figures.event(
                "caption", id=self._stream.id, text=caption.text, final=caption.is_final
            )
            if caption.is_final:
                text = f"{self._stream.id}: {caption.text}"
                self._visit.terminal.tell("caption", text, id=self._stream.id, text=caption.text)

    async def _write_sound(self, frames: aio.AudioIterator) -> None:
        self._iterators.append(frames)
        file: SoundFile | None = None
        try:
            async for frame in frames:
                file = file or SoundFile(self._folder / f"{self.name}.wav")
                file.add(frame)
                self._loudest = max(self._loudest, peak(frame.samples))
        finally:
            if file is not None:
                file.close()
                self._tell(file.path, seconds=round(file.frames / _writers.RATE, 2))

    async def _write_pictures(self, frames: aio.MediaIterator[aio.VideoFrame]) -> None:
        self._iterators.append(frames)
        file: PictureFile | None = None
        number = 0
        try:
            async for frame in frames:
                size = (frame.width, frame.height)
                if file is None or file.size != size:  # a stream may change its size, which begins a new file
                    if file is not None:
                        await self._close(file)
                    number += 1
                    path = self._folder / f"{self.name}{f'-{number}' if number > 1 else ''}.{self._video}"
                    file = await asyncio.to_thread(PictureFile, path, *size, self._video == "mkv")
                await asyncio.to_thread(file.add, frame)
                self._size = f"{frame.width}x{frame.height}"
                self._seen.append(frame.arrived)
        finally:
            if file is not None:
                await self._close(file)

    async def _close(self, file: PictureFile) -> None:
        await asyncio.shield(asyncio.ensure_future(asyncio.to_thread(file.close)))
        self._tell(file.path, pictures=file.count)

    def _tell(self, path: Path, **fields: object) -> None:
        self._visit.figures.event("file", file=path.name, **fields)
        told = ", ".join(f"{value} {name}" for name, value in fields.items())
        self._visit.terminal.tell("file", f"Wrote {path} ({told})", file=str(path), **fields)

    def waiting(self) -> int:
        return sum(each.waiting for each in self._iterators)

    def bar(self) -> Bar:
        now = time.monotonic()
        self._seen = [each for each in self._seen if now - each < 1]
        parts = [f"{self._size} {len(self._seen)}/s"] if self._size else []
        dropped = sum(each.dropped for each in self._iterators)
        parts += [f"dropped {dropped}"] if dropped else []
        parts += [f"“{self._said[-40:]}”"] if self._said else []
        bar = level_bar(self.name[:30], self._loudest, "  ".join(parts))
        self._loudest = 0
        return bar


class _Recordings:
    """Of all streams, as they come and go."""

    def __init__(self, visit: Visit, options: argparse.Namespace) -> None:
        self._visit = visit
        self._options = options
        self._running: dict[asyncio.Task[None], _Recording] = {}
        self._names: dict[str, int] = {}
        self.failed = False
        visit.waiting = lambda: sum(each.waiting() for each in self._running.values())

    async def run(self) -> None:
        try:
            async for event in self._visit.session.events():
                if isinstance(event, aio.StreamReceived):
                    self._begin(event.stream)
        finally:
            await _tasks.end(*self._running)

    def _begin(self, stream: aio.Stream) -> None:
        plain = re.sub(r"[^\w.-]", "_", stream.id).lstrip(".") or "stream"
        self._names[plain] = count = self._names.get(plain, 0) + 1
        name = f"{plain}-again-{count}" if count > 1 else plain
        options = self._options
        recording = _Recording(self._visit, stream, options.out, name, options.audio, options.video)
        task = asyncio.create_task(recording.run())
        self._running[task] = recording
        task.add_done_callback(self._ended)

    def _ended(self, task: asyncio.Task[None]) -> None:
        recording = self._running.pop(task, None)
        error = None if task.cancelled() else task.exception()
        while isinstance(error, BaseExceptionGroup):
            error = error.exceptions[0]
        if recording is not None and error is not None and not isinstance(error, aio.ClosedError):
            self.failed = True
            self._visit.terminal.tell(
                "recording_failed", f"{recording.name} could not be recorded: {error}", text=str(error)
            )

    async def show(self) -> None:
        with self._visit.terminal.live() as live:
            while True:
                await asyncio.sleep(0.125)
                live.show([each.bar() for each in self._running.values()])


def record(options: argparse.Namespace, terminal: Terminal) -> int:
    try:
        options.out.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise Failure(f"cannot write to {options.out}: {error.strerror}") from None

    async def work(recordings: _Recordings) -> None:
        async with _tasks.beside(recordings.show()):
            with contextlib.suppress(asyncio.TimeoutError):
                await asyncio.wait_for(recordings.run(), options.seconds)

    async def body(visit: Visit) -> int:
        recordings = _Recordings(visit, options)
        await visit.until_stopped(work(recordings), patient=True)
        return 1 if recordings.failed else 0

    return run(options, terminal, body, figures=options.out / LOG)
