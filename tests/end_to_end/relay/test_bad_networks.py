"""Programs at the other end of a bad link: what must heal, heals, and what cannot is told."""

from __future__ import annotations

import os
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from bad_link import BadLink
from processes import Network, Process, Server

HERE_ADDRESS, AWAY_ADDRESS, OTHER_ADDRESS = "10.9.0.1", "10.9.0.2", "10.9.0.3"

pytestmark = pytest.mark.skipif(
    os.geteuid() != 0 or not Path("/dev/net/tun").exists(), reason="interfaces are root's to make"
)


class Away:
    """A network with the server, another without, and a link between them that is good until told."""

    def __init__(self) -> None:
        self.here, self.away = Network(None), Network(None)
        self.link = BadLink(
            (self.here.process, f"{HERE_ADDRESS}/24"), (self.away.process, f"{AWAY_ADDRESS}/24")
        )
        self.here.address, self.here.loopback = HERE_ADDRESS, False

    def change_address(self) -> None:
        self.away.do(f"ip address del {AWAY_ADDRESS}/24 dev bad0; ip address add {OTHER_ADDRESS}/24 dev bad0")
        self.away.do(f"ip route replace default via {HERE_ADDRESS}")

    def close(self) -> None:
        for network in (self.away, self.here):
            network.close()
        self.link.close()


@pytest.fixture
def away() -> Iterator[Away]:
    made = Away()
    yield made
    made.close()


def progress(program: Process) -> tuple[float, int, int, int]:
    """The next: when it was told, how many pictures had come, blocks of sound, and of these loud ones."""
    told = program.wait_for("progress")
    [(pictures, blocks, loud)] = told["streams"].values()
    return told["at"], pictures, blocks, loud


def wait_for_media(program: Process, since: float, limit: float) -> float:
    """Pictures and sound for a second, in which what waited before does not count, not later than `limit`
    seconds after that moment. Gives how long they took to begin."""
    at, *before = progress(program)
    while at < since:
        at, *before = progress(program)
    while True:
        now, *counts = progress(program)
        if counts[0] > before[0] + 3 and counts[1] > before[1] + 30:
            return now - since
        assert now < since + limit + 1, (program.said[-1], counts, before)


def join(away: Away, folder: Path, *options: str) -> tuple[Server, Process, Process]:
    server = Server.on(away.here, folder / "server")
    near = server.program(1, "--progress", *options)
    far = server.program(2, "--progress", *options, network=away.away)
    near.wait_for("enough")
    far.wait_for("enough")
    return server, near, far


def faults(program: Process) -> list[str]:
    names = ("error", "dropped", "unsubscribed", "disconnected")
    return [
        line for line in program.said if line.startswith("{") and any(name in line[:60] for name in names)
    ]


def lose_link(away: Away, seconds: float) -> float:
    away.link.order(down=True)
    time.sleep(seconds)  # so long it lasts
    away.link.order()
    return time.monotonic()


def change_address(away: Away) -> float:
    away.change_address()
    return time.monotonic()


def block_media(away: Away, seconds: float) -> float:
    with away.away.broken("meta l4proto udp"), away.here.broken("iifname bad0 meta l4proto udp"):
        time.sleep(seconds)
    return time.monotonic()


@pytest.mark.parametrize(
    "fault",
    [change_address, lambda away: lose_link(away, 10), lambda away: lose_link(away, 15),
     lambda away: block_media(away, 12)],
    ids=["address", "away for 10 s", "away for 15 s", "media blocked for 12 s"],
)  # fmt: skip
def test_media_come_again_within_five_seconds(
    away: Away, tmp_path: Path, fault: Callable[[Away], float]
) -> None:
    _, *programs = join(away, tmp_path)
    mended = fault(away)
    took = [wait_for_media(program, mended, 5) for program in programs]
    print(f"near {took[0]:.1f} s, far {took[1]:.1f} s")
    assert not [faults(program) for program in programs if faults(program)]
    for program in programs:
        assert len(program.leave()["received"]) == 1


