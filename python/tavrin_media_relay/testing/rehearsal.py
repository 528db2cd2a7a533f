"""Plays a script to an agent, in real time, on the embedded engine."""

from __future__ import annotations

import asyncio
import contextlib
import itertools
import os
import signal
import subprocess
import sys
import time
from pathlib import Path
from typing import Any, Awaitable, Callable, Coroutine, Iterator, Sequence

from .. import _tasks, aio
from .._recording import has_told, log_of
from ..models import LoggingSettings, SessionSettings
from . import performance as _performance
from .performance import Performance
from .script import Participant, Script, milliseconds

Agent = Callable[[aio.Session], Awaitable[Any]]
_END_SECONDS = 5.0  # for an agent to end once cancelled, and for the recording to be closed
_numbers = itertools.count(1)


def _hear_interrupts() -> None:
    # Tests in the background ignore interrupts, and so would a program that they start.
    signal.signal(signal.SIGINT, signal.SIG_DFL)


class Rehearsal:
    """Script the participants and events, then `run` once. Times are seconds since the agent joined."""

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        """Holds the scenario and the recording."""
        self.performance: Performance | None = None
        """The result of `run`; set also when it raised the agent's exception."""
        self._recording = folder / "recording"
        self._script = Script()
        self.session_id = f"rehearsal-{next(_numbers)}"

    # ---- the script ---------------------------------------------------------------------------------------

    def participant(
        self,
        id: str,
        *,
        name: str = "",
        data: str = "",
        join_at: float = 0.0,
        leave_at: float | None = None,
    ) -> Participant:
        """A participant who joins at a time, and stays or leaves at another.

        id: of letters, digits, "-" and "_". name: of the stream; the id unless given. data: of the
        connection.

        Publishes a stream if something is said, shown or captioned.
        """
        return self._script.add(Participant(id, name or id, data, join_at, leave_at))

    def fail(self, at: float, code: int = 2000, text: str = "Failure from the rehearsal") -> None:
        """The session fails."""
        self._event(at, "error", code=code, text=text)

    def disconnect(self, at: float) -> None:
        """The server ends the session."""
        self._event(at, "disconnect")

    def drop_stream(self, participant: Participant, at: float) -> None:
        """A stream goes; its participant stays."""
        self._event(at, "drop_stream", participant=participant.id)

    def fail_publisher(self, at: float, code: int = 2000, text: str = "Failure from the rehearsal") -> None:
        """What the agent publishes fails."""
        self._event(at, "publisher_error", code=code, text=text)

    def fail_subscriber(
        self, participant: Participant, at: float, code: int = 2000, text: str = "Failure from the rehearsal"
    ) -> None:
        """What the agent receives from a participant fails."""
        self._event(at, "subscriber_error", participant=participant.id, code=code, text=text)

    def refuse(self, code: int = 1023, text: str = "Refused by the rehearsal") -> None:
        """Joining fails."""
        self._script.keys["refuse"] = {"code": code, "text": text}

    def accept_only(self, token: str) -> None:
        """Joining with another token fails with code 1004."""
        self._script.keys["token"] = token

    def delay_joining(self, seconds: float) -> None:
        """Joining takes this long."""
        self._script.keys["join_delay_ms"] = milliseconds("seconds", seconds)

    def _event(self, at: float, kind: str, **keys: object) -> None:
        self._script.events.append({"at_ms": milliseconds("at", at), "kind": kind, **keys})

    # ---- the rehearsal ------------------------------------------------------------------------------------

    def run(
        self,
        agent: Agent,
        *,
        until: float | None = None,
        timeout: float = 30.0,
        settings: SessionSettings | None = None,
    ) -> Performance:
        """Joins, awaits `agent(session)`, leaves, and returns what was done.

        until: the agent is cancelled then, as its normal end. timeout: after this it counts as hanging, and
        the test fails. settings: of the session. Raises the agent's exception. In an async test: `await
        perform(...)`.
        """
        return asyncio.run(self.perform(agent, until=until, timeout=timeout, settings=settings))

    async def perform(
        self,
        agent: Agent,
        *,
        until: float | None = None,
        timeout: float = 30.0,
        settings: SessionSettings | None = None,
    ) -> Performance:
        """`run`, in the event loop of an async test."""
        told: list[tuple[float, aio.Event]] = []
        statistics: list[aio.Statistics] = []

        async def joined() -> Any:
            wanted = settings or SessionSettings(logging=LoggingSettings("error"))
            async with aio.connect("rehearsal-app", self.session_id, "a-token", settings=wanted) as session:
                watching = asyncio.create_task(_watch(session, told))
                try:
                    return await _for_a_while(agent(session), until)
                finally:
                    statistics.append(session.statistics())
                    await session.close()
                    await watching

        return await self._perform(joined, until, timeout, told, statistics)

    def run_alone(
        self, agent: Callable[[], Awaitable[Any]], *, until: float | None = None, timeout: float = 30.0
    ) -> Performance:
        """Awaits `agent()`, which joins by itself: API_HOSTNAME is set, and so are APPLICATION_ID, SESSION_ID
        and TOKEN, which it may read. until: counted from its start."""

        async def alone() -> Any:
            return await _for_a_while(agent(), until)

        return asyncio.run(self._perform(alone, until, timeout, [], []))

    def run_program(
        self, arguments: Sequence[object], *, until: float | None = None, timeout: float = 30.0
    ) -> Performance:
        """Runs a program: `[path of a Python file, arguments...]`, in a process of its own with the same
        environment. until: seconds after it has joined, when Ctrl-C is sent to it."""
        with self._on_stage() as variables:
            log = self.folder / "output.txt"
            with open(log, "wb") as output:
                program = subprocess.Popen(
                    [sys.executable, *map(str, arguments)], env=os.environ | variables,
                    stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                    preexec_fn=_hear_interrupts,
                )  # fmt: skip
                try:
                    hung = self._wait_for(program, until, timeout)
                finally:
                    program.kill()
                    program.wait()
            performance = self._read()
            performance.exit_code = program.returncode
            performance.output = log.read_text(errors="replace")
        if hung:
            raise AssertionError(f"the program was still running after {timeout:g} s:\n{performance.output}")
        return performance

    def _wait_for(self, program: subprocess.Popen[bytes], until: float | None, timeout: float) -> bool:
        """True if it hung."""
        end = time.monotonic() + timeout
        if until is not None:
            while program.poll() is None and time.monotonic() < end:
                if has_told(self._recording, "joined"):
                    with contextlib.suppress(subprocess.TimeoutExpired):
                        program.wait(until)
                    break
                time.sleep(0.01)
            if program.poll() is None:
                program.send_signal(signal.SIGINT)
                end = time.monotonic() + _END_SECONDS
        with contextlib.suppress(subprocess.TimeoutExpired):
            program.wait(max(end - time.monotonic(), 0.01))
        return program.poll() is None

    async def _perform(
        self,
        work: Callable[[], Coroutine[Any, Any, Any]],
        until: float | None,
        timeout: float,
        told: list[tuple[float, aio.Event]],
        statistics: list[aio.Statistics],
    ) -> Performance:
        if until is not None and until + _END_SECONDS > timeout:
            timeout = until + _END_SECONDS
        result: Any = None
        try:
            with self._on_stage():
                task = asyncio.create_task(work())
                done, _ = await asyncio.wait([task], timeout=timeout)
                if not done:
                    task.cancel()
                    await asyncio.wait([task], timeout=_END_SECONDS)
                    raise AssertionError(f"the agent was still running after {timeout:g} s")
                result = task.result()
        finally:
            if self._recorded():
                await asyncio.to_thread(self._read)
        performance = self.performance
        if performance is None:
            raise AssertionError("the agent has not joined the session: does it read API_HOSTNAME?")
        performance.result = result
        performance.told = [(at - performance.joined_at, event) for at, event in told]
        performance.statistics = statistics[0] if statistics else None
        return performance

    @contextlib.contextmanager
    def _on_stage(self) -> Iterator[dict[str, str]]:
        """Sets the environment for an agent to join this session."""
        if (self.folder / "scenario.json").exists():
            raise RuntimeError("a rehearsal runs once: ask for another one")
        variables = {
            "API_HOSTNAME": f"embedded:{self._script.write(self.folder)}",
            "APPLICATION_ID": "rehearsal-app",
            "SESSION_ID": self.session_id,
            "TOKEN": str(self._script.keys.get("token", "a-token")),
        }
        before = {name: os.environ.get(name) for name in variables}
        os.environ.update(variables)
        try:
            yield variables
        finally:
            for name, value in before.items():
                if value is None:
                    os.environ.pop(name, None)
                else:
                    os.environ[name] = value

    def _recorded(self) -> bool:
        return log_of(self._recording).exists()

    def _read(self) -> Performance:
        """Waits until the recording is closed. A process that was killed never closes it."""
        if not self._recorded():
            raise AssertionError("the agent has not joined the session: does it read API_HOSTNAME?")
        end = time.monotonic() + _END_SECONDS
        while not has_told(self._recording, "closed") and time.monotonic() < end:
            time.sleep(0.01)
        self.performance = _performance.read(self._recording)
        return self.performance


async def _watch(session: aio.Session, told: list[tuple[float, aio.Event]]) -> None:
    async for event in session.events():
        told.append((time.monotonic(), event))


async def _for_a_while(work: Awaitable[Any], until: float | None) -> Any:
    task = asyncio.ensure_future(work)
    try:
        done, _ = await asyncio.wait([task], timeout=until)
        if done:
            return task.result()
        task.cancel()
        with contextlib.suppress(asyncio.CancelledError):
            return await task
    finally:
        await _tasks.end(task)
