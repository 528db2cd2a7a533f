"""Tokens: who may talk to the server, who may enter a room, and until when.

The server keeps no list of them. A token says what it allows and until when, and is signed with the secret
that the server and whoever hands out tokens share. Two are needed to join: one to talk to the server at
all, one for the room. A program gets both as one string, joined by a space.
"""

from __future__ import annotations

import base64
import hashlib
import hmac
import time

PLUGIN = "janus.plugin.videoroom"
DAY = 24 * 3600


def _signed(realm: str, allowed: str, lifetime: float, secret: str) -> str:
    text = f"{int(time.time() + lifetime)},{realm},{allowed}"
    digest = hmac.new(secret.encode(), text.encode(), hashlib.sha1).digest()
    return f"{text}:{base64.b64encode(digest).decode()}"


def realm_token(secret: str, lifetime: float = DAY) -> str:
    """Lets its bearer talk to the server for `lifetime` seconds, but into no room that wants a token."""
    return _signed("janus", PLUGIN, lifetime, secret)


def room_token(room: str, secret: str, lifetime: float = DAY) -> str:
    """Lets its bearer enter `room`. A room's name with a comma or colon would change what the token says."""
    if not room or set(room) & set(",:= \t\n"):
        raise ValueError(f"a room's name is made of letters, digits, '-', '_' and '.', not {room!r}")
    return _signed(PLUGIN, f"room={room}", lifetime, secret)


def join_token(room: str, secret: str, lifetime: float = DAY, pin: str = "") -> str:
    """What a program gives to `connect` as its token: both tokens, and the room's pin if it has one."""
    parts = [realm_token(secret, lifetime), room_token(room, secret, lifetime)]
    if pin:
        parts.append(f"pin={pin}")
    return " ".join(parts)
