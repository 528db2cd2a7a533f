"""A job: one visit of one agent to one room, from its dispatch to its end."""

from __future__ import annotations

import json
import re
from dataclasses import dataclass, field
from typing import Any, Literal

JobState = Literal["queued", "taken", "starting", "running", "ended", "failed", "stopped"]
JobEnd = Literal["ended", "failed", "stopped"]

DATA_LIMIT = 65_536
"""Bytes of a job's data as JSON."""
_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}")


def checked_name(argument: str, name: str) -> str:
    """A room's or an agent's name; ValueError, which names the argument, for any other text.

    Letters, digits, ".", "_" and "-", 64 at most, the first a letter or digit: what fits into a path, a key
    and a label without escaping.
    """
    if not isinstance(name, str) or not _NAME.fullmatch(name):
        shown = name if isinstance(name, str) and len(name) <= 80 else type(name).__name__
        raise ValueError(
            f'{argument}: "{shown}" is no name; a name has 1 to 64 letters, digits, ".", "_" or "-" and'
            " begins with a letter or digit"
        )
    return name


def checked_data(data: Any) -> str:
    """A job's data as JSON text; ValueError if it is none, or longer than `DATA_LIMIT` bytes."""
    try:
        text = json.dumps(data, ensure_ascii=False, allow_nan=False, separators=(",", ":"))
    except (TypeError, ValueError) as error:
        raise ValueError(f"data: is no JSON: {error}") from None
    if len(text.encode()) > DATA_LIMIT:
        raise ValueError(f"data: has {len(text.encode())} bytes as JSON; {DATA_LIMIT} are the limit")
    return text


@dataclass(frozen=True)
class Job:
    """What a worker takes and an agent is given."""

    id: str
    """Unique in its broker."""
    agent: str
    room: str
    data: Any = None
    """What the dispatcher gave along: any JSON."""
    attempt: int = 1
    """1 for the first worker that takes it, one more for each that takes it over."""
    dispatched_at: float = 0.0
    """Seconds since the epoch, on the broker's clock."""


@dataclass(frozen=True)
class JobStatus:
    """What `jobs` shows of one job."""

    job: Job
    state: JobState
    worker: str = ""
    """Who has it, or had it last; "" while it is queued."""
    why: str = ""
    """Why it failed or was stopped."""
    since: float = 0.0
    """When it came into this state: seconds since the epoch."""


@dataclass(frozen=True)
class WorkerStatus:
    """What a worker tells of itself while it lives, each few seconds."""

    id: str
    agent: str
    host: str
    sessions: int
    """The limit."""
    busy: int
    warm: int
    draining: bool = False
    since: float = 0.0
    """When it started: seconds since the epoch."""


@dataclass(frozen=True)
class Beat:
    """The broker's answer to a beat."""

    lost: frozenset[str] = field(default_factory=frozenset)
    """Jobs that another worker has by now: their sessions are left at once, and nothing is said of them."""
    stops: frozenset[str] = field(default_factory=frozenset)
    """Jobs that somebody asked to stop."""
