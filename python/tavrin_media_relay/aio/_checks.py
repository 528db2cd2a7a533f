"""Checks of arguments: each names the argument, shows what was given and tells what is wanted."""

from __future__ import annotations

from typing import Any


def of_type(name: str, value: object, kind: type) -> None:
    if not isinstance(value, kind):
        raise TypeError(f"{name} must be a {kind.__name__}, not {value!r:.80}")


def number(name: str, value: Any, low: float, high: float, unit: str) -> None:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"{name} must be a number of {unit}, not {value!r:.80}")
    if not low <= value <= high:
        raise ValueError(f"{name} must be from {low:g} to {high:g} {unit}, not {value!r}")


def integer(name: str, value: Any, low: int, high: int) -> int:
    """Whatever counts as an index (a numpy integer too), but a bool."""
    if isinstance(value, bool) or not hasattr(value, "__index__"):
        raise TypeError(f"{name} must be an int from {low} to {high}, not {value!r:.80}")
    whole = int(value)
    if not low <= whole <= high:
        raise ValueError(f"{name} must be from {low} to {high}, not {whole}")
    return whole
