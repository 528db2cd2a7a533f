"""A participant for the tests: publishes marked media, takes in everything, tells about it line by line.

Each line on standard output is a JSON object with an "event". The program leaves at the end of its
standard input, and its last line says what it received.
"""

from __future__ import annotations

import argparse
import json
import os
import sys
import threading
import time

import marks
import numpy as np

import tavrin_media_relay as tavrin
from tavrin_media_relay import captions

_telling = threading.Lock()


def tell(event: str, **details: object) -> None:
    # In one piece, even where Python does not buffer: log lines go to the same pipe.
    with _telling:
        print(json.dumps({"event": event, **details}) + "\n", end="", flush=True)


class Received:
    """What came of one stream. Sound, pictures and captions come on a thread each."""

    def __init__(self, stream: tavrin.Stream, wanted: argparse.Namespace) -> None:
        self._stream = stream
        self._wanted = wanted
        self._lock = threading.Lock()
        self._told = False
        self.marks: list[tuple[int, int]] = []
        self.unmarked = 0
        self.size = (0, 0)
        self.colours: list[tuple[float, ...]] = []
        self.sound: list[np.ndarray] = []
        self.loud = 0
        self.captions: list[tuple[str, bool]] = []

    def on_frame(self, subscriber: tavrin.Subscriber, frame: tavrin.VideoFrame) -> None:
        width, height = frame.resolution.width, frame.resolution.height
        self.size = (width, height)
        planes = np.frombuffer(frame.frame_buffer, np.uint8)
        luma = planes[: width * height]
        mark = marks.read(luma.reshape(height, width)) if width == marks.WIDTH else None
        if mark is None:
            self.unmarked += 1
            chroma = planes[width * height :].reshape(2, -1)
            self.colours.append((luma.mean(), chroma[0].mean(), chroma[1].mean()))
        else:
            self.marks.append(mark)
        self._enough()

    def on_audio(self, subscriber: tavrin.Subscriber, audio: tavrin.AudioData) -> None:
        samples = np.frombuffer(audio.sample_buffer, np.int16).reshape(-1, audio.number_of_channels)
        self.sound.append(samples)
        self.loud += bool(np.sqrt((samples.astype(np.float32) ** 2).mean()) > marks.LOUD)
        self._enough()

    def on_caption(self, subscriber: tavrin.Subscriber, caption: tavrin.CaptionsData) -> None:
        self.captions.append((caption.text, caption.is_final))
        tell("caption", stream=self._stream.id, text=caption.text, final=caption.is_final)
        self._enough()

    def _enough(self) -> None:
        with self._lock:
            done = (
                len(self.marks) + self.unmarked >= self._wanted.frames
                and self.loud >= self._wanted.loud
                and len(self.captions) >= self._wanted.captions
            )
            if self._told or not done:
                return
            self._told = True
        tell("enough", stream=self._stream.id)

    def summary(self) -> dict[str, object]:
        sound = np.concatenate(self.sound) if self.sound else np.zeros((0, 2), np.int16)
        found = marks.find_bursts(sound)
        longest = max(found, key=len) if found else None
        return {
            "connection": self._stream.connection.id,
            "makers": sorted({maker for maker, _ in self.marks}),
            "numbers": [number for _, number in self.marks],
            "unmarked": self.unmarked,
            "size": self.size,
            "colours": np.quantile(self.colours or [(0.0,) * 3], (0.1, 0.9), 0).round().tolist(),
            "sound_seconds": len(sound) / marks.RATE,
            "loud": self.loud,
            "bursts": len(found),
            "frequencies": marks.frequencies(longest) if longest is not None else [],
            "captions": self.captions,
        }


