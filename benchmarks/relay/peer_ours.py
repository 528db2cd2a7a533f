"""This project's end of the benchmark: publishes, or subscribes to all that is published."""

from __future__ import annotations

import argparse
import json
import os
import queue
import threading
import time
from datetime import timedelta
from pathlib import Path

import content
import numpy as np

import tavrin_media_relay as tavrin
from tavrin_media_relay._native import libraries

MOST_WAITING = timedelta(milliseconds=40)


class Peer:
    def __init__(self, options: argparse.Namespace) -> None:
        self.options = options
        self.client = tavrin.TavrinVideoClient()
        self.listeners: list[content.Listener] = []
        self.all_flow = threading.Event()
        self.ready = threading.Event()
        self.streams: queue.Queue[tavrin.Stream] = queue.Queue()
        self.made: list[int] = []

    def join(self) -> None:
        width, height = self.options.size
        video = tavrin.SessionVideoPublisherSettings(
            tavrin.VideoResolution(width, height), self.options.fps, "YUV420P"
        )
        settings = tavrin.SessionSettings(
            av=tavrin.SessionAVSettings(video_publisher=video),
            logging=tavrin.LoggingSettings(level="error"),
        )
        joined = self.client.connect(
            "bench",
            self.options.room,
            os.environ["TOKEN"],
            session_settings=settings,
            on_error_cb=lambda session, text, code: print(f"session error {code}: {text}", flush=True),
            on_stream_received_cb=lambda session, stream: self.streams.put(stream),
            on_ready_for_audio_cb=lambda session: self.ready.set(),
        )
        library = libraries.find_sarnet() if self.options.raw else None
        if library is not None:
            library.srn_log_enable(4)  # it tells at the end what was lost
        if not joined or not self.ready.wait(20):
            raise SystemExit("joining failed")

    def subscribe(self, stream: tavrin.Stream) -> None:
        listener = content.Listener(content.now_ms())
        self.listeners.append(listener)

        def flows() -> None:
            if sum(len(each.first) for each in self.listeners) >= 2 * self.options.streams:
                self.all_flow.set()

        def on_frame(subscriber: tavrin.Subscriber, frame: tavrin.VideoFrame) -> None:
            width, height = frame.resolution.width, frame.resolution.height
            pixels = np.frombuffer(frame.frame_buffer, np.uint8)
            listener.picture(pixels[: width * height].reshape(height, width))
            flows()

        def on_audio(subscriber: tavrin.Subscriber, audio: tavrin.AudioData) -> None:
            listener.sound(np.frombuffer(audio.sample_buffer, np.int16))
            flows()

        self.client.subscribe(stream, on_render_frame_cb=on_frame, on_audio_data_cb=on_audio)

    def publish(self, stop: threading.Event) -> None:
        created = threading.Event()
        settings = tavrin.PublisherSettings(name="bench")
        published = self.client.publish(settings, on_stream_created_cb=lambda publisher: created.set())
        if not published or not created.wait(20):
            raise SystemExit("publishing failed")
        print(json.dumps({"event": "ready"}), flush=True)
        width, height = self.options.size
        pictures, pieces = content.Pictures(width, height), content.tone(10)
        self.made = pictures.made
        bursts = content.Bursts(self.options.bursts)
        begin, number, piece = time.monotonic(), 0, 0
        while not stop.is_set():
            if piece == 100:
                self.client.clear_media_buffers()  # what was fed before anyone took it would be late for ever
            next_picture, next_piece = begin + number / self.options.fps, begin + piece / 100
            time.sleep(max(0.0, min(next_picture, next_piece) - time.monotonic()))
            waiting = self.client.get_media_buffer_stats()
            assert waiting
            # What gathered while the processor was busy elsewhere would make all that follows late: it is
            # left out.
            if next_piece <= next_picture:
                piece += 1
                samples, is_burst = next(pieces)
                if waiting.audio and waiting.audio.duration > MOST_WAITING:
                    continue
                if is_burst:
                    bursts.sent()
                self.client.add_audio(
                    tavrin.AudioData(content.RATE, content.CHANNELS, len(samples) // 4, samples)
                )
            else:
                number += 1
                if waiting.video and waiting.video.duration > MOST_WAITING:
                    continue
                resolution = tavrin.VideoResolution(width, height)
                self.client.add_video(tavrin.VideoFrame(resolution, "YUV420P", pictures.make(number)))


def measure(peer: Peer, options: argparse.Namespace) -> dict[str, object]:
    time.sleep(options.warm_up)
    for listener in peer.listeners:
        listener.measuring = True
    if options.raw:
        print(json.dumps({"event": "measuring"}), flush=True)
    begin, used = time.monotonic(), content.processor_seconds()
    time.sleep(options.seconds)
    for listener in peer.listeners:
        listener.measuring = False
    took, used = time.monotonic() - begin, content.processor_seconds() - used
    bursts = content.Bursts(options.bursts)
    if options.raw:
        shown = [each for listener in peer.listeners for each in listener.shown]
        return {"event": "result", "shown": shown, "made": peer.made}
    return {
        "cpu_per_second": round(used / took, 4),
        "resident_mib": content.resident_mib(),
        "threads": content.threads(),
        "frames_per_second": [round(each.frames / took, 2) for each in peer.listeners],
        "samples_per_second": [round(each.samples / took) for each in peer.listeners],
        "first_ms": [each.first for each in peer.listeners],
        "video_ms": content.quantiles([age for each in peer.listeners for age in each.ages]),
        "audio_ms": content.quantiles(
            [delay for each in peer.listeners for delay in bursts.delays(each.heard)]
        ),
    }


def options() -> argparse.Namespace:
    parser = argparse.ArgumentParser()
    parser.add_argument("role", choices=["pub", "sub"])
    parser.add_argument("--room", required=True)
    parser.add_argument("--url", required=True)
    parser.add_argument("--bursts", type=Path, required=True)
    parser.add_argument("--size", type=lambda text: tuple(map(int, text.split("x"))), default=(640, 480))
    parser.add_argument("--fps", type=int, default=30)
    parser.add_argument("--streams", type=int, default=1, help="to wait for when subscribing")
    parser.add_argument("--warm-up", type=float, default=4)
    parser.add_argument("--seconds", type=float, default=20)
    parser.add_argument("--tail", type=float, default=2, help="seconds to go on publishing")
    parser.add_argument("--raw", action="store_true", help="tell each picture, made or shown")
    return parser.parse_args()


def main() -> None:
    arguments = options()
    peer = Peer(arguments)
    peer.join()
    stop = threading.Event()
    feeder = threading.Thread(target=peer.publish, args=(stop,))
    if arguments.role == "pub":
        feeder.start()
    else:
        time.sleep(content.SETTLED)
        for _ in range(arguments.streams):
            peer.subscribe(peer.streams.get(timeout=20))
        if not peer.all_flow.wait(60):
            raise SystemExit("not all media came")
    print(json.dumps(measure(peer, arguments)), flush=True)
    if arguments.role == "pub":
        time.sleep(arguments.tail)
        stop.set()
        feeder.join()
    peer.client.disconnect()


if __name__ == "__main__":
    main()
