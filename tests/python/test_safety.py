"""What must not crash, hang or corrupt, each in a process of its own with a time limit."""

from __future__ import annotations

import re
from pathlib import Path

import pytest
from scripted import PRELUDE

# Everything that can flow flows: sound and pictures of several streams from several threads, captions, mixed
# audio, injected audio and video.
FLOW = """
seen = threading.Semaphore(0)
def work(*args):
    seen.release()
    action(*args)
def action(*args):
    pass
ready = threading.Event()
callables = dict(on_connected_cb=work, on_stream_received_cb=work, on_error_cb=work, on_disconnected_cb=work,
                 on_audio_data_cb=work, on_ready_for_audio_cb=lambda *_: ready.set(),
                 on_media_buffer_drained_cb=work)
client = TavrinVideoClient()
small = SessionVideoPublisherSettings(VideoResolution(64, 48), 100)
settings = SessionSettings(av=SessionAVSettings(video_publisher=small), logging=LoggingSettings(LEVEL))
streams = [Stream(str(n), Connection()) for n in range(4)]
everything = SubscriberSettings(subscribe_to_captions=True)
audio = AudioData(48000, 2, 480, bytes(1920))
frame = VideoFrame(VideoResolution(64, 48), "YUV420P", bytes(64 * 48 * 3 // 2))
def settle():
    assert lib.wait_idle(20000)
    client.get_connection()
def subscribe(stream):
    return client.subscribe(stream, settings=everything, on_audio_data_cb=work, on_render_frame_cb=work,
                            on_caption_text_cb=work, on_connected_cb=work, on_disconnected_cb=work)
def start(rate=200):
    ready.clear()
    lib.answer("audio_device", "none")  # by hand below: once the module knows that it is joined
    assert client.connect("key", "session", "token", session_settings=settings, **callables)
    for stream in streams:
        lib.stream_received(stream.id, "c", "", 0)
    settle()
    assert lib.device_start() == 1
    lib.answer("audio_device", "normal")
    assert all(subscribe(stream) for stream in streams)
    assert client.publish(PublisherSettings("p"), on_stream_created_cb=work, on_error_cb=work)
    assert ready.wait(20)
    assert lib.storm_start("0,1,2,3", rate, rate, 64, 48, 3)
    for _ in range(50):
        assert seen.acquire(timeout=20)
    assert client.add_audio(audio)
"""


def check(program, code: int = 0) -> None:
    assert program.code == code, program
    signs = "Fatal Python error|terminate called|AddressSanitizer|ThreadSanitizer|runtime error:"
    assert not re.search(signs, program.err), program


def flow(text: str, level: str = "error") -> str:
    return FLOW.replace("LEVEL", repr(level)) + text


FAULTS = "\nassert lib.faults() == 0, lib.fault_texts()\n"

FEED = """
def feed():
    while True:
        client.add_audio(audio), client.add_video(frame), client.is_connected()
for _ in range(3):
    threading.Thread(target=feed, daemon=True).start()
time.sleep(0.05)
"""
TURN = """
def turn():
    while True:
        client.unsubscribe(streams[0]), subscribe(streams[0]), client.get_connection()
threading.Thread(target=turn, daemon=True).start()
time.sleep(0.05)
"""
CTRL_C = """
import signal
signal.signal(signal.SIGINT, signal.default_int_handler)  # also where the tests run in the background
signal.raise_signal(signal.SIGINT)
"""
#: (how it ends, the program's last lines, its exit code)
ENDINGS = [
    ("at the end of the program", "", 0),
    ("by sys.exit", "sys.exit(3)", 3),
    ("by an exception", "raise ValueError('end')", 1),
    ("by Ctrl-C", CTRL_C, -2),
    ("while a callable sleeps", "action = lambda *_: time.sleep(0.002)\ntime.sleep(0.05)", 0),
    ("while callables compute", "action = lambda *_: sum(range(3000))\ntime.sleep(0.05)", 0),
    ("while a callable calls the client", "action = lambda *_: client.add_audio(audio)\ntime.sleep(0.05)", 0),
    ("after disconnect", "assert client.disconnect()", 0),
    ("with daemon threads that feed", FEED, 0),
    ("with a daemon thread that subscribes", TURN, 0),
]


