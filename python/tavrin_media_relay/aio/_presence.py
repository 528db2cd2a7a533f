"""The connections and streams of a session, and the iterators that are notified of changes."""

from __future__ import annotations


from ..models import Connection, Stream
from . import events
from ._channel import Channel, ChannelWriter, bounded
from ._fan import Listeners
from ._wakeups import Waker

_CAPACITY = 1000


class Presence:
    """Used on the loop only."""

    def __init__(self, waker: Waker) -> None:
        self.connections: dict[str, Connection] = {}
        self.streams: dict[str, Stream] = {}
        self._waker = waker
        self._listeners: Listeners[events.Event] = Listeners()
        self._last: events.Event | None = None

    def listen(self, capacity: int | None) -> Channel[events.Event]:
        """An iterator over events that begins with the current connections and streams."""
        present: list[events.Event] = [events.ConnectionCreated(each) for each in self.connections.values()]
        present += [events.StreamReceived(each) for each in self.streams.values()]
        if self._last is not None:
            present.append(self._last)
        kept = max(bounded(capacity, "drop_oldest", _CAPACITY), len(present))
        writer: ChannelWriter[events.Event] = ChannelWriter(self._waker, kept, "events")
        for event in present:
            writer.put(event, self._waker.loop.time())
        self._listeners.add(writer)
        return Channel(writer)

    def notify(self, event: events.Event) -> None:
        self._listeners.put(event, self._waker.loop.time())

    def close(self, last: events.Event | None) -> None:
        """Ends every iterator, after a last event if there is one."""
        if last is not None:
            self._last = last
            self.notify(last)
        self._listeners.close()

    def connection_created(self, connection: Connection) -> None:
        self.connections[connection.id] = connection
        self.notify(events.ConnectionCreated(connection))

    def connection_dropped(self, connection: Connection) -> None:
        self.connections.pop(connection.id, None)
        self.notify(events.ConnectionDropped(connection))

    def all_gone(self) -> None:
        """Streams and connections are dropped, in this order."""
        for stream in tuple(self.streams.values()):
            self.stream_dropped(stream)
        for connection in tuple(self.connections.values()):
            self.connection_dropped(connection)

    def stream_received(self, stream: Stream) -> None:
        self.streams[stream.id] = stream
        self.notify(events.StreamReceived(stream))

    def stream_dropped(self, stream: Stream) -> None:
        self.streams.pop(stream.id, None)
        self.notify(events.StreamDropped(stream))
