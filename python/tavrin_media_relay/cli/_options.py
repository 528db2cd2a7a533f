"""The options that the commands that join a session share."""

from __future__ import annotations

import argparse
import os
from pathlib import Path
from typing import Any, Callable

from ..models import LOG_LEVELS
from ._terminal import Terminal

Run = Callable[[argparse.Namespace, Terminal], int]


def command(commands: Any, name: str, run: Run, summary: str, description: str) -> argparse.ArgumentParser:
    """A subcommand with the common options."""
    parser: argparse.ArgumentParser = commands.add_parser(
        name, help=summary, description=description, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("--json", action="store_true", help="one JSON object a line instead of text")
    parser.set_defaults(run=run)
    return parser


def number(low: float, high: float, unit: str) -> Callable[[str], float]:
    """A type for argparse."""

    def parse(text: str) -> float:
        try:
            value = float(text)
        except ValueError:
            value = float("nan")
        if not low <= value <= high:
            raise argparse.ArgumentTypeError(f"must be {low:g} to {high:g} {unit}, not {text!r}")
        return value

    return parse


def add_session_options(parser: argparse.ArgumentParser, name: str = "") -> None:
    group = parser.add_argument_group("the session")
    environment = os.environ
    session = environment.get("SESSION_ID")
    group.add_argument("--session", metavar="S", default=session, required=not session,
                       help="id of the session to join (default: SESSION_ID of the environment)")  # fmt: skip
    group.add_argument(
        "--host",
        metavar="HOST",
        help="embedded:FILE, a server's name, or a ws:// or wss:// address (default: API_HOSTNAME "
        "of the environment, else the embedded engine)",
    )
    group.add_argument(
        "--token",
        metavar="T",
        default=environment.get("TOKEN") or "no-token",
        help="who may enter (default: TOKEN of the environment, unseen by other users)",
    )
    group.add_argument(
        "--app-id",
        metavar="ID",
        default=environment.get("APPLICATION_ID") or "tavrin-cli",
        help="application id or API key (default: APPLICATION_ID, else tavrin-cli)",
    )
    group.add_argument("--timeout", metavar="S", type=number(0.1, 3600, "seconds"), default=30.0,
                       help="seconds to wait for the session's answer (default: 30)")  # fmt: skip
    if name:
        group.add_argument("--name", default=name, help=f"of the stream that is published (default: {name})")
    group.add_argument(
        "--log-level",
        choices=LOG_LEVELS,
        default="off",
        help="of the native log, on standard error; debug tells the token (default: off)",
    )
    if name:
        group.add_argument(
            "--figures",
            type=Path,
            metavar="FILE",
            help="write events and figures of each second there, for the command report",
        )