@pytest.mark.parametrize(("ending", "text", "code"), ENDINGS, ids=[ending for ending, *_ in ENDINGS])
def test_interpreter_exit_with_all_media_running(run, ending, text, code):
    for _ in range(10 if ending == "at the end of the program" else 3):
        check(run(flow("start()\n" + text)), code)


@pytest.mark.parametrize("seed", range(8))
def test_storm(run, seed):
    path = str(Path(__file__).parent / "storm.py")
    storm = f"import runpy, sys\nsys.argv[1:] = ['{seed}']\nrunpy.run_path({path!r}, run_name='__main__')"
    check(run(storm, prelude=""))


def test_exit_leaves_the_library_in_order(run, tmp_path):
    program = run(
        flow(
            """
over = threading.Event()
start(rate=50)
action = lambda *_: over.is_set() and os.write(2, b"a callable ran")
"""
        ),
        # Registered before the module's own hook, so it runs after it.
        prelude="import atexit\natexit.register(lambda: over.set())\n" + PRELUDE,
        SCRIPTED_CALLS_FILE=str(tmp_path / "calls"),
    )
    check(program)
    names = re.findall(r"^srn_(\w+)\(", (tmp_path / "calls").read_text(), re.MULTILINE)
    ends = "session_disconnect|destroy|(subscriber|publisher|session)_delete"
    assert [name for name in names if re.fullmatch(ends, name)] == [
        *["subscriber_delete"] * 4, "publisher_delete", "session_disconnect", "session_delete", "destroy",
    ]  # fmt: skip
    assert names.count("session_unpublish") == 1 and names.count("session_unsubscribe") == 4
    assert "a callable ran" not in program.err


def test_exit_with_a_callable_that_never_returns(run):
    program = run(flow("start()\naction = lambda *_: threading.Event().wait()\ntime.sleep(0.1)"))
    check(program)


def test_subscriber_that_goes_while_it_is_said_to_be_connected(run):
    """The library's word and the end meet in some runs of this length, not in all."""
    program = run(
        flow(
            """
start()
lib.storm_stop(), lib.storm_start("1,2,3", 200, 200, 64, 48, 3)
end = time.monotonic() + 3
while time.monotonic() < end:
    client.unsubscribe(streams[0]), client.subscribe(streams[0])
"""
            + FAULTS
        )
    )
    check(program)


def test_media_call_that_outlives_its_subscriber(run):
    """Counted as begun by the library, then the subscriber goes, then the slot is called."""
    program = run(
        flow(
            """
start(rate=-1)
lib.delay("media_gap", 3)
for _ in range(60):
    for stream in streams:
        assert client.unsubscribe(stream)
        assert subscribe(stream)
client.disconnect()
lib.storm_stop()
"""
            + FAULTS
        )
    )
    check(program)


def test_library_that_calls_back_after_every_delete(run):
    program = run(
        flow(
            """
start(rate=100)
lib.rogue(1)
for stream in streams:
    client.unsubscribe(stream)
    for _ in range(20):
        lib.caption(stream.id, "late", 1), lib.subscriber_error(stream.id, 1, "late")
        lib.subscriber_disconnected(stream.id), lib.subscriber_connected(stream.id)
client.disconnect()
for _ in range(20):
    lib.session_error(1, "late"), lib.session_disconnected(), lib.stream_received("late", "c", "", 0)
    lib.connection_created("c", "", 0), lib.session_connected()
assert lib.wait_idle(20000)
lib.storm_stop()
lib.rogue(0)
assert client.is_connected() is False
assert client.connect("key", "session", "token") is True and client.disconnect() is True
"""
        )
    )
    check(program)


