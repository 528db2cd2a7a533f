"""Shows everybody's captions on the terminal; interim text is overwritten.

Usage: ./dev python examples/captions.py [SECONDS]
"""

import asyncio
import os
import sys

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))


async def read_along(session: aio.Session, stream: aio.Stream) -> None:
    name = stream.connection.data or stream.id
    async with session.subscribe(stream, video=False, captions=True) as subscriber:
        async for caption in subscriber.captions():
            print(f"\r\033[K{name}: {caption.text}", end="\n" if caption.is_final else "", flush=True)


async def main(seconds: float) -> None:
    async with aio.connect(*WHERE, settings=QUIET) as session:
        readers = set()
        try:
            async with asyncio.timeout(seconds):
                async for event in session.events():
                    if isinstance(event, aio.StreamReceived):
                        readers.add(asyncio.create_task(read_along(session, event.stream)))
        except TimeoutError:
            pass
    await asyncio.gather(*readers)  # they ended with the session


asyncio.run(main(float(sys.argv[1]) if len(sys.argv) > 1 else 60))
