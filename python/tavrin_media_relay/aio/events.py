"""The events of `Session.events()`: one small record for each kind, for `match` or `isinstance`."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Union

from ..models import Connection, Stream
from .errors import PublisherError, SessionError, SubscriberError


@dataclass(frozen=True, slots=True)
class ConnectionCreated:
    """Another participant is present."""

    connection: Connection


@dataclass(frozen=True, slots=True)
class ConnectionDropped:
    """Another participant has left."""

    connection: Connection


@dataclass(frozen=True, slots=True)
class StreamReceived:
    """Another participant publishes a stream: what `Session.subscribe` takes."""

    stream: Stream


@dataclass(frozen=True, slots=True)
class StreamDropped:
    """A stream has gone, and a subscription to it with it."""

    stream: Stream


@dataclass(frozen=True, slots=True)
class SubscriberConnected:
    """A subscription is established; its media follow."""

    stream: Stream


@dataclass(frozen=True, slots=True)
class SubscriberDisconnected:
    """A subscription has ended; the stream may be subscribed to again."""

    stream: Stream


@dataclass(frozen=True, slots=True)
class SubscriberFailed:
    """A subscription has failed; its iterators raise the same error."""

    stream: Stream
    error: SubscriberError


@dataclass(frozen=True, slots=True)
class PublisherEnded:
    """Our stream was ended by the session, not by us."""


@dataclass(frozen=True, slots=True)
class PublisherFailed:
    """Our stream has failed."""

    error: PublisherError


@dataclass(frozen=True, slots=True)
class SessionLost:
    """The server, or the way to it, is gone, and the session is being joined again: with `rejoin` alone.

    Before it come the drops of all streams and connections; once it is joined again they are received anew.
    """

    error: SessionError


@dataclass(frozen=True, slots=True)
class SessionRejoined:
    """The session has been joined again, and what we publish is published again."""


@dataclass(frozen=True, slots=True)
class SessionDisconnected:
    """The session was ended by the server. The last event."""


@dataclass(frozen=True, slots=True)
class SessionFailed:
    """The session has failed. The last event."""

    error: SessionError


Event = Union[
    ConnectionCreated,
    ConnectionDropped,
    StreamReceived,
    StreamDropped,
    SubscriberConnected,
    SubscriberDisconnected,
    SubscriberFailed,
    PublisherEnded,
    PublisherFailed,
    SessionLost,
    SessionRejoined,
    SessionDisconnected,
    SessionFailed,
]
