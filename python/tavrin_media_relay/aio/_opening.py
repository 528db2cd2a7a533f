"""Objects that `async with` opens and closes, or `await` opens and `close` closes."""

from __future__ import annotations

import asyncio
import contextlib
from types import TracebackType
from typing import Any, AsyncIterator, Awaitable, Callable, Generator, Generic, Protocol, TypeVar


class _Closable(Protocol):
    async def close(self) -> None:
        ...


T = TypeVar("T", bound=_Closable)

_GRACE = 1.0  # s


@contextlib.asynccontextmanager
async def attempt(close: Callable[[], Awaitable[None]], outcome: asyncio.Future[None]) -> AsyncIterator[None]:
    """Around an opening, up to its outcome: closes again if the opening fails or is cancelled."""
    try:
        yield
    except BaseException:
        await close()
        raise
    finally:
        outcome.cancel()


async def settled_or_assumed(outcome: asyncio.Future[None]) -> None:
    """Waits for an outcome whose event the module loses if it precedes the call's return. After a second,
    success is assumed, since an error would have arrived."""
    await asyncio.wait([outcome], timeout=_GRACE)
    if outcome.done():
        outcome.result()


class Opening(Generic[T]):
    """Nothing has started yet: `async with` or `await` starts it and gives the result."""

    def __init__(self, begin: Callable[[], Awaitable[T]]) -> None:
        self._begin = begin
        self._opened: T | None = None

    def __await__(self) -> Generator[Any, None, T]:
        return self._begin().__await__()

    async def __aenter__(self) -> T:
        if self._opened is not None:
            raise RuntimeError("this has been opened already: ask for a new one")
        self._opened = await self._begin()
        return self._opened

    async def __aexit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        traceback: TracebackType | None,
    ) -> None:
        if self._opened is not None:
            await self._opened.close()
