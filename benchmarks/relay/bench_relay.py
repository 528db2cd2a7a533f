"""This project against aiortc: the same work through the same server, in the same run.

    PYTHONPATH=<build>/python:python /usr/bin/python3 benchmarks/relay/bench_relay.py [--json FILE] [--picture
    FILE.png]

One process publishes 640x480 pictures at 30 a second (VP8, about 1 Mbit/s) and 48 kHz stereo sound (Opus),
another subscribes, a second after it joined; the libraries take turns. Latency is from the program that sends
to the program that receives, by marks in the media. Ours has in it the wait for the next turn of the
capturers, up to 33 ms for a picture and 10 ms for sound; aiortc asks the program for each piece when it is
wanted. Then the same beside two busy processes, and more and more streams of 320x180 at 15 a second for one
subscribing process of ours. Everything goes over 127.0.0.1."""

from __future__ import annotations

import argparse
import contextlib
import json
import multiprocessing
import os
import re
import statistics
import subprocess
import sys
import tempfile
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from tavrin_media_relay.server import tokens
from tavrin_media_relay.server.server import RelayServer
from tavrin_media_relay.server.settings import Settings

HERE = Path(__file__).resolve().parent
Result = dict[str, Any]


class Bench:
    def __init__(self, server: RelayServer, folder: Path, options: argparse.Namespace) -> None:
        self.server, self.folder, self.options = server, folder, options
        self.rooms = 0

    def _start(self, library: str, role: str, room: str, *more: str) -> subprocess.Popen[str]:
        settings = self.server.settings
        arguments = [
            sys.executable,
            str(HERE / f"peer_{library}.py"),
            role,
            "--room",
            room,
            "--url",
            settings.host,
            "--bursts",
            str(self.folder / f"bursts-{self.rooms}.txt"),
            "--seconds",
            str(self.options.seconds),
            *more,
        ]
        token = tokens.join_token(room, settings.token_secret)
        environment = dict(os.environ, API_HOSTNAME=settings.host, TOKEN=token)
        return subprocess.Popen(arguments, stdout=subprocess.PIPE, text=True, env=environment)

    @staticmethod
    def _line(process: subprocess.Popen[str]) -> Result:
        assert process.stdout is not None
        said = []
        for line in process.stdout:
            if line.startswith("{"):
                result: Result = json.loads(line)
                return result
            said.append(line)
        raise SystemExit(f"a peer failed: {''.join(said[-5:])}")

    def _copies(self, source: str, target: str, count: int) -> subprocess.Popen[str]:
        settings = self.server.settings
        configuration = (self.folder / "server" / "janus.plugin.videoroom.jcfg").read_text()
        secrets = dict(re.findall(r'room-(\S+): {.*?secret = "(.*?)"', configuration, re.S))
        order = {
            "url": settings.host, "count": count,
            "source": source, "source_token": tokens.join_token(source, settings.token_secret),
            "source_secret": secrets[source],
            "target": target, "target_token": tokens.join_token(target, settings.token_secret),
            "target_secret": secrets[target], "admin_key": settings.admin_key,
        }  # fmt: skip
        arguments = [sys.executable, str(HERE / "copies.py")]
        process = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        assert process.stdin is not None
        process.stdin.write(json.dumps(order) + "\n")
        process.stdin.flush()
        return process

    def run(self, library: str, copies: int = 0, *more: str) -> tuple[Result, Result]:
        """What the publisher and the subscriber measured. With copies the subscriber gets these alone."""
        self.rooms += 2
        source, target = f"bench-{self.rooms - 1}", f"bench-{self.rooms}"
        everyone: list[subprocess.Popen[str]] = []
        failed = True
        try:
            everyone.append(self._start(library, "pub", source, "--tail", "4", *more))
            self._await_ready(everyone[0])
            if copies:
                everyone.append(self._copies(source, target, copies))
                self._await_ready(everyone[1])
            room = target if copies else source
            everyone.append(self._start(library, "sub", room, "--streams", str(max(copies, 1)), *more))
            received = self._line(everyone[-1])
            published = self._line(everyone[0])
            failed = False
            return published, received
        finally:
            for process in everyone:
                if failed:
                    process.kill()
                process.communicate()

    def _await_ready(self, process: subprocess.Popen[str]) -> None:
        assert self._line(process)["event"] == "ready"


