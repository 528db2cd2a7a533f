"""`relay`, `room`, `token`, `configure`: a relay server on this machine."""

from __future__ import annotations

import argparse
import functools
from typing import Any

from ..server import ServerError
from ..server.commands import COMMANDS, Command
from ._failure import Failure
from ._options import command
from ._terminal import Terminal


def add(commands: Any) -> None:
    for each in COMMANDS:
        parser = command(commands, each.name, functools.partial(_run, each), each.summary, each.description)
        each.add_options(parser)


def _run(each: Command, options: argparse.Namespace, terminal: Terminal) -> int:
    try:
        return each.run(options, terminal.tell)
    except (ServerError, ValueError, RuntimeError) as error:
        raise Failure(str(error)) from None
