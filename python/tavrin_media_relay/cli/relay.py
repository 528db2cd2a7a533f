"""`relay`: runs a relay server on this machine and tells how to join it."""

from __future__ import annotations

import argparse
import sys
from typing import Any

from ..server import RelayServer, ServerError, join_token
from ..server import __main__ as server_commands
from ._failure import Failure
from ._options import command
from ._terminal import Terminal

_DESCRIPTION = """\
Starts a relay server (the program janus has to be installed), tells how to join it, and stops it with Ctrl-C.

  relay --room lobby --room stage
  relay --address 192.0.2.7            for other machines too, over TLS
"""


def add(commands: Any) -> None:
    parser = command(commands, "relay", relay, "run a relay server", _DESCRIPTION)
    server_commands.add_server_options(parser)


def relay(options: argparse.Namespace, terminal: Terminal) -> int:
    try:
        server_commands.stop_on_signals()
        settings = server_commands.settings_from(options)
        with RelayServer(settings) as server:
            terminal.tell(
                "serving",
                server_commands.how_to_join(server),
                environment=server_commands.variables_for(server),
                rooms={room: join_token(room, settings.token_secret) for room in settings.rooms},
            )
            status = server.wait()
            print(server.log_tail(), file=sys.stderr)
            raise Failure(f"the server ended by itself (status {status})")
    except (ServerError, ValueError, RuntimeError) as error:
        raise Failure(str(error)) from None
