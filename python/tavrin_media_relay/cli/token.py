"""`token ROOM`: signs a token for a room of a relay server."""

from __future__ import annotations

import argparse
from typing import Any

from ..server import ServerError
from ..server import __main__ as server_commands
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
    server_commands.add_token_options(parser)


def token(options: argparse.Namespace, terminal: Terminal) -> int:
    try:
        text = server_commands.signed_token(options)
    except (ServerError, ValueError) as error:
        raise Failure(str(error)) from None
    terminal.tell("token", text, room=options.room, token=text)
    return 0
