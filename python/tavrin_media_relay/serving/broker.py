"""What carries jobs from those who dispatch to those who serve."""

from __future__ import annotations

from typing import Any, Protocol, Sequence

from .jobs import Beat, Job, JobEnd, JobState, JobStatus, WorkerStatus

BEAT_SECONDS = 1.0
"""Between two beats of a worker."""
LEASE_SECONDS = 6.0
"""Without a beat for this long, a job may be taken over: five beats may be lost."""
ATTEMPTS = 5
"""A job that was taken more often is set aside as failed."""
RESULT_SECONDS = 86_400
"""How long the end of a job can be asked for."""


class BrokerError(Exception):
    """The broker cannot be reached or refuses; the text names it, without its password."""


class Broker(Protocol):
    """Jobs are delivered at least once, and one agent of a name is in a room at a time.

    Every method blocks, for the network's or the given time at most, may be called from any thread, and
    raises BrokerError when the broker is away; nothing is half done then that a second call, or the lease's
    end, does not complete. Names and data are checked by `dispatch` (ValueError).
    """

    def dispatch(self, agent: str, room: str, data: Any = None) -> str:
        """Queues a job and returns its id."""
        ...

    def take(self, worker: str, agent: str, timeout: float) -> Job | None:
        """The next job for an agent, leased to the worker; None if none came within `timeout` seconds."""
        ...

    def take_over(self, worker: str, agent: str, count: int) -> list[Job]:
        """Up to `count` jobs whose workers have not beaten for LEASE_SECONDS, leased to this one.

        Those that were taken ATTEMPTS times before are set aside as failed instead.
        """
        ...

    def start(self, worker: str, job: Job) -> str | None:
        """Claims the job's room for its agent. None: claimed.

        Otherwise the id of the job that has the room; then this one is finished already, as ended, and its
        status names the other.
        """
        ...

    def tell(self, worker: str, job: Job, state: JobState) -> None:
        """What `jobs` shows from now on; nothing if the lease was lost."""
        ...

    def beat(self, worker: str, jobs: Sequence[Job]) -> Beat:
        """Keeps the leases of all these jobs and their rooms, and says which were lost, which are to stop."""
        ...

    def hand_back(self, worker: str, job: Job) -> None:
        """Queues a taken job again, for any worker; its attempt does not count."""
        ...

    def finish(self, worker: str, job: Job, end: JobEnd, why: str = "") -> None:
        """Ends a job and frees its room; nothing if the lease was lost."""
        ...

    def announce(self, status: WorkerStatus) -> None:
        """What `workers` shows; forgotten when not repeated within LEASE_SECONDS."""
        ...

    def withdraw(self, worker: str) -> None:
        """The worker has ended."""
        ...

    def stop(self, job_id: str) -> bool:
        """Asks for a job's end, queued or running. False: no such job, or it has ended."""
        ...

    def job(self, job_id: str) -> JobStatus | None:
        """One job; those that ended for RESULT_SECONDS."""
        ...

    def jobs(self, agent: str | None = None) -> list[JobStatus]:
        """All jobs that are queued or run, and those that were set aside, oldest first."""
        ...

    def workers(self) -> list[WorkerStatus]:
        """All workers that are alive."""
        ...

    def waiting(self, agent: str) -> int:
        """How many jobs of an agent nobody has taken: what scaling looks at."""
        ...

    def close(self) -> None:
        """Ends the connections; blocked calls raise BrokerError."""
        ...
