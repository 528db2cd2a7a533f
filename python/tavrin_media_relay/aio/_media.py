"""The async iterators that programs see, and how the module's records become frames."""

from __future__ import annotations

import time
from typing import TypeVar

from .._checks import integer
from .._native.resample import Converter
from ..models import AudioData
from ._channel import Channel, Policy, bounded
from ._fan import Fan
from .frames import AudioFrame

T = TypeVar("T")

#: Default capacities: half a second of audio, a fifth of video, and captions without practical limit.
AUDIO_CAPACITY = 50
VIDEO_CAPACITY = 6
CAPTIONS_CAPACITY = 100


class MediaIterator(Channel[T]):
    """An async iterator over media, with a bounded queue. One task at a time may wait on it."""

    def __init__(self, fan: Fan[T], capacity: int | None, policy: Policy, default: int) -> None:
        super().__init__(fan.open(bounded(capacity, policy, default)))


class AudioIterator(MediaIterator[AudioFrame]):
    """Audio, converted on request. The conversion runs in the consumer."""

    def __init__(
        self,
        fan: Fan[AudioFrame],
        capacity: int | None,
        policy: Policy,
        sample_rate: int | None,
        channels: int | None,
    ) -> None:
        self._wanted_rate = None if sample_rate is None else integer("sample_rate", sample_rate, 8000, 48000)
        self._wanted_channels = None if channels is None else integer("channels", channels, 1, 2)
        super().__init__(fan, capacity, policy, AUDIO_CAPACITY)
        self._converter: Converter | None = None

    async def __anext__(self) -> AudioFrame:
        while True:
            frame = await super().__anext__()
            rate, channels = self._wanted_rate or frame.sample_rate, self._wanted_channels or frame.channels
            form = (frame.sample_rate, frame.channels)
            if (rate, channels) == form:
                return frame
            if self._converter is None or self._converter.form_in != form:
                self._converter = Converter(*form, rate, channels)
            samples = self._converter.convert(frame.samples)
            if samples:  # the first blocks only fill the filter
                return AudioFrame(rate, channels, memoryview(samples), frame.arrived)


def take_audio(fan: Fan[AudioFrame], audio: AudioData) -> None:
    """On the module's thread."""
    now = time.monotonic()
    samples = memoryview(audio.sample_buffer)
    fan.put(AudioFrame(audio.sample_rate, audio.number_of_channels, samples, now), now)
