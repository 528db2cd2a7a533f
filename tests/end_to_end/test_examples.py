"""Every example runs on the embedded engine, ends by itself and says what it did."""

from __future__ import annotations

import os
import re
import subprocess
import sys
import wave
from pathlib import Path
from typing import Any

import pytest
from PIL import Image

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("TAVRIN_BUILD") or ROOT / "build" / os.environ.get("TAVRIN_PRESET", "release"))
EXAMPLES = ROOT / "examples"


#: The program, its arguments, its scenario, and what its output must match; a group is a number of that
#: range.
EXAMPLE_RUNS: dict[str, Any] = {
    # Three seconds at 30 pictures, of which a busy machine may lose some; the companion's tone is quiet.
    "hello.py": ([], None, r"Caption: (?s:.*)Saw (\d+) pictures of VideoResolution\(width=640, height=480\), "
                 r"heard sound up to [1-7]\d\d\d\n", (45, 200)),
    "speak.py": (["tone.wav"], None, r"Said ([\d.]+) s", (1.5, 1.6)),
    "listen.py": (["out.wav", "1"], None, r"Wrote ([\d.]+) s to out.wav; 0 frames", (1.0, 1.1)),
    "echo.py": (["3"], None, r"Echoed ([\d.]+) s", (1.5, 3.5)),
    "pictures.py": (["--seconds=0.5", "a.png", "b.png"], None, r"Showed a.png\nShowed (b).png", None),
    "captions.py": (["2"], None, r"captions: .*\S.*(\n)", None),
    "barge_in.py": ([], "interruption.json", r"Interrupted ([\d.]+) s before the end", (52, 59.9)),
    "reconnect.py": (["2"], "failure.json", r"Visit 2: in, (?s:.*)Visit (2): .*line is broken.*2001", None),
    "process.py": (["2"], None, r"Sent back ([\d.]+) s of sound and [1-9.]", (1.0, 2.6)),
    "many_streams.py": (["4.5"], "full_room.json", r"12 streams, sound: (\d+) taken, 0 lost", (1000, 6000)),
}  # fmt: skip


def test_readme_shows_the_first_program():
    program = (EXAMPLES / "hello.py").read_text()
    assert f"```python\n{program}```" in (ROOT / "README.md").read_text()
    assert len(program.splitlines()) <= 40


# With its framework in an environment of its own, in tests/integrations; served, in relay/test_fleet.py.
ELSEWHERE = {"pipecat_bot.py", "greeter.py"}


@pytest.mark.parametrize("name", sorted({path.name for path in EXAMPLES.glob("*.py")} - ELSEWHERE))
def test_example(name, tmp_path):
    arguments, scenario, pattern, limits = EXAMPLE_RUNS[name]
    with wave.open(str(tmp_path / "tone.wav"), "wb") as file:
        file.setparams((1, 2, 22050, 0, "NONE", ""))
        file.writeframes(bytes(22050 * 3))
    for colour in ("a", "b"):
        Image.new("RGB", (320, 200), (200, 30, 30)).save(tmp_path / f"{colour}.png")
    variables = {
        key: value for key, value in os.environ.items() if key not in ("LD_LIBRARY_PATH", "API_HOSTNAME")
    }
    variables["PYTHONPATH"] = os.pathsep.join([str(BUILD / "python"), str(ROOT / "python")])
    if scenario:
        variables["API_HOSTNAME"] = f"embedded:{EXAMPLES / 'scenarios' / scenario}"
    done = subprocess.run(
        [sys.executable, str(EXAMPLES / name), *arguments],
        env=variables, cwd=tmp_path, capture_output=True, text=True, timeout=30,
    )  # fmt: skip
    assert done.returncode == 0, done.stdout + done.stderr
    found = re.search(pattern, done.stdout)
    assert found, done.stdout + done.stderr
    assert limits is None or limits[0] <= float(found[1]) <= limits[1], done.stdout
    assert not done.stderr, done.stderr
