"""add_audio, add_video, clear_media_buffers, get_media_buffer_stats, and what the library gets of them."""

from __future__ import annotations

import array
import zlib
from datetime import timedelta
from types import SimpleNamespace
from typing import Any

import pytest

PERIOD = 480


def samples(frames: int, channels: int = 2, seed: int = 1) -> bytes:
    """Loud everywhere and different everywhere, so that order and place can be told."""
    return array.array(
        "h", [(seed + 7919 * i) % 65_521 - 32_760 or 1 for i in range(frames * channels)]
    ).tobytes()


def audio(world, data, frames=None, channels=2, rate=48000):
    count = len(memoryview(data).cast("B")) // 2 // channels if frames is None else frames
    return SimpleNamespace(
        sample_rate=rate, number_of_channels=channels, number_of_frames=count, sample_buffer=data
    )


def wait_captured(world, periods: int) -> bytes:
    """All that the library was given, once `periods` more have come."""
    calls = world.lib.call_count("srn_audio_device_write_capture_data")
    assert world.lib.wait_calls("srn_audio_device_write_capture_data", calls + periods, 20_000) == 1
    return world.lib.captured_bytes(0, world.lib.captured_total())


def test_audio_arrives_sample_for_sample(world):
    world.ready()
    makers: list[Any] = [
        bytes,
        bytearray,
        lambda data: array.array("h", data),
        lambda data: memoryview(data).cast("h"),
    ]
    sent = [samples(PERIOD * 3, seed=seed) for seed in range(len(makers))]
    for make, data in zip(makers, sent):
        given = make(data)
        assert world.client.add_audio(audio_data=audio(world, given, PERIOD * 3)) is True
        if make is bytearray:
            given.clear()  # it was copied, and is not held any more
    assert b"".join(sent) in wait_captured(world, 3 * len(sent) + 2)


def test_buffer_of_a_property_that_gives_a_fresh_object(world):
    """Nothing but the method keeps the buffer alive, and another thread frees memory meanwhile."""

    class Fresh:
        sample_rate, number_of_channels, number_of_frames = 48000, 2, PERIOD

        @property
        def sample_buffer(self):
            return bytearray(samples(PERIOD))

    world.ready()
    for _ in range(20):
        assert world.client.add_audio(Fresh()) is True
    assert samples(PERIOD) * 20 in wait_captured(world, 22)


@pytest.mark.parametrize(
    ("change", "exception"),
    [
        ({"number_of_frames": PERIOD + 1}, ValueError),
        ({"number_of_frames": 2**31, "number_of_channels": 2**31}, ValueError),
        ({"number_of_frames": 2**62, "number_of_channels": 4}, ValueError),
        ({"number_of_frames": -(2**62), "number_of_channels": -4}, None),
        ({"sample_buffer": "abc"}, TypeError),
        ({"number_of_frames": 2**70}, OverflowError),
    ],
)
def test_audio_whose_counts_lie(world, change, exception):
    world.ready()
    data = audio(world, samples(PERIOD))
    vars(data).update(change)
    try:
        assert world.client.add_audio(data) is False and exception is None
    except (ValueError, TypeError, OverflowError) as raised:
        assert exception in (None, type(raised))
    assert not any(wait_captured(world, 3))


def frame(world, buffer, width=64, height=48, format="YUV420P"):
    return world.models.VideoFrame(world.models.VideoResolution(width, height), format, buffer)


def video_settings(world, width=64, height=48, fps=30, format="YUV420P"):
    """Also with what the model classes would refuse."""
    resolution = SimpleNamespace(width=width, height=height)
    picture = SimpleNamespace(resolution=resolution, fps=fps, format=format)
    return SimpleNamespace(audio_publisher=None, audio_subscribers_mix=None, video_publisher=picture)


def connect_with_video(world, level="warn", **picture) -> bool:
    av = video_settings(world, **picture)
    settings = SimpleNamespace(enable_migration=False, av=av, logging=SimpleNamespace(level=level))
    return world.client.connect("key", "session", "token", session_settings=settings)


