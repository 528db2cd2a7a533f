"""The embedded engine's recordings, as far as no numpy is needed."""

from __future__ import annotations

from pathlib import Path


def log_of(folder: Path) -> Path:
    return folder / "events.jsonl"


def has_told(folder: Path, event: str) -> bool:
    """Whether the recording's log tells of an event; "closed" is the last one, when all files are
    complete."""
    log = log_of(folder)
    return log.exists() and f'"event":"{event}"' in log.read_text()
