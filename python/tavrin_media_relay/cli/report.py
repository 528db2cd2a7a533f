"""`report FILE`: draws what `record`, `play --figures` or `echo --figures` wrote down."""

from __future__ import annotations

import argparse
import importlib
import json
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from ._failure import Failure
from ._options import command
from ._terminal import Terminal
from .record import LOG

_LATENESS = ("p50", "p99", "max")
_KINDS = ("audio", "picture", "caption")
_LABELS_AT_MOST = 25
_DESCRIPTION = f"""\
Draws the figures of a session over time: how late audio was written, how much media waited in queues, how
long our callables kept the library, and what happened when. FILE is a file of figures, or the folder of a
recording with its {LOG}. Needs matplotlib.

  record --session try --out /tmp/heard --seconds 10
  report /tmp/heard --out heard.png
"""


def add(commands: Any) -> None:
    parser = command(commands, "report", report, "draw a session's figures", _DESCRIPTION)
    parser.add_argument("file", type=Path, metavar="FILE")
    parser.add_argument("--out", type=Path, metavar="PICTURE",
                        help="PNG, SVG or PDF, by its ending (default: FILE with .png)")  # fmt: skip


@dataclass
class Course:
    """A session's figures over time."""

    times: list[float] = field(default_factory=list)
    """Seconds since its beginning, of the figures that follow."""
    lateness: dict[str, list[float | None]] = field(default_factory=lambda: {each: [] for each in _LATENESS})
    """Milliseconds; None for a second in which nothing was written."""
    callbacks: dict[str, list[float | None]] = field(default_factory=lambda: {each: [] for each in _KINDS})
    """Milliseconds from the library to our callable and back, p99; None for a second without any."""
    queues: dict[str, list[float]] = field(default_factory=dict)
    events: list[tuple[float, str]] = field(default_factory=list)
    underruns: int = 0
    dropped: int = 0
    escaped_views: int = 0

    def add(self, entry: dict[str, Any]) -> None:
        if entry["kind"] == "event":
            self.events.append((float(entry["t"]), str(entry["event"])))
        elif entry["kind"] == "figures":
            self.times.append(float(entry["t"]))
            capture = (entry.get("library") or {}).get("capture", {})
            for each in _LATENESS:
                known = capture.get("periods_written", 0) > 0
                self.lateness[each].append(capture[f"lateness_{each}_us"] / 1000 if known else None)
            times = (entry.get("library") or {}).get("callbacks", {})
            for each in _KINDS:
                self.callbacks[each].append(times.get(f"{each}_took_p99_us", 0) / 1000 or None)
            self.underruns += int(capture.get("underruns", 0))
            self.dropped = max(self.dropped, int(entry.get("dropped", 0)))
            self.escaped_views = max(self.escaped_views, int(entry.get("escaped_views", 0)))
            for name, value in entry["queue"].items():
                self.queues.setdefault(name, []).append(float(value))


def read(path: Path) -> Course:
    """Raises Failure, with the line, if it is not a file of figures."""
    if path.is_dir():
        path /= LOG
    course = Course()
    try:
        with open(path, encoding="utf-8") as lines:
            for number, line in enumerate(lines, start=1):
                try:
                    course.add(json.loads(line))
                except (ValueError, KeyError, TypeError, AttributeError) as error:
                    raise Failure(
                        f"{path}, line {number}: not figures as record writes them ({error!r})"
                    ) from None
    except UnicodeDecodeError:
        raise Failure(f"{path}: not figures as record writes them, which is text") from None
    if not course.times:
        raise Failure(f"{path}: holds no figures: the session was left at once")
    return course


def _with_gaps(values: list[float | None]) -> list[float]:
    return [float("nan") if each is None else each for each in values]


def draw(course: Course, title: str, target: Path) -> None:
    try:
        matplotlib: Any = importlib.import_module("matplotlib")
        matplotlib.use("Agg")
        pyplot: Any = importlib.import_module("matplotlib.pyplot")
    except ImportError:
        raise Failure(
            "report needs matplotlib, which is not installed (Debian: python3-matplotlib)"
        ) from None
    figure, (late, queue, call, happened) = pyplot.subplots(
        4,
        1,
        sharex=True,
        figsize=(11, 11),
        constrained_layout=True,
        gridspec_kw={"height_ratios": [2, 2, 1, 1]},
    )
    figure.suptitle(title)
    for name, style in zip(_LATENESS, ("-", "-", ":")):
        late.plot(course.times, _with_gaps(course.lateness[name]), style, marker=".", label=name)
    late.set_ylabel("lateness of audio, ms")
    late.set_title(f"{course.underruns} underruns", loc="right", fontsize="small")
    words = {
        "audio_ms": "audio to send, ms",
        "video_ms": "video to send, ms",
        "waiting": "received media, items",
    }
    for name, numbers in course.queues.items():
        queue.plot(course.times, numbers, marker=".", label=words.get(name, name))
    queue.set_ylabel("queues")
    queue.set_title(f"{course.dropped} dropped", loc="right", fontsize="small")
    for name, times in course.callbacks.items():
        if any(times):
            call.plot(course.times, _with_gaps(times), marker=".", label=name)
    call.set_ylabel("callback, p99, ms")
    call.set_title(f"{course.escaped_views} views outlived their call", loc="right", fontsize="small")
    kinds = list(dict.fromkeys(name for _, name in course.events))
    places = [(at, kinds.index(name)) for at, name in course.events]
    happened.scatter([at for at, _ in places], [place for _, place in places], marker="|", s=90)
    happened.set_yticks(range(len(kinds)), kinds, fontsize="small")
    happened.set_xlabel("seconds")
    for axes in (late, queue, call):
        axes.set_ylim(bottom=0)
        if axes.lines:
            axes.legend(loc="upper left")
    for axes in (late, queue, call, happened):
        axes.grid(alpha=0.3)
    if len(course.events) <= _LABELS_AT_MOST:
        for at, _ in course.events:
            for axes in (late, queue, call):
                axes.axvline(at, color="grey", linewidth=0.5, alpha=0.5)
    try:
        figure.savefig(target)
    except (OSError, ValueError) as error:  # ValueError: an ending of no picture format
        raise Failure(f"cannot write {target}: {error}") from None
    finally:
        pyplot.close(figure)


def report(options: argparse.Namespace, terminal: Terminal) -> int:
    source: Path = options.file
    course = read(source)
    target = options.out or (source / LOG if source.is_dir() else source).with_suffix(".png")
    draw(course, str(source), target)
    worst = max((each for each in course.lateness["max"] if each is not None), default=None)
    seconds = course.times[-1]
    text = f"{seconds:.0f} s, {len(course.events)} events, {course.underruns} underruns"
    text += f", at worst {worst:.1f} ms late" if worst is not None else ""
    terminal.tell(
        "report", f"Drawn: {target} ({text})", file=str(target), seconds=seconds,
        events=len(course.events), underruns=course.underruns, dropped=course.dropped, lateness_max_ms=worst,
    )  # fmt: skip
    return 0
