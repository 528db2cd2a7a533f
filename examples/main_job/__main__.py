"""The main job on real input: join, publish speech and pictures, hear and see another participant, be
interrupted, answer, leave; then check all of it. Run it with "./dev demo"; results go to out/.
"""

from __future__ import annotations

import os
import shutil
import sys
from pathlib import Path
from typing import Any

import numpy as np

import checks
import outputs
from counters import read_counters
from material import CHANNELS, RATE, prepare
from participant import Participant, Report
from progress import Progress

OUT = Path(os.environ.get("TAVRIN_DEMO_OUT", "out")).resolve()


def show_figures(
    report: Report, counters: dict[str, Any], pictures: dict[str, int], mix_seconds: float
) -> None:
    capture, video = counters.get("capture", {}), counters.get("video", {})

    def millis(name: str) -> str:
        return f"{capture.get(f'lateness_{name}_us', 0) / 1000:.2f}"

    said = sum(len(samples) for samples in report.spoken) / RATE - report.before_clear[0]
    outputs.table(
        "Published",
        [
            (
                "audio periods written",
                f"{capture.get('periods_written')} of 10 ms, {said:.1f} s of them speech",
            ),
            ("their lateness p50 / p99 / max", f"{millis('p50')} / {millis('p99')} / {millis('max')} ms"),
            ("periods left out in our pauses", f"{capture.get('gaps')}"),
            ("pictures given", f"{len(report.pictures_sent)}, {pictures['cleared']} of them cleared"),
            ("frames provided", f"{video.get('frames_provided')}, {video.get('frames_late')} late"),
            ("frames repeated", f"{video.get('frames_repeated')}"),
            ("frames black", f"{video.get('frames_black')}"),
            ("drained notices", f"audio {report.drained_audio}, video {report.drained_video}"),
            (
                "most queued",
                f"audio {report.most_buffered['audio']:.2f} s, video {report.most_buffered['video']:.2f} s",
            ),
        ],
    )
    outputs.table(
        "Received",
        [
            ("heard in the mix", f"{mix_seconds:.1f} s"),
            ("heard in the stream", f"{len(report.voice)} blocks of {report.voice_channels} channel(s)"),
            ("seen", f"{len(report.thumbnails)} pictures in {report.watched:.1f} s"),
            ("captions", " | ".join(text for text, final in report.captions if final)),
            ("media dropped on the way", f"{dropped(counters)}"),
        ],
    )


def dropped(counters: dict[str, Any]) -> int:
    return sum(number for name, number in counters.get("delivery", {}).items() if name.endswith("dropped"))


def main() -> int:
    shutil.rmtree(OUT, ignore_errors=True)
    print("Preparing real speech and pictures (a quarter of a minute) ...", flush=True)
    material = prepare(OUT)
    os.environ["API_HOSTNAME"] = f"embedded:{material.scenario}"

    participant = Participant(material)
    counters: dict[str, Any] = {}
    print("Joining the session\n", flush=True)
    with Progress(participant):
        report = participant.visit("demo-session", lambda: counters.update(read_counters()))

    recording = checks.finished_recording(OUT / "recording")
    sound, film = OUT / "recording" / recording["audio"], OUT / "recording" / recording["video"]
    mix = np.frombuffer(b"".join(report.mix), np.int16)
    voice = np.frombuffer(b"".join(report.voice), np.int16)
    picture_check, pictures = checks.check_pictures(checks.read_y4m(film), report)
    results = [
        *checks.check_speech(checks.read_wav(sound), report),
        picture_check,
        checks.check_heard("heard in the mix what was played", mix, CHANNELS, material, 0.7),
        checks.check_heard(
            "heard in the stream what was played", voice, report.voice_channels, material, 1.0
        ),
        checks.check_seen(report, material),
        *checks.check_conduct(report, material),
        checks.check_counters(counters, pictures),
    ]

    outputs.write_wav(OUT / "heard-mix.wav", mix)
    outputs.write_wav(OUT / "heard-stream.wav", voice, report.voice_channels or 1)
    outputs.write_contact_sheet(OUT / "seen.png", report)
    outputs.write_film(OUT / "published.mp4", film, sound)
    shutil.copy(sound, OUT / "published.wav")
    if "--keep" not in sys.argv:  # raw pictures: some 700 MB
        shutil.rmtree(OUT / "work")
        film.unlink()

    show_figures(report, counters, pictures, len(mix) / CHANNELS / RATE)
    outputs.print_checks(results)
    print(f"\nTo look at and listen to, in {OUT}:")
    for path in sorted(OUT.iterdir()):
        print(f"  {path.name}")
    return 0 if all(result.passed for result in results) else 1


if __name__ == "__main__":
    sys.exit(main())
