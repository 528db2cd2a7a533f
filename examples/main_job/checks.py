"""Compares what the library recorded, and what we heard and saw, with what was sent and played."""

from __future__ import annotations

import hashlib
import json
import time
import wave
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np

from heard import find_speech, reduced
from heard import RATE as COMPARED_RATE
from material import CHANNELS, FRAME_BYTES, FPS, RATE, Material
from participant import Report


@dataclass
class Check:
    name: str
    passed: bool
    detail: str


def finished_recording(folder: Path, patience: float = 15.0) -> dict[str, Any]:
    """The "recorded" entry of the log, once the recording is closed, soon after we left."""
    log, deadline = folder / "events.jsonl", time.monotonic() + patience
    while time.monotonic() < deadline:
        lines = [json.loads(line) for line in log.read_text().splitlines() if line.endswith("}")]
        if lines and lines[-1]["event"] == "closed":
            return next(line for line in lines if line["event"] == "recorded")
        time.sleep(0.1)
    raise RuntimeError(f"{log} was not closed within {patience:.0f} s")


def read_wav(path: Path) -> np.ndarray:
    with wave.open(str(path)) as file:
        if (file.getframerate(), file.getnchannels(), file.getsampwidth()) != (RATE, CHANNELS, 2):
            raise RuntimeError(f"{path} is not 48 kHz stereo of 16 bits")
        return np.frombuffer(file.readframes(file.getnframes()), np.int16)


def check_speech(recording: np.ndarray, report: Report) -> list[Check]:
    """Each piece must be in the recording sample for sample, the interrupted one up to the clear."""
    recorded, place, whole, exact, kept = recording.tobytes(), 0, 0, 0, 0
    for number, samples in enumerate(report.spoken):
        if number == report.interrupted:
            second = samples[:RATE].tobytes()
            at = recorded.find(second, place)
            if at >= 0:
                rest = np.frombuffer(recorded[at : at + samples.nbytes], np.int16)
                differs = np.flatnonzero(rest != samples.reshape(-1)[: len(rest)])
                kept = int(differs[0]) // CHANNELS if len(differs) else len(rest) // CHANNELS
                place = at + kept * CHANNELS * 2
        else:
            whole += 1
            at = recorded.find(samples.tobytes(), place)
            if at >= 0:
                exact += 1
                place = at + samples.nbytes
    spoken = len(report.spoken[report.interrupted]) / RATE
    dropped = spoken - kept / RATE
    return [
        Check("speech recorded sample for sample", exact == whole == 3, f"{exact} of {whole} whole pieces"),
        Check(
            "interrupted speech cut at the clear",
            1 <= kept / RATE < spoken and abs(dropped - report.before_clear[0]) < 0.2,
            f"{kept / RATE:.2f} of {spoken:.2f} s recorded, {report.before_clear[0]:.2f} s were dropped",
        ),
    ]


