"""`echo`: speaks back what is heard, after a delay."""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import time
from typing import Any

from .. import aio
from .._tasks import beside
from ._levels import level_bar, peak
from ._options import add_session_options, command, number
from ._terminal import Live, Terminal
from ._visit import Visit, run

_CUSHION = 0.06  # seconds of silence in front of what is spoken, against a jittery machine
_QUEUE = 0.5
_DESCRIPTION = """\
Joins a session, listens to everybody in it, and speaks back what is heard after a delay, until Ctrl-C.

  echo --session lobby --delay 1.5
"""


def add(commands: Any) -> None:
    parser = command(commands, "echo", echo, "speak back what is heard", _DESCRIPTION)
    parser.add_argument("--delay", type=number(0.1, 20, "seconds"), default=1.0, metavar="S",
                        help="seconds between hearing and speaking (default: 1)")  # fmt: skip
    parser.add_argument("--seconds", type=number(0.1, 1e6, "seconds"), metavar="N", help="end after so long")
    add_session_options(parser, name="echo")


async def _subscribe_to_all(session: aio.Session, terminal: Terminal) -> None:
    """The mix contains what is subscribed to; subscriptions end with their streams and the session."""
    async for event in session.events():
        if isinstance(event, aio.StreamReceived):
            try:
                await session.subscribe(event.stream, video=False)
            except (aio.SubscriberError, aio.ClosedError) as error:  # it may have gone again
                terminal.tell(
                    "not_received", f"Cannot listen to {event.stream.id}: {error}", id=event.stream.id
                )


async def _speak_back(mix: aio.AudioIterator, audio: aio.AudioOutput, delay: float, live: Live) -> None:
    spoken, loudest, shown = 0.0, 0, time.monotonic()
    async for frame in mix:
        loudest = max(loudest, peak(frame.samples))
        now = time.monotonic()
        await asyncio.sleep(frame.arrived + delay - _CUSHION - now)
        if now - spoken > _CUSHION:  # the queue has run dry
            await audio.write(
                bytes(int(frame.sample_rate * _CUSHION) * frame.channels * 2), channels=frame.channels
            )
        await audio.write(frame.samples, sample_rate=frame.sample_rate, channels=frame.channels)
        spoken = time.monotonic()
        if spoken - shown > 0.1:
            live.show([level_bar("heard", loudest, f"spoken back after {delay:g} s")])
            loudest, shown = 0, spoken


def echo(options: argparse.Namespace, terminal: Terminal) -> int:
    async def work(visit: Visit, live: Live) -> None:
        session = visit.session
        mix = session.audio_frames(capacity=int(options.delay * 100) + 100)
        visit.waiting = lambda: mix.waiting
        async with beside(_subscribe_to_all(session, terminal)):
            async with session.publish(options.name, video=False, audio_queue=_QUEUE) as publisher:
                speaking = _speak_back(mix, publisher.audio, options.delay, live)
                with contextlib.suppress(asyncio.TimeoutError):
                    await asyncio.wait_for(speaking, options.seconds)

    async def body(visit: Visit) -> int:
        with terminal.live() as live:
            await visit.until_stopped(work(visit, live), patient=True)
        return 0

    return run(options, terminal, body, figures=options.figures)
