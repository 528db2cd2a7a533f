"""What dispatching costs, and how soon an agent is there: with 1, 2 and 4 workers, a process tree each.

    ./dev bench fleet [--json FILE] [--picture FILE.png]

A broker, two relay servers, one door and the workers run on this machine, on loopback, as ./dev fleet starts
them. Jobs for rooms of their own are dispatched one after another, then many at once. The times are the
workers' own: from the dispatch to a worker, from there to the room, and to a published stream."""

from __future__ import annotations

import argparse
import json
import os
import statistics
import sys
import tempfile
import time
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "tools"))

from fleet import Fleet  # noqa: E402

from tavrin_media_relay.serving.redis_broker import RedisBroker  # noqa: E402
from tavrin_media_relay.serving.visit import private_bytes_of  # noqa: E402

AGENT = """
import asyncio
async def agent(session, job):
    async with session.publish("bench", video=False) as publisher:
        await publisher.audio.write(bytes(9600))
        await asyncio.sleep(1.2)
"""


def events(fleet: Fleet) -> list[dict[str, Any]]:
    lines = []
    for number in range(1, fleet.workers + 1):
        for line in (fleet.folder / f"worker{number}.log").read_text().splitlines():
            if line.startswith("{"):
                lines.append(json.loads(line))
    return lines


def await_ends(fleet: Fleet, count: int, seconds: float = 120) -> list[dict[str, Any]]:
    end = time.monotonic() + seconds
    while True:
        found = events(fleet)
        if sum(each["event"] == "ended" for each in found) >= count:
            return found
        if time.monotonic() > end:
            raise SystemExit(f"only {sum(each['event'] == 'ended' for each in found)} of {count} jobs ended")
        time.sleep(0.2)


def times(found: list[dict[str, Any]], kind: str) -> dict[str, float]:
    values = sorted(1000 * each["seconds"] for each in found if each["event"] == kind)
    p99 = values[min(len(values) - 1, int(len(values) * 0.99))]
    return {"p50": round(statistics.median(values), 2), "p99": round(p99, 2), "n": len(values)}


def warm_children() -> list[float]:
    """MiB of their own of the processes that wait."""
    sizes = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            line = (process / "cmdline").read_bytes()
            parent = int((process / "stat").read_text().rpartition(")")[2].split()[1])
            if b"forkserver" in line and b"forkserver" in Path(f"/proc/{parent}/cmdline").read_bytes():
                sizes.append(private_bytes_of(int(process.name)) / 2**20)
        except OSError:
            pass
    return sizes


def measure(workers: int, jobs: int, gap: float) -> dict[str, Any]:
    with tempfile.TemporaryDirectory() as name:
        os.chmod(name, 0o755)
        agent = Path(name) / "bench.py"
        agent.write_text(AGENT)
        with Fleet(Path(name), agent, 29400, servers=2, workers=workers, on_join=False) as fleet:
            broker = RedisBroker(fleet.broker)
            time.sleep(2)
            sizes = warm_children()
            for number in range(jobs):
                broker.dispatch("bench", f"one-{number}")
                time.sleep(gap)
            calm = await_ends(fleet, jobs)
            before = len(calm)
            began = time.time()
            for number in range(40):
                broker.dispatch("bench", f"many-{number}")
            burst = [each for each in await_ends(fleet, jobs + 40)[0:] if each["time"] >= began]
            joins = sorted(each["time"] for each in burst if each["event"] == "joined")
            assert before
            failed = [each for each in calm + burst if each["event"] == "ended" and each["end"] != "ended"]
            return {
                "workers": workers,
                "taken_ms": times(calm, "taken"),
                "joined_ms": times(calm, "joined"),
                "published_ms": times(calm, "published"),
                "joins_per_second": round(len(joins) / max(joins[-1] - began, 0.001), 1),
                "failed": len(failed),
                "warm_private_mib": round(statistics.median(sizes), 1) if sizes else None,
            }


def draw(results: list[dict[str, Any]], file: Path) -> None:
    import matplotlib

    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    figure, axes = plt.subplots(1, 2, figsize=(9, 3.2))
    names = [f"{each['workers']} worker{'s' if each['workers'] > 1 else ''}" for each in results]
    for offset, key in enumerate(("taken_ms", "joined_ms", "published_ms")):
        at = [place + (offset - 1) * 0.27 for place in range(len(results))]
        axes[0].bar(at, [each[key]["p50"] for each in results], 0.25, label=key.removesuffix("_ms"))
    axes[0].set_xticks(range(len(results)), names)
    axes[0].set_yscale("log")
    axes[0].set_ylabel("ms after the step before, p50")
    axes[0].legend(frameon=False)
    axes[1].bar(names, [each["joins_per_second"] for each in results], 0.5, color="#1f6feb")
    axes[1].set_ylabel("joins a second, 40 dispatched at once")
    figure.tight_layout()
    figure.savefig(file, dpi=110)


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--json", type=Path)
    parser.add_argument("--picture", type=Path)
    parser.add_argument("--jobs", type=int, default=60)
    parser.add_argument("--gap", type=float, default=0.35)
    parser.add_argument("--workers", type=int, nargs="*", default=[1, 2, 4])
    options = parser.parse_args()
    results = []
    for workers in options.workers:
        results.append(measure(workers, options.jobs, options.gap))
        print(json.dumps(results[-1]), flush=True)
    if options.json:
        options.json.write_text(json.dumps(results, indent=1) + "\n")
    if options.picture:
        draw(results, options.picture)


if __name__ == "__main__":
    main()
