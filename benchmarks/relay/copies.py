"""Makes many streams of one: the server copies what is published in one room into another, under other names.

So that the machine's processors are left to the subscriber that is measured, and not spent on encoding. What
to do comes as one line of JSON on standard input: it holds secrets."""

from __future__ import annotations

import asyncio
import json
import sys
from typing import Any

from janus import Janus


async def copy(source: Janus, target: Janus, order: dict[str, Any]) -> None:
    handle = await source.attach()
    joined = await source.message(handle, request="join", ptype="publisher", room=order["source"])
    if joined["plugindata"]["data"].get("videoroom") != "joined":
        raise SystemExit(f"joining failed: {joined}")
    publisher = await asyncio.wait_for(source.publishers.get(), 20)
    keys = ("mid", "mindex", "type", "codec")
    streams: list[dict[str, Any]] = [
        {key: stream[key] for key in keys if key in stream} for stream in publisher["streams"]
    ]
    there = await target.attach()
    for number in range(order["count"]):
        added = await target.message(
            there,
            request="add_remote_publisher",
            room=order["target"],
            secret=order["target_secret"],
            id=f"copy-{number}",
            display=f"copy {number}",
            streams=streams,
        )
        ports = added["plugindata"]["data"]
        await source.message(
            handle, request="publish_remotely", room=order["source"], secret=order["source_secret"],
            admin_key=order["admin_key"], publisher_id=publisher["id"],
            remote_id=f"copy-{number}", host="127.0.0.1", port=ports["port"], rtcp_port=ports["rtcp_port"],
        )  # fmt: skip
    print(json.dumps({"event": "ready"}), flush=True)
    # Until whoever started this closes its side.
    await asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)


async def main() -> None:
    order = json.loads(sys.stdin.readline())
    source, target = Janus(order["source_token"]), Janus(order["target_token"])
    await source.open(order["url"])
    await target.open(order["url"])
    await copy(source, target, order)


asyncio.run(main())
