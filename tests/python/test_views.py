"""What a callable may do with the samples and pixels that it gets, and for how long."""

from __future__ import annotations

import pytest


def subscribed(world, **callables):
    world.connect(level="warn")
    return world.subscribe("s", **callables)


def pattern(width: int, height: int, fill: int = 0) -> bytes:
    """The picture that the scripted library paints, without padding."""
    out = bytearray()
    sizes = [(width, height), ((width + 1) // 2, (height + 1) // 2), ((width + 1) // 2, (height + 1) // 2)]
    for plane, (columns, rows) in enumerate(sizes):
        out += bytes(
            (fill + 50 * plane + row + column) % 256 for row in range(rows) for column in range(columns)
        )
    return bytes(out)


@pytest.mark.parametrize("channels", [1, 2])
def test_audio_view(world, channels):
    subscribed(world, on_audio_data_cb=world.rec("audio"))
    data = b"\x34\x12" * 480 * channels
    world.lib.send_audio("s", data, channels, rate=16000)
    block = world.rec.wait("audio").args[1]
    view = block.sample_buffer
    assert (view.format, view.readonly, view.shape) == ("h", True, (480 * channels,))
    assert view.contiguous and view.nbytes == len(data) and bytes(view) == data and view[0] == 0x1234
    assert (block.sample_rate, block.number_of_channels, block.number_of_frames) == (16000, channels, 480)
    with pytest.raises(TypeError):
        view[0] = 1


def test_frame_view_is_packed(world):
    subscribed(world, on_render_frame_cb=world.rec("frame"))
    frame = {"width": 7, "height": 5, "apart": 1, "stride": (16, 16, 16)}
    assert world.lib.send_frame("s", **frame, fill=9) == 1
    picture = world.rec.wait("frame").args[1]
    view, size = picture.frame_buffer, picture.resolution
    assert (view.format, view.itemsize, view.ndim, view.readonly) == ("B", 1, 1, True)
    assert (size.width, size.height, picture.format) == (frame["width"], frame["height"], "YUV420P")
    assert bytes(view) == pattern(size.width, size.height, 9)


@pytest.mark.parametrize(
    "frame",
    [
        {"width": 64, "height": 48, "format": 6},
        {"width": 64, "height": 48, "apart": 1, "missing": 2},
        {"width": 64, "height": 48, "apart": 1, "buffer_size": -1},
        {"width": 64, "height": 48, "stride": (63, 32, 32), "buffer_size": 5000},
        {"width": 64, "height": -48},
        {"width": 2**31 - 1, "height": 2**31 - 1},
    ],
    ids=str,
)
def test_pictures_that_cannot_be_shown_are_dropped(world, frame):
    subscribed(world, on_render_frame_cb=world.rec("frame"))
    assert world.lib.send_frame("s", **frame) == 1
    assert world.lib.wait_idle(20_000) == 1
    text = "MRSubscriber::onRenderFrame: Failed to convert srn_video_frame to MRVideoFrame"
    world.log.wait("ERROR", text)
    assert not world.rec.events
    world.lib.send_frame("s", 4, 2)
    world.rec.wait("frame")


def test_kept_views_stay_as_they_were(world):
    """Also after their callable, their subscriber, their session; slices, casts and arrays of them, too."""
    import numpy

    subscribed(world, on_audio_data_cb=world.rec("audio"), on_render_frame_cb=world.rec("frame"))
    for number in range(1, 41):
        world.lib.send_audio("s", bytes([number, 0]) * 960)
        world.lib.send_frame("s", 64, 48, fill=number)
        world.rec.wait("audio", number), world.rec.wait("frame", number)
        if number % 2:  # every second one is given back, so that memory is used again
            world.rec.named("audio")[-1].args[1].sample_buffer = None
            world.rec.named("frame")[-1].args[1].frame_buffer = None
    blocks = [event.args[1].sample_buffer for event in world.rec.named("audio")]
    pictures = [event.args[1].frame_buffer for event in world.rec.named("frame")]
    derived = [(view[10:20], view.cast("B"), numpy.frombuffer(view, "<i2")) for view in blocks[1::2]]
    world.rec.events.clear()
    world.client.disconnect()
    world.connect(level="warn")
    world.subscribe("s", on_render_frame_cb=lambda *_: None, on_audio_data_cb=lambda *_: None)
    for _ in range(50):
        world.lib.send_audio("s", b"\xff\x7f" * 960), world.lib.send_frame("s", 64, 48, fill=255)
    world.settle()
    for index, (view, (part, raw, numbers)) in enumerate(zip(blocks[1::2], derived)):
        value = 2 * (index + 1)
        assert set(view) == set(part) == set(numbers.tolist()) == {value} and raw.nbytes == 1920
    del blocks
    assert numbers[0] == value and part[0] == value  # their owner is the memory, not the view
    for index, view in enumerate(pictures[1::2]):
        assert bytes(view) == pattern(64, 48, 2 * (index + 1))


def test_views_that_are_let_go_are_let_go(world):
    """A program that keeps nothing makes the module keep nothing."""
    import resource

    def resident() -> int:
        with open("/proc/self/statm") as statm:
            return int(statm.read().split()[1]) * resource.getpagesize()

    subscribed(world, on_audio_data_cb=lambda *_: None, on_render_frame_cb=lambda *_: None)
    world.lib.fire_frames("s", 200, 640, 480), world.lib.fire_audio("s", 2000)
    before = resident()
    world.lib.fire_frames("s", 400, 640, 480), world.lib.fire_audio("s", 20_000)
    assert resident() - before < 100_000_000  # 400 kept pictures would be 180 MB


def test_first_loud_block_fixes_the_channels(world):
    subscribed(world, on_audio_data_cb=world.rec("audio"))
    silence, loud = bytes(1920), b"\x01\x00" * 960
    for data, channels in [(silence, 2), (silence, 1), (loud, 2), (loud, 1), (silence, 2), (loud, 2)]:
        world.lib.send_audio("s", data, channels)
    assert world.lib.wait_idle(20_000) == 1
    got = [(event.args[1].number_of_channels, any(event.args[1].sample_buffer)) for event in world.rec.events]
    assert got == [(2, True), (2, False), (2, True)]
