"""Processes for agents: started ahead, each used for one job.

By a fork server that has imported the agent's file: a child takes 15 ms and 5 MB of its own. A file whose
import starts threads is no basis for a fork: its children are started anew, which takes a tenth of a second.
"""

from __future__ import annotations

import contextlib
import multiprocessing
import os
import signal
import threading
import time
from multiprocessing import forkserver
from multiprocessing.connection import Connection
from pathlib import Path
from typing import Any, Callable, Literal

from . import agents, visit

Start = Literal["auto", "fork", "spawn"]


class Child:
    """One process and its pipe. Ends with `kill`, or by itself."""

    def __init__(self, context: Any, file: Path, say: Callable[[Child, str], None]) -> None:
        """say: takes each line that the child prints, on a thread of the child's own."""
        self.pipe, theirs = multiprocessing.Pipe()
        output, their_output = multiprocessing.Pipe(duplex=False)
        self._process = context.Process(
            target=visit.run, args=(theirs, their_output, str(file)), name="agent", daemon=False
        )
        self._process.start()
        theirs.close()
        their_output.close()
        self.started = time.monotonic()
        self.last_sign = self.started
        self.is_ready = False
        self.private_bytes = 0
        self.gave_up_at: float | None = None  # asked to end, and since when
        self._say = say
        self._reading = threading.Thread(
            target=self._read, args=(output,), name="tavrin-agent-out", daemon=True
        )
        self._reading.start()

    @property
    def pid(self) -> int:
        return int(self._process.pid or 0)

    @property
    def sentinel(self) -> int:
        """Readable once the process has ended."""
        return int(self._process.sentinel)

    @property
    def has_ended(self) -> bool:
        return self._process.exitcode is not None

    @property
    def exit_code(self) -> int | None:
        """Negative: of the signal that ended it."""
        code: int | None = self._process.exitcode
        return code

    def send(self, *message: Any) -> bool:
        """False if it is gone."""
        try:
            self.pipe.send(message)
        except (OSError, ValueError):
            return False
        return True

    def signal(self, number: int) -> None:
        if not self.has_ended:
            with contextlib.suppress(ProcessLookupError):
                os.kill(self.pid, number)

    def memory(self) -> int:
        """Resident bytes; 0 once it has ended."""
        try:
            return int(Path(f"/proc/{self.pid}/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")
        except (OSError, IndexError):
            return 0

    def close(self) -> None:
        """Ends it at once, with all that it started, and waits for it."""
        if not self.has_ended:
            with contextlib.suppress(ProcessLookupError, PermissionError):
                os.killpg(self.pid, signal.SIGKILL)
            self.signal(signal.SIGKILL)
        self._process.join()
        self.pipe.close()
        self._reading.join(1.0)  # what it started may hold its output open

    def _read(self, output: Connection) -> None:
        rest = b""
        with output:
            while True:
                try:
                    data = os.read(output.fileno(), 1 << 16)
                except OSError:
                    return
                *lines, rest = (rest + data).split(b"\n")
                if len(rest) > 1 << 16 or (not data and rest):  # a line without an end
                    lines, rest = [*lines, rest], b""
                for line in lines:
                    self._say(self, line.decode(errors="replace").rstrip("\r"))
                if not data:
                    return


class Nursery:
    """Starts children, in the way that suits the agent's file."""

    def __init__(self, file: Path, start: Start, say: Callable[[Child | None, str], None]) -> None:
        """say: see `Child`; None for what is ours to say."""
        self._file, self._say = file, say
        self._method = "fork" if start == "auto" else start
        self._may_change = start == "auto"
        # The fork server takes over what it has at its start: its environment and what it preloads.
        os.environ[agents.FILE_VARIABLE] = str(file)
        self._fork = multiprocessing.get_context("forkserver")
        self._fork.set_forkserver_preload([f"{__package__}._preload"])
        self._spawn = multiprocessing.get_context("spawn")

    def start(self) -> Child:
        """OSError when no process can be made."""
        context = self._fork if self._method == "fork" else self._spawn
        return Child(context, self._file, self._say)

    def saw(self, threads: int) -> bool:
        """A child was forked from a process with so many threads. False: the child is of no use."""
        if threads <= 1 or self._method == "spawn":
            return True
        if not self._may_change:
            return True
        self._method, self._may_change = "spawn", False
        self._say(
            None,
            f"importing {self._file.name} starts {threads - 1} thread{'s' if threads > 2 else ''}: agents are"
            " started anew instead of being forked, which takes 0.1 s each",
        )
        return False

    def close(self) -> None:
        """Ends the fork server."""
        server: Any = forkserver._forkserver  # there is no public way
        server._stop()
