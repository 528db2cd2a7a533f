"""One door in front of several servers: what happens to rooms when a server, or a door, dies or hangs."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import time
from pathlib import Path

import pytest
from processes import ADMIN_KEY, HERE, SECRET, Network, Process

from tavrin_media_relay.server.front import Front, Place, place, server
from tavrin_media_relay.server.tokens import join_token

needs_haproxy = pytest.mark.skipif(not shutil.which("haproxy"), reason="haproxy is not installed")
ROOM = "together"


class Servers:
    """Some relay servers and two doors on one network, all started as the command line does."""

    def __init__(self, network: Network, folder: Path, count: int, doors: int = 2) -> None:
        self.network, self.folder = network, folder
        self.relays = [self._relay(number) for number in range(count)]
        for relay in self.relays:
            relay.wait_for_line(lambda line: "export API_HOSTNAME" in line)
        peers = {f"door{number}": Place("127.0.0.1", 9500 + number) for number in range(doors)}
        self.configurations = []
        for number in range(doors):
            front = Front(
                [server(f"127.0.0.1:{8100 + each}/{8300 + each}") for each in range(count)],
                bind=Place("127.0.0.1", 9400 + number), name=f"door{number}", peers=peers,
                metrics=Place("127.0.0.1", 9600 + number),
            )  # fmt: skip
            self.configurations.append(folder / f"door{number}.cfg")
            self.configurations[-1].write_text(front.configuration())
        self.doors = [self.open_door(number) for number in range(doors)]

    def _relay(self, number: int, *options: object) -> Process:
        first = 20000 + 500 * number
        return self.network.start(
            "-m", "tavrin_media_relay.server", "serve", "--dir", self.folder / f"relay{number}",
            "--port", 8100 + number, "--rtp-ports", f"{first}-{first + 499}",
            "--agent-check", f"127.0.0.1:{8300 + number}", *options,
            SARNET_RELAY_ADMIN_KEY=ADMIN_KEY,
        )  # fmt: skip

    def open_door(self, number: int) -> Process:
        door = self.network.run("haproxy", "-L", f"door{number}", "-f", self.configurations[number])
        # Open once it has found every server that lives.
        wait = (
            "import time, urllib.request as u\n"
            "end, up = time.monotonic() + 15, 0\n"
            f"while up < {len(self.janus())} and time.monotonic() < end:\n"
            f"    try: page = u.urlopen('http://127.0.0.1:{9600 + number}/metrics').read().decode()\n"
            "    except OSError: page = ''\n"
            "    lines = [line for line in page.splitlines() if line.startswith('haproxy_server_status{')]\n"
            "    up = sum('state=\"UP\"' in line and line.endswith(' 1') for line in lines)\n"
            "    time.sleep(0.05)\n"
            "print('up', up)\n"
        )
        self.network.start("-c", wait).wait_for_line(lambda line: line == f"up {len(self.janus())}")
        return door

    def program(self, name: str, door: int = 0, room: str = ROOM) -> Process:
        return self.network.start(
            HERE / "rejoiner.py", name, API_HOSTNAME=f"ws://127.0.0.1:{9400 + door}/room/{room}",
            SESSION_ID=room, TOKEN=join_token(room, SECRET), SARNET_RELAY_ADMIN_KEY=ADMIN_KEY,
        )  # fmt: skip

    def janus(self) -> dict[int, int]:
        """The processes of the servers proper, by number, with how many sockets each has to its door."""
        found = {}
        for number in range(len(self.relays)):
            wanted = f"janus\0-F\0{self.folder / f'relay{number}'}\0".encode()
            for process in Path("/proc").glob("[0-9]*"):
                try:
                    if (process / "cmdline").read_bytes() == wanted:
                        found[number] = int(process.name)
                except OSError:
                    pass
        return found

    def server_of(self, room_programs: int) -> int:
        """The number of the server that has so many connections through the doors."""
        deadline = time.monotonic() + 10
        while time.monotonic() < deadline:
            table = Path(f"/proc/{self.network.process}/net/tcp").read_text().splitlines()[1:]
            rows = [line.split() for line in table]
            for number in self.janus():
                port = f"{8100 + number:04X}"
                count = sum(row[1].endswith(f":{port}") and row[3] == "01" for row in rows)
                if count >= room_programs:
                    return number
            time.sleep(0.1)
        raise AssertionError("no server has the room")


def together(*programs: Process, after: float = 0.0, patience: float = 30.0) -> float:
    """Waits until each has heard another one; seconds from `after` until the last did."""
    return max(each.wait_for("heard", patience)["at"] for each in programs) - after


@pytest.fixture
def servers(enter_network, tmp_path) -> Servers:
    network = enter_network(None)
    return Servers(network, tmp_path, 3)


@needs_haproxy
def test_a_room_goes_on_elsewhere_when_its_server_dies_or_hangs(servers):
    one, other = servers.program("one", door=0), servers.program("other", door=1)
    together(one, other)
    for number, most in ((signal.SIGKILL, 4.0), (signal.SIGSTOP, 9.0)):
        where = servers.server_of(2)
        began = time.monotonic()
        os.kill(servers.janus()[where], number)
        took = together(one, other, after=began)
        print(f"{signal.Signals(number).name}: together again after {took:.2f} s")
        assert took < most * 2  # on a busy machine; measured alone it is below
        assert servers.server_of(2) != where
        kinds = [event["event"] for event in one.events()]
        assert "SessionFailed" not in kinds and kinds.count("SessionRejoined") >= 1


@needs_haproxy
def test_a_door_that_dies_ends_no_session(servers):
    one, other = servers.program("one"), servers.program("other", door=1)
    together(one, other)
    where = servers.server_of(2)
    servers.doors[0].end(signal.SIGKILL)
    time.sleep(1.0)
    servers.doors[0] = servers.open_door(0)
    third = servers.program("third")  # through the new one, which learnt from its peer where the room is
    together(third)
    assert servers.server_of(3) == where
    for each in (one, other):
        while not each._lines.empty():
            line = each._lines.get()
            assert line is not None and "SessionLost" not in line and "SessionFailed" not in line


@needs_haproxy
def test_a_server_that_drains_keeps_its_rooms_and_gets_no_new_ones(servers):
    one = servers.program("one")
    one.wait_for("joined")
    where = servers.server_of(1)
    servers.relays[where].child.send_signal(signal.SIGTERM)
    servers.relays[where].wait_for_line(lambda line: "Draining" in line)
    time.sleep(1.5)  # the doors ask twice a second
    other = servers.program("other", door=1)
    together(one, other)
    assert servers.server_of(2) == where
    news = [servers.program(f"new{number}", room=f"new-{number}") for number in range(3)]
    for each in news:
        each.wait_for("joined")
    assert servers.server_of(2) == where and servers.relays[where].child.poll() is None
    for each in (one, other):
        each.end()
    assert servers.relays[where].child.wait(20) == 0  # the last one has left
    assert all(each.child.poll() is None for each in news)


@needs_haproxy
def test_a_door_gives_figures_and_lets_nothing_else_in(servers):
    read = (
        "import urllib.request as u, urllib.error as e\n"
        "print(u.urlopen('http://127.0.0.1:9600/metrics').read().decode())\n"
        "for path in ('/', '/room/', '/room/../x', '/room/a/b', '/admin', '/room/%2e%2e'):\n"
        "    try: print('answered', path, u.urlopen('http://127.0.0.1:9400' + path).status)\n"
        "    except e.HTTPError as error: print('refused', path, error.code)\n"
    )
    said = "\n".join(servers.network.start("-c", read).rest())
    assert 'haproxy_server_status{proxy="janus"' in said
    assert said.count("refused") == 6 and "answered" not in said


@needs_haproxy
@pytest.mark.parametrize("pools", [[""], ["", "k2"], ["k2"]])
@pytest.mark.parametrize("peers", [0, 2])
def test_haproxy_takes_what_is_written(tmp_path, pools, peers):
    pem = tmp_path / "door.pem"
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1", "-subj", "/CN=door",
         "-keyout", pem, "-out", tmp_path / "cert.pem"],
        check=True, capture_output=True,
    )  # fmt: skip
    pem.write_text(pem.read_text() + (tmp_path / "cert.pem").read_text())
    servers = [server(f"{pool}{'=' if pool else ''}10.0.0.{at}:8989") for pool in pools for at in range(1, 4)]
    servers = servers[:3] if len(pools) == 1 else [*servers[:3], server("k2=[2001:db8::1]:8989/9000")]
    doors = {f"door{number}": Place("127.0.0.1", 9000 + number) for number in range(1, peers + 1)}
    front = Front(
        servers,
        Place("0.0.0.0", 9443),
        pem,
        tmp_path / "cert.pem",
        Place("localhost", 8989),
        5,
        "door1",
        doors,
    )
    file = tmp_path / "haproxy.cfg"
    file.write_text(front.configuration())
    checked = subprocess.run(["haproxy", "-L", "door1", "-c", "-f", file], capture_output=True, text=True)
    assert checked.returncode == 0, checked.stderr


@pytest.mark.parametrize(
    "arguments, named",
    [
        ({"servers": []}, "--server"),
        ({"servers": ["10.0.0.1:8989"]}, "--ca"),
        ({"servers": ["127.0.0.1:1", "127.0.0.1:1"]}, "--server"),
        ({"servers": ["127.0.0.1:1"], "bind": "0.0.0.0:443"}, "--certificate"),
        ({"servers": ["127.0.0.1:1"], "name": "b"}, "--name"),
        ({"servers": ["127.0.0.1:1"], "ca": Path("/a b")}, "--ca"),
        ({"servers": ["nowhere"]}, "--server"),
        ({"servers": ["a:1\n  server evil"]}, "--server"),
        ({"servers": ["127.0.0.1:70000"]}, "--server"),
        ({"servers": ["K 2=127.0.0.1:1"]}, "--server"),
        ({"servers": ["127.0.0.1:1/x"]}, "--server"),
    ],
)
def test_wrong_arguments_are_named(arguments, named):
    with pytest.raises(ValueError, match=f"^{named}:"):
        Front(
            [server(each) for each in arguments["servers"]],
            bind=place("--bind", arguments.get("bind", "127.0.0.1:9443")),
            ca=arguments.get("ca"),
            name=arguments.get("name", "a"),
            peers={"a": Place("h", 1)} if "name" in arguments else {},
        )
