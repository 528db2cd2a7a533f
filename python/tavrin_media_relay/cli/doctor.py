"""`doctor`: looks at the installation and tries it out, on this machine alone."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import ctypes
import importlib.metadata
import importlib.util
import os
import platform
import shutil
import sys
import tempfile
from pathlib import Path
from typing import Any, Iterator, Literal

from ..models import LoggingSettings
from ._failure import Failure
from ._loopback import LoopbackFigures, loopback
from ._options import command
from ._terminal import Terminal

Grade = Literal["ok", "note", "bad"]
_MARKS = {"ok": "  ok  ", "note": " note ", "bad": " BAD  "}

_QUANTILES = ("p50", "p99", "max")
#: Milliseconds of lateness that an ear may notice.
_LATE_MS = 20.0
#: Periods that may be missing from a second: one short stall skips as many.
_GAPS = 5
_DESCRIPTION = """\
Tells versions, which libsarnet.so is in use and which engines it has, plays and records a second on the
embedded engine, measures how punctual this machine is, and gives advice where something is off. Nothing
leaves this machine. The exit code is 1 if a session could not work here."""


def add(commands: Any) -> None:
    command(commands, "doctor", doctor, "look at the installation and try it out", _DESCRIPTION)


class _Findings:
    """Printed as they are found, and collected for machines."""

    def __init__(self, terminal: Terminal) -> None:
        self._terminal = terminal
        self.all: list[dict[str, str]] = []

    def add(self, grade: Grade, about: str, text: str, advice: str = "") -> None:
        self.all.append({"grade": grade, "about": about, "text": text, "advice": advice})
        if not self._terminal.as_json:
            line = f"[{_MARKS[grade]}] {about}: {text}"
            self._terminal.tell("finding", line + (f"\n         {advice}" if advice else ""))

    @property
    def fine(self) -> bool:
        return all(each["grade"] != "bad" for each in self.all)


def _look_at_versions(findings: _Findings) -> None:
    from .. import __version__

    findings.add("ok", "package", f"tavrin_media_relay {__version__} in {Path(__file__).parents[1]}")
    findings.add(
        "ok", "python", f"{platform.python_implementation()} {platform.python_version()}, {sys.executable}"
    )
    kernel = f"{platform.system()} {platform.release()}, {platform.machine()}"
    cpus = len(os.sched_getaffinity(0))
    if cpus < 2:
        findings.add(
            "note", "machine", f"{kernel}, 1 processor", "Media of several streams wants two processors."
        )
    else:
        findings.add("ok", "machine", f"{kernel}, {cpus} processors")


def _look_at_library(findings: _Findings) -> bool:
    """False if nothing can be tried out."""
    try:
        import _tavrin_video
    except ImportError as error:
        advice = "Build the project and put its python folder on PYTHONPATH, or install the wheel."
        findings.add("bad", "module", f"_tavrin_video can't be imported: {error}", advice)
        return False
    findings.add("ok", "module", str(_tavrin_video.__file__))
    from .._native.libraries import find_sarnet

    library = find_sarnet()
    if library is None:
        findings.add(
            "bad", "libsarnet", "the module has brought none into the process", "Was it linked statically?"
        )
        return False
    path = Path(library._name)
    beside = path.resolve().parent == Path(str(_tavrin_video.__file__)).resolve().parent
    chosen = (
        "" if beside else "Another one than the module's own was found first: LD_LIBRARY_PATH or the wheel."
    )
    findings.add("ok", "libsarnet", str(path), chosen if os.environ.get("LD_LIBRARY_PATH") else "")
    if not hasattr(library, "srn_statistics_json"):
        advice = "A library of the same contract may lack them: pacing can't be told."
        findings.add("note", "statistics", "this libsarnet keeps none", advice)
    _look_at_engines(findings, path)
    return True


def _look_at_engines(findings: _Findings, library: Path) -> None:
    found: dict[str, Path | None] = {}
    for part in ("files", "relay"):
        found[part] = next(iter(sorted(library.parent.glob(f"libsarnet_{part}*.so"))), None)
    if found["files"] is None:
        advice = "Scenarios with media files or recordings need it."
        findings.add(
            "bad", "engine embedded", f"there is no libsarnet_files.so beside {library.name}", advice
        )
    else:
        findings.add("ok", "engine embedded", "built in; reads and writes media files")
    if found["relay"] is None:
        advice = "Sessions on a server need libsarnet_relay.so beside it; those on this machine do not."
        findings.add("note", "engine relay", "not there", advice)
        return
    try:
        ctypes.CDLL(str(found["relay"]))
    except OSError as error:
        packages = "libsoup-3.0-0, libnice10, libsrtp2-1, libusrsctp2, libvpx7, libavcodec59"
        advice = f"Install what it needs (Debian: {packages})."
        findings.add("note", "engine relay", f"can't be loaded: {error}", advice)
    else:
        findings.add("ok", "engine relay", str(found["relay"]))


def _look_at_helpers(findings: _Findings) -> None:
    host = os.environ.get("API_HOSTNAME")
    findings.add("ok", "API_HOSTNAME", host or "not set: sessions are played by the embedded engine")
    extras = (
        ("numpy", "python3-numpy", "arrays of samples and pictures, and tavrin_media_relay.testing"),
        ("rich", "python3-rich", "live bars of this command line"),
        ("matplotlib", "python3-matplotlib", "the command report"),
    )
    for name, package, purpose in extras:
        if importlib.util.find_spec(name) is None:
            findings.add(
                "note",
                name,
                "not installed",
                f"For {purpose}: pip install {name}, or apt-get install {package}",
            )
        else:
            findings.add("ok", name, importlib.metadata.version(name))
    programs = (
        ("ffmpeg", "ffmpeg", "play any kind of file, record to Matroska"),
        ("janus", "janus", "the command relay"),
    )
    for name, package, purpose in programs:
        place = shutil.which(name)
        if place is None:
            findings.add("note", name, "not installed", f"For {purpose}: apt-get install {package}")
        else:
            findings.add("ok", name, place)


@contextlib.contextmanager
def _quiet_host() -> Iterator[None]:
    """The loopback uses the embedded engine, regardless of the environment."""
    before = os.environ.pop("API_HOSTNAME", None)
    try:
        yield
    finally:
        if before is not None:
            os.environ["API_HOSTNAME"] = before


def _try_out(findings: _Findings) -> LoopbackFigures | None:
    with _quiet_host(), tempfile.TemporaryDirectory(prefix="tavrin-doctor-") as folder:
        try:
            figures = asyncio.run(loopback(Path(folder), LoggingSettings("error")))
        except Exception as error:  # any failure: whether a session works is the question
            advice = "See what happens: record --log-level info --session try --out /tmp/try"
            findings.add("bad", "loopback", f"{type(error).__name__}: {error}", advice)
            return None
    wrong = (
        (figures.sound_missing, "what was spoken is not whole in the recording"),
        (figures.picture_missing, "what was shown is not in the recording"),
        (not figures.heard_tone, "the other side's tone was not heard"),
        (not figures.pictures, "the other side was not seen"),
    )
    faults = "; ".join(text for fault, text in wrong if fault)
    if faults:
        advice = "On a machine that is busy, media have gaps: try again when it is idle."
        findings.add("bad", "loopback", faults, advice)
    else:
        text = f"spoke {figures.spoken_s:g} s and showed pictures, recorded whole; "
        text += f"heard a tone, saw {figures.pictures} pictures"
        findings.add("ok", "loopback", text)
    _judge_pacing(findings, figures)
    return figures


def _times(times: dict[str, float], digits: int = 1) -> str:
    return ", ".join(f"{name} {value:.{digits}f}" for name, value in times.items()) + " ms"


def _tell_callbacks(findings: _Findings, callbacks: dict[str, int]) -> None:
    """How long media waited for the module, and how long its callbacks took, our callables included."""
    if not callbacks:
        return
    parts = []
    for kind in ("audio", "picture"):
        waited, took = (
            {name: callbacks[f"{kind}_{what}_{name}_us"] / 1000 for name in _QUANTILES}
            for what in ("waited", "took")
        )
        parts.append(f"{kind} waited {_times(waited, 2)}, took {_times(took, 2)}")
    findings.add("ok", "callbacks", "from the library to the callable and back: " + "; ".join(parts))


def _judge_pacing(findings: _Findings, figures: LoopbackFigures) -> None:
    text = f"from the library's thread to async for: {_times(figures.delays)}; "
    text += (
        f"its thread was kept {_times(figures.kept, 3)}; {figures.escaped_views} views outlived their call"
    )
    findings.add("ok" if figures.delays["p99"] < _LATE_MS else "note", "delivery", text)
    if figures.library is None or figures.pacing is None:
        return
    capture, video, delivery = figures.pacing, figures.library["video"], figures.library["delivery"]
    _tell_callbacks(findings, figures.library.get("callbacks", {}))
    dropped = delivery["audio_blocks_dropped"] + delivery["pictures_dropped"]
    text = (
        "{frames_provided} provided, {frames_repeated} of them repeated and {frames_black} black, "
        "{frames_late} late"
    )
    findings.add("ok", "pictures", text.format(**video) + f"; {dropped} received media dropped")
    late = {name: capture[f"lateness_{name}_us"] / 1000 for name in _QUANTILES}
    text = (
        f"{capture['periods_written']} periods of 10 ms ({capture['silence_periods']} silent), "
        f"late {_times(late)}; "
        f"missed {capture['gaps']}, underruns {capture['underruns']}"
    )
    if late["p99"] < _LATE_MS and capture["gaps"] <= _GAPS:
        findings.add("ok", "pacing", text)
        return
    load, cpus = os.getloadavg()[0], len(os.sched_getaffinity(0))
    advice = "Listeners may hear gaps. "
    if load > cpus:
        advice += f"The machine is busy (load {load:.1f} on {cpus} processors): try again when it is idle."
    else:
        advice += "A virtual machine or container may be short of processor time: look at its limits."
    findings.add("note", "pacing", text, advice)


def doctor(options: argparse.Namespace, terminal: Terminal) -> int:
    findings = _Findings(terminal)
    _look_at_versions(findings)
    works = _look_at_library(findings)
    _look_at_helpers(findings)
    figures = _try_out(findings) if works else None
    terminal.result(
        {"fine": findings.fine, "findings": findings.all, "figures": figures and figures.as_dict()}
    )
    if not findings.fine:
        raise Failure("sessions cannot work here as it is; see above")
    if not terminal.as_json:
        notes = sum(each["grade"] == "note" for each in findings.all)
        terminal.tell("end", "All is well." if not notes else f"Sessions work here; {notes} notes above.")
    return 0
