"""This project and aiortc over bad links: what arrives, how long pictures stand, how soon all is well again.

    PYTHONPATH=<build>/python:python /usr/bin/python3 benchmarks/relay/bench_network.py [--json FILE]
    [--markdown FILE]

One program publishes 640x480 pictures at 30 a second and stereo sound, another subscribes to them. One
of the two is in the server's own namespace, the other at the far end of a link of 20 ms each way, which
is good while they join, then bad for some seconds, both ways alike, then good again. Needs root,
/dev/net/tun and what the end-to-end tests need."""

from __future__ import annotations

import argparse
import itertools
import json
import os
import re
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parents[1] / "tests/end_to_end/relay"))

from bad_link import BadLink  # noqa: E402
from processes import SECRET, Network, Process, Server  # noqa: E402

from tavrin_media_relay.server import join_token  # noqa: E402

SERVER, FAR = "10.9.0.1", "10.9.0.2"
DELAY_MS, FPS = 20, 30


@dataclass(frozen=True)
class Fault:
    name: str
    order: dict[str, float | bool] = field(default_factory=dict)
    recovery: float = 2.0  # seconds that are watched afterwards


FAULTS = [
    Fault("none"),
    Fault("1 % lost", {"loss": 0.01}),
    Fault("3 % lost", {"loss": 0.03}),
    Fault("10 % lost", {"loss": 0.10}),
    Fault("20 % lost", {"loss": 0.20}),
    Fault("200 ms of jitter", {"jitter_ms": 200}),
    Fault("5 % overtaken", {"reorder": 0.05}),
    Fault("300 kbit/s", {"kbit_s": 300}, 12),
    Fault("away", {"down": True}, 12),
]


@dataclass
class Figures:
    arrived: float  # share of the pictures that were made, but for the last 200 ms
    freeze_ms: float
    sound_lost: float  # share of packets that were filled in
    recovery_s: float  # until a second passes with nine tenths of the pictures


def figures(
    made: list[int], shown: list[tuple[float, int]], begin: float, end: float, recovery: float, said: str
) -> Figures:
    """Times in ms of the monotonic clock but for `recovery`; the fault lasted from `begin` to `end`."""
    low, high = int(begin * 10), int((end - 200) * 10)
    sent = {stamp for stamp in made if low <= stamp < high}
    arrivals = np.array([at for at, _ in shown])
    bad = [begin, *arrivals[(arrivals >= begin) & (arrivals <= end)], end]
    recovered = float("inf")
    for at in np.arange(end, end + (recovery - 1) * 1000 + 1, 50):
        if np.count_nonzero((arrivals >= at) & (arrivals < at + 1000)) >= 0.9 * FPS:
            recovered = (at - end) / 1000
            break
    sound = re.findall(r"sound: (\d+) packets, (\d+) lost", said)
    received, lost = map(int, sound[-1]) if sound else (0, 0)
    return Figures(
        len(sent & {stamp for _, stamp in shown}) / max(len(sent), 1),
        float(np.diff(bad).max()),
        lost / max(received + lost, 1),
        recovered,
    )


