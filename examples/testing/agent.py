"""An agent that speaks when it is spoken to, and falls silent when it is interrupted.

Usage: SESSION_ID=a-session python agent.py     (Ctrl-C ends it; test_agent.py tests it)
"""

import array
import asyncio
import contextlib
import math
import os

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

QUIET = SessionSettings(logging=LoggingSettings("error"))
LOUD = 500  # of 32768: what counts as a voice
BEGUN = 10  # frames of 10 ms with a voice before somebody counts as speaking
ENDED = 40  # frames without one before they count as finished

ANSWER = array.array("h", (int(9000 * math.sin(i / 17)) for i in range(2 * 24000)))  # two seconds of 24 kHz


async def listen_to_all(session: aio.Session) -> None:
    """The session's mix contains the subscribed streams."""
    async for event in session.events():
        if isinstance(event, aio.StreamReceived):
            with contextlib.suppress(aio.SubscriberError):
                await session.subscribe(event.stream, video=False)


async def turns(session: aio.Session):
    """Yields True when somebody begins to speak, and False when they have finished."""
    speaking, count = False, 0
    async for frame in session.audio_frames():
        loud = max(frame.samples) > LOUD
        count = count + 1 if loud != speaking else 0
        if count >= (ENDED if speaking else BEGUN):
            speaking, count = not speaking, 0
            yield speaking


async def agent(session: aio.Session) -> None:
    async with session.publish("agent", video=False) as publisher, asyncio.TaskGroup() as tasks:
        listening = tasks.create_task(listen_to_all(session))
        answering = None
        async for somebody_speaks in turns(session):
            if not somebody_speaks:
                answering = tasks.create_task(publisher.audio.write(ANSWER, sample_rate=24000, channels=1))
            elif answering is not None:
                await publisher.audio.clear()  # the write ends as well
        listening.cancel()


async def main() -> None:
    application, token = os.environ.get("APPLICATION_ID", "my-app"), os.environ.get("TOKEN", "a-token")
    async with aio.connect(application, os.environ["SESSION_ID"], token, settings=QUIET) as session:
        await agent(session)


if __name__ == "__main__":
    with contextlib.suppress(KeyboardInterrupt):
        asyncio.run(main())
