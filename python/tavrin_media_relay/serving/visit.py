"""A child of a worker: it gets ready, waits for one job, visits the job's room with the agent, and ends.

It talks to its worker over one pipe, in small tuples. To the worker: ("ready", private bytes,
threads that its origin had),
("unfit", why), ("joined",), ("alive", figures), ("end", end, why, is_lost). From it: ("visit", Visit),
("leave", why), ("beat",). Its standard output and error are another pipe, whose lines the worker marks.
"""

from __future__ import annotations

import asyncio
import contextlib
import ctypes
import os
import resource
import signal
import sys
import time
import traceback
from dataclasses import dataclass
from multiprocessing import forkserver
from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any

from .. import aio
from ..models import LoggingSettings, SessionSettings
from . import agents
from .jobs import Job

_PR_SET_PDEATHSIG = 1
_SIGN_SECONDS = 1.0
_END_SECONDS = 5.0  # for an agent to end once cancelled
# Of what the module and the session report when the server or the way to it is gone: worth another try.
_LOST = frozenset({1021, 1022, aio.SessionError.TIMED_OUT})


@dataclass(frozen=True)
class Visit:
    """What a child is told to do."""

    job: Job
    host: str
    application: str
    token: str
    alone: float | None
    """Seconds without anybody else in the room, after which the visit ends."""
    max_age: float | None
    orphaned: float | None
    """Seconds without a beat of the worker, after which the room is left: another one may have it by then."""


def run(pipe: Connection, output: Connection, file: str) -> None:
    """The child's whole life."""
    ctypes.CDLL(None).prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
    _let_the_fork_server_end()
    with contextlib.suppress(OSError):
        os.setpgid(0, 0)  # an interrupt at the terminal is the worker's
    for number in (1, 2):
        os.dup2(output.fileno(), number)
    output.close()
    sys.stdout = open(1, "w", buffering=1, errors="replace", closefd=False)
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    # Until the visit's loop has its own handler.
    signal.signal(signal.SIGTERM, lambda *_: os._exit(0))
    try:
        agent = agents.agent_of(agents.imported(Path(file)))
        if agent.prepare is not None:
            agent.prepare()
        _warm_up()
    except BaseException as error:
        if not isinstance(error, ValueError):
            traceback.print_exc()
        with contextlib.suppress(OSError):
            pipe.send(("unfit", _one_line(error)))
        return
    try:
        preload = sys.modules.get(f"{__package__}._preload")
        pipe.send(("ready", private_bytes_of("self"), getattr(preload, "threads", 1)))
        order = pipe.recv()
    except (EOFError, OSError):
        return
    if order[0] != "visit":
        return
    visit: Visit = order[1]
    os.environ["API_HOSTNAME"] = visit.host
    try:
        end, why, lost = asyncio.run(_Stay(pipe, visit, agent).run())
    except BaseException as error:  # SystemExit and the like pass through the loop
        end, why, lost = "failed", _one_line(error), False
    sys.stdout.flush()
    with contextlib.suppress(OSError):
        pipe.send(("end", end, why, lost))


def _let_the_fork_server_end() -> None:
    """It ends when nobody holds its pipe any more, and we with it: a child holds one, in case it wants
    children."""
    server: Any = forkserver._forkserver  # there is no public way
    held = server._forkserver_alive_fd
    if held is not None:
        os.close(held)
        server._forkserver_alive_fd = None


def _warm_up() -> None:
    """Loads what the first session would have to wait for. Without a client: a child may never be used."""
    import _tavrin_video  # noqa: F401

    from .._native.libraries import find_sarnet

    # The engine that joins sessions on a server, with its libraries; another library has none beside it.
    sarnet = find_sarnet()
    engine = Path(sarnet._name if sarnet else "").with_name("libsarnet_relay.so") if sarnet else None
    if engine is not None and engine.exists():
        ctypes.CDLL(str(engine))


def private_bytes_of(pid: int | str) -> int:
    """Memory of a process that no other shares. OSError once it is gone."""
    total = 0
    for line in Path(f"/proc/{pid}/smaps_rollup").read_text().splitlines():
        if line.startswith(("Private_Clean:", "Private_Dirty:")):
            total += int(line.split()[1]) * 1024
    return total


def _one_line(error: BaseException) -> str:
    text = " ".join(str(error).split())[:300]
    return text if isinstance(error, ValueError) else f"{type(error).__name__}: {text}".rstrip(": ")


