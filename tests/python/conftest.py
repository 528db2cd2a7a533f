"""The module on the scripted library, in this process, and programs on it in processes of their own."""

from __future__ import annotations

import contextlib
import ctypes
import io
import os
import re
import subprocess
import sys
import threading
from collections import namedtuple
from datetime import datetime
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import pytest

sys.path[:0] = [str(Path(__file__).parent)]
import programs  # noqa: E402
import scripted  # noqa: E402
from scripted import DEADLINE, PRELUDE, until  # noqa: E402

sys.path[:0] = programs.PYTHON_PATH

Line = namedtuple("Line", "level thread logger text")
Event = namedtuple("Event", "name args thread")
_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} (\w+) +\[(\w+)\] (\S+) - (.*)")


class Log:
    """What the module wrote to standard output, and Python to standard error, since the test began.

    Files of its own: what pytest captures loses lines that another thread writes while it is read.
    """

    def __init__(self, folder: Path) -> None:
        self._files = [open(folder / name, "ab", buffering=0) for name in ("out", "err")]
        self._begin = [0, 0]

    @contextlib.contextmanager
    def attached(self):
        saved, python_err = [os.dup(1), os.dup(2)], sys.stderr
        for number, file in enumerate(self._files, start=1):
            os.dup2(file.fileno(), number)
        sys.stderr = io.TextIOWrapper(
            io.FileIO(self._files[1].fileno(), "a", closefd=False), write_through=True
        )
        try:
            yield
        finally:
            self._read(0)
            sys.stderr = python_err
            for number, each in enumerate(saved, start=1):
                os.dup2(each, number)
                os.close(each)
            sys.stdout.write(self._read(0)), sys.stderr.write(self._read(1))  # for pytest to show

    def _read(self, which: int) -> str:
        ctypes.CDLL(None).fflush(None)
        return Path(str(self._files[which].name)).read_bytes()[self._begin[which] :].decode(errors="replace")

    def lines(self) -> list[Line]:
        return [Line(*match) for match in _LINE.findall(self._read(0))]

    def of(self, logger: str, *levels: str) -> list[tuple[str, str]]:
        """(level, text) of one logger's lines, of these levels only if any are given."""
        found = [(line.level, line.text) for line in self.lines() if line.logger == logger]
        return [each for each in found if not levels or each[0] in levels]

    def texts(self) -> list[tuple[str, str]]:
        return [(line.level, line.text) for line in self.lines()]

    def errors(self) -> str:
        """Standard error."""
        return self._read(1)

    def clear(self) -> None:
        self._begin = [Path(str(file.name)).stat().st_size for file in self._files]

    def wait(self, level: str, text: str, count: int = 1) -> None:
        until(lambda: self.texts().count((level, text)) >= count, f"{level} {text}")


class Recorder:
    """Makes callables that write down what they are called with."""

    def __init__(self) -> None:
        self.events: list[Event] = []
        self._changed = threading.Condition()

    def __call__(self, name: str, then=None):
        def callable_(*args):
            with self._changed:
                self.events.append(Event(name, args, threading.get_native_id()))
                self._changed.notify_all()
            return then(*args) if then else None

        return callable_

    def named(self, name: str) -> list[Event]:
        return [event for event in self.events if event.name == name]

    def wait(self, name: str, count: int = 1) -> Event:
        """The event of that number, when it has come."""
        with self._changed:
            done = self._changed.wait_for(lambda: len(self.named(name)) >= count, DEADLINE)
            assert done, f"{name} came {len(self.named(name))} times, not {count}: {self.events}"
        return self.named(name)[count - 1]


