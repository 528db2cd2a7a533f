"""The main job on real input: join, publish speech and pictures, hear and see another participant, be
interrupted, answer, leave; then check all of it. Run it with "./dev demo"; results go to out/.
"""

from __future__ import annotations

import os
import shutil
import sys
from pathlib import Path

import numpy as np

import outputs
from checks import check_conduct, check_heard, check_pictures, check_seen, check_speech, read_wav, read_y4m
from counters import read_counters
from material import CHANNELS, prepare
from participant import Participant
from progress import Progress

OUT = Path(os.environ.get("TAVRIN_DEMO_OUT", "out")).resolve()


def main() -> int:
    shutil.rmtree(OUT, ignore_errors=True)
    print("Preparing real speech and pictures (a quarter of a minute) ...", flush=True)
    material = prepare(OUT)
    os.environ["API_HOSTNAME"] = f"embedded:{material.scenario}"

    participant, counters = Participant(material), {}
    print("Joining the session\n", flush=True)
    with Progress(participant):
        report = participant.visit("demo-session", lambda: counters.update(read_counters()))

    speech, film = OUT / "recording.wav", OUT / "recording.y4m"
    mix = np.frombuffer(b"".join(report.mix), np.int16)
    voice = np.frombuffer(b"".join(report.voice), np.int16)
    picture_checks, pictures = check_pictures(read_y4m(film), report)
    checks = [
        *check_speech(read_wav(speech), report),
        *picture_checks,
        check_heard("heard in the mix what was played", mix, CHANNELS, material),
        check_heard("heard in the stream what was played", voice, report.voice_channels, material),
        check_seen(report, material),
        *check_conduct(report, material),
    ]
    outputs.write_wav(OUT / "heard-mix.wav", mix)
    outputs.write_wav(OUT / "heard-stream.wav", voice, report.voice_channels or 1)
    outputs.write_contact_sheet(OUT / "seen.png", report)
    print(pictures, counters)
    outputs.print_checks(checks)
    return 0 if all(check.passed for check in checks) else 1


if __name__ == "__main__":
    sys.exit(main())
