"""The parts of the embedded engine's recordings that need no numpy."""

from __future__ import annotations

from pathlib import Path


def log_of(folder: Path) -> Path:
    return folder / "events.jsonl"


def has_told(folder: Path, event: str) -> bool:
    """Whether the recording's log has an event; "closed" is the last one, when all files are complete."""
    log = log_of(folder)
    return log.exists() and f'"event":"{event}"' in log.read_text()
