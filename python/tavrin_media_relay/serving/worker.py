"""A worker: it takes jobs from a broker when it has a place for them, and runs each in a process of its own.

Threads: the caller's, in `serve`, owns the children and all that changes; one beats and tells the broker; one
takes jobs, and waits for the caller to give it leave for each. A broker that hangs delays these two alone.
"""

from __future__ import annotations

import contextlib
import os
import queue
import secrets
import signal
import socket
import threading
import time
from collections import deque
from dataclasses import dataclass, field
from multiprocessing import connection
from pathlib import Path
from typing import Any, Callable

from . import broker as _broker
from .broker import Broker, BrokerError
from .children import Child, Nursery, Start
from .jobs import Job, JobEnd, JobState, WorkerStatus
from .visit import Visit

_SIGN_SECONDS = 10.0  # without a sign of a child: its loop is blocked
_KILL_SECONDS = 10.0  # from asking it to end
_LEAVE_SECONDS = 2.0  # to leave the room of a lost lease
_READY_SECONDS = 60.0  # for an agent's import and prepare()
_RESTARTS = 3  # of one job, by the same worker
_LOST_SECONDS = 60.0  # that a visit is begun again after its server was lost
_UNFIT_BACKOFF = (0.5, 30.0)  # s: after the first child that cannot start, and at most
_UNFIT_ALARM = 5  # in a row: not ready
_FULL_LOAD = 0.8  # of the processors that we have
_ORPHANED_SECONDS = _broker.LEASE_SECONDS - 1.0
_STEP = 0.2


@dataclass(frozen=True)
class Settings:
    """How a worker works."""

    file: Path
    name: str
    """Of the agent: what is dispatched to."""
    host: str = "embedded:"
    """API_HOSTNAME of the visits; "{room}" stands for the room."""
    application: str = "agent"
    token: Callable[[str], str] = lambda room: "a-token"
    """Gives the token for a visit to a room."""
    sessions: int = 4
    warm: int = 2
    start: Start = "auto"
    memory: int | None = None
    """Bytes of a child, at most."""
    alone: float | None = 30.0
    max_age: float | None = None
    drain: float = 3600.0
    id: str = field(default_factory=lambda: f"{socket.gethostname()}-{os.getpid()}-{secrets.token_hex(3)}")


class _Run:
    """One job, on this worker."""

    def __init__(self, job: Job) -> None:
        self.job = job
        self.child: Child | None = None
        self.taken_at = time.monotonic()
        self.given_at = 0.0
        self.joined = False
        self.published = False
        self.restarts = 0
        self.not_before = 0.0
        self.lost_since: float | None = None
        self.leaving: tuple[JobEnd, str] | None = None
        self.abandoned = False  # another worker has it: say nothing of it
        self.figures: dict[str, float] = {}

    @property
    def session_id(self) -> str:
        return self.job.room


class Observer:
    """What a worker tells of itself; all of it on its own thread but `said`, which comes on several."""

    def said(self, job: Job | None, text: str) -> None:
        """A line of an agent, or of the worker itself."""

    def happened(self, kind: str, job: Job | None = None, **fields: object) -> None:
        """taken, joined, published, ended, restarted, lost, full, leases_lost, broker, unfit, draining."""


