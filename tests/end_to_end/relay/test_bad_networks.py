"""Programs at the other end of a bad link: what must heal, heals, and what cannot is told."""

from __future__ import annotations

import json
import os
import signal
import sys
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from bad_link import BadLink
from processes import HERE, Network, Process, Server

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


Flow = dict[str, float]


def progress(program: Process) -> tuple[float, int, int]:
    """The next: when it was told, how many pictures had come, and blocks of sound."""
    told = program.wait_for("progress")
    [(pictures, blocks)] = told["streams"].values()
    return told["at"], pictures, blocks


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


def join(away: Away, folder: Path) -> tuple[Server, Process, Process]:
    server = Server.on(away.here, folder / "server")
    near = server.program(1, "--progress")
    far = server.program(2, "--progress", network=away.away)
    near.wait_for("enough")
    far.wait_for("enough")
    return server, near, far


def faults(program: Process) -> list[str]:
    names = ("error", "dropped", "unsubscribed", "disconnected")
    return [line for line in program.said if line.startswith("{") and any(name in line[:60] for name in names)]


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
