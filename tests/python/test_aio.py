"""The asyncio face on the embedded engine: each case of aio_cases.py in a process that ends without a
complaint."""

from __future__ import annotations

import asyncio
import random
import signal
import subprocess
import sys
from pathlib import Path
from typing import Any

import aio_cases
import numpy as np
import pytest
from programs import BUILD, COMPLAINTS, end, launch

from tavrin_media_relay import frame_buffer_size
from tavrin_media_relay._native.pictures import convert
from tavrin_media_relay._native.resample import Converter
from tavrin_media_relay.aio import AudioFrame
from tavrin_media_relay.aio._output import Output
from tavrin_media_relay.aio.video_output import convert_aside


def start(case: str, folder: Path, **variables: Any) -> subprocess.Popen[str]:
    options = ["-X", "dev", "-W", "ignore::DeprecationWarning"]
    return launch(*options, aio_cases.__file__, case, cwd=folder, **variables)


@pytest.mark.parametrize("case", [*(case.__name__ for case in aio_cases.CASES), "lost_outcomes"])
def test_case(case, tmp_path):
    scripted = {"LD_LIBRARY_PATH": BUILD / "scripted"} if case == "lost_outcomes" else {}
    end(start(case, tmp_path, **scripted), 0)


def test_a_queue_found_dry_during_a_write_is_not_dry_after_it():
    async def write() -> Output:
        output, found = Output(0, 1000, lambda: None), list[int]()
        await output.hand_over(lambda: found.append(output.added) or True, 20)
        output.ran_dry(*found)
        return output

    assert not asyncio.run(write()).is_dry


@pytest.mark.parametrize(
    "rate_in, channels_in, rate_out, channels_out",
    [(44100, 1, 48000, 2), (8000, 2, 48000, 1), (48000, 2, 16000, 2), (48000, 1, 48000, 2)],
)
def test_resampling_neither_drifts_nor_distorts(rate_in, channels_in, rate_out, channels_out):
    """A minute of a tone in blocks of odd sizes has the same phase and level at its end as at its
    beginning."""
    hertz, seconds, dice = 300, 60, random.Random(5)
    tone = 9000 * np.sin(2 * np.pi * hertz * np.arange(rate_in * seconds) / rate_in)
    samples = np.repeat(tone.astype(np.int16), channels_in)
    converter, parts, position = Converter(rate_in, channels_in, rate_out, channels_out), [], 0
    while position < len(samples):
        size = dice.randrange(1, 9000) * channels_in
        parts.append(np.array(converter.convert(samples[position : position + size].data)))
        position += size
    result = np.concatenate([*parts, np.array(converter.flush())]).reshape(-1, channels_out)
    assert abs(len(result) - seconds * rate_out) <= 1
    wanted = 9000 * np.sin(2 * np.pi * hertz * np.arange(len(result)) / rate_out)
    wrong = np.abs(result - wanted[:, None])[rate_out // 10 : -rate_out // 10]
    assert wrong.max() < 40, wrong.max()


@pytest.mark.parametrize("size", [(64, 48), (5, 3), (1, 1), (1281, 721)])
@pytest.mark.parametrize("layout", ["RGB24", "ARGB32", "RGBA32"])
def test_pictures_keep_their_colours(size, layout):
    """By way of the session's formats and back to RGB; odd sizes have chroma planes of rounded-up halves."""
    colour = {"R": 200, "G": 90, "B": 40, "A": 255}
    width, height = size
    pixels = bytes(colour[letter] for letter in layout.rstrip("0123456789")) * (width * height)
    for wanted in ("YUV420P", "RGB24", "ARGB32"):
        there = asyncio.run(convert_aside(memoryview(pixels), width, height, layout, wanted))
        assert len(there) == frame_buffer_size(width, height, wanted)
        back = np.frombuffer(convert(bytes(there), width, height, wanted, "RGB24"), np.uint8).reshape(-1, 3)
        assert np.abs(back.astype(int) - [200, 90, 40]).max() <= 3, (wanted, back[0])


def test_numpy_is_asked_for_by_name(monkeypatch):
    monkeypatch.setitem(sys.modules, "numpy", None)
    frame = AudioFrame(8000, 1, memoryview(bytes(4)).cast("h"), 0.0)
    assert (frame.frame_count, frame.tobytes()) == (2, bytes(4))
    with pytest.raises(ImportError, match="python3-numpy"):
        frame.numpy()


def test_ctrl_c(tmp_path):
    program = start("interrupted", tmp_path)
    assert program.stdout and program.stderr
    try:
        while "running" not in program.stdout.readline():
            assert program.poll() is None, program.stderr.read()
        program.send_signal(signal.SIGINT)
        out, err = end(program, -signal.SIGINT, COMPLAINTS[1:])
    finally:
        program.kill()
    assert "left" in out and err.strip().endswith("KeyboardInterrupt"), out + err
