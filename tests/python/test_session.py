"""connect, disconnect, is_connected, get_connection."""

from __future__ import annotations

import gc
import sys
import threading
import weakref
from datetime import datetime

import pytest

CONNECT_CALLS = """\
srn_log_enable(level=3)
srn_session_settings_new()
srn_session_settings_set_session_migration(settings=1, enabled=0)
srn_session_new_with_settings(api_key="key", session_id="session", \
callbacks=[on_connected on_disconnected on_connection_created on_connection_dropped on_stream_received \
on_stream_dropped on_error user_data], settings=1)
srn_session_connect_to_host(session=1, host="api.sarnet.localhost", path="", port=443, secure=1, token="token")
srn_session_get_connection(session=1)
srn_connection_get_id(connection=1)
srn_connection_get_data(connection=1)
srn_connection_get_session_id(connection=1)
srn_connection_get_creation_time(connection=1)
srn_connection_delete(connection=1)"""


def getters_sorted(calls: str) -> list[str]:
    """The order of the four getters among themselves is nobody's business."""
    lines = calls.splitlines()
    return [*lines[:6], *sorted(lines[6:10]), *lines[10:]]


def test_connect_calls_the_library_in_order(world):
    world.connect()
    assert getters_sorted(world.lib.calls()) == getters_sorted(CONNECT_CALLS)


@pytest.mark.parametrize(
    ("application_id", "variable", "host"),
    [
        ("12345", None, "api.sarnet.localhost"),
        ("ab-cd", None, "relay.tavrin.localhost"),
        ("-", None, "relay.tavrin.localhost"),
        ("ab-cd", "other.example", "other.example"),
        ("12345", "", ""),
        ("12345", "http:/one.slash", "http:/one.slash"),
        ("12345", "ftp://x", "ftp://x"),
    ],
)
def test_host_is_chosen_at_each_connect(world, monkeypatch, application_id, variable, host):
    if variable is not None:
        monkeypatch.setenv("API_HOSTNAME", variable)
    assert world.client.connect(application_id, "session", "token") is True
    assert f'host="{host}"' in world.lib.calls()


@pytest.mark.parametrize("host", ["http://", "HTTP://x", "https://relay", "HttpS://y"])
def test_host_with_a_protocol_is_refused(world, monkeypatch, host):
    monkeypatch.setenv("API_HOSTNAME", host)
    assert world.client.connect("key", "session", "token") is False
    text = "API_HOSTNAME should not include a protocol (http:// or https://): "
    assert world.log.of("MRController", "ERROR") == [("ERROR", text + host)]
    assert not [name for name in world.lib.call_names() if name.startswith("srn_session")]


@pytest.mark.parametrize("missing", ["application_id", "session_id", "token"])
def test_empty_credentials_are_refused(world, missing):
    arguments = {"application_id": "key", "session_id": "session", "token": "token", missing: ""}
    assert world.client.connect(**arguments) is False
    assert ("ERROR", "MRController::connect: Invalid session info provided") in world.log.texts()
    assert ("ERROR", "Failed to connect to session") in world.log.texts()


@pytest.mark.parametrize(
    ("word", "level"),
    [("off", 0), ("trace", 4), ("debug", 3), ("info", 3), ("warn", 2), ("ERROR", 1), ("DeBuG", 3), ("loud", None)],
)
def test_log_level_words(world, word, level):
    from types import SimpleNamespace

    settings = SimpleNamespace(enable_migration=True, av=None, logging=SimpleNamespace(level=word))
    assert world.client.connect("key", "session", "token", session_settings=settings) is True
    asked = [line for line in world.lib.calls().splitlines() if "srn_log_enable" in line]
    assert asked == ([] if level is None else [f"srn_log_enable(level={level})"])
    assert "set_session_migration(settings=1, enabled=1)" in world.lib.calls()


def test_connect_tells_its_progress(world):
    av = world.models.SessionAVSettings(audio_publisher=world.models.SessionAudioSettings(16000, 1))
    world.connect_only(level="info", av=av)
    stereo = "MRAudioSettings: {sampleRate: 48000, numChannels: 2}"
    mono = "MRAudioSettings: {sampleRate: 16000, numChannels: 1}"
    tail = [
        "Session logging level set to: info",
        f"Using custom audio settings: MRAudioDeviceSettings: {{publisher: {mono}, subscriber: {stereo}}}",
        "Using custom video settings: MRVideoSettings: {width: 640, height: 480, fps: 30, format: YUV420P}",
        "Session migration disabled",
        "Connection initiated for session: session",
    ]
    lines = [text for _, text in world.log.of("TavrinVideoClient", "INFO")]
    assert lines[-5:] == tail
    assert world.client.disconnect() is True
    world.log.clear()
    # No settings, no line about them; the level stays.
    assert world.client.connect("key", "session", "secret", session_settings=None) is True
    assert [text for _, text in world.log.of("TavrinVideoClient")] == [
        "Connecting to session: session with application_id: key",
        "Connection initiated for session: session",
    ]


