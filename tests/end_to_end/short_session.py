"""A short session on the embedded engine: publishes what it is given, tells what it heard and saw.

Run by the tests with the path of an .npz of arguments and the path of the .npz to write.
"""

from __future__ import annotations

import sys
import threading

import numpy as np

import tavrin_media_relay as tavrin

given = np.load(sys.argv[1])
speech, pictures = given["speech"], given["pictures"]  # (frames, channels); (count, height * 3 / 2, width)
rate, channels = int(given["rate"]), speech.shape[1]
size = tavrin.VideoResolution(pictures.shape[2], pictures.shape[1] * 2 // 3)

changed = threading.Condition()
seen: list[np.ndarray] = []
heard: list[np.ndarray] = []
captions: list[str] = []
happened: set[str] = set()


def note(name: str) -> None:
    with changed:
        happened.add(name)
        changed.notify_all()


def wait(name: str, condition) -> None:
    with changed:
        if not changed.wait_for(lambda: condition() or "failed" in happened, 30) or "failed" in happened:
            sys.exit(f"waiting for {name}: happened {happened}, heard {len(heard)}, seen {len(seen)}")


def on_frame(subscriber: tavrin.Subscriber, frame: tavrin.VideoFrame) -> None:
    picture = np.frombuffer(frame.frame_buffer, np.uint8)  # a view, kept: it must not change any more
    with changed:
        seen.append(picture.reshape(frame.resolution.height * 3 // 2, frame.resolution.width))
        changed.notify_all()


def on_caption(subscriber: tavrin.Subscriber, caption: tavrin.CaptionsData) -> None:
    captions.append(caption.text)
    note("caption")


def on_mix(session: tavrin.Session, audio: tavrin.AudioData) -> None:
    with changed:
        heard.append(np.frombuffer(audio.sample_buffer, np.int16).reshape(-1, audio.number_of_channels))
        changed.notify_all()


def on_stream(session: tavrin.Session, stream: tavrin.Stream) -> None:
    client.subscribe(
        stream,
        settings=tavrin.SubscriberSettings(subscribe_to_captions=True),
        on_render_frame_cb=on_frame,
        on_caption_text_cb=on_caption,
    )


def on_drained(stats: tavrin.MediaBufferStats) -> None:
    if stats.audio is not None and not stats.audio.duration:
        note("drained")


form = tavrin.SessionAudioSettings(rate, channels)
client = tavrin.TavrinVideoClient()
client.connect(
    "test-application", "short", "token",
    session_settings=tavrin.SessionSettings(
        av=tavrin.SessionAVSettings(form, form, tavrin.SessionVideoPublisherSettings(size))
    ),
    on_error_cb=lambda session, message, code: note("failed"),
    on_ready_for_audio_cb=lambda session: note("ready"),
    on_stream_received_cb=on_stream,
    on_audio_data_cb=on_mix,
    on_media_buffer_drained_cb=on_drained,
)  # fmt: skip
wait("readiness", lambda: "ready" in happened)
published = client.publish(
    tavrin.PublisherSettings("short"), on_stream_created_cb=lambda publisher: note("published")
)
assert published
wait("our stream", lambda: "published" in happened)
for picture in pictures:
    assert client.add_video(tavrin.VideoFrame(size, "YUV420P", picture))
for piece in np.array_split(speech, 7):  # pieces that are no whole periods
    assert client.add_audio(tavrin.AudioData(rate, channels, len(piece), np.ascontiguousarray(piece)))
wait("the end of our speech", lambda: "drained" in happened)
wait("a caption", lambda: bool(captions))
wait("a second of sound and of pictures", lambda: len(heard) >= 150 and len(seen) >= 30)
assert client.disconnect()
np.savez(sys.argv[2], seen=np.array(seen[:30]), heard=np.concatenate(heard), captions=captions)
