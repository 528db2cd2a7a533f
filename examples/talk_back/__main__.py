"""A program to talk to: it repeats what it hears, shows what it is doing, and captions itself.

    API_HOSTNAME=ws://127.0.0.1:8188 SESSION_ID=lobby TOKEN=... ./dev python examples/talk_back

`./dev room` starts it together with a server and a page for the browser.
"""

from __future__ import annotations

import argparse
import os
import signal
import sys
import threading
import time

import numpy as np

import tavrin_media_relay as tavrin
from listening import CHANNELS, RATE, Listener
from painting import FPS, HEIGHT, WIDTH, Painter
from tavrin_media_relay import captions


class TalkBack:
    """One visit to a session. The callables run on native threads; `run` on the caller's."""

    def __init__(self, delay: float) -> None:
        self.client = tavrin.TavrinVideoClient()
        self.listener = Listener()
        self.painter = Painter()
        self.leaving = threading.Event()
        self.failure = ""
        self._ready = threading.Event()
        self._delay = delay
        self._streams: set[str] = set()

    def _stop(self, reason: str) -> None:
        self.failure = reason
        self.leaving.set()

    def _on_stream(self, session: tavrin.Session, stream: tavrin.Stream) -> None:
        self._streams.add(stream.id)
        self.client.subscribe(
            stream,
            settings=tavrin.SubscriberSettings(subscribe_to_video=False, subscribe_to_captions=True),
            on_error_cb=lambda subscriber, message, code: print(
                f"Cannot hear {stream.id}: {message}", file=sys.stderr
            ),
            on_caption_text_cb=self._on_caption,
        )

    def _on_stream_dropped(self, session: tavrin.Session, stream: tavrin.Stream) -> None:
        self._streams.discard(stream.id)
        self.client.unsubscribe(stream)

    def _on_caption(self, subscriber: tavrin.Subscriber, text: tavrin.CaptionsData) -> None:
        if text.is_final:
            captions.send(f"You wrote: {text.text[:500]}")

    def _on_audio(self, session: tavrin.Session, audio: tavrin.AudioData) -> None:
        self.listener.hear(np.frombuffer(audio.sample_buffer, np.int16))

    def join(self, application: str, session_id: str, token: str) -> None:
        form = tavrin.SessionAudioSettings(sample_rate=RATE, number_of_channels=CHANNELS)
        size = tavrin.VideoResolution(WIDTH, HEIGHT)
        settings = tavrin.SessionSettings(
            av=tavrin.SessionAVSettings(
                audio_publisher=form,
                audio_subscribers_mix=form,
                video_publisher=tavrin.SessionVideoPublisherSettings(size, FPS, "RGB24"),
            ),
            logging=tavrin.LoggingSettings(level="error"),
        )
        if not self.client.connect(
            application,
            session_id,
            token,
            session_settings=settings,
            on_error_cb=lambda session, message, code: self._stop(f"{message} ({code})"),
            on_disconnected_cb=lambda session: self._stop("the session ended"),
            on_stream_received_cb=self._on_stream,
            on_stream_dropped_cb=self._on_stream_dropped,
            on_audio_data_cb=self._on_audio,
            on_ready_for_audio_cb=lambda session: self._ready.set(),
        ):
            raise RuntimeError("connect refused")
        while not self._ready.wait(0.1):
            if self.leaving.is_set():
                raise RuntimeError(self.failure or "interrupted")
        publishing = tavrin.PublisherSettings(name="Talk back", enable_captions=True)
        if not self.client.publish(
            publishing, on_error_cb=lambda publisher, message, code: self._stop(f"{message} ({code})")
        ):
            raise RuntimeError("publish refused")

    def run(self) -> None:
        """Until somebody sets `leaving`."""
        showing = threading.Thread(target=self._show, name="pictures")
        showing.start()
        try:
            self._converse()
        finally:
            self.leaving.set()
            showing.join()

    def _converse(self) -> None:
        while not self.leaving.is_set():
            heard = self.listener.next_utterance(0.2)
            if heard is None:
                continue
            self.painter.say("thinking")
            if self.leaving.wait(self._delay):
                return
            seconds = len(heard) / CHANNELS / RATE
            self.listener.deafen(seconds + 0.5)  # loudspeakers may bring our own voice back
            self.painter.say("speaking")
            if not self.client.add_audio(tavrin.AudioData(RATE, CHANNELS, len(heard) // CHANNELS, heard)):
                self._stop("add_audio refused what we heard")
                return
            captions.send(f"You spoke for {seconds:.1f} seconds. This is what I heard.")
            self.leaving.wait(seconds)
            self.painter.say("listening")

    def _show(self) -> None:
        """Keeps a few pictures queued: few, so that they show the current state."""
        size = tavrin.VideoResolution(WIDTH, HEIGHT)
        begin = time.monotonic()
        shown = 0
        while not self.leaving.wait(max(0.0, begin + (shown - 4) / FPS - time.monotonic())):
            if time.monotonic() - begin - shown / FPS > 1:  # we were delayed: no need to catch up
                begin = time.monotonic() - shown / FPS
            picture = self.painter.paint(shown, self.listener.level, len(self._streams))
            self.client.add_video(tavrin.VideoFrame(size, "RGB24", picture))
            shown += 1


def main() -> int:
    parser = argparse.ArgumentParser(prog="talk_back", description=__doc__.splitlines()[0])
    parser.add_argument("--session", default=os.environ.get("SESSION_ID", "lobby"))
    parser.add_argument("--application", default=os.environ.get("APPLICATION_ID", "talk-back"))
    parser.add_argument("--delay", type=float, default=0.6, help="seconds before it answers (default: 0.6)")
    arguments = parser.parse_args()
    program = TalkBack(arguments.delay)
    for name in (signal.SIGINT, signal.SIGTERM):
        signal.signal(name, lambda number, frame: program.leaving.set())
    try:
        program.join(arguments.application, arguments.session, os.environ.get("TOKEN", "a-token"))
        program.run()
    except RuntimeError as error:
        program.failure = program.failure or str(error)
    finally:
        program.client.disconnect()
    if program.failure:
        print(f"Talk back stopped: {program.failure}", file=sys.stderr)
    return 1 if program.failure else 0


if __name__ == "__main__":
    sys.exit(main())
