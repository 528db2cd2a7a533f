"""Joins and leaves the room again and again, publishing and subscribing, each at a random moment, and tells
what the process has of descriptors, threads and memory after each so many."""

from __future__ import annotations

import argparse
import contextlib
import json
import os
import random
import time
from pathlib import Path

import tavrin_media_relay as tavrin


def settle() -> None:
    """Sessions end on threads of their own, within two seconds."""
    deadline = time.monotonic() + 5
    while time.monotonic() < deadline:
        names = set()
        for task in Path("/proc/self/task").iterdir():
            with contextlib.suppress(OSError):
                names.add((task / "comm").read_text().strip())
        if not names & {"srn-relay", "srn-session", "srn-encode"}:
            return
        time.sleep(0.02)


def resident_kib() -> int:
    [line] = [each for each in Path("/proc/self/status").read_text().splitlines() if "VmRSS" in each]
    return int(line.split()[1])


class Visit:
    """One session, until leave()."""

    def __init__(self, client: tavrin.TavrinVideoClient, random: random.Random, longest: float) -> None:
        self._client, self._random, self._longest = client, random, longest
        self.reached: set[str] = set()
        self.errors: list[str] = []
        client.connect(
            "tests", "marks", os.environ["TOKEN"],
            session_settings=tavrin.SessionSettings(logging=tavrin.LoggingSettings(level="error")),
            on_error_cb=self._failed,
            on_connected_cb=lambda session: self.reached.add("joined"),
            on_ready_for_audio_cb=self._publish,
            on_stream_received_cb=self._came,
        )  # fmt: skip

    def _publish(self, session: tavrin.Session) -> None:
        self._client.publish(
            tavrin.PublisherSettings(name="Visitor"),
            on_error_cb=self._failed,
            on_stream_created_cb=lambda publisher: self.reached.add("published"),
        )

    def _failed(self, unused: object, text: str, code: int) -> None:
        self.errors.append(f"{code}: {text}")

    def _came(self, session: tavrin.Session, stream: tavrin.Stream) -> None:
        self._client.subscribe(
            stream,
            on_error_cb=self._failed,
            on_connected_cb=lambda subscriber: self.reached.add("subscribed"),
            on_render_frame_cb=lambda subscriber, frame: self.reached.add("picture"),
            on_audio_data_cb=lambda subscriber, audio: self.reached.add("sound"),
        )
        if self._random.random() < 0.3:
            self._client.unsubscribe(stream)
            self.reached.add("unsubscribed")

    def leave(self) -> None:
        time.sleep(self._random.uniform(0, self._longest))  # whatever has been reached by then
        self._client.disconnect()


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--maker")
    parser.add_argument("--tones", nargs=2)
    parser.add_argument("--rounds", type=int, default=100)
    parser.add_argument("--every", type=int, default=25)
    parser.add_argument("--longest", type=float, default=0.12)
    options = parser.parse_args()
    chance = random.Random(1)
    client = tavrin.TavrinVideoClient()
    reached: dict[str, int] = {}
    errors: list[str] = []
    begin = time.monotonic()
    for number in range(1, options.rounds + 1):
        visit = Visit(client, chance, options.longest)
        visit.leave()
        errors += visit.errors
        for each in visit.reached:
            reached[each] = reached.get(each, 0) + 1
        if number % options.every == 0:
            settle()
            told = {
                "event": "so far", "rounds": number, "seconds": round(time.monotonic() - begin, 2),
                "files": len(os.listdir("/proc/self/fd")), "threads": len(os.listdir("/proc/self/task")),
                "kib": resident_kib(), "reached": reached, "errors": errors,
            }  # fmt: skip
            print(json.dumps(told), flush=True)


if __name__ == "__main__":
    main()
