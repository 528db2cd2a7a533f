"""Greets everybody in its room, and counts for how long it has been there. Made to be served:

    tavrin-media-relay serve examples/greeter.py        and then: dispatch ROOM --agent greeter

`./dev fleet` serves it on two workers, to rooms on two servers behind one door.
"""

import array
import asyncio
import math

from tavrin_media_relay import aio, captions

RATE = 16000
CHIME = array.array("h", (int(8000 * math.sin(i * 0.17) * math.exp(-i / 4000)) for i in range(RATE // 2)))


async def agent(session: aio.Session, job: object = None) -> None:
    async with session.publish("Greeter", video=False, captions=True) as publisher:

        async def greet() -> None:
            async for event in session.events():
                if isinstance(event, aio.StreamReceived):
                    print(f"greets {event.stream.connection.id}")
                    await publisher.audio.write(CHIME, sample_rate=RATE, channels=1)

        greeting = asyncio.create_task(greet())
        seconds = 0
        while not session.over:
            captions.send(f"Hello! I have been here for {seconds} s.")
            await asyncio.sleep(1)
            seconds += 1
        await greeting