class Worker:
    """`serve` runs it; `drain` and `stop` end it, from any thread or a signal handler."""

    def __init__(self, settings: Settings, broker: Broker, observer: Observer | None = None) -> None:
        self.settings, self._broker = settings, broker
        self._observer = observer or Observer()
        self._nursery = Nursery(settings.file, settings.start, self._child_says)
        self._warm: list[Child] = []  # started, ready or not
        self._doomed: list[tuple[Child, float]] = []  # and when they are killed
        self._runs: dict[str, _Run] = {}
        self._unfit = 0
        self._unfit_why = ""
        self._not_before = 0.0
        self._draining_until: float | None = None
        self._ending = False
        self._orders: queue.SimpleQueue[tuple[Any, ...]] = queue.SimpleQueue()
        self._wake_read, self._wake_write = os.pipe()
        os.set_blocking(self._wake_write, False)
        self._places = threading.Semaphore(0)  # leave to take one job each
        self._places_given = 0
        self._errands: deque[tuple[bool, Callable[[], None]]] = deque()  # at the broker
        self._next_beat = 0.0  # to the children
        self._is_over = threading.Event()
        self._beat_soon = threading.Event()
        self.broker_up = True
        self.since = time.time()

    # ---- what is asked of it ------------------------------------------------------------------------------

    def drain(self) -> None:
        """Takes nothing more, and ends when what runs has ended, or after `Settings.drain`. A second call
        ends it at once."""
        self._order("drain")

    def stop(self) -> None:
        """Ends at once: the visits leave politely, what has not joined is handed back."""
        self._order("stop")

    @property
    def busy(self) -> int:
        return len(self._runs)

    @property
    def warm(self) -> int:
        return sum(child.is_ready for child in self._warm)

    @property
    def starting(self) -> int:
        return sum(not child.is_ready for child in self._warm)

    @property
    def draining(self) -> bool:
        return self._draining_until is not None

    @property
    def runs(self) -> list[tuple[Job, dict[str, float]]]:
        """The jobs that run, and their last figures."""
        return [(run.job, run.figures) for run in list(self._runs.values())]

    @property
    def memory(self) -> int:
        """Resident bytes of all children."""
        children = [*self._warm, *(run.child for run in self._runs.values() if run.child)]
        return sum(child.memory() for child in children)

    def not_ready(self) -> str:
        """Why it should get no jobs; "" if it is ready."""
        if self.draining or self._ending:
            return "draining"
        if self._unfit >= _UNFIT_ALARM:
            return f"the agent does not start: {self._unfit_why}"
        if not self.broker_up:
            return "the broker is away"
        return ""

    # ---- its life -----------------------------------------------------------------------------------------

    def serve(self) -> None:
        """Until it was drained or stopped."""
        threads = [
            threading.Thread(target=self._take, name="tavrin-take", daemon=True),
            threading.Thread(target=self._beat, name="tavrin-beat", daemon=True),
        ]
        for each in threads:
            each.start()
        try:
            while not (self._ending and not self._runs):
                self._step()
        finally:
            self._is_over.set()
            self._beat_soon.set()
            self._places.release()
            for child in [*self._warm, *(run.child for run in self._runs.values() if run.child)]:
                child.close()
            for child, _ in self._doomed:
                child.close()
            self._nursery.close()
            threads[1].join(5.0)
            with contextlib.suppress(BrokerError):
                self._run_errands()
                self._broker.withdraw(self.settings.id)
            self._broker.close()
            threads[0].join(5.0)

    def _step(self) -> None:
        now = time.monotonic()
        if self._draining_until is not None and not self._ending:
            if not self._runs or now >= self._draining_until:
                self._begin_end("drained")
        self._fill(now)
        self._give_leave(now)
        if now >= self._next_beat:
            self._next_beat = now + _broker.BEAT_SECONDS
            for run in self._runs.values():
                if run.child is not None:
                    run.child.send("beat")
        for run in list(self._runs.values()):
            self._look_after(run, now)
        for child, when in list(self._doomed):
            if child.has_ended or now >= when:
                self._doomed.remove((child, when))
                child.close()
        children = [*self._warm, *(run.child for run in self._runs.values() if run.child)]
        places: list[Any] = [self._wake_read]
        for child in children:
            places += [child.pipe, child.sentinel]
        ready = connection.wait(places, _STEP)
        if self._wake_read in ready:
            os.read(self._wake_read, 4096)
        self._obey()
        for child in children:
            self._hear(child)

    def _order(self, *order: Any) -> None:
        self._orders.put(order)
        with contextlib.suppress(BlockingIOError, OSError):
            os.write(self._wake_write, b"x")

    def _obey(self) -> None:
        while not self._orders.empty():
            order = self._orders.get()
            match order:
                case ("job", job):
                    self._places_given -= 1
                    self._accept(job)
                case ("none",):
                    self._places_given -= 1
                case ("beaten", lost, stops):
                    self._after_beat(lost, stops)
                case ("drain",) if self._draining_until is None:
                    self._draining_until = time.monotonic() + self.settings.drain
                    self._observer.happened("draining")
                    self._hand_back_what_has_not_joined()
                case ("drain",) | ("stop",):
                    self._begin_end("the worker was stopped")

    def _begin_end(self, why: str) -> None:
        if self._ending:
            return
        self._ending = True
        self._draining_until = self._draining_until or time.monotonic()
        self._hand_back_what_has_not_joined()
        for run in self._runs.values():
            self._ask_to_leave(run, "stopped", why)

    # ---- children -----------------------------------------------------------------------------------------

    def _fill(self, now: float) -> None:
        """Keeps children warm: as many as wanted, and as may still be needed; few start at a time."""
        if self.draining or now < self._not_before:
            return
        waiting = sum(run.child is None for run in self._runs.values())
        wanted = min(self.settings.warm, self.settings.sessions - len(self._runs)) + waiting
        at_once = max(1, (os.cpu_count() or 2) // 2)
        while len(self._warm) < wanted and self.starting < at_once:
            try:
                self._warm.append(self._nursery.start())
            except OSError as error:
                self._is_unfit(f"no process can be made: {error}")
                return

    def _is_unfit(self, why: str) -> None:
        self._unfit += 1
        self._unfit_why = why
        first, longest = _UNFIT_BACKOFF
        wait = min(longest, first * 2 ** (self._unfit - 1))
        self._not_before = time.monotonic() + wait
        self._observer.said(None, f"the agent does not start ({self._unfit}): {why}; again in {wait:g} s")
        self._observer.happened("unfit", why=why)

    def _child_says(self, child: Child | None, text: str) -> None:
        run = next((run for run in list(self._runs.values()) if run.child is child), None) if child else None
        self._observer.said(run.job if run else None, text)

    def _hear(self, child: Child) -> None:
        try:
            while child.pipe.poll():
                self._heard(child, child.pipe.recv())
        except (EOFError, OSError):
            pass
        if child in self._warm:
            if child.has_ended:
                self._warm.remove(child)
                code = child.exit_code
                child.close()
                if self._not_before <= time.monotonic():
                    self._is_unfit(f"its process ended ({_ended_by(code)})")
            elif not child.is_ready and time.monotonic() - child.started > _READY_SECONDS:
                self._warm.remove(child)
                child.close()
                self._is_unfit(f"it was not ready within {_READY_SECONDS:g} s")
        else:
            run = next((run for run in self._runs.values() if run.child is child), None)
            if run is not None and child.has_ended:
                self._crashed(run)

    def _heard(self, child: Child, message: tuple[Any, ...]) -> None:
        child.last_sign = time.monotonic()
        run = next((run for run in self._runs.values() if run.child is child), None)
        match message:
            case ("ready", private, threads):
                if self._nursery.saw(threads):
                    child.is_ready, child.private_bytes = True, private
                    self._unfit = 0
                elif child in self._warm:
                    self._warm.remove(child)
                    child.close()
            case ("unfit", why):
                if child in self._warm:
                    self._warm.remove(child)
                    child.close()
                    self._is_unfit(why)
            case ("joined",) if run:
                run.joined, run.lost_since = True, None
                self._observer.happened("joined", run.job, seconds=time.monotonic() - run.taken_at)
                self._tell(run, "running")
            case ("alive", figures) if run:
                run.figures = figures
                if figures.get("published") and not run.published:
                    run.published = True
                    self._observer.happened("published", run.job, seconds=time.monotonic() - run.taken_at)
            case ("end", end, why, lost) if run:
                self._ended(run, end, why, lost)

    # ---- jobs ---------------------------------------------------------------------------------------------

    def _give_leave(self, now: float) -> None:
        """One job may be taken for each warm child, while there is place and the machine has time."""
        free = min(self.warm, self.settings.sessions - len(self._runs)) - self._places_given
        if self.draining or free <= 0 or not self.broker_up:
            return
        if load() > _FULL_LOAD:
            return
        for _ in range(free):
            self._places_given += 1
            self._places.release()

    def _take(self) -> None:
        """The thread that takes jobs: each with leave, after a wait that is longer the busier we are."""
        settings, broker = self.settings, self._broker
        next_takeover = 0.0
        while True:
            self._places.acquire()
            job: Job | None = None
            while job is None and not self._is_over.is_set() and not self.draining:
                time.sleep(0.01 * len(self._runs) / max(settings.sessions, 1))
                try:
                    if time.monotonic() >= next_takeover:
                        next_takeover = time.monotonic() + 1.0
                        job = next(iter(broker.take_over(settings.id, settings.name, 1)), None)
                    job = job or broker.take(settings.id, settings.name, 1.0)
                except BrokerError:
                    if self._is_over.wait(0.5):
                        return
            if self._is_over.is_set():
                return
            try:
                if job is None:
                    self._order("none")
                elif broker.start(settings.id, job) is None:
                    self._order("job", job)
                else:
                    self._order("none")
            except BrokerError:  # its lease ends by itself
                self._order("none")

    def _accept(self, job: Job) -> None:
        run = _Run(job)
        self._observer.happened("taken", job, seconds=max(0.0, time.time() - job.dispatched_at))
        if self.draining:
            self._hand_back(run)
            return
        self._runs[job.id] = run
        if len(self._runs) >= self.settings.sessions:
            self._observer.happened("full")
        self._look_after(run, time.monotonic())

    def _look_after(self, run: _Run, now: float) -> None:
        child = run.child
        if child is None:
            if run.leaving:
                self._end(run, *run.leaving)
            elif now >= run.not_before:
                self._begin(run)
            return
        if child.gave_up_at is not None:
            if now - child.gave_up_at > (_LEAVE_SECONDS if run.abandoned else _KILL_SECONDS):
                child.signal(signal.SIGKILL)
        elif now - child.last_sign > _SIGN_SECONDS:
            self._observer.said(run.job, f"gave no sign for {_SIGN_SECONDS:g} s: its loop is blocked")
            self._observer.happened("restarted", run.job, why="blocked")
            child.gave_up_at = now
            child.signal(signal.SIGTERM)
        elif self.settings.memory is not None and child.memory() > self.settings.memory:
            self._observer.happened("restarted", run.job, why="memory")
            limit = self.settings.memory >> 20
            self._ask_to_leave(run, "failed", f"used more than {limit} MiB of memory")

    def _begin(self, run: _Run) -> None:
        ready = [child for child in self._warm if child.is_ready and not child.has_ended]
        if not ready:
            return  # soon: `_fill` counts it
        child = ready[0]
        self._warm.remove(child)
        settings, job = self.settings, run.job
        visit = Visit(
            job, settings.host.replace("{room}", job.room), settings.application, settings.token(job.room),
            settings.alone, settings.max_age, _ORPHANED_SECONDS,
        )  # fmt: skip
        run.child, run.given_at, run.joined = child, time.monotonic(), False
        child.last_sign = run.given_at
        if not child.send("visit", visit):
            self._crashed(run)

    def _ask_to_leave(self, run: _Run, end: JobEnd, why: str) -> None:
        if run.leaving is None:
            run.leaving = (end, why)
        if run.child is not None and run.child.gave_up_at is None:
            run.child.gave_up_at = time.monotonic()
            run.child.send("leave", why)

    def _ended(self, run: _Run, end: JobEnd, why: str, lost: bool) -> None:
        """The child has told its end; its process follows."""
        self._let_go(run)
        if run.leaving:
            self._end(run, *run.leaving)
        elif lost:
            now = time.monotonic()
            run.lost_since = run.lost_since or now
            if now - run.lost_since > _LOST_SECONDS:
                self._end(run, "failed", why)
                return
            self._observer.said(run.job, f"the server was lost: {why}; joining again")
            self._observer.happened("restarted", run.job, why="lost")
            self._tell(run, "starting")
            run.not_before = now + min(2.0, (now - run.lost_since) / 4)
        else:
            self._end(run, end, why)

    def _crashed(self, run: _Run) -> None:
        """The process has ended without a word."""
        how = _ended_by(run.child.exit_code if run.child else None)
        blocked = run.child is not None and run.child.gave_up_at is not None
        self._let_go(run)
        if run.leaving:
            self._end(run, *run.leaving)
        elif run.restarts >= _RESTARTS:
            self._end(run, "failed", f"its process ended {run.restarts + 1} times, at last {how}")
        else:
            run.restarts += 1
            run.not_before = time.monotonic() + (0.0, 0.5, 2.0)[run.restarts - 1]
            self._observer.said(run.job, f"its process ended ({how}); started again ({run.restarts})")
            if not blocked:
                self._observer.happened("restarted", run.job, why="crash")
            self._tell(run, "starting")
            self._look_after(run, time.monotonic())

    def _let_go(self, run: _Run) -> None:
        child, run.child = run.child, None
        if child is not None:
            child.pipe.close()
            self._doomed.append((child, time.monotonic() + 2.0))

    def _end(self, run: _Run, end: JobEnd, why: str) -> None:
        self._runs.pop(run.job.id, None)
        if run.abandoned:
            return
        self._later(True, lambda: self._broker.finish(self.settings.id, run.job, end, why))
        self._observer.happened("ended", run.job, end=end, why=why)

    def _hand_back_what_has_not_joined(self) -> None:
        for run in [run for run in self._runs.values() if not run.joined]:
            if run.child is not None:
                run.child.signal(signal.SIGKILL)
            self._let_go(run)
            self._hand_back(run)

    def _hand_back(self, run: _Run) -> None:
        self._runs.pop(run.job.id, None)
        # If that fails, its lease ends.
        self._later(False, lambda: self._broker.hand_back(self.settings.id, run.job))

    def _tell(self, run: _Run, state: JobState) -> None:
        self._later(False, lambda: self._broker.tell(self.settings.id, run.job, state))

    # ---- the broker ---------------------------------------------------------------------------------------

    def _beat(self) -> None:
        """The thread that keeps the leases. Nothing that runs depends on its success."""
        told = 0.0
        while not self._is_over.is_set():
            self._beat_soon.wait(_broker.BEAT_SECONDS)
            self._beat_soon.clear()
            jobs = [run.job for run in list(self._runs.values()) if not run.abandoned]
            try:
                self._run_errands()
                beat = self._broker.beat(self.settings.id, jobs)
                if time.monotonic() - told >= _broker.LEASE_SECONDS / 3:
                    told = time.monotonic()
                    self._broker.announce(self._status())
            except BrokerError as error:
                self._set_broker_up(False, str(error))
                beat = None
            else:
                self._set_broker_up(True, "")
            self._order("beaten", beat.lost if beat else frozenset(), beat.stops if beat else frozenset())

    def _after_beat(self, lost: frozenset[str], stops: frozenset[str]) -> None:
        for run in list(self._runs.values()):
            if run.job.id in lost:
                run.abandoned = True
                self._observer.said(run.job, "another worker has this job by now: leaving")
                self._observer.happened("leases_lost", run.job)
                self._ask_to_leave(run, "stopped", "lost the lease")
            elif run.job.id in stops:
                self._ask_to_leave(run, "stopped", "stopped on request")

    def _later(self, must: bool, errand: Callable[[], None]) -> None:
        """Has the beating thread tell the broker something; again and again, if it must be told."""
        self._errands.append((must, errand))
        self._beat_soon.set()

    def _run_errands(self) -> None:
        while self._errands:
            must, errand = self._errands[0]
            try:
                errand()
            except BrokerError:
                if must:
                    raise
            self._errands.popleft()

    def _status(self) -> WorkerStatus:
        settings = self.settings
        return WorkerStatus(
            settings.id, settings.name, socket.gethostname(), settings.sessions, self.busy, self.warm,
            self.draining, self.since,
        )  # fmt: skip

    def _set_broker_up(self, up: bool, why: str) -> None:
        if up != self.broker_up:
            self.broker_up = up
            self._observer.said(None, "the broker is back" if up else f"{why}; what runs goes on")
            self._observer.happened("broker", up=up)


def _ended_by(code: int | None) -> str:
    if code is None:
        return "unknown"
    if code >= 0:
        return f"exit code {code}"
    with contextlib.suppress(ValueError):
        return signal.Signals(-code).name
    return f"signal {-code}"


_Reader = Callable[[], float]


def load() -> float:
    """The share of our processors that is in use, over some seconds; of our control group where it has a
    limit, else of the machine."""
    return _LOAD()


class _Load:
    """CPU seconds per second of what limits us, averaged over 2.5 s."""

    def __init__(self) -> None:
        self._limit, self._used = self._source()
        self._at, self._before, self._average = time.monotonic(), self._used(), 0.0

    def __call__(self) -> float:
        now = time.monotonic()
        if now - self._at >= 0.25:
            used = self._used()
            share = (used - self._before) / (now - self._at) / self._limit
            self._average += (share - self._average) * min(1.0, (now - self._at) / 2.5)
            self._at, self._before = now, used
        return self._average

    @staticmethod
    def _source() -> tuple[float, _Reader]:
        group = Path("/sys/fs/cgroup")
        with contextlib.suppress(OSError, ValueError, IndexError):
            place = Path("/proc/self/cgroup").read_text().strip().rpartition(":")[2]
            group = group / place.lstrip("/")
            quota, period = (group / "cpu.max").read_text().split()
            if quota != "max":
                stat = group / "cpu.stat"
                return int(quota) / int(period), lambda: int(stat.read_text().split()[1]) / 1e6
        ticks = os.sysconf("SC_CLK_TCK")

        def machine() -> float:
            fields = [int(each) for each in Path("/proc/stat").read_text().splitlines()[0].split()[1:9]]
            return (sum(fields) - fields[3] - fields[4]) / ticks  # without idle and iowait

        return float(os.cpu_count() or 1), machine


_LOAD = _Load()
