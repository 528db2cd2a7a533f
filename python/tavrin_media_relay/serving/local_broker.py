"""Jobs on one machine: a broker in the worker's own memory, and a socket for those who dispatch.

What it knows ends with its process. The socket is in the user's own folder and open to this user alone.
"""

from __future__ import annotations

import contextlib
import json
import os
import socket
import stat
import threading
import time
from collections import deque
from dataclasses import asdict, dataclass, replace
from pathlib import Path
from typing import Any, Sequence

from .broker import ATTEMPTS, LEASE_SECONDS, RESULT_SECONDS, BrokerError
from .jobs import DATA_LIMIT, Beat, Job, JobEnd, JobState, JobStatus, WorkerStatus, checked_data, checked_name

_ENDS = ("ended", "failed", "stopped")
_MESSAGE_LIMIT = 2 * DATA_LIMIT
_ANSWER_SECONDS = 5.0
_KEPT = 10_000  # ended jobs that can be asked for


@dataclass
class _Record:
    job: Job
    state: JobState = "queued"
    worker: str = ""
    why: str = ""
    since: float = 0.0
    beaten: float = 0.0  # monotonic
    stop: bool = False
    set_aside: bool = False

    def status(self) -> JobStatus:
        return JobStatus(self.job, self.state, self.worker, self.why, self.since)


