"""A progress line every second of the visit."""

from __future__ import annotations

import sys
import threading

from participant import Participant


class Progress:
    """A context manager: prints events as they come and, once a second, the state."""

    def __init__(self, participant: Participant) -> None:
        self._participant = participant
        self._told = 0
        self._end = threading.Event()
        self._thread = threading.Thread(target=self._run, name="progress")

    def __enter__(self) -> Progress:
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._end.set()
        self._thread.join()

    def _run(self) -> None:
        live = sys.stdout.isatty()
        ticks = 0
        while not self._end.wait(0.2):
            ticks += 1
            self._tell_events()
            if live:
                print(f"\r{self._state()}", end="", flush=True)
            elif ticks % 10 == 0:
                print(self._state(), flush=True)
        self._tell_events()
        if live:
            print()

    def _tell_events(self) -> None:
        events = self._participant.report.events
        for at, event in events[self._told :]:
            print(f"\r{at:6.2f} s  {event:<110}", flush=True)
            self._told += 1

    def _state(self) -> str:
        participant, report = self._participant, self._participant.report
        audio, video = participant.buffered() if participant.client.is_publishing() else (0.0, 0.0)
        bar = "#" * max(0, int(participant.ear.now + 60) // 3)
        return (
            f"{participant.clock():6.2f} s  queued: speech {audio:5.2f} s, pictures {video:4.2f} s | "
            f"sent {len(report.pictures_sent):3} | seen {len(report.thumbnails):3} | hearing {bar:<20}"
        )
