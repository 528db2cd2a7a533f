"""Background tasks that end with a block."""

from __future__ import annotations

import asyncio
import contextlib
from typing import Any, AsyncIterator, Awaitable


async def end(*tasks: asyncio.Future[Any]) -> None:
    """Cancels the running ones, and waits until all have ended, with or without an error."""
    for task in tasks:
        task.cancel()
    await asyncio.gather(*tasks, return_exceptions=True)


@contextlib.asynccontextmanager
async def beside(*work: Awaitable[Any]) -> AsyncIterator[None]:
    """Runs the work while the block runs, and cancels it at the end of the block. Its errors are ignored."""
    tasks = [asyncio.ensure_future(each) for each in work]
    try:
        yield
    finally:
        await end(*tasks)
