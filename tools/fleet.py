"""A fleet on this machine: two relay servers behind one door, a broker, and two workers that serve an agent.

    ./dev fleet [--agent examples/greeter.py] [--port 9400]

Prints a link to a room in your browser, and what you may kill. Everything is on loopback, ends with Ctrl-C,
and is made of the commands that docs/scaling.md tells of. Ports: seven from --port on, and 24000-24999.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import secrets
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.parse
from pathlib import Path

from tavrin_media_relay.server import join_token
from tavrin_media_relay.server.page_server import PageServer, find_page

ROOT = Path(__file__).resolve().parents[1]
ME = [sys.executable, "-m", "tavrin_media_relay"]
START_SECONDS = 20.0


class Fleet:
    """A context manager. `processes` has them by name: broker, relay1, relay2, door, worker1, worker2."""

    def __init__(
        self,
        folder: Path,
        agent: Path,
        port: int = 9400,
        servers: int = 2,
        workers: int = 2,
        on_join: bool = True,
    ) -> None:
        self.folder, self.agent, self.port = folder, agent, port
        self.servers, self.workers, self.on_join = servers, workers, on_join
        self.secret = secrets.token_hex(16)
        self.processes: dict[str, subprocess.Popen[bytes]] = {}
        self.broker = f"redis://127.0.0.1:{port + 1}"
        self._stack = contextlib.ExitStack()

    def __enter__(self) -> "Fleet":
        try:
            self._start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        for process in reversed(self.processes.values()):
            process.terminate()
        deadline = time.monotonic() + 3
        for name, process in reversed(self.processes.items()):
            if name.startswith("worker"):
                process.terminate()  # not drained: at once
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(max(0.1, deadline - time.monotonic()))
            if process.poll() is None:
                process.kill()
                process.wait()
        self._stack.close()

    def _start(self) -> None:
        port = self.port
        self._run("broker", ["redis-server", "--port", str(port + 1), "--bind", "127.0.0.1", "--save", "",
                             "--dir", str(self.folder)])  # fmt: skip
        self._await_port("broker", port + 1)
        places = []
        for number in range(1, self.servers + 1):
            relay, check = port + 1 + 2 * number, port + 2 + 2 * number
            first = 24000 + 500 * (number - 1)
            self._run(f"relay{number}", [
                *ME, "relay", "serve", "--dir", str(self.folder / f"relay{number}"), "--port", str(relay),
                "--rtp-ports", f"{first}-{first + 499}", "--anyone-may-make-rooms", "--drain", "10",
                "--agent-check", f"127.0.0.1:{check}", "--broker", self.broker,
                *(["--on-join", f"*={self.agent.stem}"] if self.on_join else []),
            ])  # fmt: skip
            places.append(f"127.0.0.1:{relay}/{check}")
        configuration = self.folder / "haproxy.cfg"
        arguments = [word for place in places for word in ("--server", place)]
        with configuration.open("wb") as file:
            subprocess.run([*ME, "relay", "front", *arguments, "--bind", f"127.0.0.1:{port}"],
                           stdout=file, check=True)  # fmt: skip
        for number, place in enumerate(places, 1):
            self._await_port(f"relay{number}", int(place.rpartition("/")[2]))
        self._run("door", ["haproxy", "-q", "-f", str(configuration)])
        self._await_port("door", port)
        for number in range(1, self.workers + 1):
            self.start_worker(number)
        page = PageServer("127.0.0.1", port + 2, port + 3, find_page())
        self.page = self._stack.enter_context(page).url

    def start_worker(self, number: int) -> None:
        self._run(f"worker{number}", [
            *ME, "serve", str(self.agent), "--broker", self.broker, "--sessions", "8", "--warm", "1",
            "--relay", f"ws://127.0.0.1:{self.port}/room/{{room}}", "--log", "json",
        ])  # fmt: skip

    def link(self, room: str) -> str:
        server = f"ws://localhost:{self.port}/room/{room}"
        words = {"room": room, "token": join_token(room, self.secret), "server": server}
        return f"{self.page}#{urllib.parse.urlencode(words)}"

    def _run(self, name: str, command: list[str]) -> None:
        log = self.folder / f"{name}.log"
        environment = os.environ | {"SARNET_RELAY_TOKEN_SECRET": self.secret}
        environment.pop("SARNET_RELAY_ADMIN_KEY", None)
        with log.open("ab") as output:
            self.processes[name] = subprocess.Popen(
                ["setpriv", "--pdeathsig", "TERM", *command], env=environment, stdout=output, stderr=output,
                stdin=subprocess.DEVNULL, start_new_session=True,
            )  # fmt: skip

    def _await_port(self, name: str, port: int) -> None:
        deadline = time.monotonic() + START_SECONDS
        while True:
            with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 1):
                return
            if self.processes[name].poll() is not None or time.monotonic() > deadline:
                raise SystemExit(
                    f"{name} does not start:\n{(self.folder / f'{name}.log').read_text()[-2000:]}"
                )
            time.sleep(0.05)


def main() -> int:
    parser = argparse.ArgumentParser(prog="./dev fleet", description=__doc__.splitlines()[0])
    parser.add_argument("--agent", type=Path, default=ROOT / "examples" / "greeter.py")
    parser.add_argument("--port", type=int, default=9400)
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    with tempfile.TemporaryDirectory(prefix="tavrin-fleet-") as name:
        os.chmod(name, 0o755)
        with Fleet(Path(name), options.agent, options.port) as fleet:
            print(f"Open a room, and the agent {options.agent.stem} comes (Ctrl-C ends it all):\n")
            for room in ("kitchen", "garden"):
                print(f"  {fleet.link(room)}\n")
            print("Then kill what you like: the rooms go on.\n")
            for each, process in fleet.processes.items():
                print(f"  {each:8} kill -9 -{process.pid}    log: {name}/{each}.log")
            print(f"\nWho serves whom: tavrin-media-relay jobs --broker {fleet.broker}", flush=True)
            with contextlib.suppress(KeyboardInterrupt):
                signal.pause()
    return 0


if __name__ == "__main__":
    sys.exit(main())
