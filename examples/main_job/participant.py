"""The automated participant: listens, speaks when it is quiet, stops when interrupted, and leaves."""

from __future__ import annotations

import hashlib
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, field

import numpy as np

import tavrin_media_relay as tavrin
from ear import Ear
from material import CHANNELS, FPS, HEIGHT, RATE, WIDTH, Material, thumbnail

PATIENCE = 30.0  # seconds that a single wait may last


@dataclass
class Report:
    """All that happened, for the checks and the table."""

    events: list[tuple[float, str]] = field(default_factory=list)
    spoken: list[np.ndarray] = field(default_factory=list)
    interrupted: int = -1  # index into `spoken`
    pictures_at_clear: int = 0  # sent until then
    pictures_sent: list[bytes] = field(default_factory=list)  # digest of each, in order
    mix: list[bytes] = field(default_factory=list)  # what we heard: the session's mix, 10 ms each
    voice: list[bytes] = field(default_factory=list)  # what we heard: the one stream
    voice_channels: int = 0
    thumbnails: list[np.ndarray] = field(default_factory=list)  # what we saw
    kept: list[tuple[float, tavrin.VideoFrame]] = field(default_factory=list)  # one picture a second
    captions: list[tuple[str, bool]] = field(default_factory=list)
    drained_audio: int = 0
    drained_video: int = 0
    most_buffered: dict[str, float] = field(default_factory=lambda: {"audio": 0.0, "video": 0.0})
    before_clear: tuple[float, float] = (0.0, 0.0)
    after_clear: tuple[float, float] = (0.0, 0.0)
    watched: float = 0.0  # seconds from the first picture seen to the last
    left: bool = False