class Program:
    def __init__(self, arguments: argparse.Namespace) -> None:
        self.arguments = arguments
        self.client = tavrin.TavrinVideoClient()
        self.received: dict[str, Received] = {}
        self.leaving = threading.Event()

    def _on_stream(self, session: tavrin.Session, stream: tavrin.Stream) -> None:
        tell("stream", id=stream.id, connection=stream.connection.id, data=stream.connection.data)
        received = self.received[stream.id] = Received(stream, self.arguments)
        self.client.subscribe(
            stream,
            settings=tavrin.SubscriberSettings(subscribe_to_captions=True, video_settings=self._wishes()),
            on_error_cb=lambda subscriber, message, code: tell("subscriber error", text=message, code=code),
            on_connected_cb=lambda subscriber: tell("subscribed", id=stream.id),
            on_disconnected_cb=lambda subscriber: tell("unsubscribed", id=stream.id),
            on_audio_data_cb=received.on_audio,
            on_render_frame_cb=received.on_frame,
            on_caption_text_cb=received.on_caption,
        )

    def _wishes(self) -> tavrin.SubscriberVideoSettings | None:
        if self.arguments.wish is None:
            return None
        width, height, rate = self.arguments.wish
        return tavrin.SubscriberVideoSettings(tavrin.VideoResolution(width, height), rate)

    def tell_progress(self) -> None:
        while not self.leaving.wait(0.1):
            streams = {
                name: (len(each.marks), len(each.sound), each.loud)
                for name, each in self.received.copy().items()
            }
            tell("progress", at=time.monotonic(), streams=streams)

    def join(self) -> bool:
        size = tavrin.VideoResolution(marks.WIDTH, marks.HEIGHT)
        video = tavrin.SessionVideoPublisherSettings(size, marks.FPS, "YUV420P")
        ready = threading.Event()
        return (
            self.client.connect(
                "tests",
                self.arguments.session,
                os.environ["TOKEN"],
                session_settings=tavrin.SessionSettings(
                    av=tavrin.SessionAVSettings(video_publisher=video),
                    logging=tavrin.LoggingSettings(level="error"),
                ),
                on_error_cb=lambda session, message, code: tell("session error", text=message, code=code),
                on_connected_cb=lambda session: tell("connected", id=session.id),
                on_disconnected_cb=lambda session: tell("disconnected"),
                on_connection_created_cb=lambda session, other: tell(
                    "connection", id=other.id, data=other.data
                ),
                on_connection_dropped_cb=lambda session, other: tell("connection dropped", id=other.id),
                on_stream_received_cb=self._on_stream,
                on_stream_dropped_cb=lambda session, stream: tell("stream dropped", id=stream.id),
                on_ready_for_audio_cb=lambda session: ready.set(),
            )
            and ready.wait(20)
            and self.client.publish(
                tavrin.PublisherSettings(name=f"Program {self.arguments.maker}", enable_captions=True),
                on_error_cb=lambda publisher, message, code: tell("publisher error", text=message, code=code),
                on_stream_created_cb=lambda publisher: tell("published", id=publisher.stream.id),
            )
        )

    def show(self) -> None:
        maker = self.arguments.maker
        left, right = self.arguments.tones
        samples = marks.bursts(left, right, 60)
        self.client.add_audio(tavrin.AudioData(marks.RATE, marks.CHANNELS, len(samples) // 2, samples))
        size = tavrin.VideoResolution(marks.WIDTH, marks.HEIGHT)
        begin = time.monotonic()
        for number in range(60 * marks.FPS):
            if self.leaving.wait(max(0.0, begin + (number - 3) / marks.FPS - time.monotonic())):
                return
            frame = tavrin.VideoFrame(
                size, "YUV420P", marks.picture(maker, number % (1 << marks.NUMBER_BITS), self.arguments.busy)
            )
            self.client.add_video(frame)
            if number % 10 == 0:
                captions.send(f"Grüße {number} von {maker}", is_final=number % 20 == 0)


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--session", default="marks")
    parser.add_argument("--maker", type=int, required=True)
    parser.add_argument("--tones", type=int, nargs=2, required=True)
    parser.add_argument("--wish", type=int, nargs=3, help="width, height and rate of pictures")
    parser.add_argument("--frames", type=int, default=60, help="that are enough")
    parser.add_argument("--loud", type=int, default=60, help="periods of sound that are enough")
    parser.add_argument("--captions", type=int, default=2)
    parser.add_argument("--busy", action="store_true", help="send pictures that are hard to code")
    parser.add_argument("--progress", action="store_true", help="tell pictures and blocks of sound so far")
    program = Program(parser.parse_args())
    threads = [threading.Thread(target=program.show)]
    if program.arguments.progress:
        threads.append(threading.Thread(target=program.tell_progress))
    joined = program.join()
    if joined:
        for thread in threads:
            thread.start()
    else:
        tell("refused")
    sys.stdin.read()
    program.leaving.set()
    for thread in threads if joined else []:
        thread.join()
    begin = time.monotonic()
    program.client.disconnect()
    took = time.monotonic() - begin
    tell("left", seconds=took, received={name: each.summary() for name, each in program.received.items()})


if __name__ == "__main__":
    main()
