"""The native module as its stubs tell of it, so that the documentation needs no build.

`./dev types` holds the stubs against the module itself.
"""

from __future__ import annotations

import importlib.machinery
import importlib.util
import inspect
import sys
from pathlib import Path
from types import ModuleType
from typing import Any, Callable, Optional


def _as_callable(protocol: Any) -> Any:
    """`Callable[[...], object]`, which says more to a reader than the name of a protocol."""
    parameters = list(inspect.signature(protocol.__call__).parameters.values())[1:]
    return Optional[Callable[[each.annotation for each in parameters], object]]


def _spell_out(function: Any, module: ModuleType) -> None:
    for name, annotation in getattr(function, "__annotations__", {}).items():
        for member in getattr(annotation, "__args__", ()):
            if getattr(member, "_is_protocol", False) and member.__module__ == module.__name__:
                function.__annotations__[name] = _as_callable(member)


def load(path: Path) -> None:
    """Has the file imported wherever the module is asked for."""
    loader = importlib.machinery.SourceFileLoader("_tavrin_video", str(path))
    spec = importlib.util.spec_from_loader(loader.name, loader)
    assert spec is not None
    module = importlib.util.module_from_spec(spec)
    sys.modules[loader.name] = module
    loader.exec_module(module)
    for function in vars(module.TavrinVideoClient).values():
        _spell_out(function, module)
