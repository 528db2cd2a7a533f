"""`token ROOM`: signs a token for a room of a relay server."""

from __future__ import annotations

import argparse
import contextlib
import io
from pathlib import Path
from typing import Any

from ..relay import ServerError
from ..relay import __main__ as server_commands
from ..relay.tokens import DAY
from ._failure import Failure
from ._options import command
from ._terminal import Terminal

_DESCRIPTION = """\
Prints a token that lets its bearer into one room of a relay server, until it expires. It is signed with the secret
of the server that runs on this machine, or with the one in SARNET_RELAY_TOKEN_SECRET.

  TOKEN="$(tavrin-media-relay token lobby --lifetime 2h)"
"""


def add(commands: Any) -> None:
    parser = command(commands, "token", token, "sign a token for a room", _DESCRIPTION)
    parser.add_argument("room", metavar="ROOM")
    parser.add_argument("--lifetime", type=server_commands.lifetime, default=DAY,
                        help="90s, 15m, 12h or 7d (default: 1d)")  # fmt: skip
    parser.add_argument("--pin", default="", help="the room's pin, if it has one")
    parser.add_argument("--dir", type=Path, dest="folder", help="the folder of the server that it is for")
    parser.add_argument("--port", type=int, default=8188, help="or its port (default: 8188)")


def token(options: argparse.Namespace, terminal: Terminal) -> int:
    printed = io.StringIO()
    try:
        with contextlib.redirect_stdout(printed):
            code = server_commands.token(options)
    except (ServerError, ValueError) as error:
        raise Failure(str(error)) from None
    text = printed.getvalue().strip()
    terminal.tell("token", text, room=options.room, token=text)
    return code
