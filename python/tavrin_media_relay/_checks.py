"""Checks for the settings that a person fills in: each names the field and shows the value."""

from __future__ import annotations

import operator
from typing import Any


def _name(settings: object, field: str) -> str:
    return f"{type(settings).__name__}.{field}"


def integer(settings: object, field: str, value: Any, low: int, high: int, unit: str = "") -> int:
    """Gives `value` as an int within low..high. Whatever counts as an index (a numpy integer too) is
    taken; a bool is not, since it is a slip wherever a count is asked for."""
    if isinstance(value, bool) or not hasattr(value, "__index__"):
        raise TypeError(f"{_name(settings, field)} must be an int, not {value!r}")
    number = operator.index(value)
    if not low <= number <= high:
        raise ValueError(f"{_name(settings, field)} must be from {low} to {high}{unit}, not {number}")
    return number


def flag(settings: object, field: str, value: Any) -> None:
    if not isinstance(value, bool):
        raise TypeError(f"{_name(settings, field)} must be True or False, not {value!r}")


def text(settings: object, field: str, value: Any) -> None:
    if not isinstance(value, str):
        raise TypeError(f"{_name(settings, field)} must be a str, not {value!r}")


def one_of(settings: object, field: str, value: str, words: tuple[str, ...]) -> None:
    if value not in words:
        raise ValueError(f"{_name(settings, field)} must be one of {', '.join(words)}, not {value!r}")


def optional(settings: object, field: str, value: Any, kind: type) -> None:
    if value is not None and not isinstance(value, kind):
        raise TypeError(f"{_name(settings, field)} must be a {kind.__name__} or None, not {value!r}")
