"""The process's one client, and the one thread on which the module's blocking calls are made.

The module's calls wait for its worker, `disconnect` up to five seconds, so none is made on a loop's thread.
One thread for all keeps their order: a `connect` begins when the previous `disconnect` is done, on any loop.
"""

from __future__ import annotations

import asyncio
import os
from concurrent.futures import ThreadPoolExecutor
from typing import TYPE_CHECKING, Any, Callable, TypeVar

if TYPE_CHECKING:
    from _tavrin_video import TavrinVideoClient

T = TypeVar("T")


class _Process:
    """State that exists once per process and must not be used in a forked child."""

    client: TavrinVideoClient | None = None
    executor: ThreadPoolExecutor | None = None
    pid = 0
    holder: object | None = None  # the session that is joined, being joined or being left
    loop: asyncio.AbstractEventLoop | None = None  # the holder's


def check_process() -> None:
    """Raises in a child that was forked after the first use: it lacks the parent's threads."""
    if _Process.pid not in (0, os.getpid()):
        raise RuntimeError(
            f"this process was forked (from {_Process.pid}) after its session's threads had been "
            f"started, and has "
            'none of them: start processes with multiprocessing.set_start_method("spawn")'
        )


def client() -> TavrinVideoClient:
    """The client; made at the first call, which waits for the module's library to start."""
    check_process()
    if _Process.client is None:
        from tavrin_media_relay import TavrinVideoClient

        _Process.client = TavrinVideoClient()
        _Process.pid = os.getpid()
    return _Process.client


async def claim(holder: object, loop: asyncio.AbstractEventLoop) -> bool:
    """Takes the process's session for one holder; False if another has it.

    Leaves a session whose loop was closed without leaving it: its program no longer can.
    """
    check_process()
    if _Process.loop is not None and _Process.loop.is_closed():
        _Process.holder, _Process.loop = holder, loop
        try:
            await call(client().disconnect)
        except BaseException:
            release(holder)
            raise
    if _Process.holder is None:
        _Process.holder, _Process.loop = holder, loop
    return _Process.holder is holder


def release(holder: object) -> None:
    if _Process.holder is holder:
        _Process.holder = _Process.loop = None


def start(function: Callable[..., T], *arguments: Any) -> asyncio.Future[T]:
    """Queues a call on the module's thread."""
    check_process()
    if _Process.executor is None:
        _Process.executor = ThreadPoolExecutor(max_workers=1, thread_name_prefix="tavrin-aio")
        _Process.pid = os.getpid()
    return asyncio.get_running_loop().run_in_executor(_Process.executor, function, *arguments)


async def finish(future: asyncio.Future[T]) -> T:
    """Waits for a call. A native call cannot be cancelled, so a cancellation is raised once the call has
    ended."""
    cancelled: asyncio.CancelledError | None = None
    while not future.done():
        try:
            await asyncio.wait([future])
        except asyncio.CancelledError as error:
            cancelled = error
    if cancelled is not None:
        if not future.cancelled():
            future.exception()  # retrieved, so that asyncio does not report it
        raise cancelled
    return future.result()


async def call(function: Callable[..., T], *arguments: Any) -> T:
    """A call on the module's thread."""
    return await finish(start(function, *arguments))
