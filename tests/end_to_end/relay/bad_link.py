"""A bad link between two network namespaces: delays, loses, reorders and limits packets, each way.

    bad_link.py PID ADDRESS PID ADDRESS [--seed N]

The processes say which namespaces; in each comes an interface "bad0" with that address ("10.9.0.1/24"). The
process between them reads orders, one JSON object on each line of its standard input, and answers each with
"done"; it ends, and the interfaces with it, at the end of the input. An order replaces what went before:

    loss       share of packets that are lost
    delay_ms   how long each packet takes
    jitter_ms  up to so much longer, evenly at random; packets stay in order
    reorder    share of packets that are held back 30 ms, so that later ones overtake them
    kbit_s     how much goes through; none for all
    queue_ms   how much waits at that rate before packets are dropped: 300 unless given
    down       nothing goes through

All hold for each way by itself, counted in whole IP packets. Needs root, and /dev/net/tun."""

from __future__ import annotations

import argparse
import ctypes
import fcntl
import heapq
import itertools
import json
import os
import random
import select
import struct
import subprocess
import sys
import time
from pathlib import Path
from typing import Any

HELD_BACK = 0.03
TUNSETIFF, IFF_TUN, IFF_NO_PI, CLONE_NEWNET = 0x400454CA, 1, 0x1000, 0x40000000
MTU = 1500


def make_interface(process: int, address: str) -> int:
    """Makes it in the namespace of that process, and gives its descriptor. For a process of one thread."""
    libc = ctypes.CDLL(None, use_errno=True)
    own, other = (os.open(f"/proc/{each}/ns/net", os.O_RDONLY | os.O_CLOEXEC) for each in ("self", process))

    def enter(namespace: int) -> None:
        if libc.setns(namespace, CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "cannot enter the namespace")

    enter(other)
    try:
        interface = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
        fcntl.ioctl(interface, TUNSETIFF, struct.pack("16sH22x", b"bad0", IFF_TUN | IFF_NO_PI))
        environment = os.environ | {"PATH": os.defpath + ":/usr/sbin:/sbin"}
        for command in (
            f"ip address add {address} dev bad0",
            "ip link set bad0 mtu 1500 txqueuelen 1000 up",
        ):
            subprocess.run(command.split(), check=True, env=environment)
    finally:
        enter(own)
        os.close(own)
        os.close(other)
    return interface


class Way:
    """The packets in one direction."""

    def __init__(self, source: int, target: int, seed: int) -> None:
        self.source, self.target = source, target
        self._random = random.Random(seed)
        self._waiting: list[tuple[float, int, bytes]] = []
        self._numbers = itertools.count()
        self._free_at = 0.0  # when the last packet has gone onto the line
        self._last_due = 0.0
        self.order({})

    def order(self, order: dict[str, Any]) -> None:
        self._loss = float(order.get("loss", 0))
        self._delay = float(order.get("delay_ms", 0)) / 1000
        self._jitter = float(order.get("jitter_ms", 0)) / 1000
        self._reorder = float(order.get("reorder", 0))
        self._rate = float(order.get("kbit_s") or 0) * 1000
        self._most = float(order.get("queue_ms", 300)) / 1000
        self._down = bool(order.get("down", False))
        if self._down:
            self._waiting.clear()
        self._free_at = 0.0

    def take(self) -> None:
        """All that has come."""
        while True:
            try:
                packet = os.read(self.source, 65536)
            except BlockingIOError:
                return
            if self._down or self._random.random() < self._loss:
                continue
            due = now = time.monotonic()
            if self._rate:
                start = max(now, self._free_at)
                if start - now > self._most:
                    continue
                due = self._free_at = start + len(packet) * 8 / self._rate
            due += self._delay + self._random.random() * self._jitter
            if self._random.random() < self._reorder:
                due += HELD_BACK
            else:
                due = self._last_due = max(due, self._last_due)
            heapq.heappush(self._waiting, (due, next(self._numbers), packet))

    def pass_on(self) -> float | None:
        """Gives on what is due; tells how long the next packet has."""
        while self._waiting:
            left = self._waiting[0][0] - time.monotonic()
            if left > 0:
                return left
            packet = heapq.heappop(self._waiting)[2]
            try:
                os.write(self.target, packet)
            except OSError:
                pass  # the interface is down
        return None


class BadLink:
    """The same in a process of its own. For whoever made the namespaces."""

    def __init__(self, first: tuple[int, str], second: tuple[int, str], seed: int = 1) -> None:
        ends = [str(each) for each in (*first, *second)]
        self._process = subprocess.Popen(
            [sys.executable, str(Path(__file__).resolve()), *ends, "--seed", str(seed)],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
        )  # fmt: skip
        self._answer("the link cannot be made")

    def _answer(self, failure: str) -> None:
        assert self._process.stdout is not None
        if self._process.stdout.readline() != "done\n":
            raise OSError(failure)

    def order(self, **order: object) -> None:
        """Takes the arguments that the file's beginning lists; without any the link is good."""
        assert self._process.stdin is not None
        self._process.stdin.write(json.dumps(order) + "\n")
        self._process.stdin.flush()
        self._answer("the link has ended")

    def close(self) -> None:
        self._process.communicate()


def main() -> None:
    parser = argparse.ArgumentParser()
    for end in ("first", "second"):
        parser.add_argument(f"{end}_process", type=int)
        parser.add_argument(f"{end}_address")
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    first = make_interface(options.first_process, options.first_address)
    second = make_interface(options.second_process, options.second_address)
    ways = [Way(first, second, 2 * options.seed), Way(second, first, 2 * options.seed + 1)]
    print("done", flush=True)
    orders = b""
    while True:
        left = [each for way in ways if (each := way.pass_on()) is not None]
        readable = select.select([first, second, 0], [], [], min(left) if left else None)[0]
        for way in ways:
            if way.source in readable:
                way.take()
        if 0 in readable:
            piece = os.read(0, 65536)
            if not piece:
                return
            *lines, orders = (orders + piece).split(b"\n")
            for line in lines:
                for way in ways:
                    way.order(json.loads(line))
                print("done", flush=True)


if __name__ == "__main__":
    main()
