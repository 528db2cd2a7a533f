"""A small client of the server, for what the benchmark does there without this project."""

from __future__ import annotations

import asyncio
import base64
import itertools
import json
import os
from typing import Any


class Janus:
    """A client of the server: just the messages that are needed, over a WebSocket in the clear."""

    def __init__(self, token: str) -> None:
        self.token, _, self.room_token = token.partition(" ")
        self._numbers = itertools.count(1)
        self._waiting: dict[str, asyncio.Future[Any]] = {}
        self.publishers: asyncio.Queue[Any] = asyncio.Queue()
        self.session = 0

    async def open(self, url: str) -> None:
        host, _, port = url.removeprefix("ws://").partition(":")
        self._reader, self._writer = await asyncio.open_connection(host, int(port))
        key = base64.b64encode(os.urandom(16)).decode()
        self._writer.write(
            f"GET / HTTP/1.1\r\nHost: {host}:{port}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            f"Sec-WebSocket-Key: {key}\r\nSec-WebSocket-Version: 13\r\n"
            "Sec-WebSocket-Protocol: janus-protocol\r\n\r\n".encode()
        )
        await self._reader.readuntil(b"\r\n\r\n")
        self._task = asyncio.create_task(self._read())
        self.session = (await self.ask(janus="create"))["data"]["id"]

    async def _read(self) -> None:
        while True:
            head = await self._reader.readexactly(2)
            size = head[1] & 127
            if size > 125:
                size = int.from_bytes(await self._reader.readexactly(2 if size == 126 else 8), "big")
            body = await self._reader.readexactly(size)
            if head[0] & 15 != 1:
                continue
            message = json.loads(body)
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
        body, mask = json.dumps(message).encode(), os.urandom(4)
        size = len(body)
        head = bytes([0x81]) + (bytes([0x80 | size]) if size < 126 else bytes([0xFE]) + size.to_bytes(2, "big"))
        masked = bytes(byte ^ mask[i % 4] for i, byte in enumerate(body))
        self._waiting[name] = asyncio.get_running_loop().create_future()
        self._writer.write(head + mask + masked)
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
