"""Joins a session, publishes a second of sound, and prints what it hears and sees."""

import array
import math
import threading
import time

import tavrin_media_relay as tavrin

client = tavrin.TavrinVideoClient()
ready = threading.Event()
seen, heard = [], []


def on_stream(session, stream):  # another participant publishes: receive sound, pictures and captions
    client.subscribe(
        stream,
        settings=tavrin.SubscriberSettings(subscribe_to_captions=True),
        on_render_frame_cb=lambda subscriber, frame: seen.append(frame.resolution),
        on_caption_text_cb=lambda subscriber, captions: print("Caption:", captions.text),
    )


client.connect(
    "hello-app",
    "a-session",
    "a-token",
    session_settings=tavrin.SessionSettings(logging=tavrin.LoggingSettings(level="error")),
    on_error_cb=lambda session, message, code: print("Failed:", message, code),
    on_ready_for_audio_cb=lambda session: ready.set(),
    on_stream_received_cb=on_stream,
    on_audio_data_cb=lambda session, audio: heard.append(max(audio.sample_buffer)),
)
if ready.wait(10) and client.publish(tavrin.PublisherSettings(name="hello", has_video=False)):
    tone = array.array("h", (int(8000 * math.sin(i // 2 / 20)) for i in range(96000)))
    client.add_audio(tavrin.AudioData(48000, 2, 48000, tone))
    time.sleep(3)
client.disconnect()
print(f"Saw {len(seen)} pictures of {seen and seen[0]}, heard sound up to {max(heard, default=0)}")
