"""Real speech and pictures for the demo, from Debian packages, prepared with ffmpeg and Pillow."""

from __future__ import annotations

import json
import subprocess
from dataclasses import dataclass
from math import ceil
from pathlib import Path

import numpy as np
from PIL import Image

RATE = 48000
CHANNELS = 2
WIDTH, HEIGHT, FPS = 640, 480, 30
FRAME_BYTES = WIDTH * HEIGHT * 3 // 2
THUMBNAIL = (30, 40)  # rows, columns

ALSA = Path("/usr/share/sounds/alsa")
VOICES = Path("/usr/share/asterisk/sounds/en_US_f_Allison")
NATURE = Path("/usr/share/backgrounds/mate/nature")
GNOME = Path("/usr/share/backgrounds/gnome")

#: What we say: two short pieces, one to be interrupted, and a farewell.
OUR_SPEECH = [
    ALSA / "Front_Center.wav",
    ALSA / "Side_Left.wav",
    VOICES / "demo-congrats.wav",
    VOICES / "vm-goodbye.wav",
]
OUR_PICTURES = [NATURE / "Garden.jpg", NATURE / "LadyBird.jpg", NATURE / "Storm.jpg", GNOME / "wood-l.webp"]
OUR_SECONDS = 24

#: What the other participant says, each with the second at which it begins, and its captions.
THEIR_SPEECH = [(1.0, VOICES / "vm-intro.wav"), (13.5, VOICES / "dir-instr.wav")]
THEIR_CAPTIONS = [
    (1.2, "Please leave", False),
    (3.0, "Please leave your message after the tone.", True),
    (14.0, "Excuse me, may I interrupt?", True),
]
THEIR_PICTURES = [
    NATURE / f"{name}.jpg" for name in ("Aqua", "YellowFlower", "Dune", "GreenMeadow", "RainDrops")
]
THEIR_SECONDS = 25


@dataclass
class Material:
    speech: list[np.ndarray]  # ours: int16, shape (frames, 2), 48 kHz
    pictures: np.ndarray  # ours: uint8, shape (pictures, FRAME_BYTES), packed I420
    their_speech: np.ndarray  # int16, mono, 48 kHz: what the other participant's soundtrack was made of
    their_thumbnails: np.ndarray  # uint8, shape (pictures, 30, 40): brightness of what their video shows
    captions: list[tuple[float, str, bool]]
    scenario: Path


def ffmpeg(*arguments: object, data: bytes | None = None) -> bytes:
    """Runs ffmpeg quietly and returns its standard output."""
    command = ["ffmpeg", "-v", "error", "-y", "-nostdin", *map(str, arguments)]
    return subprocess.run(command, input=data, stdout=subprocess.PIPE, check=True).stdout


def speech(path: Path, channels: int = CHANNELS) -> np.ndarray:
    """A recording as 16-bit samples at 48 kHz."""
    raw = ffmpeg("-i", path, "-ar", RATE, "-ac", channels, "-f", "s16le", "-")
    return np.frombuffer(raw, np.int16).reshape(-1, channels)


def moving_pictures(photos: list[Path], seconds: int, target: list[object]) -> None:
    """Pans and zooms over photographs and sends the pictures to ffmpeg, which writes `target`."""
    command = ["ffmpeg", "-v", "error", "-y", "-f", "rawvideo", "-pix_fmt", "rgb24"]
    command += ["-s", f"{WIDTH}x{HEIGHT}", "-r", str(FPS), "-i", "-", *map(str, target)]
    encoder = subprocess.Popen(command, stdin=subprocess.PIPE)
    assert encoder.stdin is not None
    each = seconds * FPS // len(photos)
    for number, path in enumerate(photos):
        with Image.open(path) as opened:
            # Twice the output's size leaves room to zoom, and makes each crop fast.
            photo = opened.convert("RGB")
            scale = max(2 * WIDTH / photo.width, 2 * HEIGHT / photo.height)
            photo = photo.resize(
                (ceil(photo.width * scale), ceil(photo.height * scale)), Image.Resampling.LANCZOS
            )
        for step in range(each + (seconds * FPS - each * len(photos) if number == 0 else 0)):
            along = step / each
            height = 2 * HEIGHT * (1 - 0.4 * along)
            width = height * WIDTH / HEIGHT
            left = (photo.width - width) * (along if number % 2 else 1 - along)
            top = (photo.height - height) * along
            crop = photo.resize(
                (WIDTH, HEIGHT), Image.Resampling.BILINEAR, box=(left, top, left + width, top + height)
            )
            encoder.stdin.write(crop.tobytes())
    encoder.stdin.close()
    if encoder.wait() != 0:
        raise RuntimeError("ffmpeg could not write the moving pictures")


