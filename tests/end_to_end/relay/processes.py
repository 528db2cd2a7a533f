"""A network for the tests alone, and in it the server and the programs, each a process that is told what
to do and tells what happened in lines."""

from __future__ import annotations

import contextlib
import json
import os
import queue
import signal
import subprocess
import sys
import threading
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from tavrin_media_relay.server import join_token

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[2]
ADDRESS = "10.200.0.1"
SECRET = "secret-of-the-tests"
ADMIN_KEY = "key-of-the-tests"
PATIENCE = 40.0


class Process:
    """A child and what it has said. Ends with the test, together with all that it started."""

    def __init__(self, command: list[str], **environment: str) -> None:
        self.said: list[str] = []
        self._lines: queue.Queue[str | None] = queue.Queue()
        self.child = subprocess.Popen(
            command, env=os.environ | {"SARNET_RELAY_TOKEN_SECRET": SECRET} | environment, text=True,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True,
        )  # fmt: skip
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self) -> None:
        assert self.child.stdout is not None
        for line in self.child.stdout:
            self._lines.put(line.rstrip("\n"))
        self._lines.put(None)

    def wait_for_line(self, wanted: Callable[[str], bool], patience: float = PATIENCE) -> str:
        """The next line that is wanted; fails with everything that was said if it does not come."""
        deadline = time.monotonic() + patience
        while True:
            try:
                line = self._lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                pytest.fail(f"waited {patience} s in vain; it said:\n" + "\n".join(self.said), pytrace=True)
            if line is None:
                self._lines.put(None)
                pytest.fail("it ended too early; it said:\n" + "\n".join(self.said), pytrace=True)
            self.said.append(line)
            if wanted(line):
                return line

    def wait_for(self, event: str, patience: float = PATIENCE, **details: object) -> dict[str, Any]:
        """The next JSON line with that event and those details."""
        found: dict[str, Any] = {}

        def matches(line: str) -> bool:
            if not line.startswith("{"):
                return False
            found.clear()
            found.update(json.loads(line))
            return found["event"] == event and all(found.get(key) == value for key, value in details.items())

        self.wait_for_line(matches, patience)
        return found

    def events(self) -> list[dict[str, Any]]:
        """All that it has told so far, as far as it was waited for."""
        return [json.loads(line) for line in self.said if line.startswith("{")]

    def rest(self) -> list[str]:
        """All that it has said, once it has ended."""
        self._reader.join(PATIENCE)
        while not self._lines.empty() and (line := self._lines.get()) is not None:
            self.said.append(line)
        return self.said

    def leave(self) -> dict[str, Any]:
        """Lets a program leave; gives its last word."""
        assert self.child.stdin is not None
        self.child.stdin.close()
        last = self.wait_for("left")
        assert self.child.wait(PATIENCE) == 0, "\n".join(self.said)
        assert not any("Traceback" in line for line in self.said), "\n".join(self.said)
        return last

    def end(self, number: int = signal.SIGKILL) -> int:
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.child.pid, number)
        status = self.child.wait(PATIENCE)
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.child.pid, signal.SIGKILL)
        self._reader.join(PATIENCE)
        return status


class Network:
    """A network namespace of its own: nothing in it reaches anything outside. Without an address it has
    the loopback interface alone."""

    def __init__(self, address: str | None) -> None:
        self.address = address or "127.0.0.1"
        self.loopback = address is None
        self._processes: list[Process] = []
        user = [] if os.geteuid() == 0 else ["--user", "--map-root-user"]
        script = "ip link set lo up"
        if address:
            script += " && ip link add here type veth peer name there"
            script += (
                f" && ip address add {address}/24 dev here && ip link set here up && ip link set there up"
            )
        script += " && echo ready && exec sleep infinity"
        self._holder = Process(["unshare", *user, "--net", "sh", "-c", f"PATH=$PATH:/usr/sbin; {script}"])
        self._holder.wait_for_line(lambda line: line == "ready", 10)
        self._enter = ["nsenter", f"--target={self._holder.child.pid}", "--net"]
        if user:
            self._enter += ["--user", "--preserve-credentials"]

    @property
    def process(self) -> int:
        """One that is in it for as long as it is there."""
        return self._holder.child.pid

    def do(self, script: str) -> None:
        """Lines for the shell."""
        environment = {"PATH": os.defpath + ":/usr/sbin:/sbin"}
        subprocess.run([*self._enter, "sh", "-ec", script], env=environment, check=True)

    def run(self, *command: object, **environment: str) -> Process:
        process = Process([*self._enter, *map(str, command)], **environment)
        self._processes.append(process)
        return process

    def start(self, *command: object, **environment: str) -> Process:
        return self.run(sys.executable, *command, **environment)

    @contextlib.contextmanager
    def broken(self, packets: str = "") -> Iterator[None]:
        """Loses all packets, or those of which that is true in the filter's language."""
        table = "add table inet fault; add chain inet fault input { type filter hook input priority 0; }; "
        self._filter(table + f"add rule inet fault input {packets} drop")
        try:
            yield
        finally:
            self._filter("delete table inet fault")

    def _filter(self, command: str) -> None:
        told = subprocess.run(
            [*self._enter, "nft", command], env={"PATH": os.defpath + ":/usr/sbin"}, capture_output=True
        )
        if told.returncode != 0:
            pytest.skip(f"the kernel filters no packets: {told.stderr.decode()}")

    def clear(self) -> None:
        """Ends everything that was started, the latest first."""
        while self._processes:
            self._processes.pop().end(signal.SIGKILL)

    def close(self) -> None:
        self.clear()
        self._holder.end()


class Server(Process):
    """The server as the command line starts it, with one room."""

    @classmethod
    def on(cls, network: Network, folder: Path, *options: object, command: str = "serve") -> "Server":
        key = "" if "--anyone-may-make-rooms" in options else ADMIN_KEY
        started = network.start(
            "-m", "tavrin_media_relay.server", command, "--dir", folder, "--address", network.address,
            "--room", "marks", *options, SARNET_RELAY_ADMIN_KEY=key,
        )  # fmt: skip
        started.__class__ = cls
        assert isinstance(started, cls)
        started.network, started.folder = network, folder
        started.wait_for_line(lambda line: "Over TLS" in line or "export API_HOSTNAME" in line)
        return started

    network: Network
    folder: Path

    @property
    def host(self) -> str:
        return "ws://127.0.0.1:8188" if self.network.loopback else f"wss://{self.network.address}:8989"

    def janus(self) -> int:
        """The process number of the server proper."""
        wanted = f"janus\0-F\0{self.folder}\0".encode()
        for process in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):
                if (process / "cmdline").read_bytes() == wanted:
                    return int(process.name)
        raise LookupError("the server is not running")

    def program(
        self,
        maker: int,
        *options: object,
        script: str = "program.py",
        network: Network | None = None,
        **environment: str,
    ) -> Process:
        """Maker N has tones of its own, so that nobody is taken for another. In the server's network unless
        another is named."""
        variables = {"API_HOSTNAME": self.host, "SARNET_RELAY_CA_FILE": str(self.folder / "cert.pem")}
        variables |= {"TOKEN": join_token("marks", SECRET)} | environment
        tones = (500 + 200 * maker, 600 + 200 * maker)
        where = network or self.network
        return where.start(HERE / script, "--maker", maker, "--tones", *tones, *options, **variables)
