"""The broker on a real Redis: the cases of every broker, and what can happen to a server and to a network."""

from __future__ import annotations

import random
import subprocess
import threading
import time

import pytest

redis = pytest.importorskip("redis", reason="python3-redis is not installed")

from broker_cases import CASES, LEASE, status, taken, until  # noqa: E402
from redis_server import RedisServer, answers, free_port, redis_server  # noqa: E402

from tavrin_media_relay.serving.broker import BrokerError  # noqa: E402
from tavrin_media_relay.serving.redis_broker import RedisBroker  # noqa: E402


@pytest.fixture(scope="module")
def server(tmp_path_factory):
    with redis_server(tmp_path_factory.mktemp("redis")) as running:
        yield running


def broker_of(server: RedisServer, **more) -> RedisBroker:
    return RedisBroker(server.url, lease=LEASE, owners_first=-LEASE, **more)


@pytest.fixture
def broker(server):
    redis.Redis(port=server.port).flushall()
    broker = broker_of(server)
    yield broker
    broker.close()


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.__name__)
def test_it_is_a_broker(broker, case):
    case(broker)


class Dying:
    """A worker whose process dies at a random command of its own: a client that sends no more after it."""

    def __init__(self, server: RedisServer, name: str, commands: int) -> None:
        self.name, self.broker, self.left = name, broker_of(server), commands
        ask = self.broker._ask

        def counted(question):
            self.left -= 1
            if self.left < 0:
                raise SystemExit
            answer = ask(question)
            if self.left == 0 and random.random() < 0.5:  # it was done, and never heard of
                raise SystemExit
            return answer

        setattr(self.broker, "_ask", counted)

    def serve(self, rooms: dict[str, str]) -> None:
        """One round of a worker. `rooms` is the world: who thinks to be in which room."""
        try:
            job = self.broker.take(self.name, "a", 0.01) or next(
                iter(self.broker.take_over(self.name, "a", 1)), None
            )
            if job and self.broker.start(self.name, job) is None:
                assert job.room not in rooms, f"{rooms[job.room]} and {self.name} are in {job.room}"
                rooms[job.room] = self.name
                self.broker.tell(self.name, job, "running")
                if job.id not in self.broker.beat(self.name, [job]).lost:
                    self.broker.finish(self.name, job, "ended")
                rooms.pop(job.room)
        except SystemExit:
            rooms.clear()  # the process is gone, and with it whoever was in a room


def test_a_worker_that_dies_at_any_step_loses_no_job_and_leaves_no_second_agent(server):
    random.seed(5)
    redis.Redis(port=server.port).flushall()
    broker = broker_of(server)
    rooms: dict[str, str] = {}
    for steps in range(1, 13):
        name = broker.dispatch("a", f"room-{steps}")
        Dying(server, f"dying-{steps}", steps).serve(rooms)
        heir = Dying(server, f"heir-{steps}", 1_000_000)

        def ended() -> bool:
            heir.serve(rooms)
            return status(broker, name).state == "ended"

        until(ended)
    assert broker.jobs() == [] and broker.waiting("a") == 0


@pytest.mark.parametrize("keep", [True, False], ids=["with its log", "without it"])
def test_jobs_outlive_their_broker(tmp_path, keep):
    with redis_server(tmp_path, keep) as server:
        broker, other = broker_of(server), broker_of(server)
        broker.dispatch("a", "one")
        broker.dispatch("a", "two")
        jobs = [taken(broker), taken(broker, "w2")]
        for worker, job in zip(("w1", "w2"), jobs):
            assert broker.start(worker, job) is None
            broker.tell(worker, job, "running")
        server.kill()
        with pytest.raises(BrokerError, match=f"redis://127.0.0.1:{server.port} is away"):
            broker.beat("w1", [jobs[0]])
        server.start()
        # The younger one first: the older cannot be put before it any more, and is kept all the same.
        for worker, job in (("w2", jobs[1]), ("w1", jobs[0])):
            assert broker.beat(worker, [job]).lost == frozenset()
        broker.dispatch("a", "one")
        assert other.start("w3", taken(other, "w3")) == jobs[0].id
        for worker, job in (("w2", jobs[1]), ("w1", jobs[0])):
            assert broker.beat(worker, [job]).lost == frozenset()
            broker.finish(worker, job, "ended")
        assert broker.jobs() == []
        broker.dispatch("a", "one")
        assert broker.start("w1", taken(broker)) is None


def test_after_an_outage_owners_come_before_those_who_take_over(tmp_path):
    with redis_server(tmp_path, True) as server:
        owner, taker = broker_of(server), RedisBroker(server.url, lease=LEASE, owners_first=1.0)
        owner.dispatch("a", "room")
        job = taken(owner)
        assert owner.start("w1", job) is None
        taker.take_over("w2", "a", 1)
        for _ in range(8):  # until it has waited
            time.sleep(LEASE / 3)
            owner.beat("w1", [job])
        server.kill()
        time.sleep(LEASE)
        server.start()
        assert taker.take_over("w2", "a", 1) == []
        assert owner.beat("w1", [job]).lost == frozenset()
        began = time.monotonic()
        (again,) = until(lambda: taker.take_over("w2", "a", 1))
        assert again.id == job.id and time.monotonic() - began > LEASE