@pytest.mark.parametrize(
    ("args", "kwargs", "exception"),
    [
        ((), {}, TypeError),
        (("key", "session", 5), {}, TypeError),
        (("key", "session", "token", None), {}, TypeError),
        (("key", "session", "to\0ken"), {}, ValueError),
        (("key", "session", "\ud800"), {}, UnicodeEncodeError),
        (("key", "session", "token"), {"on_nothing_cb": print}, TypeError),
    ],
)
def test_connect_with_bad_arguments(world, args, kwargs, exception):
    with pytest.raises(exception):
        world.client.connect(*args, **kwargs)
    assert world.log.of("TavrinVideoClient", "ERROR") == [("ERROR", "Failed to parse connect() args")]
    assert world.client.is_connected() is False


def test_connect_while_connected_changes_nothing(world):
    world.connect(on_stream_received_cb=world.rec("first"))
    calls = world.lib.calls()
    for arguments in [("key", "other", "token"), (), (1, 2, 3)]:
        assert world.client.connect(*arguments, on_stream_received_cb=world.rec("second")) is False
    assert world.log.of("TavrinVideoClient", "WARN") == [("WARN", "Already connected to a session")] * 3
    assert world.lib.calls() == calls
    world.stream()
    world.rec.wait("first")
    assert not world.rec.named("second")


@pytest.mark.parametrize(
    ("function", "text", "then"),
    [
        (
            "srn_session_connect_to_host",
            "MRSession::connect: Failed to connect to the session. status:7",
            ["srn_session_connect_to_host", "srn_session_disconnect", "srn_session_delete"],
        ),
        ("srn_session_new_with_settings", "MRSession::connect: Could not create session.", None),
    ],
)
def test_refused_connect_leaves_nothing_behind(world, function, text, then):
    world.fail(function)
    assert world.client.connect("key", "session", "token", on_connected_cb=world.rec("connected")) is False
    errors = [text for level, text in world.log.texts() if level == "ERROR"]
    assert errors[0] == text and errors[-1] == "Failed to connect to session"
    assert "MRSession::~MRSession: Timed out disconnecting from session." in errors
    if then:
        assert world.lib.call_names()[-3:] == then
    assert world.client.is_connected() is False
    assert world.lib.live("session") == world.lib.live("session_settings") == 0
    world.mend()
    world.connect(on_connected_cb=world.rec("connected"))
    world.rec.wait("connected")


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
    for _ in range(30):
        world.client.connect("key", "session", "token", on_error_cb=callable_, on_connected_cb=5)
        world.client.disconnect()
    assert sys.getrefcount(callable_) == before
    for count, each in zip(counts, (True, False, None)):
        assert abs(sys.getrefcount(each) - count) < 100


def test_non_callables_are_ignored_silently(world):
    world.connect(on_connected_cb=5, on_stream_received_cb="no", on_error_cb=None)
    world.stream()
    assert not [line for line in world.log.texts() if line[0] in ("WARN", "ERROR")]


def test_disconnect_tears_down_in_order(world):
    world.ready(on_disconnected_cb=world.rec("disconnected"))
    for stream in "st":
        world.subscribe(stream, on_disconnected_cb=world.rec("subscriber gone"))
    world.publish(on_stream_destroyed_cb=world.rec("destroyed"))
    begin = len(world.lib.calls().splitlines())
    assert world.client.disconnect() is True
    world.settle()
    names = [
        name.removeprefix("srn_")
        for name in world.lib.call_names()[begin:]
        if "_get_" not in name and "copy" not in name
    ]
    gone = ["session_unsubscribe", "subscriber_delete"]
    assert sorted(names[:4]) == sorted(gone * 2) and names[:2] in (gone, gone[:1] * 2)
    assert sorted(names[4:]) == sorted(
        ["stream_delete"] * names.count("stream_delete")
        + ["session_unpublish", "publisher_delete", "session_disconnect", "session_delete"]
    )
    order = ["session_unpublish", "publisher_delete", "session_disconnect", "session_delete"]
    assert [name for name in names if name in order] == order
    assert world.lib.live("stream") == world.lib.live("subscriber") == world.lib.live("publisher") == 0
    assert "srn_publisher_delete(publisher=1, user_data=null)" in world.lib.calls()
    assert world.lib.device_slot("is_capturer_started") == world.lib.device_slot("is_renderer_started") == 0
    assert not {event.name for event in world.rec.events} - {"ready"}
    assert world.log.of("TavrinVideoClient", "INFO")[-1] == ("INFO", "Disconnecting from session")