SIZES = {"YUV420P": 64 * 48 * 3 // 2, "RGB24": 64 * 48 * 3, "ARGB32": 64 * 48 * 4}


@pytest.mark.parametrize(("format", "code"), [("YUV420P", 1), ("RGB24", 8), ("ARGB32", 6)])
def test_pictures_arrive_byte_for_byte(world, format, code):
    assert connect_with_video(world, format=format, fps=200)
    world.publish(has_audio=False)
    assert world.lib.wait_calls("srn_video_capturer_provide_frame", 1, 20_000) == 1  # the black one
    size = SIZES[format]
    pictures = [bytes([number]) * size for number in range(1, 21)]
    for picture in pictures:
        data = bytearray(picture)
        assert world.client.add_video(frame(world, data, format=format)) is True
        data.clear()
    want = [zlib.crc32(picture) for picture in pictures]

    def seen():
        distinct: list[int] = []
        for each in world.lib.provided_frames():
            if not distinct or distinct[-1] != each.checksum:
                distinct.append(each.checksum)
        return distinct

    from scripted import until

    until(lambda: want[-1] in seen(), "the last picture")
    black, *rest = seen()
    assert black not in want and rest[: len(want)] == want
    first = world.lib.provided_frames()[0]
    assert (first.format, first.width, first.height, first.rotation, first.size) == (code, 64, 48, 0, size)


@pytest.mark.parametrize(
    ("change", "exception"),
    [
        ({"frame_buffer": bytes(SIZES["YUV420P"] - 1)}, ValueError),
        ({"format": "ARGB32"}, ValueError),
        ({"width": 2**31 - 1, "height": 2**31 - 1}, ValueError),
        ({"width": -64}, RuntimeError),
        ({"format": "yuv420p"}, RuntimeError),
        ({"frame_buffer": 5}, TypeError),
    ],
)
def test_pictures_whose_sizes_lie(world, change, exception):
    assert connect_with_video(world)
    world.publish()
    # Sound, but not what was agreed on.
    assert world.client.add_video(frame(world, bytes(64 * 50 * 2), height=50)) is False
    assert world.client.add_video(frame(world, bytes(SIZES["RGB24"]), format="RGB24")) is False
    values = {"format": "YUV420P", "frame_buffer": bytes(SIZES["YUV420P"]), **change}
    size = SimpleNamespace(width=values.pop("width", 64), height=values.pop("height", 48))
    with pytest.raises(exception):
        world.client.add_video(SimpleNamespace(resolution=size, **values))
    assert world.client.add_video(frame(world, bytes(SIZES["YUV420P"]))) is True


def test_impossible_and_extreme_picture_settings(world):
    for picture in [{"width": 0}, {"height": -1}, {"fps": 0}, {"fps": -(2**31)}, {"width": 2**31}]:
        assert connect_with_video(world, **picture) is False, picture
    for picture in [{"fps": 2**31 - 1}, {"width": 2**20, "height": 2**20}]:
        assert connect_with_video(world, **picture) is True, picture
        world.publish()
        assert world.client.unpublish() is True and world.client.disconnect() is True


def test_impossible_audio_settings(world):
    """Whatever the program asks for: the session works, only the sound does not."""
    for rate, channels in [(-48000, 2), (48000, -2), (2**31 - 1, 2**31 - 1), (0, 0), (48000, 0)]:
        form = SimpleNamespace(sample_rate=rate, number_of_channels=channels)
        av = SimpleNamespace(audio_publisher=form, audio_subscribers_mix=form, video_publisher=None)
        world.connect(av=av, on_audio_data_cb=world.rec("mix"))
        assert world.lib.device_start() == 1
        world.settle()
        world.client.add_audio(audio(world, samples(PERIOD)))
        world.publish()
        world.client.get_media_buffer_stats()
        assert world.client.disconnect() is True


def test_stats(world):
    world.ready(av=video_settings(world, fps=10))
    assert world.client.get_media_buffer_stats(1).video is None
    world.publish()
    assert world.client.add_audio(audio(world, samples(48000 * 2))) is True
    for _ in range(20):
        assert world.client.add_video(frame(world, bytes(SIZES["YUV420P"]))) is True
    stats = world.client.get_media_buffer_stats()
    assert timedelta(seconds=1) < stats.audio.duration <= timedelta(seconds=2)
    assert timedelta(seconds=1) < stats.video.duration <= timedelta(seconds=2)
    assert world.client.clear_media_buffers() is True
    empty = world.client.get_media_buffer_stats()
    assert empty.audio.duration == timedelta(0) and empty.video.duration <= timedelta(milliseconds=100)
    world.client.unpublish()
    assert world.client.get_media_buffer_stats().video is None
    # Past the point where a product of milliseconds leaves 32 bits.
    assert world.client.add_audio(audio(world, bytes(48000 * 4 * 120))) is True
    assert world.client.get_media_buffer_stats().audio.duration > timedelta(seconds=115)


@pytest.mark.parametrize(("sound", "picture"), [(True, True), (True, False), (False, True)])
def test_drained_report(world, sound, picture):
    world.ready(av=video_settings(world, fps=100), on_media_buffer_drained_cb=world.rec("drained"))
    world.publish(has_audio=sound, has_video=picture)
    before = len(world.rec.named("drained"))
    assert world.client.add_audio(audio(world, samples(PERIOD))) is True
    assert world.client.add_video(frame(world, bytes(SIZES["YUV420P"]))) in (True, False)
    world.rec.wait("drained", before + (2 if picture else 1))
    reports = [event.args[0] for event in world.rec.named("drained")[before:]]
    zero = timedelta(0)
    dry = [(each.audio and each.audio.duration, each.video and each.video.duration) for each in reports]
    assert any(audio == zero and (video is not None) == picture for audio, video in dry), dry
    assert not picture or any(video == zero and (audio is not None) == sound for audio, video in dry), dry