def test_what_other_programs_write_wrongly_is_set_aside(broker, server):
    client = redis.Redis(port=server.port)
    wrong = [
        {"job": "{"}, {"job": "[]"}, {"job": '{"room": 5}'}, {"job": '{"room": "../x"}'}, {"jobs": "{}"},
        {"job": b"\xff\xfe"}, {"job": "[" * 100_000},
        {"job": '{"room": "r", "data": "' + "x" * 70_000 + '"}'},
    ]  # fmt: skip
    for each in wrong:
        client.xadd("tavrin:jobs:a", each)
    right = client.xadd("tavrin:jobs:a", {"job": '{"room": "r", "data": {"from": "C"}}'}).decode()
    job = taken(broker)
    assert (job.id, job.data) == (f"a:{right}", {"from": "C"})
    failed = [each for each in broker.jobs("a") if each.state == "failed"]
    assert len(failed) == len(wrong) and all(each.why for each in failed)


def test_a_password_is_needed_and_never_shown(tmp_path, monkeypatch):
    with redis_server(tmp_path, False, "--requirepass", "s3cr3t") as server:
        right = RedisBroker(f"redis://:s3cr3t@127.0.0.1:{server.port}/1")
        assert right.dispatch("a", "room")
        with pytest.raises(BrokerError, match="refuses|away") as wrong:
            RedisBroker(f"redis://:wr0ng@127.0.0.1:{server.port}").dispatch("a", "room")
        assert "wr0ng" not in str(wrong.value)
        monkeypatch.setenv("TAVRIN_BROKER_PASSWORD", "s3cr3t")
        assert RedisBroker(server.url).dispatch("a", "room")


@pytest.mark.parametrize(
    "url",
    ["redis://", "http://a", "redis://a:b:c", "redis://a,b", "redis://a/x", "redis+sentinel://a,b",
     "redis://a/0/1", "redis://a:99999999", "rediss://a?ca", "redis://u:s3cr3t@a?nonsense=1"],
)  # fmt: skip
def test_addresses_that_are_none_are_refused(url):
    with pytest.raises(ValueError, match="^broker: ") as refused:
        RedisBroker(url)
    assert "s3cr3t" not in str(refused.value)


def test_a_server_that_hangs_is_away_within_bounds(tmp_path):
    with redis_server(tmp_path) as server:
        broker = broker_of(server)
        broker.dispatch("a", "room")
        server.kill(19)  # SIGSTOP
        began = time.monotonic()
        with pytest.raises(BrokerError):
            broker.dispatch("a", "room")
        assert time.monotonic() - began < 8
        server.resume()
        assert until(lambda: broker.take("w1", "a", 0.1))


def test_a_sentinel_names_another_master(tmp_path):
    with redis_server(tmp_path / "one") as one, redis_server(
        tmp_path / "two", False, "--replicaof", "127.0.0.1", str(one.port), "--repl-diskless-sync-delay", "0"
    ) as two:
        replica = redis.Redis(port=two.port, decode_responses=True)
        until(lambda: replica.info("replication")["master_link_status"] == "up", 15)
        ports, sentinels = [free_port() for _ in range(3)], []
        try:
            for port in ports:
                file = tmp_path / f"{port}.conf"
                file.write_text(
                    f"port {port}\nbind 127.0.0.1\ndir {tmp_path}\n"
                    f"sentinel monitor door 127.0.0.1 {one.port} 2\n"
                    "sentinel down-after-milliseconds door 500\nsentinel failover-timeout door 3000\n"
                )
                sentinels.append(subprocess.Popen(["redis-sentinel", str(file)], stdout=subprocess.DEVNULL))
            for port in ports:
                answers(port)
            watcher = redis.Redis(port=ports[0], decode_responses=True)
            until(lambda: watcher.sentinel_master("door")["num-other-sentinels"] == 2, 15)
            until(lambda: watcher.sentinel_master("door")["num-slaves"] == 1, 15)
            hosts = ",".join(f"127.0.0.1:{port}" for port in ports)
            broker = RedisBroker(f"redis+sentinel://{hosts}/door", lease=30)
            broker.dispatch("a", "room")
            job = taken(broker)
            assert broker.start("w1", job) is None
            until(lambda: replica.exists("tavrin:on:a:room"))
            one.kill()

            def beats() -> bool:
                try:
                    return broker.beat("w1", [job]).lost == frozenset()
                except BrokerError:
                    return False

            until(beats, 20)
            assert replica.info("replication")["role"] == "master"
        finally:
            for each in sentinels:
                each.kill()
                each.wait()


def test_a_close_wakes_who_waits(server):
    broker, woken = broker_of(server), threading.Event()

    def wait() -> None:
        with pytest.raises(BrokerError):
            while True:
                broker.take("w1", "nobody-dispatches", 30)
        woken.set()

    waiting = threading.Thread(target=wait, daemon=True)
    waiting.start()
    time.sleep(0.1)
    broker.close()
    assert woken.wait(5)
