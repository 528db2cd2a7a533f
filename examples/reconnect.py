"""Stays in a session: rejoins, after longer and longer waits, when it fails or can't be joined.

Usage: API_HOSTNAME=embedded:examples/scenarios/failure.json ./dev python examples/reconnect.py [VISITS]
"""

import asyncio
import os
import sys

from tavrin_media_relay import LoggingSettings, SessionSettings, aio

WHERE = [os.environ.get(name, default) for name, default in
         (("APPLICATION_ID", "examples-app"), ("SESSION_ID", "a-session"), ("TOKEN", "a-token"))]  # fmt: skip
QUIET = SessionSettings(logging=LoggingSettings("error"))
SHORTEST, LONGEST = 0.5, 30.0


async def main(visits: int) -> None:
    pause = SHORTEST
    for number in range(1, visits + 1):
        try:
            async with aio.connect(*WHERE, settings=QUIET, timeout=10) as session:
                print(f"Visit {number}: in, as {session.connection and session.connection.id}")
                pause = SHORTEST  # it works: the next failure is a new one
                await session.ended()  # in place of an agent's work
                print(f"Visit {number}: the server ended the session")
        except aio.SessionError as error:
            print(f"Visit {number}: {error}")
        if number < visits:
            await asyncio.sleep(pause)
            pause = min(2 * pause, LONGEST)


asyncio.run(main(int(sys.argv[1]) if len(sys.argv) > 1 else 1000))