class _Stay:
    """A visit under way. On the loop."""

    def __init__(self, pipe: Connection, visit: Visit, agent: agents.Agent) -> None:
        self._pipe, self._visit, self._agent = pipe, visit, agent
        self._leave: asyncio.Future[str] | None = None
        self._beaten = time.monotonic()
        self._worst_delay = 0.0

    async def run(self) -> tuple[str, str, bool]:
        loop = asyncio.get_running_loop()
        self._leave = loop.create_future()
        loop.add_signal_handler(signal.SIGTERM, self._ask_to_leave, "the worker ended")
        loop.add_reader(self._pipe.fileno(), self._hear)
        delays = asyncio.create_task(self._measure_delays())
        visit, job = self._visit, self._visit.job
        settings = SessionSettings(logging=LoggingSettings("error"))
        try:
            async with aio.connect(visit.application, job.room, visit.token, settings=settings) as session:
                self._tell("joined")
                return await self._with(session)
        except aio.SessionError as error:
            return "failed", str(error), error.code in _LOST
        except asyncio.CancelledError:
            return "stopped", "cancelled", False
        finally:
            delays.cancel()
            loop.remove_reader(self._pipe.fileno())

    async def _with(self, session: aio.Session) -> tuple[str, str, bool]:
        assert self._leave is not None
        arguments = (session, self._visit.job) if self._agent.takes_job else (session,)
        working = asyncio.ensure_future(self._agent.call(*arguments))
        ends = [
            asyncio.ensure_future(each)
            for each in (self._tell_signs(session), self._wait_alone(session), self._wait_age())
        ]
        try:
            await asyncio.wait([working, self._leave, *ends], return_when=asyncio.FIRST_COMPLETED)
            if working.done():
                return self._end_of(session, working)
            if self._leave.done():
                return "stopped", self._leave.result(), False
            return "ended", next(each.result() for each in ends if each.done()) or "", False
        finally:
            for each in ends:
                each.cancel()
            working.cancel()
            await asyncio.wait([working, *ends], timeout=_END_SECONDS)

    def _end_of(self, session: aio.Session, working: asyncio.Future[Any]) -> tuple[str, str, bool]:
        if working.cancelled():
            return "ended", "", False
        error = working.exception()
        lost = session.over and session.failure is not None and session.failure.code in _LOST
        if error is None:
            return ("failed", str(session.failure), True) if lost else ("ended", "", False)
        if lost or isinstance(error, aio.SessionError) and error.code in _LOST:
            return "failed", str(session.failure or error), True
        traceback.print_exception(error)
        return "failed", _one_line(error), False

    def _ask_to_leave(self, why: str) -> None:
        if self._leave is not None and not self._leave.done():
            self._leave.set_result(why)

    def _hear(self) -> None:
        try:
            while self._pipe.poll():
                order = self._pipe.recv()
                self._beaten = time.monotonic()
                if order[0] == "leave":
                    self._ask_to_leave(order[1])
        except (EOFError, OSError):
            asyncio.get_running_loop().remove_reader(self._pipe.fileno())
            self._ask_to_leave("the worker is gone")

    def _tell(self, *message: Any) -> None:
        with contextlib.suppress(OSError):
            self._pipe.send(message)

    async def _tell_signs(self, session: aio.Session) -> str:
        while True:
            self._tell("alive", self._figures(session))
            await asyncio.sleep(_SIGN_SECONDS)
            limit = self._visit.orphaned
            if limit is not None and time.monotonic() - self._beaten > limit:
                return "the worker gave no sign"

    async def _measure_delays(self) -> None:
        while True:
            before = time.monotonic()
            await asyncio.sleep(0.1)
            self._worst_delay = max(self._worst_delay, time.monotonic() - before - 0.1)

    def _figures(self, session: aio.Session) -> dict[str, float]:
        used = resource.getrusage(resource.RUSAGE_SELF)
        delay, self._worst_delay = self._worst_delay, 0.0
        figures = {
            "cpu_seconds": used.ru_utime + used.ru_stime,
            "loop_delay": delay,
            "published": float(session.publisher is not None),
        }
        statistics = session.statistics()
        library = statistics.library or {}
        capture = library.get("capture", {})
        figures["underruns"] = float(capture.get("underruns", 0))
        figures["late_periods"] = float(capture.get("late", 0))
        figures["frames_dropped"] = float(
            sum(each.audio.dropped + each.video.dropped for each in statistics.streams.values())
        )
        return figures

    async def _wait_alone(self, session: aio.Session) -> str:
        if self._visit.alone is None:
            await asyncio.Event().wait()
        assert self._visit.alone is not None
        since = time.monotonic()
        while True:
            await asyncio.sleep(min(0.5, self._visit.alone / 4))
            if session.connections or session.streams:
                since = time.monotonic()
            elif time.monotonic() - since > self._visit.alone:
                return f"alone for {self._visit.alone:g} s"

    async def _wait_age(self) -> str:
        if self._visit.max_age is None:
            await asyncio.Event().wait()
        assert self._visit.max_age is not None
        await asyncio.sleep(self._visit.max_age)
        return f"{self._visit.max_age:g} s old"
