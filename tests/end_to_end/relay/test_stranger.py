"""Who has a token for one room bends no other: neither one that the server's owner named, nor one that a
program made."""

from __future__ import annotations

import json

import pytest
from processes import HERE, SECRET

from tavrin_media_relay.server import join_token

#: What stays open to whoever may talk to the server and knows the room's name: docs/deployment.md tells of
#: it.
OPEN = {"list", "exists", "listparticipants", "admin info"}


@pytest.mark.parametrize("room", ["marks", "visitors"], ids=["of the server's owner", "made by a program"])
def test_a_stranger_bends_no_room(server, room):
    program = server.program(
        1, "--session", room, TOKEN=join_token(room, SECRET), SARNET_RELAY_ADMIN_KEY="key-of-the-tests"
    )
    feed = program.wait_for("published")["id"]
    stranger = server.network.start(
        HERE / "stranger.py", URL="ws://127.0.0.1:8188",
        TOKEN=join_token("other", SECRET), ROOM=room, FEED=feed,
    )  # fmt: skip
    stranger.wait_for("overheard", packets=0)
    answers = [event for event in stranger.events() if event["event"] == "answered"]
    assert {each["what"] for each in answers if not each["error"]} == OPEN, answers
    [listed] = [each for each in answers if each["what"] == "list"]
    assert room not in json.dumps(listed), listed
    # And whoever it was about has noticed nothing.
    other = server.program(2, "--session", room, TOKEN=join_token(room, SECRET))
    other.wait_for("enough")
    assert not [event for event in program.events() if "error" in event["event"]]
