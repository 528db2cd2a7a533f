"""Holds a token for another room, and tries every request of the room plug-in on the one that it is told.

A JSON line for each, with what the server gave. Reads from its environment: URL, TOKEN, ROOM, FEED.
"""

from __future__ import annotations

import asyncio
import itertools
import json
import os
import socket
from typing import Any

import websockets

ROOM, FEED = os.environ["ROOM"], os.environ["FEED"]
REQUEST_TOKEN, _, ROOM_TOKEN = os.environ["TOKEN"].partition(" ")
STREAM = {"mid": "0", "mindex": 0, "type": "audio", "codec": "opus"}

#: What is asked of the room that the stranger has no token for.
REQUESTS: list[dict[str, Any]] = [
    {"request": "list"},
    {"request": "exists"},
    {"request": "listparticipants"},
    {"request": "create"},
    {"request": "edit", "new_description": "mine"},
    {"request": "allowed", "action": "disable"},
    {"request": "kick", "id": FEED},
    {"request": "moderate", "id": FEED, "mid": "0", "mute": True},
    {"request": "enable_recording", "record": True},
    {"request": "listforwarders"},
    {
        "request": "rtp_forward",
        "publisher_id": FEED,
        "host": "127.0.0.1",
        "streams": [{"mid": "0", "port": "PORT"}],
    },
    {"request": "stop_rtp_forward", "publisher_id": FEED, "stream_id": 1},
    {
        "request": "publish_remotely",
        "publisher_id": FEED,
        "remote_id": "x",
        "host": "127.0.0.1",
        "port": "PORT",
    },
    {"request": "unpublish_remotely", "publisher_id": FEED, "remote_id": "x"},
    {"request": "list_remotes", "publisher_id": FEED},
    {"request": "add_remote_publisher", "id": "x", "streams": [STREAM]},
    {"request": "update_remote_publisher", "id": FEED, "streams": [STREAM]},
    {"request": "remove_remote_publisher", "id": FEED},
    {"request": "join", "ptype": "publisher", "token": ROOM_TOKEN},
    {"request": "join", "ptype": "publisher"},
    {"request": "joinandconfigure", "ptype": "publisher", "token": ROOM_TOKEN},
    {"request": "join", "ptype": "subscriber", "streams": [{"feed": FEED}]},
    {"request": "join", "ptype": "subscriber", "feed": FEED, "token": ROOM_TOKEN},
    {"request": "destroy"},
]


class Server:
    def __init__(self, link: Any) -> None:
        self.link, self.numbers = link, itertools.count(1)
        self.session: dict[str, int] = {}

    async def ask(self, **message: Any) -> dict[str, Any]:
        name = f"t{next(self.numbers)}"
        await self.link.send(
            json.dumps({"transaction": name, "token": REQUEST_TOKEN} | self.session | message)
        )
        while True:
            answer: dict[str, Any] = json.loads(await asyncio.wait_for(self.link.recv(), 10))
            if answer.get("transaction") == name and answer["janus"] != "ack":
                return answer

    async def attach(self, plugin: str = "janus.plugin.videoroom") -> dict[str, Any]:
        return await self.ask(janus="attach", plugin=plugin)


def tell(**fields: object) -> None:
    print(json.dumps(fields), flush=True)


def packets(listener: socket.socket) -> int:
    count = 0
    while True:
        try:
            listener.recv(2048)
        except BlockingIOError:
            return count
        count += 1


async def main() -> None:
    listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    listener.bind(("127.0.0.1", 0))
    listener.setblocking(False)
    port = listener.getsockname()[1]
    async with websockets.connect(os.environ["URL"], subprotocols=["janus-protocol"]) as link:
        server = Server(link)
        server.session = {"session_id": (await server.ask(janus="create"))["data"]["id"]}
        for request in REQUESTS:
            body = json.loads(json.dumps({"room": ROOM} | request).replace('"PORT"', str(port)))
            # A handle each: one that joined can't join again.
            handle = (await server.attach())["data"]["id"]
            answer = await server.ask(janus="message", handle_id=handle, body=body)
            data = answer.get("plugindata", {}).get("data", answer)
            what = request["request"] + (f" {request['ptype']}" if "ptype" in request else "")
            tell(event="answered", what=what, error=data.get("error", ""), data=data)
        for name in (
            "echotest",
            "recordplay",
            "streaming",
            "textroom",
            "audiobridge",
            "videocall",
            "sip",
            "nosip",
        ):
            answer = await server.attach(f"janus.plugin.{name}")
            tell(
                event="answered",
                what=f"plugin {name}",
                error=answer.get("error", {}).get("reason", ""),
                data=answer,
            )
        for command in ("info", "list_sessions", "add_token", "set_log_level"):
            answer = await server.ask(janus=command, admin_secret="janusoverlord")
            error = "" if command == "info" else answer.get("error", {}).get("reason", "")
            tell(event="answered", what=f"admin {command}", error=error, data=answer)
        await asyncio.sleep(1)
        tell(event="overheard", packets=packets(listener))


asyncio.run(main())
