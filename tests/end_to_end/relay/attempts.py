"""Tries to join, once for each (room, host, token, certificate authority, ...) of ATTEMPTS, and tells how
each attempt ended: code 0 for a success."""

from __future__ import annotations

import json
import os
import queue

import tavrin_media_relay as tavrin

client = tavrin.TavrinVideoClient()
quiet = tavrin.SessionSettings(logging=tavrin.LoggingSettings(level="off"))
for room, host, token, authority, *_ in json.loads(os.environ["ATTEMPTS"]):
    os.environ["API_HOSTNAME"] = host
    os.environ["SARNET_RELAY_CA_FILE"] = authority
    outcome: queue.Queue[tuple[int, str]] = queue.Queue()
    started = client.connect(
        "tests", room, token, session_settings=quiet,
        on_error_cb=lambda session, message, code: outcome.put((code, message)),
        on_connected_cb=lambda session: outcome.put((0, "")),
    )  # fmt: skip
    code, text = outcome.get(timeout=30) if started else (-1, "connect refused")
    client.disconnect()
    print(json.dumps({"event": "attempt", "code": code, "text": text}) + "\n", end="", flush=True)
