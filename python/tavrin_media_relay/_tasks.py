"""Tasks that run beside others, and end with them."""

from __future__ import annotations

import asyncio
import contextlib
from typing import Any, AsyncIterator, Awaitable


async def end(*tasks: asyncio.Future[Any]) -> None:
    """Cancels what still runs of them, and waits until all have ended, however that may be."""
    for task in tasks:
        task.cancel()
    await asyncio.gather(*tasks, return_exceptions=True)


@contextlib.asynccontextmanager
async def beside(*work: Awaitable[Any]) -> AsyncIterator[None]:
    """Runs the work while the block does, and ends it with the block. What it raises is passed over."""
    tasks = [asyncio.ensure_future(each) for each in work]
    try:
        yield
    finally:
        await end(*tasks)
