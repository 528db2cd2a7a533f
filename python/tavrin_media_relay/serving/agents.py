"""An agent's file: found, imported, and asked what it wants."""

from __future__ import annotations

import importlib.util
import inspect
import os
import sys
from dataclasses import dataclass
from pathlib import Path
from types import ModuleType
from typing import Any, Awaitable, Callable

FILE_VARIABLE = "TAVRIN_SERVED_FILE"
_NAME = "tavrin_served_agent"


@dataclass(frozen=True)
class Agent:
    """What its file has: `async def agent(session)` or `agent(session, job)`, and maybe `prepare()`."""

    call: Callable[..., Awaitable[Any]]
    takes_job: bool
    prepare: Callable[[], Any] | None


def file_of(text: str) -> Path:
    """The file of an agent, or `__main__.py` of a folder; ValueError for what is neither."""
    path = Path(text).resolve()
    if path.is_dir():
        path = path / "__main__.py"
    if not path.is_file():
        raise ValueError(f"agent: there is no file {path}")
    return path


def imported(path: Path) -> ModuleType:
    """The file as a module; a second call gives the same one. Raises what its import raises."""
    if _NAME in sys.modules:
        return sys.modules[_NAME]
    folder = str(path.parent)
    if folder not in sys.path:
        sys.path.insert(0, folder)  # as for a program that is run
    spec = importlib.util.spec_from_file_location(_NAME, path)
    if spec is None or spec.loader is None:
        raise ValueError(f"agent: {path} is no Python file")
    module = importlib.util.module_from_spec(spec)
    sys.modules[_NAME] = module
    try:
        spec.loader.exec_module(module)
    except BaseException:
        del sys.modules[_NAME]
        raise
    return module


def agent_of(module: ModuleType) -> Agent:
    """ValueError if it has no `async def agent(session)`."""
    call, prepare = getattr(module, "agent", None), getattr(module, "prepare", None)
    if not inspect.iscoroutinefunction(call):
        raise ValueError(f"agent: {module.__file__} has no `async def agent(session)`")
    parameters = [
        each
        for each in inspect.signature(call).parameters.values()
        if each.kind in (each.POSITIONAL_ONLY, each.POSITIONAL_OR_KEYWORD)
    ]
    if not 1 <= len(parameters) <= 2:
        raise ValueError(f"agent: agent() of {module.__file__} takes (session) or (session, job)")
    if prepare is not None and not callable(prepare):
        raise ValueError(f"agent: prepare of {module.__file__} is no function")
    return Agent(call, len(parameters) == 2, prepare)


def threads() -> int:
    """Of this process."""
    return len(os.listdir("/proc/self/task"))
