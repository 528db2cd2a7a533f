"""Files to listen to and look at, and the table at the end."""

from __future__ import annotations

import wave
from pathlib import Path

import numpy as np
from PIL import Image, ImageDraw

from checks import Check
from material import CHANNELS, HEIGHT, RATE, WIDTH, ffmpeg
from participant import Report


def write_wav(path: Path, samples: np.ndarray, channels: int = CHANNELS) -> None:
    with wave.open(str(path), "wb") as file:
        file.setnchannels(channels)
        file.setsampwidth(2)
        file.setframerate(RATE)
        file.writeframes(samples.tobytes())


def picture(raw: np.ndarray) -> Image.Image:
    """A video-range I420 frame as an RGB image (BT.601)."""
    y = raw[: WIDTH * HEIGHT].reshape(HEIGHT, WIDTH).astype(np.float32) - 16
    quarter = WIDTH * HEIGHT // 4
    u, v = (
        raw[WIDTH * HEIGHT + plane * quarter :][:quarter]
        .reshape(HEIGHT // 2, WIDTH // 2).repeat(2, 0).repeat(2, 1).astype(np.float32) - 128
        for plane in (0, 1)
    )  # fmt: skip
    rgb = np.stack([1.164 * y + 1.596 * v, 1.164 * y - 0.392 * u - 0.813 * v, 1.164 * y + 2.017 * u], axis=-1)
    return Image.fromarray(np.clip(rgb, 0, 255).astype(np.uint8))


def write_contact_sheet(path: Path, report: Report, columns: int = 6) -> None:
    """One picture of each second seen, with its time and the last caption's text before it."""
    width, height, margin, caption = 240, 180, 6, 16
    rows = -(-len(report.kept) // columns)
    sheet = Image.new(
        "RGB", (columns * (width + margin) + margin, rows * (height + caption + margin) + margin)
    )
    draw = ImageDraw.Draw(sheet)
    for number, (at, frame) in enumerate(report.kept):
        left = margin + number % columns * (width + margin)
        top = margin + number // columns * (height + caption + margin)
        sheet.paste(picture(np.frombuffer(frame.frame_buffer, np.uint8)).resize((width, height)), (left, top))
        said = [
            event[8:] for when, event in report.events if event.startswith("caption") and at - 3 <= when <= at
        ]
        draw.text((left, top + height + 2), f"{at:5.1f} s  {said[-1][:32] if said else ''}", fill="white")
    sheet.save(path)


def write_film(path: Path, video: Path, audio: Path) -> None:
    """The recording of what was published as one small film; the raw video is large."""
    ffmpeg("-i", video, "-i", audio, "-c:v", "libx264", "-preset", "veryfast", "-crf", "20",
           "-c:a", "aac", path)  # fmt: skip


def table(title: str, rows: list[tuple[str, str]]) -> None:
    width = max(len(name) for name, _ in rows)
    print(f"\n{title}")
    for name, value in rows:
        print(f"  {name:<{width}}  {value}")


def print_checks(checks: list[Check]) -> None:
    width = max(len(check.name) for check in checks)
    print("\nChecks")
    for check in checks:
        print(f"  {'ok  ' if check.passed else 'FAIL'}  {check.name:<{width}}  {check.detail}")
