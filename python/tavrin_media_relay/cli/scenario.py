"""`scenario check FILE`: whether a scenario can be played, and if not, why."""

from __future__ import annotations

import argparse
import ctypes
from pathlib import Path
from typing import Any

from ._failure import Failure
from ._options import command
from ._terminal import Terminal

_DESCRIPTION = """\
Reads a scenario and opens the media files that it names, as the embedded engine would, and records nothing.
What is wrong is told with the file, the key and the reason; the exit code is 1 then.

  scenario check talk.json
"""


def add(commands: Any) -> None:
    parent = commands.add_parser("scenario", help="check a scenario of the embedded engine")
    parser = command(
        parent.add_subparsers(title="commands", metavar="COMMAND", required=True),
        "check", check, "tell whether a scenario can be played", _DESCRIPTION,
    )  # fmt: skip
    parser.add_argument("files", nargs="+", type=Path, metavar="FILE")


def fault_of(path: Path) -> str:
    """The library's error text; empty when the scenario can be played."""
    import _tavrin_video  # noqa: F401  brings the library into the process

    from .._native.libraries import find_sarnet

    function = getattr(find_sarnet(), "srn_scenario_check", None)
    if function is None:
        raise Failure(
            "the libsarnet.so in use cannot check scenarios: join a session with --host embedded:FILE"
        )
    function.restype = ctypes.c_size_t
    function.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t]
    buffer = ctypes.create_string_buffer(16384)
    function(str(path).encode(errors="surrogateescape"), buffer, len(buffer))
    return buffer.value.decode(errors="replace")


def check(options: argparse.Namespace, terminal: Terminal) -> int:
    faults = {path: fault_of(path) for path in options.files}
    for path, fault in faults.items():
        terminal.tell(
            "scenario", f"{path}: {fault or 'can be played'}", file=str(path), ok=not fault, text=fault
        )
    return 1 if any(faults.values()) else 0
