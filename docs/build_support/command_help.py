"""`{command-help}`: what `--help` says, of the command line itself or, with an argument, of one of its
commands."""

from __future__ import annotations

import argparse
import os
from typing import Any

from docutils import nodes
from docutils.parsers.rst import Directive
from sphinx.application import Sphinx

_WIDTH = "100"


def commands_of(parser: argparse.ArgumentParser) -> dict[str, argparse.ArgumentParser]:
    actions: Any = parser._actions  # there is no public way to the subcommands
    return next((dict(each.choices) for each in actions if isinstance(each, argparse._SubParsersAction)), {})


def help_of(path: list[str]) -> str:
    before = dict(os.environ)
    for name in ("SESSION_ID", "TOKEN", "APPLICATION_ID", "API_HOSTNAME"):  # which are defaults of options
        os.environ.pop(name, None)
    os.environ["COLUMNS"] = _WIDTH
    try:
        from tavrin_media_relay.cli import _parser

        parser = _parser()
        for name in path:
            parser = commands_of(parser)[name]
        return parser.format_help()
    finally:
        os.environ.clear()
        os.environ.update(before)


class CommandHelp(Directive):
    has_content = False
    optional_arguments = 1
    final_argument_whitespace = True

    def run(self) -> list[nodes.Node]:
        text = help_of(self.arguments[0].split() if self.arguments else [])
        block = nodes.literal_block(text, text)
        block["language"] = "none"
        return [block]


def setup(app: Sphinx) -> dict[str, bool]:
    app.add_directive("command-help", CommandHelp)
    return {"parallel_read_safe": True}
