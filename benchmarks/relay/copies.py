"""Makes many streams of one: the server copies what is published in one room into another, under other names.

So that the machine's processors are left to the subscriber that is measured, and not spent on encoding.
"""

from __future__ import annotations

import argparse
import asyncio
import json
import sys
from typing import Any

from janus import Janus


async def copy(source: Janus, target: Janus, arguments: argparse.Namespace) -> None:
    handle = await source.attach()
    joined = await source.message(handle, request="join", ptype="publisher", room=arguments.source)
    if joined["plugindata"]["data"].get("videoroom") != "joined":
        raise SystemExit(f"joining failed: {joined}")
    publisher = await asyncio.wait_for(source.publishers.get(), 20)
    keys = ("mid", "mindex", "type", "codec")
    streams: list[dict[str, Any]] = [
        {key: stream[key] for key in keys if key in stream} for stream in publisher["streams"]
    ]
    there = await target.attach()
    for number in range(arguments.count):
        added = await target.message(
            there, request="add_remote_publisher", room=arguments.target, secret=arguments.target_secret, id=f"copy-{number}",
            display=f"copy {number}", streams=streams,
        )  # fmt: skip
        ports = added["plugindata"]["data"]
        await source.message(
            handle, request="publish_remotely", room=arguments.source, secret=arguments.source_secret,
            publisher_id=publisher["id"],
            remote_id=f"copy-{number}", host="127.0.0.1", port=ports["port"], rtcp_port=ports["rtcp_port"],
        )  # fmt: skip
    print(json.dumps({"event": "ready"}), flush=True)
    # Until whoever started this closes its side.
    await asyncio.get_running_loop().run_in_executor(None, sys.stdin.read)


async def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--url", required=True)
    parser.add_argument("--source", required=True, help="room")
    parser.add_argument("--source-token", required=True)
    parser.add_argument("--source-secret", required=True)
    parser.add_argument("--target", required=True, help="room")
    parser.add_argument("--target-token", required=True)
    parser.add_argument("--target-secret", required=True)
    parser.add_argument("--count", type=int, required=True)
    arguments = parser.parse_args()
    source, target = Janus(arguments.source_token), Janus(arguments.target_token)
    await source.open(arguments.url)
    await target.open(arguments.url)
    await copy(source, target, arguments)


asyncio.run(main())
