"""The exceptions of the asyncio API, in addition to TypeError and ValueError for bad arguments."""

from __future__ import annotations

from typing import Final


class MediaError(Exception):
    """A refusal or failure of the session or its server."""

    NOT_STARTED: Final = -1
    """`code` when the module did not even start it; the log says more."""
    TIMED_OUT: Final = -2
    """`code` when no answer came in time."""
    BUSY: Final = -3
    """`code` when there may be only one at a time, and there is one."""

    def __init__(self, code: int, message: str) -> None:
        super().__init__(code, message)
        self.code = code
        """The session's own code (positive), or one of the three above."""
        self.message = message

    def __str__(self) -> str:
        return f"{self.message} (code {self.code})"


class SessionError(MediaError):
    """The session could not be joined, or has failed."""


class PublisherError(MediaError):
    """Our stream could not be published, or has failed."""


class SubscriberError(MediaError):
    """A stream could not be subscribed to, or the subscription has failed."""


class ClosedError(RuntimeError):
    """Used after its end: the message says what ended, and how."""
