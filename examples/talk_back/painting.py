"""What the program shows: its state in words, and a ring that moves with the sound it hears."""

from __future__ import annotations

import math
import time

import numpy as np
from PIL import Image, ImageDraw, ImageFont

WIDTH, HEIGHT, FPS = 640, 480, 25
GROUND, INK, QUIET = (18, 32, 33), (236, 243, 240), (143, 170, 166)
COLOURS = {"listening": (111, 208, 165), "thinking": (240, 190, 100), "speaking": (120, 180, 240)}
WORDS = {"listening": "I am listening", "thinking": "One moment", "speaking": "This is what I heard"}
CENTRE = (WIDTH // 2, 205)


def _font(size: int) -> ImageFont.FreeTypeFont | ImageFont.ImageFont:
    try:
        return ImageFont.truetype("DejaVuSans.ttf", size)
    except OSError:
        return ImageFont.load_default()


class Painter:
    """`paint` is called by one thread; `say` by any."""

    def __init__(self) -> None:
        self._doing = "listening"
        self._large, self._small = _font(30), _font(18)

    def say(self, doing: str) -> None:
        self._doing = doing

    def paint(self, number: int, level: float, streams: int) -> np.ndarray:
        """Picture `number` as RGB24; `level` is how loud it is, 0 to 1."""
        doing = self._doing
        colour = COLOURS[doing]
        image = Image.new("RGB", (WIDTH, HEIGHT), GROUND)
        draw = ImageDraw.Draw(image)
        seconds = number / FPS
        breath = 4 * math.sin(seconds * 2)
        for ring in range(3):
            radius = 62 + ring * 26 + breath + level * 34 * (ring + 1) / 3
            faded = tuple(int(g + (c - g) * (1.0, 0.45, 0.2)[ring]) for g, c in zip(GROUND, colour))
            self._circle(draw, CENTRE, radius, faded, 5 - ring)
        angle = seconds * 1.2
        dot = (CENTRE[0] + 62 * math.cos(angle), CENTRE[1] + 62 * math.sin(angle))
        draw.ellipse((dot[0] - 9, dot[1] - 9, dot[0] + 9, dot[1] + 9), fill=INK)
        self._centred(draw, 372, WORDS[doing], self._large, INK)
        others = (
            "nobody to hear yet"
            if streams == 0
            else "hearing 1 stream"
            if streams == 1
            else f"hearing {streams} streams"
        )
        self._centred(draw, 420, f"{time.strftime('%H:%M:%S')}  ·  {others}", self._small, QUIET)
        return np.asarray(image)

    @staticmethod
    def _circle(
        draw: ImageDraw.ImageDraw, centre: tuple[int, int], radius: float, colour: tuple[int, ...], width: int
    ) -> None:
        x, y = centre
        draw.ellipse((x - radius, y - radius, x + radius, y + radius), outline=colour, width=width)

    @staticmethod
    def _centred(
        draw: ImageDraw.ImageDraw, y: int, text: str, font: ImageFont.ImageFont, colour: tuple[int, ...]
    ) -> None:
        width = draw.textlength(text, font=font)
        draw.text(((WIDTH - width) / 2, y), text, font=font, fill=colour)
