"""A small client of the server, for what the benchmark does there without this project."""

from __future__ import annotations

import asyncio
import itertools
import json
import os
import ssl
from typing import Any

import websockets


class Janus:
    """A client of the server: just the messages that are needed."""

    def __init__(self, token: str) -> None:
        self.token, _, self.room_token = token.partition(" ")
        self._numbers = itertools.count(1)
        self._waiting: dict[str, asyncio.Future[Any]] = {}
        self.publishers: asyncio.Queue[Any] = asyncio.Queue()
        self.session = 0

    async def open(self, url: str) -> None:
        authority = os.environ.get("SARNET_RELAY_CA_FILE")
        trust = ssl.create_default_context(cafile=authority) if url.startswith("wss:") else None
        self._socket = await websockets.connect(
            url, subprotocols=["janus-protocol"], max_size=None, ssl=trust
        )
        self._task = asyncio.create_task(self._read())
        self.session = (await self.ask(janus="create"))["data"]["id"]

    async def _read(self) -> None:
        async for text in self._socket:
            message = json.loads(text)
            if message["janus"] == "ack":
                continue
            waiting = self._waiting.pop(message.get("transaction", ""), None)
            if waiting is not None:
                waiting.set_result(message)
            for publisher in message.get("plugindata", {}).get("data", {}).get("publishers", []):
                self.publishers.put_nowait(publisher)

    async def ask(self, **message: Any) -> Any:
        name = str(next(self._numbers))
        message |= {"transaction": name, "token": self.token}
        if self.session:
            message["session_id"] = self.session
        self._waiting[name] = asyncio.get_running_loop().create_future()
        await self._socket.send(json.dumps(message))
        return await asyncio.wait_for(self._waiting[name], 20)

    async def attach(self) -> int:
        reply = await self.ask(janus="attach", plugin="janus.plugin.videoroom")
        return int(reply["data"]["id"])

    async def message(self, handle: int, jsep: Any = None, **body: Any) -> Any:
        if body["request"] == "join":
            body["token"] = self.room_token
        extra = {"jsep": jsep} if jsep else {}
        reply = await self.ask(janus="message", handle_id=handle, body=body, **extra)
        if "error" in reply.get("plugindata", {}).get("data", {}):
            raise SystemExit(reply["plugindata"]["data"]["error"])
        return reply
