"""Many rooms on many servers: does a real HAProxy spread them, and move but those of servers that died?

    sudo ./dev python benchmarks/fleet/many_rooms.py [--servers 1000] [--rooms 10000]

The servers are stubs in one process: each listens on a port of its own, takes a WebSocket's handshake and
holds the connection. One participant a room. Needs two descriptors a room for the door, and as many ports."""

from __future__ import annotations

import argparse
import asyncio
import collections
import resource
import statistics
import subprocess
import tempfile
import time
from pathlib import Path

from tavrin_media_relay.server.front import Front, Place, Server

FIRST, DOOR, METRICS = 30000, 29000, 29001
AGENT = 29999
_TAKEN = b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n"
_ASK = (
    "GET /room/{room} HTTP/1.1\r\nHost: door\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n"
)


class Stubs:
    def __init__(self, count: int) -> None:
        self.count = count
        self.rooms: dict[int, set[str]] = collections.defaultdict(set)
        self._servers: dict[int, asyncio.Server] = {}
        self._writers: dict[int, set[asyncio.StreamWriter]] = collections.defaultdict(set)

    async def start(self) -> None:
        async def agent(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
            writer.write(b"up ready 100%\n")
            writer.close()

        await asyncio.start_server(agent, "127.0.0.1", AGENT, backlog=4096)
        for number in range(self.count):
            self._servers[number] = await asyncio.start_server(
                lambda reader, writer, number=number: self._serve(number, reader, writer),
                "127.0.0.1", FIRST + number, backlog=256,
            )  # fmt: skip

    async def _serve(self, number: int, reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        self._writers[number].add(writer)
        room = ""
        try:
            head = await reader.readuntil(b"\r\n\r\n")
            room = head.split()[1].decode().rpartition("/")[2]
            self.rooms[number].add(room)
            writer.write(
                b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n\r\n"
            )
            await reader.read()
        except (asyncio.IncompleteReadError, ConnectionError):
            pass
        finally:
            self.rooms[number].discard(room)
            self._writers[number].discard(writer)
            writer.close()

    def kill(self, number: int) -> None:
        self._servers[number].close()
        for writer in tuple(self._writers[number]):
            writer.transport.abort()

    def where(self) -> dict[str, int]:
        return {room: number for number, rooms in self.rooms.items() for room in rooms}


async def stay(room: str, turn: asyncio.Semaphore) -> None:
    """A participant that joins again when it is cut off."""
    while True:
        try:
            async with turn:
                reader, writer = await asyncio.open_connection("127.0.0.1", DOOR)
                writer.write(_ASK.format(room=room).encode())
                await reader.readuntil(b"\r\n\r\n")
            await reader.read()
            writer.close()
        except (asyncio.IncompleteReadError, ConnectionError, OSError):
            pass
        await asyncio.sleep(0.2)


async def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--servers", type=int, default=1000)
    parser.add_argument("--rooms", type=int, default=10_000)
    parser.add_argument("--kill", type=int, default=10)
    options = parser.parse_args()
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    stubs = Stubs(options.servers)
    await stubs.start()
    with tempfile.TemporaryDirectory() as name:
        front = Front(
            [Server(Place("127.0.0.1", FIRST + each), "", AGENT) for each in range(options.servers)],
            bind=Place("127.0.0.1", DOOR), metrics=Place("127.0.0.1", METRICS),
        )  # fmt: skip
        configuration = Path(name) / "haproxy.cfg"
        # As soon as it is up a server gets its full share: nobody waits half a minute here.
        text = front.configuration().replace(" slowstart 30s", "")
        # Thousands of checks a second are more than one process of stubs can answer.
        configuration.write_text(text.replace("inter 500ms", "inter 10s"))
        door = subprocess.Popen(["haproxy", "-q", "-f", configuration], stderr=subprocess.DEVNULL)
        await asyncio.sleep(5)
        turn = asyncio.Semaphore(50)
        began = time.monotonic()
        staying = [asyncio.create_task(stay(f"room-{number}", turn)) for number in range(options.rooms)]
        while len(stubs.where()) < options.rooms:
            await asyncio.sleep(0.1)
            if time.monotonic() - began > 120:
                raise SystemExit(f"only {len(stubs.where())} rooms after 120 s")
        print(f"{options.rooms} rooms after {time.monotonic() - began:.1f} s")
        before = stubs.where()
        counts = [len(stubs.rooms[number]) for number in range(options.servers)]
        print(f"rooms a server: {min(counts)} to {max(counts)}, mean {statistics.mean(counts):.1f}")
        dead = set(range(0, options.servers, options.servers // options.kill))
        began = time.monotonic()
        for number in dead:
            stubs.kill(number)
        lost = {room for room, number in before.items() if number in dead}
        while True:
            now = stubs.where()
            if len(now) == options.rooms and not any(number in dead for number in now.values()):
                break
            await asyncio.sleep(0.05)
            if time.monotonic() - began > 60:
                raise SystemExit(f"{options.rooms - len(now)} rooms are gone after 60 s")
        moved = {room for room in now if now[room] != before[room]}
        took = time.monotonic() - began
        print(f"{len(dead)} servers killed: {len(moved)} rooms moved within {took:.1f} s")
        print(f"{len(moved - lost)} of them were not theirs, {len(lost - moved)} of theirs did not move")
        resident = int(Path(f"/proc/{door.pid}/statm").read_text().split()[1]) * 4096 / 2**20
        print(f"HAProxy: {resident:.0f} MiB")
        for task in staying:
            task.cancel()
        door.kill()
        door.wait()


asyncio.run(main())
