"""Tokens: who may talk to the server, who may enter a room, and until when.

The server keeps no list of them. A token says what it allows and until when, and is signed with a secret
shared by the server and the issuer of tokens. Two are needed to join: one to talk to the server at all, one
for the room. A program gets both as one string, joined by a space.
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
    """Lets its bearer talk to the server for `lifetime` seconds, but enter no room that requires a token."""
    return _signed("janus", PLUGIN, lifetime, secret)


def room_token(room: str, secret: str, lifetime: float = DAY) -> str:
    """Lets its bearer enter `room`. A comma or colon in a room's name would change the token's meaning."""
    if not room or set(room) & set(",:= \t\n"):
        raise ValueError(f"a room's name is made of letters, digits, '-', '_' and '.', not {room!r}")
    return _signed(PLUGIN, f"room={room}", lifetime, secret)


def join_token(room: str, secret: str, lifetime: float = DAY, pin: str = "") -> str:
    """The token that a program gives to `connect`: both tokens, and the room's pin if it has one."""
    parts = [realm_token(secret, lifetime), room_token(room, secret, lifetime)]
    if pin:
        parts.append(f"pin={pin}")
    return " ".join(parts)
