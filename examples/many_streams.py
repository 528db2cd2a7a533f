"""Receives every stream of a full session, and prints every two seconds what arrives and what is lost.

Usage: API_HOSTNAME=embedded:examples/scenarios/full_room.json ./dev python examples/many_streams.py [SECONDS]
"""

import asyncio
import os
import sys
from typing import Any

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))


async def receive(session: aio.Session, stream: aio.Stream) -> None:
    try:
        async with session.subscribe(stream) as subscriber, asyncio.TaskGroup() as tasks:
            tasks.create_task(take(subscriber.audio_frames()))
            tasks.create_task(take(subscriber.video_frames(policy="latest")))
    except* (aio.SubscriberError, aio.ClosedError) as group:
        print(f"{stream.id}: {group.exceptions[0]}")


async def take(frames: aio.MediaIterator[Any]) -> None:
    async for _frame in frames:
        pass  # work on it here


async def report(session: aio.Session) -> None:
    while True:
        await asyncio.sleep(2)
        streams = session.statistics().streams.values()
        kinds = {"sound": [each.audio for each in streams], "pictures": [each.video for each in streams]}
        for name, figures in kinds.items():
            taken, lost = sum(each.delivered for each in figures), sum(each.dropped for each in figures)
            late = max((each.delay_p99 for each in figures), default=0) * 1000
            print(f"{len(streams)} streams, {name}: {taken} taken, {lost} lost, 99 % within {late:.1f} ms")


async def main(seconds: float) -> None:
    async with aio.connect(*WHERE, settings=QUIET) as session, asyncio.TaskGroup() as tasks:
        reporting = tasks.create_task(report(session))
        try:
            async with asyncio.timeout(seconds):
                async for event in session.events():
                    if isinstance(event, aio.StreamReceived):
                        tasks.create_task(receive(session, event.stream))
        except TimeoutError:
            reporting.cancel()
            await session.close()  # ends the others


asyncio.run(main(float(sys.argv[1]) if len(sys.argv) > 1 else 60))