def read_y4m(path: Path) -> list[bytes]:
    """A digest of each picture of a Y4M file; of a black one, b"black"."""
    black = bytes([16]) * (FRAME_BYTES * 2 // 3) + bytes([128]) * (FRAME_BYTES // 3)
    digests = []
    with path.open("rb") as file:
        header = file.readline().decode()
        if not header.startswith("YUV4MPEG2 W640 H480 F30:1"):
            raise RuntimeError(f"{path} begins with {header!r}")
        while file.readline().startswith(b"FRAME"):
            picture = file.read(FRAME_BYTES)
            digests.append(
                b"black" if picture == black else hashlib.blake2b(picture, digest_size=16).digest()
            )
    return digests


def check_pictures(recorded: list[bytes], report: Report) -> tuple[Check, dict[str, int]]:
    """Pictures must arrive unchanged and in order, none missing but those we dropped."""
    numbers = {digest: number for number, digest in enumerate(report.pictures_sent)}
    shown = [numbers.get(digest, -1) for digest in recorded if digest != b"black"]
    strange = shown.count(-1)
    ordered = all(a <= b for a, b in zip(shown, shown[1:]))
    missing = sorted(set(numbers.values()) - set(shown))
    cleared = [number for number in missing if number < report.pictures_at_clear]
    unsent = [number for number in missing if number >= report.pictures_at_clear]
    # The pictures we dropped were at the end of the queue, and so were those queued when we left.
    at_ends = cleared == list(range(report.pictures_at_clear - len(cleared), report.pictures_at_clear))
    at_ends = at_ends and unsent == list(range(len(numbers) - len(unsent), len(numbers)))
    allowed = report.before_clear[1] * FPS + 2
    figures = {
        "recorded": len(recorded),
        "distinct": len(set(shown)),
        "black": recorded.count(b"black"),
        "cleared": len(cleared),
    }
    check = Check(
        "pictures recorded byte for byte, in order",
        not strange and ordered and at_ends and len(cleared) <= allowed and len(unsent) <= FPS + 2,
        f"{figures['distinct']} of {len(numbers)} sent; {len(cleared)} cleared, {len(unsent)} still queued, "
        f"{strange} unknown",
    )
    return check, figures


def check_heard(name: str, heard: np.ndarray, channels: int, material: Material, least: float) -> Check:
    """Looks for the speech that was played; `least` is the share of its pieces that must be clear.

    A single stream arrives as it was played. The mix is read on its own clock, so that on a busy machine it
    may skip.
    """
    factor = RATE // COMPARED_RATE
    mono = heard.reshape(-1, channels).mean(axis=1) if channels else heard
    matches, delays = find_speech(reduced(material.their_speech, factor), reduced(mono, factor))
    if not matches:
        return Check(name, False, "nothing to compare")
    clear = np.array(matches) >= 0.7
    share, middle = float(clear.mean()), float(np.median(matches))
    in_time = share > 0 and float(np.ptp(np.array(delays)[clear])) < 1.5
    good = middle >= 0.9 and share >= least and in_time
    return Check(
        name, good, f"correlation {middle:.3f} over {len(matches)} pieces, {share:.0%} of them clear"
    )


def check_seen(report: Report, material: Material) -> Check:
    """Every picture must be from the file, in the file's order, and few may be missing."""
    seen = np.array(report.thumbnails, np.float32).reshape(len(report.thumbnails), -1)
    played = material.their_thumbnails.astype(np.float32).reshape(len(material.their_thumbnails), -1)
    if not len(seen):
        return Check("pictures seen are those played", False, "none seen")
    distance = (seen**2).sum(1)[:, None] + (played**2).sum(1)[None, :] - 2 * seen @ played.T
    nearest = distance.argmin(1)
    error = np.sqrt(np.maximum(distance.min(1), 0) / seen.shape[1])
    matched = float((error < 4).mean())
    # Neighbouring pictures of a slow pan look alike: allow a few steps back.
    forward = float((np.diff(nearest) >= -3).mean()) if len(nearest) > 1 else 0.0
    rate = (len(seen) - 1) / report.watched if report.watched else 0.0
    return Check(
        "pictures seen are those played",
        matched >= 0.99 and forward >= 0.99 and rate >= 0.9 * FPS,
        f"{len(seen)} pictures, {rate:.1f} a second, {matched:.1%} match, mean error "
        f"{error.mean():.2f} of 255",
    )


def check_conduct(report: Report, material: Material) -> list[Check]:
    """The rest: captions, notices, buffer statistics, the clear, and the leaving."""
    expected = [(text, final) for _, text, final in material.captions]
    audio, video = report.before_clear
    return [
        Check(
            "captions are those of the script",
            report.captions == expected,
            f"{len(report.captions)} received",
        ),
        Check(
            "drained notices arrived and were answered",
            report.drained_audio == 3 and report.drained_video >= 1,
            f"audio {report.drained_audio}, video {report.drained_video}",
        ),
        Check(
            "buffers filled, and the clear emptied them",
            audio > 1 and max(report.after_clear) <= 0.1 and 0 < report.most_buffered["video"] <= 1.5,
            f"{audio:.2f} s and {video:.2f} s before, {report.after_clear[0]:.2f} s and "
            f"{report.after_clear[1]:.2f} s after",
        ),
        Check("left the session", report.left, "disconnected" if report.left else "still connected"),
    ]


def check_counters(counters: dict[str, Any], pictures: dict[str, int]) -> Check:
    """The library's counters must agree with the recording, except for media after they were read."""
    if not counters:
        return Check("the library's counters agree", True, "this library has none")
    video = counters["video"]
    new = video["frames_provided"] - video["frames_repeated"] - video["frames_black"]
    return Check(
        "the library's counters agree",
        abs(new - pictures["distinct"]) <= FPS // 2 and counters["capture"]["periods_written"] > 1000,
        f"{new} new pictures counted, {pictures['distinct']} recorded",
    )
