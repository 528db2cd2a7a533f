"""An ordinary browser in the room page, together with a program: each must hear, see and read the other."""

from __future__ import annotations

import copy
import re
from urllib.parse import urlencode

import pytest
from processes import ADDRESS, HERE, ROOT, SECRET, Server
from stranger import Stranger, check_that_nobody_manages

from tavrin_media_relay.server import join_token, realm_token

ARTEFACTS = ROOT / "out" / "tests"


@pytest.mark.parametrize("address", [ADDRESS, None], ids=["address of its own", "loopback alone"])
def test_a_browser_and_a_program_hear_see_and_read_each_other(enter_network, tmp_path, address):
    # In a network with the loopback interface alone no browser finds a way without a flag: it leaves that
    # interface out. With any other interface it reaches a server on loopback.
    network = copy.copy(enter_network(ADDRESS))  # other tests have the address
    network.address, network.loopback = (ADDRESS, False) if address else ("127.0.0.1", True)
    # Once in a room that is there, once in one that the page makes.
    room, made = ("marks", []) if address else ("made", ["--anyone-may-make-rooms"])
    server = Server.on(network, tmp_path / "server", *made, command="room")
    link = server.wait_for_line(lambda line: line.strip().startswith("http")).strip()
    assert link.startswith("https://10.200.0.1:8080/#" if address else "http://localhost:8080/#")

    def link_with(token_for: str) -> str:
        fragment = urlencode({"room": room, "token": join_token(token_for, SECRET)})
        return f"{link.partition('#')[0]}#{fragment}"

    right, wrong = link_with(room) if made else link, link_with("other")
    ARTEFACTS.mkdir(parents=True, exist_ok=True)
    screenshot = ARTEFACTS / f"room-{'address' if address else 'loopback'}.png"
    browser = network.start(HERE / "browse.py", right, wrong, "--maker", 1, "--screenshot", screenshot)
    refused = browser.wait_for("refused", 60)
    assert "not for this room" in refused["text"]
    program = server.program(
        1, "--session", room, "--frames", 60, "--loud", 20, "--captions", 1, TOKEN=join_token(room, SECRET)
    )  # fmt: skip
    feed = program.wait_for("published")["id"]
    stranger = Stranger(server, realm_token(SECRET))
    stranger.ask("create")
    check_that_nobody_manages(stranger, room, feed)
    assert stranger.request(stranger.handle(), "list")["list"] == []
    assert browser.wait_for("joined")["focus"] == "caption"
    seen = browser.wait_for("seen")
    assert re.fullmatch(r"Grüße \d+ von 1", seen["caption"])
    typed = program.wait_for("caption", text="Good morning, 世界", final=True)
    assert browser.wait_for("figures shown") == {
        "event": "figures shown", "hidden_again": True, "focus": "toggle-figures",
    }  # fmt: skip
    assert browser.wait_for("phone") == {"event": "phone", "overflow": [], "width": 360}
    assert screenshot.stat().st_size > 20_000
    program.wait_for("enough", stream=typed["stream"])

    last = browser.leave()
    assert last["problem"] == "" and last["log"] == []
    told = {each["name"]: each for each in last["figures"].values()}
    picture, sound = told["Program 1"]["picture"], told["Program 1"]["sound"]
    assert picture["frames_decoded"] >= 50 and (picture["width"], picture["height"]) == (320, 240)
    assert picture["lost"] <= 0.02 * picture["packets"] and sound["lost"] <= 0.02 * sound["packets"]
    assert sound["concealed"] < 0.2 * sound["samples"], sound
    sent = told["You, as sent"]
    # Two sizes, so that those who want less get less.
    assert (sent["picture"]["width"], sent["picture"]["sizes"]) == (640, 2), sent
    assert sent["picture"]["frames_encoded"] >= 60 and sent["sound"]["packets"] >= 100

    program.wait_for("stream dropped", id=typed["stream"])
    connections = [event for event in program.events() if event["event"] == "connection"]
    assert "Ada Lovelace" in [event["data"] for event in connections]
    received = program.leave()["received"][typed["stream"]]
    assert received["size"] == [640, 480] and received["unmarked"] >= 60
    # The browser's fake camera shows something green that moves, as far from grey as can be.
    (darkest, *least), (lightest, *most) = received["colours"]
    assert darkest + 5 < lightest < 120 and max(*least, *most) < 30, received
    assert received["loud"] >= 20  # its fake microphone beeps
    assert received["sound_seconds"] > 2
