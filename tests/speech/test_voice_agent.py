"""The voice agent, talked to in synthetic speech: what it understands, and how soon it answers and stops."""

from __future__ import annotations

import importlib.util
import re
import shutil
import subprocess
import sys
import wave
from pathlib import Path

import numpy as np
import pytest

FOLDER = Path(__file__).resolve().parents[2] / "examples" / "voice_agent"
pytestmark = pytest.mark.skipif(
    not (shutil.which("flite") and importlib.util.find_spec("pocketsphinx")),
    reason="flite or python3-pocketsphinx is not installed",
)
sys.path.insert(0, str(FOLDER))


def program():
    spec = importlib.util.spec_from_file_location("voice_agent", FOLDER / "__main__.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    module.prepare()
    return module


def speech(text: str, folder: Path) -> np.ndarray:
    """16-bit samples of 16 kHz, in another voice than the agent's."""
    file = folder / f"{abs(hash(text))}.wav"
    subprocess.run(["flite", "-voice", "rms", "-t", text, "-o", str(file)], check=True)
    with wave.open(str(file)) as sound:
        return np.frombuffer(sound.readframes(sound.getnframes()), np.int16)


def test_it_understands_answers_and_keeps_its_timers(rehearsal, tmp_path):
    caller = rehearsal.participant("caller")
    asked = []
    for at, text in (
        (6.0, "set an egg timer for three seconds"),
        (15.5, "how long is left"),
        (21.5, "what can you do"),
    ):
        asked.append(caller.says(speech(text, tmp_path), at=at, sample_rate=16000))
    interruption = caller.says(speech("stop", tmp_path), at=26.0, sample_rate=16000)
    module, conversations = program(), []
    begin = module.Conversation.__init__

    def remember(self, *arguments):
        begin(self, *arguments)
        conversations.append(self)

    module.Conversation.__init__ = remember
    performance = rehearsal.run(module.agent, until=30, timeout=45)
    history = conversations[0].history
    heard = [text for who, text in history if who == "you"]
    said = [text for who, text in history if who == "me"]
    assert re.fullmatch("set (an )?egg timer for three seconds", heard[0])
    assert heard[1:] == ["how long is left", "what can you do", "stop"]
    assert said[1:4] == [
        "I set your egg timer to 3 seconds.",
        "Your egg timer is done!",
        "There is no timer.",
    ]
    assert said[4].endswith(" ...") and len(said[4]) < 200  # of the long answer just what was heard
    spoken = performance.sound.utterances()
    answers = [next(each.begin for each in spoken if each.begin > turn.end) - turn.end for turn in asked]
    print("end of turn to answer, s:", [round(each, 2) for each in answers])
    assert max(answers) < 1.5  # 0.5 s of which are the pause that ends a turn
    during = [each for each in spoken if each.begin < interruption.begin + 0.3]
    silent_after = during[-1].end - interruption.begin
    print("interruption to silence, s:", round(silent_after, 2))
    assert silent_after < 0.5
    assert len(performance.film) > 50