class Bench:
    def __init__(self, folder: Path, seconds: float, runs: int) -> None:
        self.seconds, self.folder = seconds, folder
        self.here, self.away = Network(None), Network(None)
        self.link = BadLink((self.here.process, f"{SERVER}/24"), (self.away.process, f"{FAR}/24"))
        self.here.address, self.here.loopback = SERVER, False
        # One for each run: whoever ends without a word is kept in his for some seconds.
        rooms = [f"bench-{number}" for number in range(runs)]
        self.rooms = iter(rooms)
        options = [word for room in rooms for word in ("--room", room)]
        self.server = Server.on(self.here, folder / "server", *options)

    def _start(self, library: str, role: str, room: str, is_away: bool, *more: object) -> Process:
        arguments = ["--room", room, "--url", self.server.host, "--bursts", self.folder / "bursts", "--raw"]
        variables = {"API_HOSTNAME": self.server.host, "TOKEN": join_token(room, SECRET)}
        variables |= {
            "SARNET_RELAY_CA_FILE": str(self.folder / "server/cert.pem"),
            "BENCH_ADDRESS": FAR if is_away else SERVER,
        }
        network = self.away if is_away else self.here
        return network.start(HERE / f"peer_{library}.py", role, *arguments, *more, **variables)

    def run(self, library: str, fault: Fault, far: str) -> Figures:
        self.link.order(delay_ms=DELAY_MS)
        seconds = self.seconds + fault.recovery
        room = next(self.rooms)
        publisher = self._start(library, "pub", room, far == "publisher", "--seconds", seconds + 3)
        publisher.wait_for("ready")
        subscriber = self._start(library, "sub", room, far == "subscriber", "--seconds", seconds)
        try:
            subscriber.wait_for("measuring")
            begin = time.monotonic() * 1000
            self.link.order(delay_ms=DELAY_MS, **fault.order)
            time.sleep(self.seconds)
            end = time.monotonic() * 1000
            self.link.order(delay_ms=DELAY_MS)
            shown = subscriber.wait_for("result", seconds + 20)["shown"]
            made = publisher.wait_for("result", seconds + 20)["made"]
            for process in (subscriber, publisher):
                process.child.wait(20)
        finally:
            for process in (subscriber, publisher):
                process.end()
        return figures(made, shown, begin, end, fault.recovery, "\n".join(subscriber.rest()))

    def close(self) -> None:
        for network in (self.away, self.here):
            network.close()
        self.link.close()


def row(far: str, fault: Fault, results: dict[str, list[Figures]]) -> str:
    cells = [far, fault.name]
    for of, form in (("arrived", "{:.1%}"), ("freeze_ms", "{:.0f} ms"), ("sound_lost", "{:.1%}"),
                     ("recovery_s", "{:.1f} s")):  # fmt: skip
        for each in results.values():
            worst = (min if of == "arrived" else max)(getattr(found, of) for found in each) if each else None
            cells.append("-" if worst is None else form.format(worst))
    return "| " + " | ".join(cells) + " |"


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--json", type=Path)
    parser.add_argument("--markdown", type=Path)
    parser.add_argument("--seconds", type=float, default=15, help="that the link is bad")
    parser.add_argument("--rounds", type=int, default=1, help="of which the worst figure counts")
    parser.add_argument("--far", nargs="*", default=["subscriber", "publisher"])
    parser.add_argument("--only", nargs="*", help="names of faults")
    parser.add_argument("--libraries", nargs="*", default=["ours", "aiortc"])
    options = parser.parse_args()
    if os.geteuid() != 0:
        raise SystemExit("this needs root, for namespaces and interfaces")
    head = ["behind the link", "fault"]
    for what in ("pictures", "longest freeze", "sound lost", "well again after"):
        head += [f"{what}, {library}" for library in options.libraries]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    print("\n".join(lines), flush=True)
    everything: dict[str, Any] = {}
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(
            Path(folder), options.seconds, 2 * len(FAULTS) * options.rounds * len(options.libraries)
        )
        try:
            for far, fault in itertools.product(options.far, FAULTS):
                if options.only and fault.name not in options.only:
                    continue
                results: dict[str, list[Figures]] = {library: [] for library in options.libraries}
                for _ in range(options.rounds):
                    for library, found in results.items():
                        try:
                            found.append(bench.run(library, fault, far))
                        except BaseException as failure:
                            if isinstance(failure, KeyboardInterrupt):
                                raise
                            print(f"{library}, {fault.name}: {str(failure)[-500:]}", file=sys.stderr)
                everything[f"{far}, {fault.name}"] = {
                    library: [vars(each) for each in found] for library, found in results.items()
                }
                lines.append(row(far, fault, results))
                print(lines[-1], flush=True)
        finally:
            bench.close()
    if options.json:
        options.json.write_text(json.dumps(everything, indent=1))
    if options.markdown:
        options.markdown.write_text("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