def test_disconnect_without_a_session(world):
    assert [world.client.disconnect(), world.client.disconnect(1, 2)] == [True, True]
    with pytest.raises(TypeError):
        world.client.disconnect(x=1)
    assert "srn_session_disconnect" not in world.lib.call_names()


@pytest.mark.parametrize(
    ("answer", "delay", "line"),
    [
        ("normal", 300, None),
        ("twice", 0, None),
        ("error", 0, None),
        ("error_then_normal", 0, None),
        ("none", 0, "MRSession::~MRSession: Timed out disconnecting from session."),
    ],
)
def test_library_that_confirms_in_its_own_way(world, answer, delay, line):
    world.connect(on_disconnected_cb=world.rec("disconnected"), on_error_cb=world.rec("error"))
    world.lib.answer("disconnected", answer)
    world.lib.delay("disconnected", delay)
    assert world.client.disconnect() is True
    errors = [text for level, text in world.log.texts() if level == "ERROR" and "Timed out" in text]
    assert errors == ([line] if line else [])
    world.settle()
    assert not world.rec.events  # asked for by the program: no callable hears of it
    world.mend()
    world.connect(on_connected_cb=world.rec("again"))
    world.rec.wait("again")


@pytest.mark.parametrize(("status", "lines"), [(1010, 0), (7, 1)])
def test_disconnect_status(world, status, lines):
    world.connect()
    world.fail("srn_session_disconnect", status)

    def confirm_all_the_same():
        world.lib.wait_calls("srn_session_disconnect", 1, 20_000)
        world.lib.session_disconnected()

    confirming = threading.Thread(target=confirm_all_the_same)
    confirming.start()
    assert world.client.disconnect() is True
    confirming.join()
    text = f"MRSession::disconnect: Failed to disconnect from the session. status:{status}"
    assert world.log.texts().count(("ERROR", text)) == lines


@pytest.mark.parametrize("how", ["disconnected", "error", "both", "twice"])
def test_session_that_ends_by_itself(world, how):
    connected = []
    note = lambda *_: connected.append(world.client.is_connected())  # noqa: E731
    world.ready(on_disconnected_cb=world.rec("disconnected", note), on_error_cb=world.rec("error", note))
    world.subscribe("s")
    world.publish()
    if how != "disconnected":
        world.lib.session_error(-5, "gone")
    if how != "error":
        world.lib.session_disconnected()
    if how == "twice":
        world.lib.session_error(-5, "gone")
    world.settle()
    expected = {"disconnected": (1, 0), "error": (0, 1), "both": (1, 1), "twice": (1, 2)}[how]
    assert (len(world.rec.named("disconnected")), len(world.rec.named("error"))) == expected
    assert connected == [False] * sum(expected)
    assert "srn_session_disconnect" not in world.lib.call_names()
    assert world.lib.call_count("srn_session_delete") == 1
    if expected[1]:
        error = ("ERROR", "MRController::onSessionError: session_id:session error_code:-5 error_description:gone")
        assert error in world.log.texts()
        assert ("ERROR", "MRSession::onSessionError: code:-5, description:gone") in world.log.texts()


def test_reconnect_from_inside_on_error_survives_the_old_sessions_end(world):
    def again(*_):
        world.rec("again")(world.client.connect("key", "second", "token", on_connected_cb=world.rec("second")))

    world.connect(on_error_cb=again)
    world.lib.session_error(1, "gone")
    world.lib.session_disconnected()
    assert world.rec.wait("again").args == (True,)
    world.rec.wait("second")
    world.settle()
    assert world.client.is_connected() is True
    assert world.lib.call_count("srn_session_delete") == 1


def test_is_connected_from_connect_to_the_end(world):
    world.lib.answer("connected", "none")
    assert world.client.is_connected() is False
    world.connect()
    assert world.client.is_connected() is True and world.client.is_connected(1, x=2) is True
    world.client.disconnect()
    assert world.client.is_connected() is False


def test_get_connection(world):
    assert world.client.get_connection() is None
    no_session = ("WARN", "MRController::getSessionConnectionInfo: No session")
    assert world.log.texts().count(no_session) == 1
    world.lib.answer("connected", "none")
    world.connect()
    assert world.client.get_connection(1, x=2) is None
    assert world.log.texts().count(no_session) == 1
    world.lib.session_connected()
    world.settle()
    connection = world.client.get_connection()
    assert (connection.id, connection.data) == ("own-connection", "own-data")
    assert connection.creation_time == datetime.fromtimestamp(1_700_000_000) and connection.creation_time.tzinfo is None
    assert type(connection) is world.models.Connection


def test_connected_without_an_own_connection(world):
    world.fail("srn_session_get_connection")
    world.connect(on_connected_cb=world.rec("connected"))
    world.rec.wait("connected")
    text = "MRSession::onSessionConnected: Could not retrieve session connection"
    assert ("WARN", text) in world.log.texts()
    assert world.client.get_connection() is None
