"""What a token for one room lets its holder do with the others: what docs/deployment.md tells, and no more.
"""

from __future__ import annotations

import itertools
import os
import re
from pathlib import Path
from typing import Any

from processes import ADMIN_KEY, SECRET, Process, Server
from stranger import ROOM_PLUGIN, Stranger, check_that_nobody_manages, is_refused

from tavrin_media_relay.server import join_token, realm_token, room_token


def program_in(server: Server, room: str, maker: int) -> Process:
    """Makes the room if it is not there."""
    token = join_token(room, SECRET)
    return server.program(maker, "--session", room, TOKEN=token, SARNET_RELAY_ADMIN_KEY=ADMIN_KEY)


def test_a_token_for_one_room_opens_no_other(server: Server) -> None:
    programs = {room: program_in(server, room, maker) for maker, room in enumerate(("marks", "made", "own"))}
    feeds = {room: program.wait_for("published")["id"] for room, program in programs.items()}
    stranger = Stranger(server, realm_token(SECRET))
    stranger.ask("create")
    token = {"token": room_token("own", SECRET)}
    publisher, subscriber, other = (stranger.handle() for _ in range(3))
    joined = stranger.request(publisher, "join", room="own", ptype="publisher", **token)
    own = [{"feed": feeds["own"]}]
    attached = stranger.request(subscriber, "join", room="own", ptype="subscriber", streams=own, **token)
    assert [joined["videoroom"], attached["videoroom"]] == ["joined", "attached"], (joined, attached)

    for room in ("marks", "made"):
        feed = [{"feed": feeds[room], "mid": "0", "sub_mid": "0"}]
        check_that_nobody_manages(stranger, room, feeds[room])
        tokens: list[Any] = [{}, token, {"token": realm_token(SECRET)}, {"token": room_token(room, "guess")}]
        ptypes: list[Any] = [{"ptype": "publisher"}, {"ptype": "subscriber", "streams": feed}]
        for credentials in tokens:
            for ptype in ptypes:
                for request in ("join", "joinandconfigure"):
                    answer = stranger.request(other, request, room=room, **ptype, **credentials)
                    assert is_refused(answer), (request, room, ptype, credentials, answer)
        # Nor is there a way from within its own room.
        requests: dict[tuple[int, str], dict[str, Any]] = {
            (publisher, "join"): {"ptype": "publisher"},
            (publisher, "joinandconfigure"): {"ptype": "publisher"},
            (subscriber, "subscribe"): {"streams": feed}, (subscriber, "update"): {"subscribe": feed},
            (subscriber, "switch"): {"streams": feed},
        }  # fmt: skip
        for (handle, request), body in requests.items():
            answer = stranger.request(handle, request, room=room, **body, **token)
            assert answer["error_code"] == (425 if handle == publisher else 428), (request, answer)
        # This is open.
        assert stranger.request(other, "exists", room=room)["exists"]
        told = stranger.request(other, "listparticipants", room=room)["participants"]
        assert [each["id"] for each in told] == [feeds[room]]
    guesses: list[dict[str, Any]] = [{}, {"admin_key": ""}, {"admin_key": "guess"}]
    for guess in guesses:
        assert is_refused(stranger.request(other, "create", room="new", **guess)), guess
        assert not stranger.request(other, "list", **guess).get("list"), guess

    rooms = (server.folder / "janus.plugin.videoroom.jcfg").read_text()
    secrets = {SECRET, ADMIN_KEY, *re.findall('secret = "(.+)"', rooms)}
    assert len(secrets) == 3
    seen = [path.read_bytes().decode(errors="replace") for path in Path("/proc").glob("[0-9]*/cmdline")]
    seen += [(server.folder / "janus.log").read_text(), *server.said]
    assert not [text for text in seen if any(secret in text for secret in secrets)]


def test_without_a_token_there_is_only_the_servers_version(server: Server) -> None:
    session = Stranger(server, realm_token(SECRET)).ask("create")["data"]["id"]
    nobody = Stranger(server, "")
    for janus in ("create", "attach", "claim", "keepalive", "destroy"):
        where = {} if janus == "create" else {"session_id": session}
        answer = nobody.ask(janus, plugin=ROOM_PLUGIN, **where)
        assert answer["error"]["code"] == 403, (janus, answer)
    assert nobody.ask("list_sessions", admin_secret="janusoverlord")["error"]["code"] == 457
    info = nobody.ask("info")
    assert [*info["plugins"], *info["transports"]] == [ROOM_PLUGIN, "janus.transport.websockets"]
    assert not info.get("dependencies") and not info.get("events")


def test_no_participant_makes_the_server_write_files(server: Server, tmp_path: Path) -> None:
    program_in(server, "made", 1).wait_for("published")
    folder = tmp_path / "open"
    folder.mkdir()
    folder.chmod(0o777)
    participant = Stranger(server, realm_token(SECRET))
    participant.ask("create")
    names: list[dict[str, str]] = [{}, *({"filename": f"{folder}/{name}"} for name in ("taken", "new/taken"))]
    for room, request, name in itertools.product(
        ("marks", "made"), ("configure", "publish", "joinandconfigure"), names
    ):  # fmt: skip
        joining = {"room": room, "ptype": "publisher", "token": room_token(room, SECRET)}
        handle = participant.handle()
        if request != "joinandconfigure":
            participant.request(handle, "join", **joining)
        recording = {"audio": True, "record": True, "secret": "guess"}
        answer = participant.offer(handle, request, **recording, **joining, **name)
        assert answer["jsep"]["type"] == "answer", (request, answer)
        opened = [os.readlink(each) for each in Path(f"/proc/{server.janus()}/fd").iterdir()]
        assert not [path for path in opened if ".mjr" in path], (room, request, name)
        assert not list(folder.iterdir()), (room, request, name)
