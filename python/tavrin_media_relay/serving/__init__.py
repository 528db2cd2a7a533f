"""Serving agents: programs that wait for rooms, one process a visit, on one machine or on many.

`tavrin-media-relay serve agent.py` serves; the functions here dispatch to those who serve, and look at them.
`broker` is the address of their broker; None: TAVRIN_BROKER, else this user's workers on this machine.
All of them raise BrokerError if the broker is away, and ValueError, which names the argument, for a bad one.
"""

from __future__ import annotations

import asyncio
import contextlib
from typing import Any, Callable, TypeVar

from .broker import BrokerError
from .brokers import Dispatcher, address_of, dispatcher_of
from .jobs import Job, JobStatus, WorkerStatus

__all__ = [
    "BrokerError",
    "Job",
    "JobStatus",
    "WorkerStatus",
    "dispatch",
    "job",
    "jobs",
    "stop",
    "workers",
]

_T = TypeVar("_T")


async def _ask(broker: str | None, question: Callable[[Dispatcher], _T]) -> _T:
    def work() -> _T:
        with contextlib.closing(dispatcher_of(address_of(broker))) as dispatcher:
            return question(dispatcher)

    return await asyncio.to_thread(work)


async def dispatch(room: str, agent: str, data: Any = None, *, broker: str | None = None) -> str:
    """Sends an agent to a room; returns the job's id. data: any JSON up to 64 KiB, `job.data` there.

    If an agent of that name is in the room already, the job ends at once, as its status says.
    """
    return await _ask(broker, lambda asked: asked.dispatch(agent, room, data))


async def stop(job_id: str, *, broker: str | None = None) -> bool:
    """Asks for a job's end, queued or running. False: there is no such job, or it has ended."""
    return await _ask(broker, lambda asked: asked.stop(job_id))


async def job(job_id: str, *, broker: str | None = None) -> JobStatus | None:
    """One job; for a day after its end."""
    return await _ask(broker, lambda asked: asked.job(job_id))


async def jobs(agent: str | None = None, *, broker: str | None = None) -> list[JobStatus]:
    """All that wait and run, and those that were set aside, oldest first."""
    return await _ask(broker, lambda asked: asked.jobs(agent))


async def workers(*, broker: str | None = None) -> list[WorkerStatus]:
    """All that are alive."""
    return await _ask(broker, lambda asked: asked.workers())
