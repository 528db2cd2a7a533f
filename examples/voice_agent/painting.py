"""The agent's face: what it does, what it heard, what it says, and how long its timers still have."""

from __future__ import annotations

from typing import Literal

from PIL import Image, ImageDraw, ImageFont

Mood = Literal["listening", "hearing", "thinking", "speaking"]
GROUND, INK, QUIET = (18, 32, 33), (236, 243, 240), (143, 170, 166)
COLOURS: dict[Mood, tuple[int, int, int]] = {
    "listening": (80, 130, 120),
    "hearing": (111, 208, 165),
    "thinking": (240, 190, 100),
    "speaking": (120, 180, 240),
}
WORDS: dict[Mood, str] = {
    "listening": "I am listening",
    "hearing": "I hear you",
    "thinking": "One moment",
    "speaking": "",
}


def _font(size: float) -> ImageFont.FreeTypeFont | ImageFont.ImageFont:
    try:
        return ImageFont.truetype("DejaVuSans.ttf", round(size))
    except OSError:
        return ImageFont.load_default()


class Face:
    """Set its members from the loop; `paint` gives the picture of now."""

    def __init__(self, width: int, height: int) -> None:
        self.mood: Mood = "listening"
        self.heard = ""
        self.said = ""
        self.timers: list[str] = []
        self._size = width, height
        self._large, self._small = _font(height / 18), _font(height / 26)

    def paint(self) -> bytes:
        """RGB, as long as width * height * 3."""
        width, height = self._size
        image = Image.new("RGB", self._size, GROUND)
        draw = ImageDraw.Draw(image)
        middle, centre, radius = width // 2, height * 0.36, height * 0.16
        draw.ellipse(
            (middle - radius, centre - radius, middle + radius, centre + radius), fill=COLOURS[self.mood]
        )
        lines = [(self._large, INK, self.said if self.mood == "speaking" else WORDS[self.mood])]
        if self.heard:
            lines.append((self._small, QUIET, f"You: {self.heard}"))
        lines += [(self._small, INK, each) for each in self.timers[:4]]
        top = height * 0.60
        for font, colour, text in lines:
            draw.text((middle, top), text, fill=colour, font=font, anchor="ma")
            top += height * 0.075
        return image.tobytes()