class World:
    """A client on the scripted library, with the shortest ways to the states that tests begin from."""

    def __init__(self, folder: Path) -> None:
        self.lib = scripted.lib
        import _tavrin_video

        self.client = _tavrin_video.TavrinVideoClient()
        assert self.lib.device_user_data(), "the module does not run on the scripted library"
        self.lib.reset()
        self.lib.media_on_delivery_threads(1)
        # An answer before the callables are stored is lost, by design: the events are told by hand.
        self.lib.answer("stream_created", "none")
        self.lib.answer("subscriber_connected", "none")
        self.lib.answer("audio_device", "none")
        from tavrin_media_relay import models

        self.models = models
        self.log = Log(folder)
        self.rec = Recorder()
        self._failed: set[str] = set()

    def connect(self, level="debug", av=None, **callables) -> None:
        """Joined, with the log at `level`; `av` may be anything with the attributes."""
        settings: Any = SimpleNamespace(
            enable_migration=False, av=av, logging=self.models.LoggingSettings(level)
        )
        assert self.client.connect("key", "session", "token", session_settings=settings, **callables) is True
        self.settle()

    def stream(self, stream_id="s", received=True):
        """A stream object; known to the module unless told otherwise."""
        if received:
            self.lib.stream_received(stream_id, "c", "data", 1500)
            self.settle()
        connection = self.models.Connection("c", datetime.fromtimestamp(1.5), "data")
        return self.models.Stream(stream_id, connection)

    def subscribe(self, stream_id="s", **arguments):
        stream = self.stream(stream_id)
        assert self.client.subscribe(stream, **arguments) is True
        self.lib.subscriber_connected(stream_id)
        self.settle()
        return stream

    def publish(self, has_audio=True, has_video=True, **callables) -> None:
        settings = self.models.PublisherSettings("p", has_audio=has_audio, has_video=has_video)
        assert self.client.publish(settings, **callables) is True
        self.lib.publisher_stream_created("published-1")
        self.settle()

    def ready(self, **arguments) -> None:
        """Joined, and the audio device runs: started once the module knows that it is joined."""
        ready = arguments.pop("on_ready_for_audio_cb", None) or self.rec("ready")
        before = self.lib.call_count("srn_audio_device_write_capture_data")
        self.connect(on_ready_for_audio_cb=ready, **arguments)
        assert self.lib.device_start() == 1
        assert (
            self.lib.wait_calls("srn_audio_device_write_capture_data", before + 1, int(DEADLINE * 1000)) == 1
        )
        self.settle()

    def settle(self) -> None:
        """All events of the library are delivered, and the worker has done all that was posted."""
        assert self.lib.wait_idle(int(DEADLINE * 1000)) == 1
        self.client.get_connection()

    def fail(self, function: str, status: int = 7, times: int = -1) -> None:
        self._failed.add(function)
        self.lib.fail(function, status, times)

    def mend(self) -> None:
        for function in self._failed:
            self.lib.fail(function, 0, 0)
        self.lib.answer("disconnected", "normal")
        self.lib.delay("disconnected", 0)
        self.lib.render_block(0)

    def close(self) -> None:
        self.mend()
        self.lib.storm_stop()
        self.client.disconnect()
        assert self.lib.faults() == 0, self.lib.fault_texts()


@pytest.fixture(scope="session", autouse=True)
def quiet_end():
    """The level that a test chose is the process's; what comes after the tests is nobody's business."""
    yield
    if "_tavrin_video" in sys.modules:
        from tavrin_media_relay import models

        settings = models.SessionSettings(logging=models.LoggingSettings("off"))
        sys.modules["_tavrin_video"].TavrinVideoClient().connect("", "", "", session_settings=settings)


@pytest.fixture
def world(tmp_path, monkeypatch):
    monkeypatch.delenv("API_HOSTNAME", raising=False)
    world = World(tmp_path)
    yield world
    world.close()


@pytest.hookimpl(hookwrapper=True, trylast=True)
def pytest_runtest_call(item):
    """Inside pytest's own capture, which it sets up anew for each phase of a test."""
    world = item.funcargs.get("world") if hasattr(item, "funcargs") else None
    with world.log.attached() if world else contextlib.nullcontext():
        yield


class Program:
    """The outcome of a program of its own."""

    def __init__(self, done: subprocess.CompletedProcess) -> None:
        self.code, self.out, self.err = done.returncode, done.stdout, done.stderr
        self.lines = [Line(*match) for match in _LINE.findall(done.stdout)]

    def __repr__(self) -> str:
        return f"exit code {self.code}\n{self.out[-4000:]}\n{self.err[-4000:]}"

    def texts(self) -> list[tuple[str, str]]:
        return [(line.level, line.text) for line in self.lines]


@pytest.fixture
def run():
    """Runs program text on the scripted library. A program that hangs is killed and fails the test."""

    def run(text: str, timeout: float = 60, prelude: str = PRELUDE, path=(), **environment: str) -> Program:
        variables = {key: value for key, value in os.environ.items() if key != "API_HOSTNAME"}
        variables |= {
            "LD_LIBRARY_PATH": str(scripted.SUPPORT),
            "PYTHONPATH": os.pathsep.join([*map(str, path), *programs.PYTHON_PATH]),
            "PYTHONFAULTHANDLER": "1",
            **environment,
        }
        done = subprocess.run(
            [sys.executable, "-c", prelude + text],
            env=variables, capture_output=True, text=True, timeout=timeout, errors="replace",
        )  # fmt: skip
        return Program(done)

    return run
