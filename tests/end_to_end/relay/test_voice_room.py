"""The voice agent in a room, talked to by Chromium with a recording as its microphone."""

from __future__ import annotations

import importlib.util
import shutil
import subprocess
import wave

import numpy as np
import pytest
from processes import ADDRESS, HERE, ROOT, Server

pytestmark = pytest.mark.skipif(
    not (shutil.which("flite") and importlib.util.find_spec("pocketsphinx")),
    reason="flite or python3-pocketsphinx is not installed",
)


def test_a_question_in_the_browser_is_heard_answered_and_captioned(enter_network, tmp_path):
    asked = tmp_path / "asked.wav"
    subprocess.run(
        ["flite", "-voice", "rms", "-t", "how long is left on the pasta timer", "-o", asked], check=True
    )
    with wave.open(str(asked)) as file:
        words = np.repeat(np.frombuffer(file.readframes(file.getnframes()), np.int16), 3)
    with wave.open(str(tmp_path / "microphone.wav"), "wb") as file:
        file.setparams((1, 2, 48000, 0, "NONE", ""))
        file.writeframes(
            np.concatenate([np.zeros(48000 * 9, np.int16), words, np.zeros(48000 * 6, np.int16)])
        )
    network = enter_network(ADDRESS)
    agent = ROOT / "examples" / "voice_agent"
    server = Server.on(network, tmp_path / "server", "--agent", agent, command="room")
    link = server.wait_for_line(lambda line: line.strip().startswith("http")).strip()
    microphone = f"--use-file-for-fake-audio-capture={tmp_path / 'microphone.wav'}"
    visitor = network.start(HERE / "visitor.py", link, microphone, "--ignore-certificate-errors")
    visitor.wait_for("joined", 60)
    visitor.wait_for_line(lambda line: "There is no pasta timer." in line, 60)
    assert visitor.leave()["problem"] == ""