def test_a_link_for_hardly_more_than_sound_loses_no_session(away: Away, tmp_path: Path) -> None:
    """Sound goes first: it never stops, and pictures are left out for it."""
    _, *programs = join(away, tmp_path, "--busy")
    away.link.order(kbit_s=150)
    begins = [progress(program) for program in programs]
    ends = begins
    while min(at for at, *_ in ends) < begins[0][0] + 20:
        ends = [progress(program) for program in programs]
    away.link.order()
    mended = time.monotonic()
    for program in programs:
        wait_for_media(program, mended, 10)
    for program, begin, end in zip(programs, begins, ends):
        seconds = end[0] - begin[0]
        assert end[2] - begin[2] > 0.8 * 100 * seconds, (begin, end)
        # Of 30 a second; what is filled in for several lost packets is soon silent.
        assert end[3] - begin[3] > 0.5 * 30 * seconds, (begin, end)
        assert not faults(program)
        program.leave()


def test_media_that_cannot_come_any_more_are_an_error(away: Away, tmp_path: Path) -> None:
    """Of the streams alone: the session, whose messages still come, goes on."""
    _, near, far = join(away, tmp_path)
    with away.away.broken("meta l4proto udp"), away.here.broken("iifname bad0 meta l4proto udp"):
        begin = time.monotonic()
        codes = {far.wait_for("subscriber error", 40)["code"]}
        publisher = [each for each in far.events() if each["event"] == "publisher error"]
        codes.add((publisher[0] if publisher else far.wait_for("publisher error", 10))["code"])
        took = time.monotonic() - begin
    assert codes == {1600, 1610} and 25 < took < 40, (codes, took)
    near.wait_for("stream dropped")
    assert not [each for each in near.events() + far.events() if each["event"] == "session error"]
    assert far.leave()["seconds"] < 2.5


# Sends numbered datagrams, or takes them for some seconds and tells which came and when.
PROBE = """
import json, socket, sys, time
role, address, count, size, pause = sys.argv[1], sys.argv[2], *map(float, sys.argv[3:])
with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as plug:
    if role == "send":
        begin = time.monotonic()
        for number in range(int(count)):
            time.sleep(max(0.0, begin + number * pause - time.monotonic()))
            text = json.dumps([number, time.monotonic()])
            plug.sendto(text.encode().ljust(int(size)), (address, 5555))
    else:
        plug.bind((address, 5555))
        print(json.dumps({"event": "ready"}), flush=True)
        plug.settimeout(3)
        came = []
        try:
            while True:
                number, sent = json.loads(plug.recv(2000))
                now = time.monotonic()
                plug.settimeout(1)
                came.append((number, now - sent, now))
        except TimeoutError:
            print(json.dumps({"event": "came", "packets": came}), flush=True)
"""


def test_the_bad_link_is_as_bad_as_it_says(away: Away) -> None:
    def send(count: int, size: int, pause: float, **order: object) -> list[tuple[int, float, float]]:
        away.link.order(**order)
        taker = away.here.start("-c", PROBE, "take", HERE_ADDRESS, 0, 0, 0)
        taker.wait_for("ready")
        away.away.start("-c", PROBE, "send", HERE_ADDRESS, count, size, pause)
        return [(number, delay, at) for number, delay, at in taker.wait_for("came")["packets"]]

    good = send(200, 100, 0.002)
    assert [number for number, _, _ in good] == list(range(200))
    lossy = send(1000, 100, 0.001, loss=0.1)
    assert 850 < len(lossy) < 950
    late = send(100, 100, 0.01, delay_ms=80, jitter_ms=100)
    assert [number for number, _, _ in late] == list(range(100))
    delays = sorted(delay for _, delay, _ in late)
    assert delays[0] >= 0.08 and 0.1 < delays[50] < 0.25, delays
    mixed = [number for number, _, _ in send(500, 100, 0.002, reorder=0.2)]
    assert sorted(mixed) == list(range(500))
    assert 40 < sum(later < sooner for sooner, later in zip(mixed, mixed[1:]))
    # A datagram of 972 bytes is a packet of 1000; what waits longer than the queue takes is lost.
    slow = send(200, 972, 0.01, kbit_s=200, queue_ms=200)
    rate = (len(slow) - 1) * 8 / (slow[-1][2] - slow[0][2])
    assert 180 < rate < 215 and len(slow) < 80, (rate, len(slow))
    assert max(delay for _, delay, _ in slow) < 0.45
    assert send(50, 100, 0.002, down=True) == []
