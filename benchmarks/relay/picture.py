"""Draws what bench_relay.py measured. Needs matplotlib.

    /usr/bin/python3 benchmarks/relay/picture.py FILE.json FILE.png
"""

from __future__ import annotations

import json
import sys
from pathlib import Path
from typing import Any

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt
from bench_relay import median

Result = dict[str, Any]
COLOURS = {"ours": "#1f6feb", "aiortc": "#9a9a9a"}
LATENCY = ("p50", "p95", "p99")


def bars(axes: Any, title: str, unit: str, names: list[str], values: dict[str, list[float]]) -> None:
    """A group of bars for each name, one bar for each library."""
    for offset, (library, heights) in enumerate(values.items()):
        places = [index + 0.38 * offset for index in range(len(names))]
        drawn = axes.bar(places, heights, 0.36, label=library, color=COLOURS[library])
        axes.bar_label(drawn, fmt="%.3g", fontsize=8)
    axes.set_xticks([index + 0.19 for index in range(len(names))], names, fontsize=8)
    axes.set_title(title, fontsize=10)
    axes.set_ylabel(unit, fontsize=8)
    axes.margins(y=0.15)
    axes.spines[["top", "right"]].set_visible(False)


def compare(
    axes: Any, title: str, unit: str, found: Result, rows: dict[str, tuple[str, tuple[str, ...]]]
) -> None:
    values = {
        library: [median(found[library][role], *keys) for role, keys in rows.values()] for library in COLOURS
    }
    bars(axes, title, unit, list(rows), values)


def draw(results: Result, target: Path | str) -> None:
    figure, panels = plt.subplots(2, 3, figsize=(12, 6.4), layout="constrained")
    compare(
        panels[0][0], "Processor time", "CPU s for each s of media", results["alone"],
        {"publishing": ("pub", ("cpu_per_second",)), "subscribing": ("sub", ("cpu_per_second",))},
    )  # fmt: skip
    compare(
        panels[1][0],
        "Resident memory and time to first media",
        "MiB, ms",
        results["alone"],
        {
            "publishing\nMiB": ("pub", ("resident_mib",)),
            "subscribing\nMiB": ("sub", ("resident_mib",)),
            "first sound\nms": ("sub", ("first_ms", "audio")),
            "first picture\nms": ("sub", ("first_ms", "video")),
        },
    )
    for column, situation, words in ((0, "alone", "nothing else running"), (1, "busy", "two busy processes")):
        rows = {
            f"{kind}\n{quantile}": ("sub", (f"{kind}_ms", quantile))
            for kind in ("audio", "video")
            for quantile in LATENCY
        }
        compare(panels[column][1], f"Latency, {words}", "ms", results[situation], rows)
    streams = {int(count): each for count, each in results["streams"].items()}
    counts = [str(count) for count in streams]
    bars(
        panels[0][2], "Many streams subscribed, 320x180 at 15/s", "CPU s for each s",
        counts, {"ours": [each["cpu_per_second"] for each in streams.values()]},
    )  # fmt: skip
    bars(
        panels[1][2], "Sound delivered of the stream that got least", "%",
        counts, {"ours": [min(each["samples_per_second"]) / 480 for each in streams.values()]},
    )  # fmt: skip
    panels[0][0].legend(fontsize=8, frameon=False)
    figure.savefig(target, dpi=110)


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        draw(json.load(file), sys.argv[2])
