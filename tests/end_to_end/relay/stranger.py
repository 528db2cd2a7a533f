"""Somebody who speaks the server's own protocol, as anybody can. Run as a program it sends each line of its
input, a message in JSON, and tells the answer; it fills in the session, and the token of its environment."""

from __future__ import annotations

import asyncio
import json
import os
import sys
from typing import Any

from processes import HERE, Server

ROOM_PLUGIN = "janus.plugin.videoroom"
AUDIO = {"type": "audio", "mid": "0", "mindex": 0, "codec": "opus"}
OFFER = "\r\n".join([
    "v=0", "o=- 1 1 IN IP4 127.0.0.1", "s=-", "t=0 0", "m=audio 9 UDP/TLS/RTP/SAVPF 111", "c=IN IP4 0.0.0.0",
    "a=ice-ufrag:abcd", "a=ice-pwd:" + 24 * "a", "a=fingerprint:sha-256 " + ":".join(32 * ["AB"]),
    "a=setup:actpass", "a=mid:0", "a=sendonly", "a=rtcp-mux", "a=rtpmap:111 opus/48000/2", "",
])  # fmt: skip


class Stranger:
    def __init__(self, server: Server, token: str) -> None:
        self._process = server.network.start(HERE / "stranger.py", "ws://127.0.0.1:8188", TOKEN=token)

    def ask(self, janus: str, **message: Any) -> dict[str, Any]:
        assert self._process.child.stdin is not None
        self._process.child.stdin.write(json.dumps({"janus": janus} | message) + "\n")
        self._process.child.stdin.flush()
        return self._process.wait_for("answer")

    def handle(self) -> int:
        return int(self.ask("attach", plugin=ROOM_PLUGIN)["data"]["id"])

    def request(self, handle: int, request: str, **body: Any) -> dict[str, Any]:
        answer = self.ask("message", handle_id=handle, body={"request": request} | body)
        return dict(answer.get("plugindata", {}).get("data", answer))

    def offer(self, handle: int, request: str, **body: Any) -> dict[str, Any]:
        """The same with sound to send; gives the whole answer."""
        jsep = {"type": "offer", "sdp": OFFER}
        return self.ask("message", handle_id=handle, body={"request": request} | body, jsep=jsep)


def is_refused(answer: dict[str, Any]) -> bool:
    missing = any(f"element ({key})" in answer.get("error", "") for key in ("secret", "admin_key"))
    return answer.get("error_code") == 433 or (answer.get("error_code") == 429 and missing)


def check_that_nobody_manages(stranger: Stranger, room: str, feed: str) -> None:
    """All requests that change a room or send its media away, complete but for the secrets."""
    here = {"host": "127.0.0.1"}
    requests: dict[str, dict[str, Any]] = {
        "edit": {"new_description": "mine", "new_secret": "mine"},
        "allowed": {"action": "enable", "allowed": ["x"]},
        "enable_recording": {"record": True},
        "moderate": {"id": feed, "mid": "0", "mute": True},
        "listforwarders": {},
        "rtp_forward": {"publisher_id": feed, "streams": [{"mid": "0", "port": 40000}]} | here,
        "stop_rtp_forward": {"publisher_id": feed, "stream_id": 1},
        "publish_remotely": {"publisher_id": feed, "remote_id": "r", "port": 40000} | here,
        "unpublish_remotely": {"publisher_id": feed, "remote_id": "r"},
        "add_remote_publisher": {"id": "r", "streams": [AUDIO]},
        "update_remote_publisher": {"id": "r", "streams": [AUDIO]},
        "remove_remote_publisher": {"id": "r"},
        "list_remotes": {},
        "kick": {"id": feed},
        "destroy": {},
    }
    handle = stranger.handle()
    guesses: list[dict[str, Any]] = [{}]
    guesses += [{"secret": guess, "admin_key": guess} for guess in ("guess", "")]
    for request, body in requests.items():
        for guess in guesses:
            answer = stranger.request(handle, request, room=room, **body, **guess)
            is_unknown = request == "list_remotes" and answer["error_code"] == 423  # later servers have it
            assert is_unknown or is_refused(answer), (request, room, guess, answer)


async def main(url: str) -> None:
    from websockets.client import connect
    from websockets.typing import Subprotocol

    session: dict[str, Any] = {}
    async with connect(url, subprotocols=[Subprotocol("janus-protocol")]) as socket:
        while line := await asyncio.to_thread(sys.stdin.readline):
            message = {"transaction": line, "token": os.environ["TOKEN"]} | session | json.loads(line)
            await socket.send(json.dumps(message))
            answer: dict[str, Any] = {"janus": "ack"}
            while answer["janus"] == "ack" or answer.get("transaction") != line:
                answer = json.loads(await asyncio.wait_for(socket.recv(), 10))
            if message["janus"] == "create" and "data" in answer:
                session = {"session_id": answer["data"]["id"]}
            print(json.dumps({"event": "answer"} | answer), flush=True)


if __name__ == "__main__":
    asyncio.run(main(sys.argv[1]))