def pictures_file(path: Path) -> np.ndarray:
    """Packed I420 pictures, mapped from a file rather than read into memory."""
    return np.memmap(path, np.uint8, "r").reshape(-1, FRAME_BYTES)


def thumbnail(frame: np.ndarray) -> np.ndarray:
    """The brightness of one packed I420 picture, averaged down to the size of a thumbnail."""
    rows, columns = THUMBNAIL
    luma = frame[: WIDTH * HEIGHT].reshape(rows, HEIGHT // rows, columns, WIDTH // columns)
    return luma.mean(axis=(1, 3)).astype(np.uint8)


def scenario_of(companion: Path, recording: Path) -> dict[str, object]:
    """One other participant who plays a file, and a folder that records all that we publish."""
    captions = [
        {"at_ms": int(second * 1000), "text": text, "final": final} for second, text, final in THEIR_CAPTIONS
    ]
    caller = {
        "id": "caller",
        "name": "A caller",
        "data": "played from a file",
        "audio": {"file": str(companion), "loop": False},
        "video": {"file": str(companion), "loop": False},
        "captions": captions,
    }
    return {"record": str(recording), "participants": [caller]}


def prepare(out: Path) -> Material:
    """Makes everything below `out`: what we publish, the other participant's files, and the scenario."""
    work = out / "work"
    work.mkdir(parents=True, exist_ok=True)

    ours = work / "ours.i420"
    moving_pictures(OUR_PICTURES, OUR_SECONDS, ["-pix_fmt", "yuv420p", "-f", "rawvideo", ours])

    track = np.zeros(THEIR_SECONDS * RATE, np.int16)
    for begin, path in THEIR_SPEECH:
        voice = speech(path, 1)[:, 0]
        track[int(begin * RATE) :][: len(voice)] = voice
    silent_video, companion = work / "companion-video.mp4", out / "companion.mp4"
    moving_pictures(
        THEIR_PICTURES,
        THEIR_SECONDS,
        ["-c:v", "libx264", "-preset", "veryfast", "-crf", "20", "-pix_fmt", "yuv420p", silent_video],
    )
    ffmpeg(
        "-f",
        "s16le",
        "-ar",
        RATE,
        "-ac",
        1,
        "-i",
        "pipe:0",
        "-i",
        silent_video,
        "-map",
        "1:v",
        "-map",
        "0:a",
        "-c:v",
        "copy",
        "-c:a",
        "aac",
        "-b:a",
        "128k",
        companion,
        data=track.tobytes(),
    )
    reduce = f"scale={THUMBNAIL[1]}:{THUMBNAIL[0]}:flags=area,format=yuv420p,extractplanes=y"
    theirs = ffmpeg("-i", companion, "-vf", reduce, "-f", "rawvideo", "-pix_fmt", "gray", "-")

    scenario = work / "scenario.json"
    scenario.write_text(json.dumps(scenario_of(companion, out / "recording"), indent=2) + "\n")
    return Material(
        [speech(path) for path in OUR_SPEECH],
        pictures_file(ours),
        track,
        np.frombuffer(theirs, np.uint8).reshape(-1, *THUMBNAIL),
        THEIR_CAPTIONS,
        scenario,
    )
