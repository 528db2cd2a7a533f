"""The common part of a publisher's two outputs: back-pressure, draining and clearing."""

from __future__ import annotations

import asyncio
import time
from typing import Callable, Literal

from . import _module
from ._wakeups import Signal
from .errors import PublisherError

#: Seconds for which the session may accept none of the written media.
_PATIENCE = 5.0
_RETRY = 0.05


def queued() -> tuple[float, float]:
    """Milliseconds of audio and of video queued in the module. Waits for the module's worker."""
    stats = _module.client().get_media_buffer_stats()
    if not stats:
        return 0.0, 0.0
    sides = (stats.audio, stats.video)
    audio, video = (side.duration.total_seconds() * 1000 if side is not None else 0.0 for side in sides)
    return audio, video


class Output:
    """One side, audio or video. Everything but `added` belongs to the loop.

    The module accepts minutes of media at once, so it is asked how much it holds, but only when the media
    added since the last answer may have reached the limit.
    """

    def __init__(
        self,
        side: Literal[0, 1],
        limit: float,
        usable: Callable[[], None],
        away: Callable[[], bool] = lambda: False,
    ) -> None:
        """limit: ms that may be queued. usable: raises if nothing may be written here or now. away: the
        session is being joined again, and takes nothing meanwhile."""
        self._away = away
        self.changed = Signal()
        self._usable = usable
        self.added = 0
        """Number of blocks handed to the module. Read by the module's worker too."""
        self.cut_ms = 0.0
        """Milliseconds that writes ended by a clear had not handed over."""
        self.written_ms = 0.0
        self.turn = asyncio.Lock()
        """Held by the task that writes, and by a clear."""
        self.side = side
        """0 for audio, 1 for video: its index in what `queued` returns."""
        self._limit = limit
        self._at_most = 0.0  # ms in the module's queue: when last asked, and all that was added since
        self._dry = 0  # the count up to which the queue is known to have run dry
        self.cuts = 0
        self.lost_ms = 0.0
        """Milliseconds that clears have dropped from the module's queue."""
        self.dry_since: float | None = None
        """`time.monotonic()` when the module's queue was found dry; None while it is not."""

    def check(self) -> None:
        """Raises if nothing may be written, with the reason if it has ended."""
        self.changed.check()
        self._usable()

    def ran_dry(self, count: int) -> None:
        """The module's queue was empty after this many additions."""
        self._dry = max(self._dry, count)
        if count == self.added:
            self._at_most = 0.0
            if self.dry_since is None:
                self.dry_since = time.monotonic()
        self.changed.notify()

    @property
    def is_dry(self) -> bool:
        """Whether the module is known to hold nothing. Call with the turn held."""
        return self._dry == self.added

    def emptied(self) -> None:
        """After a clear, while no write is under way."""
        self.ran_dry(self.added)

    def cut(self) -> None:
        """Ends the writes under way."""
        self.cuts += 1
        self.changed.notify()

    async def room(self, ms: float, cuts: int) -> bool:
        """Waits until this much more may be queued; False if a clear came first. Call with the turn held."""
        while True:
            self.changed.check()
            if cuts != self.cuts:
                return False
            if self._at_most <= 0 or self._at_most + ms <= self._limit:
                return True
            self._at_most = (await _module.call(queued))[self.side]
            excess = self._at_most + ms - self._limit
            if excess > 0 and self._at_most > 0 and cuts == self.cuts:
                await self.changed.wait(max(excess / 1000, 0.001))

    async def hand_over(self, add: Callable[[], bool], ms: float) -> None:
        """Hands the module a block that fits. Call with the turn held."""
        end = asyncio.get_running_loop().time() + _PATIENCE
        while self._away() or not add():
            if self._away():
                end = asyncio.get_running_loop().time() + _PATIENCE
            if asyncio.get_running_loop().time() > end:
                raise PublisherError(
                    PublisherError.TIMED_OUT, f"the session has taken nothing for {_PATIENCE:g} s"
                )
            await self.changed.wait(_RETRY)
        # Counted afterwards: a worker that finds the queue dry during the call must not include this block.
        self.added += 1
        self.dry_since = None
        self._at_most += ms
        self.written_ms += ms

    async def wait_dry(self) -> None:
        need = self.added
        while self._dry < need:
            await self.changed.wait()
