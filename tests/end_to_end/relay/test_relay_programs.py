"""Programs that meet in a room of a real server: what each sends, the others must receive."""

from __future__ import annotations

import contextlib
import json
import os
import re
import shutil
import signal
import time
from pathlib import Path

import marks
import pytest
from processes import ADDRESS, ADMIN_KEY, HERE, ROOT, SECRET, Server
from stranger import Stranger

from tavrin_media_relay.server import join_token, realm_token, room_token


def command_lines() -> str:
    """Those of all processes, as everybody on the machine sees them."""
    lines = b""
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            lines += (process / "cmdline").read_bytes()
    return lines.decode(errors="replace")


def check_received(received: dict, maker: int) -> None:
    """One stream's pictures, sound and captions, all by `maker`."""
    assert received["makers"] == [maker] and received["size"] == [320, 240]
    numbers = received["numbers"]
    # Each picture once or, when the sender's clock ran ahead, twice; never backwards.
    assert all(0 <= b - a for a, b in zip(numbers, numbers[1:])), numbers
    assert len(set(numbers)) >= 0.8 * (numbers[-1] - numbers[0] + 1), numbers
    assert received["unmarked"] <= 5, received  # black pictures of the beginning
    left, right = received["frequencies"]
    assert abs(left - 500 - 200 * maker) < 25 and abs(right - 600 - 200 * maker) < 25, received
    assert received["captions"], received
    for text, final in received["captions"]:
        number = re.fullmatch(rf"Grüße (\d+) von {maker}", text)
        assert number and final == (int(number[1]) % 20 == 0), text


@pytest.mark.parametrize("address", [ADDRESS, None], ids=["over TLS", "loopback alone"])
def test_two_programs_exchange_pictures_sound_and_captions(enter_network, tmp_path, address):
    server = Server.on(enter_network(address), tmp_path / "server")
    first = server.program(1)
    own = first.wait_for("published")["id"]
    second = server.program(2)  # comes when the first one's stream is there already
    first.wait_for("enough")
    second.wait_for("enough")

    heard = second.leave()
    assert heard["seconds"] < 1.5
    assert list(heard["received"]) == [own]
    check_received(heard["received"][own], 1)
    first.wait_for("connection dropped")
    events = [event["event"] for event in first.events()]
    order = ["connected", "published", "connection", "stream", "subscribed"]
    order += ["stream dropped", "connection dropped"]
    assert [event for event in events if event in order] == order, events
    [(stream, received)] = first.leave()["received"].items()
    check_received(received, 2)
    assert stream != own

    assert server.end(signal.SIGINT) == 0
    assert not server.folder.exists()


def test_a_killed_program_is_missed(server):
    watcher, victim = server.program(1), server.program(2)
    watcher.wait_for("enough")
    victim.end(signal.SIGKILL)
    # The server waits a little, in case the victim comes back.
    gone = watcher.wait_for("stream dropped", 15)
    watcher.wait_for("connection dropped", 5)
    received = watcher.leave()["received"]
    assert list(received) == [gone["id"]]


def test_a_killed_server_is_an_error_and_leaving_stays_quick(server):
    program = server.program(1)
    program.wait_for("published")
    os.kill(server.janus(), signal.SIGKILL)
    error = program.wait_for("session error", 20)
    assert error["code"] == 1022 and error["text"]
    assert program.leave()["seconds"] < 2.5
    server.wait_for_line(lambda line: "ended by itself" in line)
    assert server.child.wait(10) == 1
    assert not server.folder.exists()


def caption_number(event: dict) -> int:
    return int(event["text"].split()[1])


@pytest.mark.parametrize(
    ("packets", "seconds"), [("meta l4proto udp", 2), ("", 2), ("", 32)],
    ids=["of media heals", "of everything heals", "of everything for long is an error"],
)  # fmt: skip
def test_a_break_of_the_network(server, packets, seconds):
    programs = [server.program(maker) for maker in (1, 2)]
    for program in programs:
        program.wait_for("enough")
    begin = caption_number(programs[0].wait_for("caption"))
    if seconds > 10:
        with server.network.broken():
            for program in programs:
                assert program.wait_for("session error", seconds)["code"] == 1022
            for program in programs:
                assert program.leave()["seconds"] < 2.5
        return
    with server.network.broken(packets):
        time.sleep(seconds)  # so long it lasts
    # Captions are not lost, so wait for one that was sent well after the break.
    while caption_number(programs[0].wait_for("caption")) < begin + (seconds + 4) * marks.FPS:
        pass
    for program in programs:
        [received] = program.leave()["received"].values()
        assert not any("error" in event["event"] for event in program.events()), program.events()
        numbers = received["numbers"]
        assert max(b - a for a, b in zip(numbers, numbers[1:])) <= (seconds + 1.5) * marks.FPS, numbers
        assert numbers[-1] >= begin + (seconds + 3) * marks.FPS, numbers


