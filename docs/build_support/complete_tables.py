"""Warns of what the reference's tables leave out: environment variables, error codes, commands."""

from __future__ import annotations

import re
from pathlib import Path
from typing import Any, Iterator

from sphinx.application import Sphinx
from sphinx.util import logging

from . import command_help

ROOT = Path(__file__).resolve().parents[2]
_VARIABLE = re.compile(
    r"""(?:environ(?:ment)?(?:\.get)?[(\[]|getenv\()"([A-Z_]+)"(?!\] =)|_VARIABLE = "([A-Z_]+)\""""
)
_SOURCES = ("src/**/*.cpp", "sarnet/**/*.cpp", "python/**/*.py", "setup.py")


def variables() -> Iterator[str]:
    for pattern in _SOURCES:
        for path in ROOT.glob(pattern):
            for match in _VARIABLE.finditer(path.read_text(encoding="utf-8")):
                yield match[1] or match[2]


def codes() -> Iterator[str]:
    header = (ROOT / "include/sarnet/sarnet.h").read_text(encoding="utf-8")
    for body in re.findall(r"enum srn_\w+_error_code \{(.*?)\}", header, re.DOTALL):
        yield from re.findall(r"= (\d+)", body)


def commands() -> Iterator[str]:
    from tavrin_media_relay.cli import _parser

    yield from (f"{{command-help}} {name}" for name in command_help.commands_of(_parser()))


def check(app: Sphinx, _env: Any) -> None:
    logger = logging.getLogger(__name__)
    wanted = {"environment": variables(), "error-codes": codes(), "commands": commands()}
    for page, names in wanted.items():
        text = Path(app.srcdir, "reference", f"{page}.md").read_text(encoding="utf-8")
        for name in sorted(set(names)):
            if not re.search(rf"(?<![\w]){re.escape(name)}(?![\w])", text):
                logger.warning("%s is not told of in reference/%s.md", name, page)


def setup(app: Sphinx) -> dict[str, bool]:
    app.connect("env-check-consistency", check)
    return {"parallel_read_safe": True}
