"""The process's one client, and the one thread on which the module's waiting calls are made.

The module's calls wait for its worker, `disconnect` up to five seconds: none of them is made on a loop's thread.
One thread for all of them keeps their order, so that a `connect` begins when the `disconnect` before it is done,
whichever loop each came from.
"""

from __future__ import annotations

import asyncio
import os
from concurrent.futures import ThreadPoolExecutor
from typing import TYPE_CHECKING, Any, Callable, Optional, TypeVar

if TYPE_CHECKING:
    from _tavrin_video import TavrinVideoClient

T = TypeVar("T")


class _Process:
    """What there is once in a process, and what may not be used in a forked child."""

    client: Optional[TavrinVideoClient] = None
    executor: Optional[ThreadPoolExecutor] = None
    pid = 0
    holder: Optional[object] = None  # the session that is up, or on its way up or down
    loop: Optional[asyncio.AbstractEventLoop] = None  # that one's


def check_process() -> None:
    """Raises in a child that was forked after the first use: its parent's threads are not there."""
    if _Process.pid not in (0, os.getpid()):
        raise RuntimeError(
            f"this process was forked (from {_Process.pid}) after its session's threads had been started, and has "
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

    A session whose loop was closed before it was left can't be left by its program any more: we do it here.
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
    """Begins a call on the module's thread, after those begun before it."""
    check_process()
    if _Process.executor is None:
        _Process.executor = ThreadPoolExecutor(max_workers=1, thread_name_prefix="tavrin-aio")
        _Process.pid = os.getpid()
    return asyncio.get_running_loop().run_in_executor(_Process.executor, function, *arguments)


async def finish(future: asyncio.Future[T]) -> T:
    """Waits for a call's end. A native call can't be broken off: a cancellation is passed on once it is over."""
    cancelled: Optional[asyncio.CancelledError] = None
    while not future.done():
        try:
            await asyncio.wait([future])
        except asyncio.CancelledError as error:
            cancelled = error
    if cancelled is not None:
        if not future.cancelled():
            future.exception()  # looked at: no complaint that nobody did
        raise cancelled
    return future.result()


async def call(function: Callable[..., T], *arguments: Any) -> T:
    """A call on the module's thread."""
    return await finish(start(function, *arguments))
