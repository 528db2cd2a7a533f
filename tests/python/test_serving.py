"""Serving agents on one machine: the command as a user starts it, with the embedded engine."""

from __future__ import annotations

import asyncio
import json
import os
import queue
import signal
import subprocess
import sys
import textwrap
import threading
import time
import urllib.error
import urllib.request
from pathlib import Path

import pytest
from broker_cases import CASES, LEASE, until

from tavrin_media_relay import serving
from tavrin_media_relay.serving.local_broker import LocalBroker


@pytest.mark.parametrize("case", CASES, ids=lambda case: case.__name__)
def test_the_local_broker_is_a_broker(case):
    case(LocalBroker(lease=LEASE))


class Serving:
    """`serve` of an agent's source, and what it tells."""

    def __init__(self, folder: Path, source: str, *options: str) -> None:
        file = folder / "greeter.py"
        file.write_text("import asyncio, os, signal, sys, threading, time\n" + textwrap.dedent(source))
        self.events: list[dict] = []
        self._queue: queue.Queue = queue.Queue()
        self.process = subprocess.Popen(
            [sys.executable, "-m", "tavrin_media_relay", "serve", str(file), "--log", "json", *options],
            stdout=subprocess.PIPE,
            text=True,
        )
        self._reading = threading.Thread(target=self._read, daemon=True)
        self._reading.start()
        self.wait("serving")

    def _read(self) -> None:
        assert self.process.stdout is not None
        for line in self.process.stdout:
            self._queue.put(json.loads(line))
        self._queue.put(None)

    def wait(self, event: str, text: str = "", seconds: float = 20.0) -> dict:
        """The next event of a kind, whose text has this in it."""
        end = time.monotonic() + seconds
        while True:
            found = self._queue.get(timeout=max(0.0, end - time.monotonic()))
            assert found is not None, f"it ended before {event} {text}: {self.events}"
            self.events.append(found)
            if found["event"] == event and text in found["text"]:
                return found

    def send(self, room: str, data=None) -> str:
        return asyncio.run(serving.dispatch(room, "greeter", data))

    def state(self, job_id: str) -> str:
        found = asyncio.run(serving.job(job_id))
        return found.state if found else "unknown"

    def end(self, *signals: int) -> float:
        began = time.monotonic()
        for each in signals or (signal.SIGTERM,):
            self.process.send_signal(each)
            time.sleep(0.2 if len(signals) > 1 else 0)
        self.process.wait(30)
        self._reading.join()
        while (event := self._queue.get_nowait()) is not None:
            self.events.append(event)
        return time.monotonic() - began


@pytest.fixture
def serve(tmp_path, monkeypatch):
    for name in ("API_HOSTNAME", "TAVRIN_BROKER"):
        monkeypatch.delenv(name, raising=False)
    monkeypatch.setenv("XDG_RUNTIME_DIR", str(tmp_path))
    started: list[Serving] = []

    def start(source: str, *options: str) -> Serving:
        started.append(Serving(tmp_path, source, *options))
        return started[-1]

    yield start
    for each in started:
        each.process.kill()
        each.process.wait()


def children() -> list[int]:
    """Processes that serve an agent."""
    found = subprocess.run(["pgrep", "-f", "multiprocessing.*(forkserver|spawn_main)"], capture_output=True)
    return [int(each) for each in found.stdout.split()]


