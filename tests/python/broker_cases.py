"""What every broker does, whatever it is made of: each case takes a broker with a lease of LEASE seconds."""

from __future__ import annotations

import threading
import time

import pytest

from tavrin_media_relay.serving.broker import ATTEMPTS, Broker
from tavrin_media_relay.serving.jobs import DATA_LIMIT, JobStatus, WorkerStatus

LEASE = 0.6


def until(what, seconds: float = 5.0):
    """What it returns, once that is true."""
    end = time.monotonic() + seconds
    while not (found := what()):
        assert time.monotonic() < end, what
        time.sleep(0.01)
    return found


def status(broker: Broker, job_id: str) -> JobStatus:
    found = broker.job(job_id)
    assert found is not None, job_id
    return found


def taken(broker: Broker, worker: str = "w1", agent: str = "a"):
    job = broker.take(worker, agent, 2.0)
    assert job is not None
    return job


def a_job_goes_from_its_dispatch_to_its_end(broker: Broker) -> None:
    assert broker.take("w1", "a", 0.02) is None
    name = broker.dispatch("a", "room", {"caller": "Zoë", "list": [1, None]})
    broker.dispatch("other", "room")
    assert broker.waiting("a") == 1 and status(broker, name).state == "queued"
    job = taken(broker)
    assert (job.id, job.room, job.attempt) == (name, "room", 1)
    assert job.data == {"caller": "Zoë", "list": [1, None]}
    assert abs(job.dispatched_at - time.time()) < 5
    assert status(broker, name).state == "taken" and broker.waiting("a") == 0
    assert broker.start("w1", job) is None
    broker.tell("w1", job, "running")
    assert [(each.state, each.worker) for each in broker.jobs("a")] == [("running", "w1")]
    assert broker.beat("w1", [job]) == broker.beat("w1", [job])
    broker.finish("w1", job, "failed", "it was raining")
    last = status(broker, name)
    assert (last.state, last.why, last.worker) == ("failed", "it was raining", "w1")
    assert broker.jobs("a") == [] and len(broker.jobs()) == 1
    assert broker.job("a:1-1") is None and broker.job("nonsense") is None


def jobs_are_given_out_in_their_order_and_once(broker: Broker) -> None:
    names = [broker.dispatch("a", f"room-{number}") for number in range(200)]
    got: list[str] = []

    def serve(worker: str) -> None:
        while job := broker.take(worker, "a", 0.2):
            got.append(job.id)

    workers = [threading.Thread(target=serve, args=(f"w{number}",)) for number in range(4)]
    for each in workers:
        each.start()
    for each in workers:
        each.join()
    assert sorted(got) == sorted(names)


def a_room_has_one_agent_of_a_name(broker: Broker) -> None:
    for room in ("room", "room", "elsewhere"):
        broker.dispatch("a", room)
    broker.dispatch("b", "room")
    first, second, third, other = taken(broker), taken(broker), taken(broker), taken(broker, "w1", "b")
    assert [broker.start("w1", each) for each in (first, third, other)] == [None, None, None]
    assert broker.start("w1", second) == first.id
    assert status(broker, second.id).state == "ended" and first.id in status(broker, second.id).why
    broker.finish("w1", first, "ended")
    broker.dispatch("a", "room")
    assert broker.start("w1", taken(broker)) is None


def who_does_not_beat_loses_the_job_and_learns_it(broker: Broker) -> None:
    for room in ("kept", "lost"):
        broker.dispatch("a", room)
    kept, lost = taken(broker), taken(broker)
    for each in (kept, lost):
        assert broker.start("w1", each) is None

    def taken_over():
        broker.beat("w1", [kept])
        return broker.take_over("w2", "a", 5)

    (again,) = until(taken_over)
    assert (again.id, again.room, again.attempt) == (lost.id, "lost", 2)
    # The one that sleeps is woken: it has lost the room, whether the other has begun or not.
    assert broker.beat("w1", [kept, lost]).lost == {lost.id}
    assert broker.start("w2", again) is None
    assert broker.start("w1", lost) is not None
    broker.tell("w1", lost, "running")
    broker.finish("w1", lost, "failed")
    broker.hand_back("w1", lost)
    assert (status(broker, lost.id).state, status(broker, lost.id).worker) == ("starting", "w2")
    assert broker.beat("w2", [again]).lost == frozenset()


