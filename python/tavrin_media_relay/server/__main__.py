"""`python3 -m tavrin_media_relay.server relay | room | token ROOM | configure`; `serve` is `relay`."""

from __future__ import annotations

import argparse
import sys

from .commands import COMMANDS
from .server import ServerError


def _tell(_kind: str, text: str, /, **_fields: object) -> None:
    print(text, flush=True)


def main() -> int:
    parser = argparse.ArgumentParser(prog="python3 -m tavrin_media_relay.server", description=__doc__)
    commands = parser.add_subparsers(required=True)
    for each in COMMANDS:
        aliases = ["serve"] if each.name == "relay" else []
        command = commands.add_parser(each.name, aliases=aliases, help=each.summary)
        each.add_options(command)
        command.set_defaults(run=each.run)
    arguments = parser.parse_args()
    try:
        return int(arguments.run(arguments, _tell))
    except (ServerError, ValueError, OSError, RuntimeError) as error:
        print(f"Cannot do that: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