def test_finalisers_that_call_the_client(run):
    """A bound method dies with its slot, and its owner's __del__ calls what is just being done."""
    program = run(
        """
client = TavrinVideoClient()
died = []
class Owner:
    def method(self, *_):
        pass
    def __del__(self):
        died.append(1)
        client.disconnect(), client.unsubscribe(stream), client.unpublish(), client.is_connected()
        client.subscribe(stream, on_error_cb=print)
stream = Stream("s", Connection())
names = ["on_error_cb", "on_connected_cb", "on_disconnected_cb", "on_audio_data_cb", "on_stream_received_cb"]
def owned(*names):
    return {name: Owner().method for name in names}
for how in (client.disconnect, client.unpublish, lambda: client.unsubscribe(stream)):
    before = len(died)
    assert client.connect("key", "session", "token", **owned(*names))
    lib.stream_received("s", "c", "", 0)
    assert lib.wait_idle(20000)
    client.get_connection()
    assert client.subscribe(stream, **owned(*names[:4])) is True
    assert client.publish(PublisherSettings("p"), **owned("on_error_cb")) is True
    how()
    client.disconnect()
    assert len(died) == before + 10, (how, len(died) - before)
"""
        + FAULTS
    )
    check(program)


def test_callable_that_releases_itself_while_it_runs(run):
    """Python keeps a function that runs, but a callable of another language has only its slot's reference."""
    program = run(
        """
import functools, gc
client = TavrinVideoClient()
done = threading.Semaphore(0)
Session.__hash__ = lambda self: 1  # the cache asks for it
def work(session):
    client.disconnect()
    gc.collect()
    done.release()
for _ in range(30):
    # Looks after its cache once the function that it calls has returned.
    assert client.connect("key", "session", "token", on_connected_cb=functools.lru_cache(maxsize=4)(work))
    assert done.acquire(timeout=20)
    client.disconnect()
""",
        PYTHONMALLOC="debug",
    )
    check(program)


def test_buffers_that_change_during_the_call(run):
    """The buffer is held for as long as it is read: a resize in between is refused, not fatal."""
    program = run(
        flow(
            """
start()
shared = bytearray(48000 * 4)
blocks = AudioData(48000, 2, 48000, shared)
refused = 0
def resize():
    global refused
    while not done:
        try:
            shared.extend(bytes(4096)), shared.__delitem__(slice(-4096, None))
        except BufferError:
            refused += 1
done = False
thread = threading.Thread(target=resize)
thread.start()
for _ in range(300):
    client.add_audio(blocks), client.clear_media_buffers()
done = True
thread.join()
client.disconnect()
"""
        )
    )
    check(program)


def test_waiting_methods_keep_nobody_from_running(run):
    """Neither other threads nor signal handlers' threads: the interpreter lock is free meanwhile."""
    program = run(
        """
client = TavrinVideoClient()
lib.answer("disconnected", "none")  # by hand, below
assert client.connect("key", "session", "token")
assert lib.wait_idle(20000)
ran = []
def confirm():
    assert lib.wait_calls("srn_session_disconnect", 1, 20000)
    ran.append(client.is_connected())  # needs the interpreter, while disconnect waits
    lib.session_disconnected()
thread = threading.Thread(target=confirm)
thread.start()
begin = time.monotonic()
assert client.disconnect() is True and time.monotonic() - begin < 4.5, "waited until the time was up"
thread.join()
assert ran == [False]
"""
    )
    check(program)


def test_forked_child_leaves_in_peace(run):
    """It has the controller without its threads, and must neither wait for them nor tell the library."""
    program = run(
        flow(
            """
start()
for ending in (lambda: sys.exit(5), lambda: os._exit(5)):
    child = os.fork()
    if child == 0:
        ending()
    end = time.monotonic() + 20
    while (found := os.waitpid(child, os.WNOHANG)) == (0, 0):
        if time.monotonic() > end:
            os.kill(child, 9)
        time.sleep(0.01)
    assert os.waitstatus_to_exitcode(found[1]) == 5, found
assert client.add_audio(audio) and client.disconnect()
"""
        )
    )
    check(program)
