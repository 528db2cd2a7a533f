"""The exception that ends a command with exit code 1."""

from __future__ import annotations


class Failure(Exception):
    """The text says what failed, in words for a person; the code is the session's, if it has one."""

    def __init__(self, text: str, code: int | None = None) -> None:
        super().__init__(text)
        self.code = code
