"""Shows pictures, each for some seconds, as a slide show of 15 pictures a second.

Usage: ./dev python examples/pictures.py [--seconds=3] FILE...        (needs Pillow: python3-pil)
"""

import asyncio
import os
import sys

from PIL import Image, ImageOps

from tavrin_media_relay import (
    LoggingSettings,
    SessionAVSettings,
    SessionSettings,
    SessionVideoPublisherSettings,
    VideoResolution,
    aio,
)

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
SIZE, FPS = (640, 480), 15
FORM = SessionVideoPublisherSettings(VideoResolution(*SIZE), FPS)
SETTINGS = SessionSettings(av=SessionAVSettings(video_publisher=FORM), logging=LoggingSettings("error"))


async def main(paths: list[str], seconds: float) -> None:
    async with aio.connect(*WHERE, settings=SETTINGS) as session:
        async with session.publish("Slides", audio=False) as publisher:
            for path in paths:
                with Image.open(path) as picture:
                    fitted = ImageOps.pad(picture.convert("RGB"), SIZE)
                for _ in range(round(seconds * FPS)):
                    await publisher.video.write(fitted.tobytes(), layout="RGB24")
                print(f"Showed {path}")
            await publisher.video.drained()


options = [each for each in sys.argv[1:] if each.startswith("--seconds=")]
files = [each for each in sys.argv[1:] if each not in options]
if not files:
    sys.exit(__doc__)
asyncio.run(main(files, float(options[-1].partition("=")[2]) if options else 3))
