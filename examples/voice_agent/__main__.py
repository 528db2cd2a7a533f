"""A kitchen assistant to talk to: it hears, understands, speaks, and stops when somebody interrupts.

    API_HOSTNAME=ws://127.0.0.1:8188 SESSION_ID=lobby TOKEN=... ./dev python examples/voice_agent

`./dev room --agent examples/voice_agent` starts it together with a server and a page for the browser;
`tavrin-media-relay serve examples/voice_agent/__main__.py` serves it to many rooms. Its recogniser and its
voice are in hearing.py and speaking.py, what it knows is in kitchen.py.
"""

from __future__ import annotations

import asyncio
import os
import sys
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from tavrin_media_relay import LoggingSettings, SessionSettings, Stream, aio, captions

sys.path.insert(0, str(Path(__file__).parent))  # also where it is served, and not run as a folder

from hearing import Pocketsphinx, Recogniser  # noqa: E402
from kitchen import GRAMMAR, Kitchen, spoken  # noqa: E402
from painting import Face  # noqa: E402
from speaking import Flite, Voice  # noqa: E402

GREETING = "Hello, I am your kitchen clock. Say: set a pasta timer for ten minutes."
STILL_THERE = "I am still here. Ask me: what can you do?"
SILENCE = 30.0  # seconds of it, until the agent says so, once
PICTURES = 8  # a second

# One turn at a time is recognised, off the loop: media go on meanwhile.
_aside = ThreadPoolExecutor(max_workers=1, thread_name_prefix="recogniser")
_recogniser: Recogniser | None = None


def prepare() -> None:
    """Loads what takes time, once for a process."""
    global _recogniser
    if _recogniser is None:
        _recogniser = Pocketsphinx(GRAMMAR)


class Conversation:
    """One visit. All of it runs on the loop."""

    def __init__(
        self, session: aio.Session, publisher: aio.Publisher, recogniser: Recogniser, voice: Voice
    ) -> None:
        self._session = session
        self._publisher = publisher
        self._recogniser = recogniser
        self._voice = voice
        self._kitchen = Kitchen()
        self._face = Face(publisher.video.width, publisher.video.height)
        self._floor = asyncio.Lock()  # one answer after the other, whoever asked
        self._listening: set[aio.Subscriber] = set()
        self._last_turn = time.monotonic()
        self.history: list[tuple[str, str]] = []
        """Who said what, "you" or "me"; of ours what was heard."""

    async def run(self) -> None:
        """Until the session is over."""
        async with asyncio.TaskGroup() as group:
            watching = [group.create_task(each) for each in (self._show(), self._watch_the_clock())]
            streams: dict[str, asyncio.Task[None]] = {}
            async for event in self._session.events():
                match event:
                    case aio.StreamReceived(stream):
                        streams[stream.id] = group.create_task(self._listen(stream, group))
                    case aio.StreamDropped(stream):
                        if task := streams.pop(stream.id, None):
                            task.cancel()
            for task in (*watching, *streams.values()):
                task.cancel()

    # ---- hearing ------------------------------------------------------------------------------------------

    async def _listen(self, stream: Stream, group: asyncio.TaskGroup) -> None:
        try:
            async with self._session.subscribe(stream, video=False) as subscriber:
                if not self._listening:
                    group.create_task(self._say(GREETING))
                self._listening.add(subscriber)
                try:
                    async for event in subscriber.turns(sample_rate=self._recogniser.sample_rate):
                        self._last_turn = time.monotonic()
                        if isinstance(event, aio.SpeechStarted):
                            self._face.mood = "hearing"
                        else:
                            group.create_task(self._answer(event))
                finally:
                    self._listening.discard(subscriber)
        except (aio.SubscriberError, aio.ClosedError):
            pass  # this stream has ended; the others go on

    async def _answer(self, turn: aio.SpeechEnded) -> None:
        async with self._floor:
            self._face.mood = "thinking"
            loop, samples = asyncio.get_running_loop(), bytes(turn.samples)
            words = await loop.run_in_executor(_aside, self._recogniser.recognise, samples)
            self._face.heard = words
            captions.send(f"You: {words or '...'}")
            self.history.append(("you", words))
            self._face.mood = "listening"
            # What made no sense was a cough, or not for us.
            if words and (answer := self._kitchen.answer(words)):
                await self._speak(answer)

    # ---- speaking -----------------------------------------------------------------------------------------

    async def _say(self, text: str) -> None:
        async with self._floor:
            await self._speak(text)

    async def _speak(self, text: str) -> None:
        self._face.mood, self._face.said = "speaking", text
        captions.send(text)
        try:
            rate = self._voice.sample_rate
            saying = self._publisher.audio.say(
                self._voice.speak(text), sample_rate=rate, channels=1, interrupt_on=list(self._listening)
            )
            said = await saying
            if said.interrupted:
                # What the other side has not heard was not said.
                share = said.played / max(said.played + said.dropped, 0.01)
                text = text[: int(len(text) * share)] + " ..."
                captions.send(text)
            self.history.append(("me", text))
        except aio.ClosedError:
            pass  # the session is over
        finally:
            if self._face.mood == "speaking":
                self._face.mood = "listening"

    async def _watch_the_clock(self) -> None:
        while True:
            await asyncio.sleep(0.2)
            for text in self._kitchen.due():
                await self._say(text)
            if self._listening and time.monotonic() - self._last_turn > SILENCE:
                self._last_turn = float("inf")  # once, until somebody speaks
                await self._say(STILL_THERE)

    # ---- showing ------------------------------------------------------------------------------------------

    async def _show(self) -> None:
        while True:
            now = time.time()
            self._face.timers = [
                f"{each.name or 'timer'}: {spoken(each.ends - now)}" for each in self._kitchen.timers
            ]
            try:
                await self._publisher.video.write(self._face.paint(), layout="RGB24")
            except aio.ClosedError:
                return
            await asyncio.sleep(1 / PICTURES)


async def agent(session: aio.Session) -> None:
    """What `tavrin-media-relay serve` and rehearsals call."""
    prepare()
    assert _recogniser is not None
    async with session.publish("Kitchen clock", captions=True) as publisher:
        await Conversation(session, publisher, _recogniser, Flite()).run()


async def main() -> None:
    where = [os.environ.get(name, default) for name, default in
             (("APPLICATION_ID", "voice-agent"), ("SESSION_ID", "lobby"), ("TOKEN", "a-token"))]  # fmt: skip
    settings = SessionSettings(logging=LoggingSettings("error"))
    prepare()
    async with aio.connect(*where, settings=settings) as session:
        await agent(session)


if __name__ == "__main__":
    try:
        asyncio.run(main())
    except KeyboardInterrupt:
        pass