def test_a_job_reaches_the_agent_and_its_words_carry_it(serve):
    server = serve(
        """
        ready = []
        def prepare():
            ready.append(os.getpid())
        async def agent(session, job):
            print("in", session.id, job.data["name"], ready == [os.getpid()])
            print("and to standard error", file=sys.stderr)
        """,
        "--metrics",
        "127.0.0.1:0",
    )
    port = server.wait("metrics")["port"]
    job_id = server.send("lobby", {"name": "Zoë"})
    said = server.wait("said", "in ")
    assert (said["job"], said["room"], said["text"]) == (job_id, "lobby", "in lobby Zoë True")
    assert server.wait("said", "standard error")["job"] == job_id
    assert server.wait("ended")["end"] == "ended"
    until(lambda: server.state(job_id) == "ended")
    page = urllib.request.urlopen(f"http://127.0.0.1:{port}/metrics").read().decode()
    assert 'tavrin_jobs_total{agent="greeter",end="ended"} 1.0' in page
    for path in ("healthz", "readyz"):
        assert urllib.request.urlopen(f"http://127.0.0.1:{port}/{path}").status == 200
    assert server.end() < 3 and server.process.returncode == 0


def test_as_many_run_as_there_are_places_and_each_job_once(serve):
    server = serve(
        """
        async def agent(session, job):
            await asyncio.sleep(0.3)
        """,
        "--sessions=3",
        "--warm=3",
    )
    names = [server.send(f"room-{number}") for number in range(12)]
    most = 0
    for _ in names:
        server.wait("ended")
        most = max(most, sum(each.state in ("starting", "running") for each in asyncio.run(serving.jobs())))
    joined = [each["job"] for each in server.events if each["event"] == "joined"]
    assert sorted(joined) == sorted(names) and most <= 3


ENDS = {
    # What the agent does: the end of its job, what its reason has in it, seconds within which it comes.
    "raises": ("raise KeyError('salt')", "failed", "KeyError: 'salt'", 3),
    "exits": ("sys.exit(3)", "failed", "SystemExit: 3", 3),
    "is alone": ("await session.ended()", "ended", "alone for 0.5 s", 4),
    "is stopped": ("await session.ended()", "stopped", "on request", 4),
    "leaks": ("hog = bytearray(400 << 20); await session.ended()", "failed", "256 MiB", 15),
    "dies": ("os.kill(os.getpid(), signal.SIGKILL)", "failed", "4 times, at last SIGKILL", 15),
}


@pytest.mark.parametrize("how", ENDS)
def test_a_visit_ends_as_its_agent_does(serve, tmp_path, how):
    body, end, why, seconds = ENDS[how]
    scenario = tmp_path / "empty.json"
    scenario.write_text('{"participants": []}')
    options = [
        f"--relay=embedded:{scenario}",
        "--memory=256M",
        "--alone=" + ("0.5s" if "alone" in how else "0"),
    ]
    server = serve(f"async def agent(session, job):\n            {body}\n", *options)
    job_id = server.send("lobby")
    server.wait("joined")
    if "stopped" in how:
        assert asyncio.run(serving.stop(job_id))
    ended = server.wait("ended", seconds=seconds)
    assert ended["end"] == end and why in ended["why"]
    until(lambda: server.state(job_id) == end)
    server.send("lobby")  # the room is free, and another child at hand
    server.wait("joined")


def test_a_visit_whose_process_is_killed_goes_on_in_another_at_once(serve):
    server = serve(
        """
        async def agent(session, job):
            print("pid", os.getpid())
            await session.ended()
        """
    )
    job_id = server.send("lobby")
    pid = int(server.wait("said", "pid")["text"].split()[1])
    time.sleep(1)  # another is warm
    began = time.monotonic()
    os.kill(pid, signal.SIGKILL)
    again = server.wait("said", "pid")
    assert again["job"] == job_id and int(again["text"].split()[1]) != pid
    assert time.monotonic() - began < 1.0  # 0.1 s on a quiet machine
    assert server.state(job_id) == "running"


def test_a_blocked_loop_is_ended_and_begun_again(serve, tmp_path):
    server = serve(
        f"""
        async def agent(session, job):
            if not os.path.exists("{tmp_path}/blocked"):
                open("{tmp_path}/blocked", "w").close()
                time.sleep(1000)
            print("well")
        """
    )
    server.send("lobby")
    server.wait("said", "its loop is blocked")
    server.wait("said", "well", seconds=30)
    assert server.wait("ended")["end"] == "ended"