def what_kills_its_workers_is_set_aside(broker: Broker) -> None:
    name = broker.dispatch("a", "room")
    assert broker.start("w0", taken(broker, "w0")) is None
    for attempt in range(2, ATTEMPTS + 1):
        (job,) = until(lambda: broker.take_over(f"w{attempt}", "a", 1))
        assert job.attempt == attempt and broker.start(f"w{attempt}", job) is None
    until(lambda: not broker.take_over("w9", "a", 1) and status(broker, name).state == "failed")
    assert str(ATTEMPTS) in status(broker, name).why
    assert [(each.job.id, each.state) for each in broker.jobs("a")] == [(name, "failed")]
    broker.dispatch("a", "room")
    assert broker.start("w1", taken(broker)) is None


def what_is_handed_back_is_taken_by_another_without_counting(broker: Broker) -> None:
    name = broker.dispatch("a", "room")
    job = taken(broker)
    assert broker.start("w1", job) is None
    broker.hand_back("w1", job)
    assert status(broker, name).state == "queued"
    again = until(lambda: broker.take("w2", "a", 0.01) or next(iter(broker.take_over("w2", "a", 1)), None))
    assert (again.id, again.attempt) == (name, 1)
    assert broker.start("w2", again) is None
    assert broker.beat("w1", [job]).lost == {name}


def a_stop_reaches_a_job_wherever_it_is(broker: Broker) -> None:
    queued, running = broker.dispatch("a", "later"), None
    assert broker.stop(queued) and status(broker, queued).state == "stopped" and broker.jobs("a") == []
    running = broker.dispatch("a", "room")
    job = taken(broker)
    assert job.id == running and broker.start("w1", job) is None
    assert broker.beat("w1", [job]).stops == frozenset()
    assert broker.stop(running) and broker.beat("w1", [job]).stops == {running}
    broker.finish("w1", job, "stopped")
    assert not broker.stop(running) and not broker.stop(queued)
    assert not broker.stop("a:99-0") and not broker.stop("")


def workers_are_shown_while_they_live(broker: Broker) -> None:
    statuses = [WorkerStatus(name, "a", "host", 4, 1, 2, since=3.0) for name in ("w1", "w2")]

    def shown():
        for each in statuses:
            broker.announce(each)
        return broker.workers() == statuses

    until(shown)
    broker.withdraw("w1")
    assert all(each.id == "w2" for each in broker.workers())
    until(lambda: not broker.workers())


def bad_arguments_are_named(broker: Broker) -> None:
    for agent, room, data, named in [
        ("a b", "room", None, "agent"), ("", "room", None, "agent"), ("a:b", "room", None, "agent"),
        ("a", "../room", None, "room"), ("a", "r" * 65, None, "room"), ("a", "*", None, "room"),
        ("a", "room", {1, 2}, "data"), ("a", "room", float("nan"), "data"),
        ("a", "room", "x" * DATA_LIMIT, "data"),
    ]:  # fmt: skip
        with pytest.raises(ValueError, match=f"^{named}:"):
            broker.dispatch(agent, room, data)
    assert broker.jobs() == []


CASES = [
    a_job_goes_from_its_dispatch_to_its_end,
    jobs_are_given_out_in_their_order_and_once,
    a_room_has_one_agent_of_a_name,
    who_does_not_beat_loses_the_job_and_learns_it,
    what_kills_its_workers_is_set_aside,
    what_is_handed_back_is_taken_by_another_without_counting,
    a_stop_reaches_a_job_wherever_it_is,
    workers_are_shown_while_they_live,
    bad_arguments_are_named,
]
