"""Whole programs on the embedded engine, each in a process of its own."""

from __future__ import annotations

import json
import os
import re
import subprocess
import sys
import wave
from pathlib import Path

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[2]
HERE = Path(__file__).resolve().parent


def run(script: Path, *arguments: object, **environment: object) -> str:
    """Runs a program to its end within a minute and gives what it printed; fails with all of it."""
    variables = {key: value for key, value in os.environ.items() if key != "API_HOSTNAME"}
    variables |= {key: str(value) for key, value in environment.items()}
    done = subprocess.run(
        [sys.executable, str(script), *map(str, arguments)],
        env=variables, capture_output=True, text=True, timeout=60,
    )  # fmt: skip
    assert done.returncode == 0, done.stdout + done.stderr
    assert "Traceback" not in done.stderr, done.stderr  # from a callable: stops nothing, so look for it
    return done.stdout


def test_readme_shows_the_first_program():
    program = (ROOT / "examples/hello.py").read_text()
    blocks = re.findall(r"```python\n(.*?)```", (ROOT / "README.md").read_text(), re.DOTALL)
    assert blocks[0] == program
    assert len(program.splitlines()) <= 40


def test_hello_hears_and_sees_the_companion():
    printed = run(ROOT / "examples/hello.py")
    assert "Caption: " in printed
    saw = re.search(
        r"Saw (\d+) pictures of VideoResolution\(width=640, height=480\), heard sound up to (\d+)", printed
    )
    assert saw, printed
    # Three seconds at 30 pictures; a busy machine may lose some. The companion's tone is quiet.
    assert int(saw[1]) >= 45 and 1000 < int(saw[2]) < 8000, printed


def tone_frequency(samples: np.ndarray, rate: int) -> float:
    """The strongest frequency of the middle second."""
    middle = samples[len(samples) - rate :][:rate].mean(axis=1)
    spectrum = np.abs(np.fft.rfft(middle * np.hanning(len(middle))))
    return float(np.argmax(spectrum)) * rate / len(middle)


@pytest.mark.parametrize(("rate", "channels"), [(48000, 2), (16000, 1)])
def test_session_is_recorded_sample_for_sample(tmp_path, rate, channels):
    random = np.random.default_rng(7)
    speech = random.integers(-20000, 20000, (int(rate * 0.505), channels), np.int16)
    pictures = random.integers(16, 235, (12, 48 * 3 // 2, 64), np.uint8)
    np.savez(tmp_path / "given.npz", speech=speech, pictures=pictures, rate=rate)
    scenario = tmp_path / "scenario.json"
    scenario.write_text(
        json.dumps(
            {
                "record": "recording",
                "participants": [
                    {
                        "id": "peer",
                        "audio": {"tone_hz": 500},
                        "video": {"testcard": True, "width": 160, "height": 120, "fps": 30},
                        "captions": [{"at_ms": 1000, "text": "Grüße, 世界"}],
                    }
                ],
            }
        )
    )
    run(
        HERE / "short_session.py",
        tmp_path / "given.npz",
        tmp_path / "told.npz",
        API_HOSTNAME=f"embedded:{scenario}",
    )

    with wave.open(str(next((tmp_path / "recording").glob("*.wav")))) as file:
        assert (file.getframerate(), file.getnchannels()) == (rate, channels)
        assert speech.tobytes() in file.readframes(file.getnframes())

    film = next((tmp_path / "recording").glob("*.y4m")).read_bytes()
    assert film.startswith(b"YUV4MPEG2 W64 H48 F30:1 ")
    places = [film.find(b"FRAME\n" + picture.tobytes()) for picture in pictures]
    assert -1 not in places and places == sorted(places)

    told = np.load(tmp_path / "told.npz")
    assert list(told["captions"]) == ["Grüße, 世界"]
    assert tone_frequency(told["heard"], rate) == pytest.approx(500, rel=0.03)
    seen = told["seen"]
    assert seen.shape[1:] == (180, 160)
    # The card moves: no two pictures in a row are the same, and most of each is.
    changed = (seen[1:] != seen[:-1]).mean(axis=(1, 2))
    assert (changed > 0).mean() > 0.8 and changed.max() < 0.5
