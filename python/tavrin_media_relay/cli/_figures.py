"""Events and figures of a visit, second by second: summed up at its end, and written to a file for
`report`."""

from __future__ import annotations

import contextlib
import json
import time
from datetime import datetime, timezone
from pathlib import Path
from types import TracebackType
from typing import IO, Any

from .._native.libraries import find_sarnet
from ..aio import Session, library_statistics
from ._failure import Failure

#: Counters with these endings are times: the worst is reported, not the sum.
_TIME = "_us"


def reset_library() -> None:
    """Sets the library's counters to zero, so that figures count from now on."""
    function = getattr(find_sarnet(), "srn_statistics_reset", None)
    if function is not None:
        function()


class Figures:
    """A context manager around a visit. Used from the event loop alone."""

    def __init__(self, path: Path | None) -> None:
        self._begin = time.monotonic()
        self._file: IO[str] | None = None
        self.totals: dict[str, dict[str, int]] = {}
        """The library's counters since the beginning."""
        self.fault = ""
        """Why the file ends early, if it does."""
        if path is not None:
            try:
                path.parent.mkdir(parents=True, exist_ok=True)
                self._file = open(path, "w", encoding="utf-8", errors="replace", buffering=1)
            except OSError as error:
                raise Failure(f"cannot write figures to {path}: {error.strerror}") from None
            self._write("session", time=datetime.now(timezone.utc).isoformat(timespec="milliseconds"))

    def __enter__(self) -> Figures:
        reset_library()
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self._close()

    def _close(self) -> None:
        file, self._file = self._file, None
        if file is not None:
            with contextlib.suppress(OSError):  # told when it was written
                file.close()

    def event(self, name: str, /, **fields: object) -> None:
        self._write("event", event=name, **fields)

    async def sample(self, session: Session, waiting: int) -> None:
        """The figures since the last call. waiting: media queued in our own iterators."""
        library = library_statistics()
        reset_library()
        for part, counters in (library or {}).items():
            if part != "subscribers":
                self._add(part, counters)
        audio_ms, video_ms = await session.publisher.queued() if session.publisher is not None else (0.0, 0.0)
        streams = list(session.statistics().streams.values())
        dropped = sum(
            each.dropped for stream in streams for each in (stream.audio, stream.video, stream.captions)
        )
        escaped = sum(each.escaped_views for stream in streams for each in (stream.audio, stream.video))
        queue = {"audio_ms": audio_ms, "video_ms": video_ms, "waiting": waiting}
        self._write("figures", library=library, queue=queue, dropped=dropped, escaped_views=escaped)

    def _add(self, part: str, counters: dict[str, int]) -> None:
        totals = self.totals.setdefault(part, {})
        for name, value in counters.items():
            before = totals.get(name, 0)
            totals[name] = max(before, value) if name.endswith(_TIME) else before + value

    def _write(self, kind: str, /, **fields: Any) -> None:
        if self._file is not None:
            entry = {"t": round(time.monotonic() - self._begin, 3), "kind": kind, **fields}
            try:
                self._file.write(json.dumps(entry, ensure_ascii=False, default=str) + "\n")
            except OSError as error:
                self.fault = f"cannot write to {self._file.name}: {error.strerror}"
                self._close()

    def summary(self) -> str:
        capture, video = self.totals.get("capture"), self.totals.get("video")
        if capture is None or video is None:
            return "The library in use keeps no figures."
        late = [capture[f"lateness_{each}_us"] / 1000 for each in ("p50", "p99", "max")]
        return (
            f"Audio periods written {capture['periods_written']} ({capture['silence_periods']} silent), "
            f"missed {capture['gaps']}, underruns {capture['underruns']}; "
            "lateness in the worst second: p50 {:.1f}, p99 {:.1f}, max {:.1f} ms. ".format(*late)
            + f"Pictures {video['frames_provided']}, repeated {video['frames_repeated']}, "
            f"black {video['frames_black']}, late {video['frames_late']}." + self._callbacks()
        )

    def _callbacks(self) -> str:
        callbacks = self.totals.get("callbacks", {})
        times = {
            kind: callbacks.get(f"{kind}_took_max_us", 0) / 1000 for kind in ("audio", "picture", "caption")
        }
        told = ", ".join(f"{kind} {ms:.1f}" for kind, ms in times.items() if ms)
        return f" From the library to our callables and back at most: {told} ms." if told else ""