class LocalBroker:
    """See `Broker`. For workers of this process."""

    def __init__(self, *, lease: float = LEASE_SECONDS) -> None:
        self._lease = lease
        self._changed = threading.Condition()
        self._records: dict[str, _Record] = {}
        self._queues: dict[str, deque[str]] = {}
        self._rooms: dict[tuple[str, str], str] = {}
        self._workers: dict[str, tuple[float, WorkerStatus]] = {}
        self._count = 0
        self._closed = False

    def dispatch(self, agent: str, room: str, data: Any = None) -> str:
        checked_name("agent", agent)
        checked_name("room", room)
        data = json.loads(checked_data(data))  # as it would arrive elsewhere
        with self._changed:
            self._check()
            now = time.time()
            self._count += 1
            job = Job(f"{agent}:{int(now * 1000)}-{self._count}", agent, room, data, 1, now)
            self._records[job.id] = _Record(job, since=now)
            self._queues.setdefault(agent, deque()).append(job.id)
            self._forget()
            self._changed.notify_all()
        return job.id

    def take(self, worker: str, agent: str, timeout: float) -> Job | None:
        deadline = time.monotonic() + timeout
        with self._changed:
            while True:
                self._check()
                queue = self._queues.get(agent)
                while queue:
                    record = self._records[queue.popleft()]
                    if record.state == "queued":
                        return self._lend(record, worker)
                left = deadline - time.monotonic()
                if left <= 0 or not self._changed.wait(left) and time.monotonic() >= deadline:
                    return None

    def take_over(self, worker: str, agent: str, count: int) -> list[Job]:
        taken: list[Job] = []
        with self._changed:
            self._check()
            for record in list(self._records.values()):
                if len(taken) >= count:
                    break
                held = record.job.agent == agent and record.state not in (*_ENDS, "queued")
                if not held or time.monotonic() - record.beaten < self._lease:
                    continue
                if record.job.attempt >= ATTEMPTS:
                    record.set_aside = True
                    self._end(record, "failed", f"its workers died {ATTEMPTS} times")
                elif record.stop:
                    self._end(record, "stopped", "stopped before it began")
                else:
                    record.job = replace(record.job, attempt=record.job.attempt + 1)
                    taken.append(self._lend(record, worker))
        return taken

    def start(self, worker: str, job: Job) -> str | None:
        with self._changed:
            record = self._owned(worker, job)
            if record is None:
                return job.id
            other = self._rooms.setdefault((job.agent, job.room), job.id)
            if other != job.id:
                self._end(record, "ended", f"{other} is in the room")
                return other
            self._turn(record, "starting")
            return None

    def tell(self, worker: str, job: Job, state: JobState) -> None:
        with self._changed:
            if record := self._owned(worker, job):
                self._turn(record, state)

    def beat(self, worker: str, jobs: Sequence[Job]) -> Beat:
        lost, stops = set(), set()
        with self._changed:
            self._check()
            for job in jobs:
                record = self._owned(worker, job)
                if record is None:
                    lost.add(job.id)
                    continue
                record.beaten = time.monotonic()
                if record.stop:
                    stops.add(job.id)
        return Beat(frozenset(lost), frozenset(stops))

    def hand_back(self, worker: str, job: Job) -> None:
        with self._changed:
            if record := self._owned(worker, job):
                self._free(record)
                record.worker = ""
                self._turn(record, "queued")
                self._queues.setdefault(job.agent, deque()).appendleft(job.id)
                self._changed.notify_all()

    def finish(self, worker: str, job: Job, end: JobEnd, why: str = "") -> None:
        with self._changed:
            if record := self._owned(worker, job):
                self._end(record, end, why[:1000])

    def announce(self, status: WorkerStatus) -> None:
        with self._changed:
            self._workers[status.id] = (time.monotonic(), status)

    def withdraw(self, worker: str) -> None:
        with self._changed:
            self._workers.pop(worker, None)

    def stop(self, job_id: str) -> bool:
        with self._changed:
            record = self._records.get(job_id)
            if record is None or record.state in _ENDS:
                return False
            record.stop = True
            if record.state == "queued":
                self._end(record, "stopped", "stopped before it began")
            return True

    def job(self, job_id: str) -> JobStatus | None:
        with self._changed:
            record = self._records.get(job_id)
            return record.status() if record else None

    def jobs(self, agent: str | None = None) -> list[JobStatus]:
        with self._changed:
            shown = [each for each in self._records.values() if each.state not in _ENDS or each.set_aside]
            return [each.status() for each in shown if agent in (None, each.job.agent)]

    def workers(self) -> list[WorkerStatus]:
        with self._changed:
            oldest = time.monotonic() - self._lease
            return [status for at, status in self._workers.values() if at >= oldest]

    def waiting(self, agent: str) -> int:
        with self._changed:
            states = [each.state for each in self._records.values() if each.job.agent == agent]
            return states.count("queued")

    def close(self) -> None:
        with self._changed:
            self._closed = True
            self._changed.notify_all()

    # ---- with the lock ------------------------------------------------------------------------------------

    def _check(self) -> None:
        if self._closed:
            raise BrokerError("the local broker has been closed")

    def _owned(self, worker: str, job: Job) -> _Record | None:
        record = self._records.get(job.id)
        mine = record is not None and record.worker == worker and record.state not in (*_ENDS, "queued")
        return record if mine else None

    def _lend(self, record: _Record, worker: str) -> Job:
        record.worker, record.beaten = worker, time.monotonic()
        self._turn(record, "taken")
        return record.job

    def _turn(self, record: _Record, state: JobState) -> None:
        record.state, record.since = state, time.time()

    def _free(self, record: _Record) -> None:
        place = (record.job.agent, record.job.room)
        if self._rooms.get(place) == record.job.id:
            del self._rooms[place]

    def _end(self, record: _Record, state: JobEnd, why: str) -> None:
        self._free(record)
        record.why = why
        self._turn(record, state)

    def _forget(self) -> None:
        oldest = time.time() - RESULT_SECONDS
        ended = [each for each in self._records.values() if each.state in _ENDS]
        for number, record in enumerate(ended):
            if record.since < oldest or number < len(ended) - _KEPT:
                del self._records[record.job.id]


# ---- the socket ---------------------------------------------------------------------------------------


def socket_path(agent: str) -> Path:
    """Where this user's worker of an agent listens; the folder is made, open to this user alone."""
    base = os.environ.get("XDG_RUNTIME_DIR")
    folder = Path(base) / "tavrin" if base else Path("/tmp") / f"tavrin-{os.getuid()}"
    folder.mkdir(mode=0o700, exist_ok=True)
    found = folder.lstat()
    if not stat.S_ISDIR(found.st_mode) or found.st_uid != os.getuid() or found.st_mode & 0o077:
        raise BrokerError(f"{folder} is not a folder of this user alone: remove it, or set XDG_RUNTIME_DIR")
    return folder / f"{checked_name('agent', agent)}.sock"


_ASKED = ("dispatch", "stop", "job", "jobs", "workers", "waiting")


