"""Files of received media, kept in step with the time of their arrival."""

from __future__ import annotations

import shutil
import subprocess
import wave
from pathlib import Path
from typing import IO

from ..aio import AudioFrame, VideoFrame
from ._failure import Failure

RATE, CHANNELS, FPS = 48000, 2, 30
_LOST = 0.1  # seconds of missing sound from which silence is inserted
_END_SECONDS = 20.0  # for the encoder to finish


class SoundFile:
    """A WAV file. Lost sound is replaced by silence of the same length."""

    def __init__(self, path: Path) -> None:
        self.path = path
        self._file = wave.open(str(path), "wb")
        self._file.setnchannels(CHANNELS)
        self._file.setsampwidth(2)
        self._file.setframerate(RATE)
        self._begin: float | None = None
        self.frames = 0

    def add(self, frame: AudioFrame) -> None:
        """The frame has the rate and channels of the constants above."""
        if self._begin is None:
            self._begin = frame.arrived
        missing = int((frame.arrived - self._begin) * RATE) - self.frames
        if missing > _LOST * RATE:
            self._file.writeframes(bytes(missing * CHANNELS * 2))
            self.frames += missing
        self._file.writeframes(frame.samples)
        self.frames += frame.frame_count

    def close(self) -> None:
        self._file.close()


class PictureFile:
    """Pictures at an even rate: repeated or dropped according to the times of arrival.

    Matroska through the program ffmpeg, or Y4M, which needs no program but 14 MB for a second of 640x480. The
    calls may wait for the disk or the encoder: do not call them on an event loop's thread.
    """

    def __init__(self, path: Path, width: int, height: int, encode: bool) -> None:
        self.path = path
        self.size = (width, height)
        self.count = 0
        self._begin: float | None = None
        self._last: memoryview | None = None
        self._encoder: subprocess.Popen[bytes] | None = None
        self._sink: IO[bytes]
        if encode:
            self._encoder = subprocess.Popen(
                ["ffmpeg", "-v", "error", "-y", "-nostdin", "-f", "yuv4mpegpipe", "-i", "pipe:0",
                 "-c:v", "libx264", "-preset", "veryfast", "-pix_fmt", "yuv420p", f"file:{path}"],
                stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, start_new_session=True,
            )  # fmt: skip
            assert self._encoder.stdin is not None
            self._sink = self._encoder.stdin
        else:
            self._sink = open(path, "wb")
        self._sink.write(f"YUV4MPEG2 W{width} H{height} F{FPS}:1 Ip A1:1 C420mpeg2\n".encode())

    def add(self, frame: VideoFrame) -> None:
        if self._begin is None:
            self._begin = frame.arrived
        due = round((frame.arrived - self._begin) * FPS)
        while self._last is not None and self.count < due:
            self._write(self._last)
        self._last = frame.pixels

    def _write(self, pixels: memoryview) -> None:
        try:
            self._sink.write(b"FRAME\n")
            self._sink.write(pixels)
        except BrokenPipeError:
            raise Failure(f"{self.path}: ffmpeg stopped taking pictures") from None
        self.count += 1

    def close(self) -> None:
        try:
            if self._last is not None:
                self._write(self._last)
        finally:
            try:
                self._sink.close()
            except BrokenPipeError:
                pass  # told below
            if self._encoder is not None:
                try:
                    code = self._encoder.wait(_END_SECONDS)
                except subprocess.TimeoutExpired:
                    self._encoder.kill()
                    code = self._encoder.wait()
                if code:
                    raise Failure(f"{self.path}: ffmpeg ended with code {code}")


def can_encode() -> bool:
    return shutil.which("ffmpeg") is not None
