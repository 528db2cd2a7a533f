"""Checks of arguments and settings: each error names the argument, shows its value and says what is
expected."""

from __future__ import annotations

import operator
from typing import Any


def of_type(name: str, value: object, kind: type) -> None:
    if not isinstance(value, kind):
        raise TypeError(f"{name} must be a {kind.__name__}, not {value!r:.80}")


def integer(name: str, value: Any, low: int, high: int, unit: str = "") -> int:
    """Returns `value` as an int within low..high. Accepts anything usable as an index (a numpy integer too)
    but a bool, which is a mistake where a count is expected."""
    if isinstance(value, bool) or not hasattr(value, "__index__"):
        raise TypeError(f"{name} must be an int, not {value!r:.80}")
    whole = operator.index(value)
    if not low <= whole <= high:
        raise ValueError(f"{name} must be from {low} to {high}{unit}, not {whole}")
    return whole


def number(name: str, value: Any, low: float, high: float, unit: str) -> None:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"{name} must be a number of {unit}, not {value!r:.80}")
    if not low <= value <= high:
        raise ValueError(f"{name} must be from {low:g} to {high:g} {unit}, not {value!r}")


class Fields:
    """Checks the fields, already set, of one record that a program fills in."""

    def __init__(self, record: object) -> None:
        self._record = record

    def name(self, field: str) -> str:
        return f"{type(self._record).__name__}.{field}"

    def integer(self, field: str, low: int, high: int, unit: str = "") -> None:
        """Converts any other index type to int."""
        whole = integer(self.name(field), getattr(self._record, field), low, high, unit)
        setattr(self._record, field, whole)

    def flags(self, *fields: str) -> None:
        for field in fields:
            value = getattr(self._record, field)
            if not isinstance(value, bool):
                raise TypeError(f"{self.name(field)} must be True or False, not {value!r}")

    def text(self, field: str) -> None:
        of_type(self.name(field), getattr(self._record, field), str)

    def one_of(self, field: str, words: tuple[str, ...]) -> None:
        self.text(field)
        value = getattr(self._record, field)
        if value not in words:
            raise ValueError(f"{self.name(field)} must be one of {', '.join(words)}, not {value!r}")

    def optional(self, field: str, kind: type) -> None:
        value = getattr(self._record, field)
        if value is not None and not isinstance(value, kind):
            raise TypeError(f"{self.name(field)} must be a {kind.__name__} or None, not {value!r}")