def test_no_child_survives_its_worker(serve):
    before = set(children())
    server = serve(
        """
        async def agent(session, job):
            signal.signal(signal.SIGTERM, signal.SIG_IGN)
            print("up")
            while True:
                time.sleep(1)
        """
    )
    server.send("lobby")
    server.wait("said", "up")
    assert set(children()) - before
    server.process.kill()
    until(lambda: not set(children()) - before)


def test_it_drains_and_a_second_signal_ends_it_at_once(serve):
    server = serve(
        """
        async def agent(session, job):
            print("up")
            try:
                await asyncio.sleep(job.data)
            finally:
                print("left politely")
        """,
        "--sessions=1",
    )
    server.send("one", 1.5)
    server.wait("said", "up")
    waiting = server.send("two", 0)
    assert server.end() > 0.5
    kinds = [each["event"] for each in server.events]
    assert kinds.count("joined") == 1 and kinds[-1] == "over"
    assert not any(each.get("job") == waiting for each in server.events)

    again = serve("async def agent(session, job):\n    print('up')\n    await session.ended()\n")
    job_id = again.send("one")
    again.wait("said", "up")
    assert again.end(signal.SIGTERM, signal.SIGTERM) < 5
    assert [each["end"] for each in again.events if each["event"] == "ended"] == ["stopped"]
    assert job_id in {each.get("job") for each in again.events}


def test_imports_that_raise_and_imports_that_start_threads(serve, tmp_path):
    flag = tmp_path / "mended"
    broken = serve(
        f"""
        if not os.path.exists("{flag}"):
            raise ImportError("no module named salt")
        async def agent(session, job):
            pass
        """,
        "--metrics",
        "127.0.0.1:0",
    )
    port = broken.wait("metrics")["port"]
    for number in range(1, 6):
        broken.wait("said", f"does not start ({number}): ImportError: no module named salt", seconds=30)
    with pytest.raises(urllib.error.HTTPError) as refused:
        urllib.request.urlopen(f"http://127.0.0.1:{port}/readyz")
    assert refused.value.code == 503 and b"no module named salt" in refused.value.read()
    assert urllib.request.urlopen(f"http://127.0.0.1:{port}/healthz").status == 200
    broken.end(signal.SIGTERM)

    threaded = serve(
        """
        threading.Thread(target=time.sleep, args=(1000,), daemon=True).start()
        async def agent(session, job):
            print("threads", threading.active_count())
        """
    )
    threaded.wait("said", "importing greeter.py starts 1 thread")
    threaded.send("lobby")
    assert int(threaded.wait("said", "threads")["text"].split()[1]) >= 2


@pytest.mark.parametrize(
    "arguments, told",
    [
        (["serve", "nothing.py"], "there is no file"),
        (["serve", "README.md", "--name", "a b"], "--name:"),
        (["serve", "README.md", "--sessions", "0"], "--sessions:"),
        (["serve", "README.md", "--broker", "http://x"], "redis://HOST"),
        (["serve", "README.md", "--drain", "soon"], "30s, 5m or 1h"),
        (["dispatch", "room", "--agent", "nobody-serves-this"], 'nobody serves "nobody-serves-this"'),
        (["dispatch", "../room", "--agent", "a"], "room:"),
        (["dispatch", "room", "--agent", "a", "--data", "{"], "--data: is no JSON"),
        (["stop", "a:1-1"], "no job a:1-1"),
    ],
)
def test_wrong_arguments_are_named(tmp_path, monkeypatch, arguments, told):
    monkeypatch.setenv("XDG_RUNTIME_DIR", str(tmp_path))
    monkeypatch.chdir(Path(__file__).resolve().parents[2])
    done = subprocess.run(
        [sys.executable, "-m", "tavrin_media_relay", *arguments], capture_output=True, text=True
    )
    assert done.returncode in (1, 2) and told in done.stderr
