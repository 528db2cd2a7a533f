"""connect, disconnect, is_connected, get_connection, and who holds which reference for how long."""

from __future__ import annotations

import gc
import sys
import threading
import weakref
from datetime import datetime
from types import SimpleNamespace

import pytest


@pytest.mark.parametrize(
    ("application_id", "variable", "host"),
    [
        ("12345", None, "api.sarnet.localhost"),
        ("-", None, "relay.tavrin.localhost"),
        ("ab-cd", "other.example", "other.example"),
        ("12345", "http:/one.slash", "http:/one.slash"),
    ],
)
def test_host_is_chosen_at_each_connect(world, monkeypatch, application_id, variable, host):
    if variable is not None:
        monkeypatch.setenv("API_HOSTNAME", variable)
    settings = SimpleNamespace(enable_migration=True, av=None, logging=SimpleNamespace(level="DeBuG"))
    assert world.client.connect(application_id, "session", "token", session_settings=settings) is True
    for call in (f'host="{host}"', "srn_log_enable(level=3)", "set_session_migration(settings=1, enabled=1)"):
        assert call in world.lib.calls()


def test_connect_while_connected_changes_nothing(world):
    world.connect(on_stream_received_cb=world.rec("first"))
    assert world.client.connect("key", "other", "token", on_stream_received_cb=world.rec("second")) is False
    world.stream()
    world.rec.wait("first")
    assert not world.rec.named("second")


class Owner:
    """Whose bound methods are the callables: kept alive by the module alone."""

    def method(self, *_):
        pass


SESSION_CALLABLES = """on_error_cb on_connected_cb on_disconnected_cb on_connection_created_cb
    on_connection_dropped_cb on_stream_received_cb on_stream_dropped_cb on_audio_data_cb
    on_ready_for_audio_cb on_media_buffer_drained_cb""".split()
SUBSCRIBER_CALLABLES = """on_error_cb on_connected_cb on_disconnected_cb on_audio_data_cb on_render_frame_cb
    on_caption_text_cb""".split()
PUBLISHER_CALLABLES = ["on_error_cb", "on_stream_created_cb", "on_stream_destroyed_cb"]


def owned(names: list[str]):
    """A callable for each name, and weak references to their owners."""
    owners = {name: Owner() for name in names}
    return {name: owner.method for name, owner in owners.items()}, [weakref.ref(o) for o in owners.values()]


def alive(references) -> int:
    gc.collect()
    return sum(reference() is not None for reference in references)


def test_each_slot_holds_one_reference_until_it_is_given_back(world):
    session, session_owners = owned(SESSION_CALLABLES)
    subscriber, subscriber_owners = owned(SUBSCRIBER_CALLABLES)
    other, other_owners = owned(SUBSCRIBER_CALLABLES)
    publisher, publisher_owners = owned(PUBLISHER_CALLABLES)
    world.connect(**session)
    stream = world.subscribe("s", **subscriber)
    world.subscribe("t", **other)
    world.publish(**publisher)
    world.settle()
    del session, subscriber, other, publisher
    assert alive(session_owners) == 10 and alive(subscriber_owners) == alive(other_owners) == 6
    assert alive(publisher_owners) == 3
    assert world.client.unsubscribe(stream) is True
    assert (alive(subscriber_owners), alive(other_owners)) == (0, 6)
    assert world.client.unpublish() is True
    assert alive(publisher_owners) == 0
    world.publish(**owned(PUBLISHER_CALLABLES)[0])
    assert world.client.disconnect() is True
    assert alive(session_owners) == alive(other_owners) == 0


def test_slots_are_given_back_when_they_are_replaced(world):
    world.fail("srn_session_connect_to_host")
    references = []
    for _ in range(3):
        callables, owners = owned(SESSION_CALLABLES)
        assert world.client.connect("key", "session", "token", **callables) is False
        references += owners
        del callables
    assert alive(references) == 10  # the latest attempt's stay, the others' went
    assert world.client.disconnect() is True
    assert alive(references) == 0


def test_singletons_and_callables_keep_their_counts(world):
    def callable_(*_):
        pass

    settings = world.models.PublisherSettings("p")
    world.connect(level="error")
    before = sys.getrefcount(callable_)
    counts = [sys.getrefcount(each) for each in (True, False, None)]
    for _ in range(2000):
        world.client.is_connected(), world.client.is_publishing(), world.client.unpublish()
    for _ in range(30):
        world.client.unpublish()
        world.client.publish(settings, on_stream_created_cb=callable_)
        world.client.publish(settings, on_error_cb=callable_)  # refused: there is one
    world.client.disconnect()
    for _ in range(30):  # what cannot be called is ignored
        world.client.connect("key", "session", "token", on_error_cb=callable_, on_connected_cb=5)
        world.client.disconnect()
    assert sys.getrefcount(callable_) == before
    for count, each in zip(counts, (True, False, None)):
        assert abs(sys.getrefcount(each) - count) < 100
    assert not [line for line in world.log.texts() if line[0] == "ERROR"]


@pytest.mark.parametrize(
    ("events", "disconnected", "errors"), [("d", 1, 0), ("e", 0, 1), ("ed", 1, 1), ("ede", 1, 2)]
)
def test_session_that_ends_by_itself(world, events, disconnected, errors):
    connected = []
    note = lambda *_: connected.append(world.client.is_connected())  # noqa: E731
    world.ready(on_disconnected_cb=world.rec("disconnected", note), on_error_cb=world.rec("error", note))
    world.subscribe("s")
    world.publish()
    for event in events:
        world.lib.session_disconnected() if event == "d" else world.lib.session_error(-5, "gone")
    world.settle()
    assert (len(world.rec.named("disconnected")), len(world.rec.named("error"))) == (disconnected, errors)
    assert connected == [False] * len(events)
    assert "srn_session_disconnect" not in world.lib.call_names()
    assert world.lib.call_count("srn_session_delete") == 1
    error = ("ERROR", "MRController::onSessionError: session_id:session error_code:-5 error_description:gone")
    assert (error in world.log.texts()) == (errors > 0)


def test_reconnect_from_inside_on_error_survives_the_old_sessions_end(world):
    def again(*_):
        second = world.rec("second")
        world.rec("again")(world.client.connect("key", "second", "token", on_connected_cb=second))

    queued = threading.Event()
    held = world.rec("held", then=lambda *_: queued.wait(20))
    world.connect(on_error_cb=again, on_connection_created_cb=held)
    world.lib.connection_created("c", "", 0)
    world.rec.wait("held")  # while the worker is held up, both events of the first session queue up
    world.lib.session_error(1, "gone"), world.lib.session_disconnected()
    assert world.lib.wait_idle(20_000) == 1
    queued.set()
    assert world.rec.wait("again").args == (True,)
    world.rec.wait("second")
    world.settle()
    assert world.client.is_connected() is True
    assert world.lib.call_count("srn_session_delete") == 1


def test_own_connection(world):
    world.lib.answer("connected", "none")
    world.connect()
    assert world.client.is_connected() is True and world.client.get_connection() is None  # not joined yet
    world.lib.session_connected()
    world.settle()
    connection = world.client.get_connection()
    assert type(connection) is world.models.Connection
    assert (connection.id, connection.data) == ("own-connection", "own-data")
    assert connection.creation_time == datetime.fromtimestamp(1_700_000_000)
    world.client.disconnect()
    assert world.client.is_connected() is False and world.client.get_connection() is None
    world.fail("srn_session_get_connection")
    world.lib.answer("connected", "normal")
    world.connect(on_connected_cb=world.rec("connected"))
    world.rec.wait("connected")
    assert world.client.get_connection() is None