class Door:
    """Answers those who dispatch on this machine: a thread that serves one question a connection."""

    def __init__(self, broker: LocalBroker, path: Path) -> None:
        """BrokerError if another worker of this user listens there."""
        self._broker, self._path = broker, path
        if _listens(path):
            raise BrokerError(f"another worker serves at {path}: give this one another --name")
        path.unlink(missing_ok=True)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.bind(str(path))
        path.chmod(0o600)
        self._socket.listen(64)
        self._thread = threading.Thread(target=self._serve, name="tavrin-door", daemon=True)
        self._thread.start()

    def close(self) -> None:
        self._path.unlink(missing_ok=True)
        with contextlib.suppress(OSError):
            self._socket.shutdown(socket.SHUT_RDWR)
        self._socket.close()
        self._thread.join()

    def _serve(self) -> None:
        while True:
            try:
                connection, _ = self._socket.accept()
            except OSError:
                return
            with connection, contextlib.suppress(OSError):
                connection.settimeout(_ANSWER_SECONDS)
                connection.sendall(json.dumps(self._answer(_read_line(connection))).encode() + b"\n")

    def _answer(self, line: bytes) -> dict[str, Any]:
        try:
            question = json.loads(line)
            method, arguments = question["ask"], question["arguments"]
            if method not in _ASKED:
                raise ValueError(f"ask: {method!r:.40} is none of {', '.join(_ASKED)}")
            return {"answer": _plain(getattr(self._broker, method)(*arguments))}
        except (ValueError, TypeError, KeyError, RecursionError, BrokerError) as error:
            return {"error": str(error) or type(error).__name__, "is_argument": isinstance(error, ValueError)}


class DoorClient:
    """The side of `Broker` that dispatches and looks, at the workers of this user on this machine."""

    def dispatch(self, agent: str, room: str, data: Any = None) -> str:
        checked_name("agent", agent)
        checked_name("room", room)
        return str(_ask(socket_path(agent), "dispatch", agent, room, json.loads(checked_data(data))))

    def stop(self, job_id: str) -> bool:
        return any(_ask(path, "stop", job_id) for path in self._paths(job_id.partition(":")[0]))

    def job(self, job_id: str) -> JobStatus | None:
        found = [_ask(path, "job", job_id) for path in self._paths(job_id.partition(":")[0])]
        return _status(found[0]) if found and found[0] else None

    def jobs(self, agent: str | None = None) -> list[JobStatus]:
        found = [_status(each) for path in self._paths(agent) for each in _ask(path, "jobs", agent)]
        return sorted(found, key=lambda each: each.job.dispatched_at)

    def workers(self) -> list[WorkerStatus]:
        return [WorkerStatus(**each) for path in self._paths(None) for each in _ask(path, "workers")]

    def waiting(self, agent: str) -> int:
        return sum(int(_ask(path, "waiting", agent)) for path in self._paths(agent))

    def close(self) -> None:
        """Nothing is held."""

    @staticmethod
    def _paths(agent: str | None) -> list[Path]:
        """Of an agent's worker, or of all; those that are gone are left out."""
        paths = [socket_path(agent)] if agent else sorted(socket_path("any").parent.glob("*.sock"))
        return [path for path in paths if _listens(path)]


def _listens(path: Path) -> bool:
    try:
        with socket.socket(socket.AF_UNIX) as probe:
            probe.connect(str(path))
    except OSError:
        return False
    return True


def _ask(path: Path, method: str, *arguments: Any) -> Any:
    try:
        with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as connection:
            connection.settimeout(_ANSWER_SECONDS)
            connection.connect(str(path))
            connection.sendall(json.dumps({"ask": method, "arguments": arguments}).encode() + b"\n")
            answer = json.loads(_read_line(connection, 1 << 26))
    except (OSError, ValueError):
        raise BrokerError(
            f'nobody serves "{path.stem}" on this machine: start it with `serve`, or name a broker with'
            " --broker or TAVRIN_BROKER"
        ) from None
    if "error" in answer:
        raise (ValueError if answer.get("is_argument") else BrokerError)(answer["error"])
    return answer["answer"]


def _read_line(connection: socket.socket, limit: int = _MESSAGE_LIMIT) -> bytes:
    parts, size = [], 0
    while size <= limit:
        part = connection.recv(1 << 16)
        parts.append(part)
        size += len(part)
        if not part or part.endswith(b"\n"):
            return b"".join(parts)
    raise ValueError(f"a message has more than {limit} bytes")


def _plain(value: Any) -> Any:
    if isinstance(value, (JobStatus, WorkerStatus)):
        return asdict(value)
    return [_plain(each) for each in value] if isinstance(value, list) else value


def _status(fields: dict[str, Any]) -> JobStatus:
    return JobStatus(Job(**fields.pop("job")), **fields)
