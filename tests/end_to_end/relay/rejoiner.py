"""A program that stays in its room, whatever happens to its server, and tells its events as lines of JSON."""

from __future__ import annotations

import asyncio
import json
import os
import sys
import time

from tavrin_media_relay import LoggingSettings, SessionSettings, aio


def tell(event: str, **details: object) -> None:
    line = json.dumps({"event": event, "at": time.monotonic(), **details})
    os.write(1, f"{line}\n".encode())  # whole, whatever the native log writes meanwhile


async def main() -> None:
    quiet = SessionSettings(logging=LoggingSettings("error"))
    token, room = os.environ["TOKEN"], os.environ["SESSION_ID"]
    async with aio.connect("app", room, token, settings=quiet, rejoin=30) as session:
        tell("joined")

        async def speak() -> None:
            async with session.publish(sys.argv[1], video=False) as publisher:
                while True:
                    await publisher.audio.write(bytes(range(256)) * 75)

        speaking = asyncio.create_task(speak())
        hearing: set[asyncio.Task[None]] = set()

        async def hear(event: aio.StreamReceived) -> None:
            try:
                async with session.subscribe(event.stream, video=False) as subscriber:
                    await anext(subscriber.audio_frames())
                    tell("heard", who=event.stream.connection.id)
                    await asyncio.Event().wait()
            except (aio.ClosedError, aio.SubscriberError, StopAsyncIteration):
                pass  # it has gone

        async for event in session.events():
            tell(type(event).__name__)
            if isinstance(event, aio.StreamReceived):
                hearing.add(asyncio.create_task(hear(event)))
        speaking.cancel()


asyncio.run(main())