class Participant:
    """One visit to a session. The callables below run on native threads; `visit` on the caller's."""

    def __init__(self, material: Material) -> None:
        self.client = tavrin.TavrinVideoClient()
        self.report = Report()
        self.ear = Ear()
        self._material = material
        self._begin = time.monotonic()
        self._changed = threading.Condition()
        self._seen: set[str] = set()  # names of events that have happened
        self._failure: str | None = None
        self._speaking = False
        self._leaving = threading.Event()
        self._feeding = threading.Event()
        self._pictures = threading.Lock()  # held while adding pictures and while clearing

    # ---- what the session tells us ----------------------------------------------------------------

    def _happened(self, name: str, detail: str = "") -> None:
        with self._changed:
            self.report.events.append((self.clock(), f"{name} {detail}".rstrip()))
            self._seen.add(name)
            self._changed.notify_all()

    def _on_error(self, session: tavrin.Session, message: str, code: int) -> None:
        self._fail(f"session error {code}: {message}")

    def _on_stream(self, session: tavrin.Session, stream: tavrin.Stream) -> None:
        self._happened("stream received", f"{stream.id} from {stream.connection.data!r}")
        self.client.subscribe(
            stream,
            settings=tavrin.SubscriberSettings(subscribe_to_captions=True),
            on_error_cb=lambda subscriber, message, code: self._on_error(session, message, code),
            on_connected_cb=lambda subscriber: self._happened("subscribed"),
            on_audio_data_cb=self._on_voice,
            on_render_frame_cb=self._on_frame,
            on_caption_text_cb=self._on_caption,
        )

    def _on_voice(self, subscriber: tavrin.Subscriber, audio: tavrin.AudioData) -> None:
        self.report.voice_channels = audio.number_of_channels
        self.report.voice.append(bytes(audio.sample_buffer))
        self.ear.hear(np.frombuffer(audio.sample_buffer, np.int16))

    def _on_mix(self, session: tavrin.Session, audio: tavrin.AudioData) -> None:
        self.report.mix.append(bytes(audio.sample_buffer))

    def _on_frame(self, subscriber: tavrin.Subscriber, frame: tavrin.VideoFrame) -> None:
        report, now = self.report, self.clock()
        report.thumbnails.append(thumbnail(np.frombuffer(frame.frame_buffer, np.uint8)))
        if not report.kept or now - report.kept[-1][0] >= 1.0:
            report.kept.append((now, frame))  # no copy: a frame's pixels live as long as its view
        report.watched = now - report.kept[0][0]

    def _on_caption(self, subscriber: tavrin.Subscriber, captions: tavrin.CaptionsData) -> None:
        self.report.captions.append((captions.text, captions.is_final))
        self._happened("caption", captions.text)

    def _on_drained(self, stats: tavrin.MediaBufferStats) -> None:
        # A notice for video has the audio's state too, even when there is nothing to say.
        if self._speaking and stats.audio is not None and not stats.audio.duration:
            self._speaking = False
            self.report.drained_audio += 1
            self._happened(f"said {len(self.report.spoken)}")
        if stats.video is not None and not stats.video.duration:
            self.report.drained_video += 1
            self._happened("pictures ran dry")
            self._feeding.set()

    # ---- what we do ---------------------------------------------------------------------------------

    def clock(self) -> float:
        return time.monotonic() - self._begin

    def _wait(self, name: str) -> None:
        with self._changed:
            arrived = self._changed.wait_for(lambda: name in self._seen or self._failure, PATIENCE)
        if self._failure:
            raise RuntimeError(self._failure)
        if not arrived:
            raise RuntimeError(f"waited {PATIENCE:.0f} s in vain for: {name}")

    def buffered(self) -> tuple[float, float]:
        """Seconds of our audio and video queued to be sent."""
        stats = self.client.get_media_buffer_stats()
        if not stats:
            return 0.0, 0.0
        audio = stats.audio.duration.total_seconds() if stats.audio else 0.0
        video = stats.video.duration.total_seconds() if stats.video else 0.0
        most = self.report.most_buffered
        most["audio"], most["video"] = max(most["audio"], audio), max(most["video"], video)
        return audio, video

    def _say(self, number: int) -> None:
        samples = self._material.speech[number]
        if not self.client.add_audio(tavrin.AudioData(RATE, CHANNELS, len(samples), samples)):
            raise RuntimeError("add_audio refused our speech")
        self.report.spoken.append(samples)
        self._speaking = True
        self._happened("speaking", f"{len(samples) / RATE:.1f} s")

    def _fail(self, reason: str) -> None:
        self._failure = reason
        self._happened("failed", reason)

    def _show_pictures(self) -> None:
        """Keeps half a second to a second of pictures queued, except in the pause after a clear."""
        pictures = self._material.pictures
        size = tavrin.VideoResolution(WIDTH, HEIGHT)
        while not self._leaving.wait(0.05):
            with self._pictures:
                if not self._feeding.is_set() or self.buffered()[1] >= 0.5:
                    continue
                for _ in range(FPS // 2):
                    picture = pictures[len(self.report.pictures_sent) % len(pictures)]
                    if not self.client.add_video(tavrin.VideoFrame(size, "YUV420P", picture)):
                        self._fail("add_video refused a picture")
                        return
                    self.report.pictures_sent.append(hashlib.blake2b(picture, digest_size=16).digest())

    def _give_way(self) -> None:
        """Barge-in: somebody speaks while we do, so we drop everything not yet said and shown."""
        with self._pictures:
            self._feeding.clear()
            self._speaking = False
            self.report.before_clear = self.buffered()
            if not self.client.clear_media_buffers():
                raise RuntimeError("clear_media_buffers failed")
            self.report.after_clear = self.buffered()
            self.report.interrupted = len(self.report.spoken) - 1
            self.report.pictures_at_clear = len(self.report.pictures_sent)
        self._happened("gave way", f"dropped {self.report.before_clear[0]:.1f} s of speech")

    def visit(self, session_id: str, before_leaving: Callable[[], None]) -> Report:
        """Takes part in the session from joining to leaving; `before_leaving` runs while still joined."""
        joined = self.client.connect(
            "demo-application",
            session_id,
            "demo-token",
            session_settings=tavrin.SessionSettings(logging=tavrin.LoggingSettings(level="error")),
            on_error_cb=self._on_error,
            on_connected_cb=lambda session: self._happened("connected"),
            on_disconnected_cb=lambda session: self._on_error(session, "the session ended", 0),
            on_stream_received_cb=self._on_stream,
            on_stream_dropped_cb=lambda session, stream: self._happened("stream dropped", stream.id),
            on_audio_data_cb=self._on_mix,
            on_ready_for_audio_cb=lambda session: self._happened("ready for audio"),
            on_media_buffer_drained_cb=self._on_drained,
        )
        if not joined:
            raise RuntimeError("connect refused")
        self._wait("ready for audio")
        settings = tavrin.PublisherSettings(name="Demo participant")
        if not self.client.publish(
            settings, on_stream_created_cb=lambda publisher: self._happened("published")
        ):
            raise RuntimeError("publish refused")
        self._wait("published")
        feeder = threading.Thread(target=self._show_pictures, name="pictures")
        self._feeding.set()
        feeder.start()
        try:
            self._converse()
            before_leaving()
        finally:
            self._leaving.set()
            feeder.join()
            self.report.left = self.client.disconnect() and not self.client.is_connected()
        self._happened("left")
        return self.report

    def _converse(self) -> None:
        self._wait("subscribed")
        self.ear.wait_for_voice(PATIENCE)
        self.ear.wait_for_quiet(PATIENCE)
        for number in range(2):  # each piece follows once the one before has been said
            self._say(number)
            self._wait(f"said {number + 1}")
        self._say(2)
        self.ear.wait_for_voice(PATIENCE)
        self._give_way()
        self._wait("pictures ran dry")
        self.ear.wait_for_quiet(PATIENCE)
        self._say(3)
        self._wait("said 4")
