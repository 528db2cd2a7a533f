"""Finds the broker that an address names."""

from __future__ import annotations

import os
from typing import Any, Protocol

from .broker import Broker
from .jobs import JobStatus, WorkerStatus
from .local_broker import DoorClient, LocalBroker

VARIABLE = "TAVRIN_BROKER"
LOCAL = "local:"


class Dispatcher(Protocol):
    """The side of `Broker` that dispatches and looks."""

    def dispatch(self, agent: str, room: str, data: Any = None) -> str:
        ...

    def stop(self, job_id: str) -> bool:
        ...

    def job(self, job_id: str) -> JobStatus | None:
        ...

    def jobs(self, agent: str | None = None) -> list[JobStatus]:
        ...

    def workers(self) -> list[WorkerStatus]:
        ...

    def waiting(self, agent: str) -> int:
        ...

    def close(self) -> None:
        ...


def address_of(given: str | None) -> str:
    """The address that was given, else that of the environment, else "local:"."""
    return given or os.environ.get(VARIABLE) or LOCAL


def is_local(address: str) -> bool:
    return address == LOCAL


def broker_of(address: str) -> Broker:
    """For a worker. ValueError for an address that is none, ImportError where Python's redis is missing."""
    if is_local(address):
        return LocalBroker()
    from .redis_broker import RedisBroker

    return RedisBroker(address)


def dispatcher_of(address: str) -> Dispatcher:
    """For those who dispatch; "local:" means this user's workers on this machine."""
    if is_local(address):
        return DoorClient()
    return broker_of(address)
