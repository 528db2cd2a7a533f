"""A command's output: lines and live bars for people, or one JSON object per line for machines.

Standard output carries nothing else. The module's native log writes to the process's standard output as well,
so descriptor 1 is redirected to standard error, and ours is a duplicate of the original.
"""

from __future__ import annotations

import contextlib
import json
import os
import sys
import time
from dataclasses import asdict, dataclass
from typing import Any, Iterator

_PLAIN_SECONDS = 5.0  # between the lines that replace live bars


@dataclass(frozen=True)
class Bar:
    """One line of a live display."""

    label: str
    fraction: float | None
    """0 to 1; None for no bar."""
    text: str


class Terminal:
    def __init__(self, as_json: bool) -> None:
        self.as_json = as_json
        sys.stdout.flush()
        self._before = sys.stdout
        self._out = os.fdopen(os.dup(1), "w", encoding="utf-8", errors="replace", buffering=1)
        os.dup2(2, 1)
        sys.stdout = self._out
        self._rich: Any = None
        if not as_json:
            with contextlib.suppress(ImportError):
                from rich.console import Console

                self._rich = Console(file=self._out, highlight=False)

    def tell(self, kind: str, text: str, /, **fields: object) -> None:
        """An event: the text for people, the rest for machines."""
        if self.as_json:
            print(
                json.dumps({"event": kind, **fields}, ensure_ascii=False, default=str),
                file=self._out,
                flush=True,
            )
        elif self._rich is not None:
            self._rich.print(text, markup=False, soft_wrap=True)
        else:
            print(text, file=self._out, flush=True)

    def write(self, line: str) -> None:
        """One line as it is, in whatever form."""
        if self._rich is not None:
            self._rich.print(line, markup=False, soft_wrap=True)
        else:
            print(line, file=self._out, flush=True)

    def result(self, fields: dict[str, Any]) -> None:
        """The one object that sums up a command at its end. Nothing for people."""
        if self.as_json:
            print(json.dumps(fields, ensure_ascii=False, default=str), file=self._out, flush=True)

    def fail(self, text: str, code: int | None = None) -> None:
        if self.as_json:
            print(
                json.dumps({"event": "failed", "text": text, "code": code}, ensure_ascii=False),
                file=self._out,
            )
        with contextlib.suppress(OSError):
            print(f"tavrin-media-relay: {text}", file=sys.stderr, flush=True)

    def forget_output(self) -> None:
        """Discards all further output, which nobody reads."""
        with open(os.devnull, "w") as nowhere:
            os.dup2(nowhere.fileno(), self._out.fileno())

    def close(self) -> None:
        """Descriptor 1 stays on standard error, for the last lines of the native log."""
        sys.stdout = self._before
        try:
            self._out.close()
        except OSError:
            pass  # reported at the write, or there is no reader left

    @contextlib.contextmanager
    def live(self) -> Iterator[Live]:
        """A display that `show` updates, at any rate."""
        if self._rich is None or not self._rich.is_terminal:
            yield Live(self, None)
            return
        from rich.live import Live as RichLive

        with RichLive(console=self._rich, refresh_per_second=8, transient=False) as rich:
            yield Live(self, rich)


class Live:
    """Bars on a terminal if rich is installed; else a line every few seconds, for machines every second."""

    def __init__(self, terminal: Terminal, rich: Any) -> None:
        self._terminal = terminal
        self._rich = rich
        self._every = 1.0 if terminal.as_json else _PLAIN_SECONDS
        self._next = time.monotonic() + self._every

    def show(self, bars: list[Bar]) -> None:
        if self._rich is not None:
            self._rich.update(_table(bars))
        elif bars and time.monotonic() >= self._next:
            self._next = time.monotonic() + self._every
            text = "; ".join(f"{each.label}: {each.text}" for each in bars)
            self._terminal.tell("display", text, bars=[asdict(each) for each in bars])


def _table(bars: list[Bar]) -> Any:
    from rich.progress_bar import ProgressBar
    from rich.table import Table
    from rich.text import Text

    bar: ProgressBar | str
    table = Table.grid(padding=(0, 1))
    for each in bars:
        known = each.fraction is not None
        bar = ProgressBar(total=1.0, completed=each.fraction or 0.0, width=30) if known else ""
        table.add_row(Text(each.label), bar, Text(each.text))
    return table
