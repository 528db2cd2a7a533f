"""What an agent did in a rehearsal."""

from __future__ import annotations

import json
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from .. import aio
from .._recording import log_of
from .recordings import Film, Sound


@dataclass(frozen=True)
class Entry:
    """A line of the embedded engine's event log."""

    at: float
    """Seconds since the agent joined; negative before."""
    name: str
    """For example "joined", "publication", "subscribed", "recorded", "left"."""
    fields: dict[str, Any]

    def __str__(self) -> str:
        rest = ", ".join(f"{key}={value}" for key, value in self.fields.items())
        return f"{self.at:7.3f} s  {self.name} {rest}".rstrip()


@dataclass(frozen=True)
class Publication:
    """A stream that the agent published."""

    name: str
    begin: float
    end: float
    """When it was published, and when it ended."""
    sound: Sound | None
    film: Film | None
    """None when none was sent."""


@dataclass
class Performance:
    entries: list[Entry]
    """The engine's event log, in order."""
    publications: list[Publication]
    joined_at: float
    """`time.monotonic()` when the agent joined: the origin of all times."""
    result: Any = None
    """What the agent returned."""
    told: list[tuple[float, aio.Event]] = field(default_factory=list)
    """The session's events and their times, if the rehearsal joined for the agent."""
    statistics: aio.Statistics | None = None
    """Of the session at its end, if the rehearsal joined for the agent."""
    exit_code: int | None = None
    output: str = ""
    """A program's standard output and error."""

    def named(self, name: str) -> list[Entry]:
        return [each for each in self.entries if each.name == name]

    def entry(self, name: str) -> Entry:
        """The first entry with this name; fails the test, showing the whole log, if there is none."""
        found = self.named(name)
        if not found:
            raise AssertionError(f"nothing named {name!r} happened:\n{self.log()}")
        return found[0]

    @property
    def publication(self) -> Publication:
        """The one stream that was published."""
        if len(self.publications) != 1:
            raise AssertionError(f"{len(self.publications)} streams were published, not one:\n{self.log()}")
        return self.publications[0]

    @property
    def sound(self) -> Sound:
        """What was spoken in the one stream that was published."""
        sound = self.publication.sound
        if sound is None:
            raise AssertionError(f"no sound was sent:\n{self.log()}")
        return sound

    @property
    def film(self) -> Film:
        """What was shown in the one stream that was published."""
        film = self.publication.film
        if film is None:
            raise AssertionError(f"no pictures were sent:\n{self.log()}")
        return film

    def log(self) -> str:
        """For people: the event log, and the times of published sound."""
        lines = [str(each) for each in self.entries]
        for each in self.publications:
            if each.sound is not None:
                spoken = ", ".join(map(str, each.sound.utterances())) or "silence only"
                lines.append(f"{each.name} sent sound: {spoken}")
            if each.film is not None:
                lines.append(
                    f"{each.name} sent {len(each.film)} pictures of {each.film.width}x{each.film.height}"
                )
        return "\n".join(lines)


def read(folder: Path) -> Performance:
    """From a recording that is complete."""
    lines = [json.loads(line) for line in log_of(folder).read_text(encoding="utf-8").splitlines()]
    zero = float(next((each for each in lines if each["event"] == "joined"), lines[0])["at"])
    entries: list[Entry] = []
    marks: dict[tuple[int, str], list[tuple[int, float]]] = {}
    for line in lines:
        at, name = float(line.pop("at")) - zero, str(line.pop("event"))
        del line["time"]
        if name == "mark":
            publication = int(line.pop("publication"))
            for kind, number in line.items():
                marks.setdefault((publication, kind), []).append((int(number), at))
        else:
            entries.append(Entry(at, name, line))
    publications = []
    ends = {each.fields["publication"]: each for each in entries if each.name == "recorded"}
    for each in entries:
        if each.name != "publication":
            continue
        last = ends.get(each.fields["publication"])
        told = last.fields if last is not None else {}
        end = last.at if last is not None else entries[-1].at
        audio, video = (
            marks.get((each.fields["publication"], kind), []) for kind in ("audio_frame", "picture")
        )
        sound = Sound(folder / told["audio"], audio, each.at) if "audio" in told else None
        film = Film(folder / told["video"], video, each.at) if "video" in told else None
        publications.append(Publication(each.fields["name"], each.at, end, sound, film))
    return Performance(entries, publications, zero)