@pytest.mark.skipif(shutil.which("turnserver") is None, reason="Debian's package coturn is not installed")
@pytest.mark.parametrize(("query", "ports"), [("", ""), ("?transport=tcp", "3478, ")], ids=["UDP", "TCP"])
def test_media_go_through_a_turn_server(server, tmp_path, query, ports):
    [advised] = re.findall("(# /etc/turnserver.conf.*?)```", (ROOT / "docs/deployment.md").read_text(), re.S)
    config = tmp_path / "turnserver.conf"
    config.write_text(
        advised.replace("203.0.113.10", ADDRESS) + f"listening-ip={ADDRESS}\nrelay-ip={ADDRESS}\n"
        f"min-port=61000\nmax-port=61999\nlog-file=stdout\nno-cli\nverbose\n"
        f"pidfile={tmp_path}/pid\nuserdb={tmp_path}/db\n"
    )
    turn = server.network.run("turnserver", "-c", config)
    turn.wait_for_line(lambda line: "Total General servers" in line)
    variables = {"SARNET_RELAY_ICE_SERVERS": f"turn:relay:PASSWORD@{ADDRESS}:3478{query}"}
    # No way to the server's media but from the ports that the TURN server lends.
    with server.network.broken(f"udp dport {{ {ports}20000-20999 }} udp sport != 61000-61999"):
        programs = [server.program(maker, **variables) for maker in (1, 2, 3)]
        for program in programs:
            program.wait_for("enough")
        *leaving, last = programs
        for program in leaving:
            program.leave()
        # All that was lent is given back at once, not when its time is over. Each has two streams or more.
        for _ in range(2 * len(leaving)):
            turn.wait_for_line(lambda line: "refreshed" in line and "lifetime=0" in line, 5)
        turn.end()
        assert last.leave()["seconds"] < 2.5


def test_whoever_may_not_or_cannot_join_is_told_why(server):
    realm = realm_token(SECRET)
    tls, clear = f"wss://{ADDRESS}:8989", "ws://127.0.0.1:8188"
    good = join_token("marks", SECRET)
    certificate = str(server.folder / "cert.pem")

    def pinned(pin: str) -> tuple[str, str, str, str]:
        return "pinned", clear, join_token("pinned", SECRET, pin=pin), ""

    rows = {
        "no token": ("marks", clear, "x", "", 1004),
        "for the server alone": ("marks", clear, realm, "", 1004),
        "expired": ("marks", clear, join_token("marks", SECRET, -5), "", 1004),
        "signed by somebody else": ("marks", clear, join_token("marks", "another-secret"), "", 1004),
        "expired for the room": ("marks", clear, f"{realm} {room_token('marks', SECRET, -5)}", "", 1004),
        "of another room": ("marks", clear, f"{realm} {room_token('other', SECRET)}", "", 1004),
        "unknown authority": ("marks", tls, good, "", 1006),
        "closed port": ("marks", f"wss://{ADDRESS}:9", good, certificate, 1006),
        "unknown host": ("marks", "wss://nowhere.invalid", good, certificate, 1006),
        "right over TLS": ("marks", tls, good, certificate, 0),
        "right in the clear": ("marks", clear, good, "", 0),
        "a new room with a pin": (*pinned("2718"), 0),
        "a wrong pin": (*pinned("3141"), 1004),
        "no pin": (*pinned(""), 1004),
        "the right pin": (*pinned("2718"), 0),
    }
    variables = {"ATTEMPTS": json.dumps(list(rows.values())), "SARNET_RELAY_ADMIN_KEY": ADMIN_KEY}
    asked = server.network.start(HERE / "attempts.py", **variables)
    deadline = time.monotonic() + 10  # a process that is about to become another shows no command line
    while "attempts.py" not in (commands := command_lines()):
        assert time.monotonic() < deadline, commands
    assert not [each for each in (SECRET, realm, ADMIN_KEY) if each in commands]
    for name, row in rows.items():
        told = asked.wait_for("attempt")
        codes = {1006, 1021} if row[-1] == 1006 else {row[-1]}
        assert told["code"] in codes, (name, told)
        assert not told["code"] or len(told["text"]) > 20, (name, told)
        assert ("pin" in told["text"]) == ("pin" in name and bool(told["code"])), (name, told)


def test_the_example_talks_back(server):
    """The agent that `./dev room` starts says back the tones of a program, and answers its captions."""
    program = server.program(1, "--captions", 1, "--loud", 75)
    program.wait_for("published")
    variables = {"API_HOSTNAME": server.host, "SARNET_RELAY_CA_FILE": str(server.folder / "cert.pem")}
    variables |= {"SESSION_ID": "marks", "TOKEN": join_token("marks", SECRET)}
    agent = server.network.start(ROOT / "examples/talk_back", "--delay", "0.2", **variables)
    program.wait_for("enough")
    said = program.leave()["received"]
    assert agent.end(signal.SIGTERM) == 0, agent.said
    [received] = said.values()
    assert received["size"] == [640, 480]
    assert abs(received["frequencies"][0] - 700) < 25, received
    assert any("I heard" in text or "You wrote: Grüße" in text for text, _ in received["captions"])


def test_coming_and_going_leaves_nothing_behind(server):
    """At random moments, also while everything is being connected."""
    staying = server.program(1)
    staying.wait_for("published")
    # With a heap for each thread memory would depend on how sessions overlap.
    visitor = server.program(2, "--rounds", 100, "--every", 50, script="churn.py", MALLOC_ARENA_MAX="1")
    told = [visitor.wait_for("so far", rounds=number) for number in (50, 100)]
    assert visitor.child.wait(10) == 0, visitor.said
    first, last = told[0], told[-1]
    assert not last["errors"] and min(last["reached"].values()) > 3, last
    assert {"joined", "subscribed", "unsubscribed", "sound"} <= set(last["reached"]), last
    # GLib may have gained a thread for what it does in the background.
    assert last["threads"] <= first["threads"] + 2 and last["files"] <= first["files"], told
    # The most that was ever needed at once may come late; a connection that is left behind is 300 a round.
    assert last["kib"] - first["kib"] < 8000, told
    listed = Stranger(server, realm_token(SECRET))
    listed.ask("create")
    handle = listed.handle()
    deadline = time.monotonic() + 10  # the server removes a participant after it has said so
    while len(present := listed.request(handle, "listparticipants", room="marks")["participants"]) != 1:
        assert present and time.monotonic() < deadline, present
    staying.leave()
