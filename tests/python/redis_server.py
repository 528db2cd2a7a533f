"""Real servers for tests, on free ports and folders of their own."""

from __future__ import annotations

import contextlib
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path

import pytest


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


def answers(port: int, seconds: float = 5.0) -> None:
    end = time.monotonic() + seconds
    while True:
        try:
            with socket.create_connection(("127.0.0.1", port), 1) as connection:
                connection.sendall(b"PING\r\n")
                connection.settimeout(1)
                if connection.recv(64).startswith((b"+PONG", b"-NOAUTH")):
                    return
        except OSError:
            pass
        assert time.monotonic() < end, f"nothing answers on port {port}"
        time.sleep(0.01)


class RedisServer:
    """One server. `kill` and `start` are an outage; `keep` says whether it has a log of what it knew."""

    def __init__(self, folder: Path, keep: bool = False, *options: str) -> None:
        if not shutil.which("redis-server"):
            pytest.skip("redis-server is not installed")
        folder.mkdir(parents=True, exist_ok=True)
        self.port = free_port()
        self._folder = folder
        self._options = ["--appendonly", "yes", "--appendfsync", "always"] if keep else ["--save", ""]
        self._options += options
        self.start()

    @property
    def url(self) -> str:
        return f"redis://127.0.0.1:{self.port}"

    def start(self) -> None:
        self._process = subprocess.Popen(
            ["redis-server", "--port", str(self.port), "--bind", "127.0.0.1", "--dir", str(self._folder)]
            + ["--logfile", str(self._folder / "log"), *self._options]
        )
        answers(self.port)

    def kill(self, with_signal: int = signal.SIGKILL) -> None:
        self._process.send_signal(with_signal)
        if with_signal == signal.SIGKILL:
            self._process.wait()

    def resume(self) -> None:
        self._process.send_signal(signal.SIGCONT)

    def close(self) -> None:
        self._process.kill()
        self._process.wait()


@contextlib.contextmanager
def redis_server(folder: Path, keep: bool = False, *options: str):
    server = RedisServer(folder, keep, *options)
    try:
        yield server
    finally:
        server.close()