@contextlib.contextmanager
def busy_processes(count: int) -> Iterator[None]:
    def spin() -> None:
        while True:
            pass

    busy = [multiprocessing.get_context("fork").Process(target=spin, daemon=True) for _ in range(count)]
    for process in busy:
        process.start()
    try:
        yield
    finally:
        for process in busy:
            process.kill()
            process.join()


def median(results: list[Result], *keys: str) -> float:
    values = []
    for result in results:
        value: Any = result
        for key in keys:
            value = value[0] if isinstance(value, list) else value
            value = value.get(key)
            if value is None:
                break
        value = value[0] if isinstance(value, list) else value
        if value is not None:
            values.append(float(value))
    return round(statistics.median(values), 4) if values else float("nan")


ROWS = (
    ("publishing, CPU s per s", "pub", ("cpu_per_second",)),
    ("subscribing, CPU s per s", "sub", ("cpu_per_second",)),
    ("publishing, resident MiB", "pub", ("resident_mib",)),
    ("subscribing, resident MiB", "sub", ("resident_mib",)),
    ("subscribe to first audio, ms", "sub", ("first_ms", "audio")),
    ("subscribe to first picture, ms", "sub", ("first_ms", "video")),
    ("video latency p50, ms", "sub", ("video_ms", "p50")),
    ("video latency p95, ms", "sub", ("video_ms", "p95")),
    ("video latency p99, ms", "sub", ("video_ms", "p99")),
    ("audio latency p50, ms", "sub", ("audio_ms", "p50")),
    ("audio latency p95, ms", "sub", ("audio_ms", "p95")),
    ("audio latency p99, ms", "sub", ("audio_ms", "p99")),
    ("pictures per second", "sub", ("frames_per_second",)),
    ("samples per second", "sub", ("samples_per_second",)),
)


def compare(bench: Bench, rounds: int) -> dict[str, dict[str, list[Result]]]:
    found: dict[str, dict[str, list[Result]]] = {name: {"pub": [], "sub": []} for name in ("ours", "aiortc")}
    for _ in range(rounds):
        for library, results in found.items():
            published, received = bench.run(library)
            results["pub"].append(published)
            results["sub"].append(received)
    print(f"{'':34}{'ours':>10}{'aiortc':>10}{'ratio':>8}")
    for title, role, keys in ROWS:
        ours, other = (median(found[name][role], *keys) for name in ("ours", "aiortc"))
        print(f"{title:34}{ours:10g}{other:10g}{ours / other:8.2f}", flush=True)
    return found


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--json", type=Path)
    parser.add_argument("--picture", type=Path)
    parser.add_argument("--seconds", type=float, default=15)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--streams", type=int, nargs="*", default=[1, 4, 8, 16])
    parser.add_argument("--port", type=int, default=8588)
    options = parser.parse_args()
    results: dict[str, Any] = {"jitter_ms": int(os.environ.get("SARNET_RELAY_JITTER_MS", "200"))}
    with tempfile.TemporaryDirectory() as folder:
        runs = 2 * (options.rounds + 1) + len(options.streams)
        rooms = [f"bench-{number}" for number in range(1, 2 * runs + 1)]
        settings = Settings(
            folder=Path(folder) / "server", port=options.port, rtp_ports=(24000, 24999), rooms=rooms
        )
        with RelayServer(settings) as server:
            bench = Bench(server, Path(folder), options)
            print("Alone")
            results["alone"] = compare(bench, options.rounds)
            print("Beside two busy processes")
            with busy_processes(2):
                results["busy"] = compare(bench, 1)
            print(f"{'streams':>8}{'CPU s/s':>9}{'MiB':>7}{'threads':>9}{'audio':>9}{'pictures/s':>12}")
            results["streams"] = {}
            for count in options.streams:
                _, received = bench.run("ours", count, "--size", "320x180", "--fps", "15", "--warm-up", "6")
                results["streams"][count] = received
                whole = min(received["samples_per_second"]) / 48000
                least = min(received["frames_per_second"])
                print(
                    f"{count:8}{received['cpu_per_second']:9.3f}{received['resident_mib']:7.0f}"
                    f"{received['threads']:9}{whole:9.1%}{least:12.1f}",
                    flush=True,
                )
    if options.json:
        options.json.write_text(json.dumps(results, indent=1))
    if options.picture:
        import picture

        picture.draw(results, options.picture)


if __name__ == "__main__":
    main()
