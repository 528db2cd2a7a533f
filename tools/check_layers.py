#!/usr/bin/env python3
"""Checks that includes go one way: a subsystem sees itself and those below it, and the module's core and
the open library see nothing of each other but the contract's header.

Run from anywhere; prints each include that runs the wrong way, and exits 1 if there is one.
"""

from __future__ import annotations

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

#: Lowest first. The module's binding lies above them all.
CORE_LAYERS = ("support", "runtime", "media", "session", "controller")

INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)
SOURCES = {".h", ".hpp", ".c", ".cpp", ".inc"}


def sources(folder: str) -> list[Path]:
    return sorted(path for path in (ROOT / folder).rglob("*") if path.suffix in SOURCES)


def resolve(source: Path, name: str, roots: list[Path]) -> Path | None:
    """The project's file that an include names, as the compiler would find it; None for all others."""
    for folder in [source.parent, *roots]:
        path = (folder / name).resolve()
        if path.is_file() and path.is_relative_to(ROOT):
            return path.relative_to(ROOT)
    return None


def rank(path: Path) -> int | None:
    """Height of a file of src; None for a file of another folder."""
    parts = path.parts
    if parts[:2] == ("src", "python"):
        return len(CORE_LAYERS)
    if parts[:2] == ("src", "lib"):
        return CORE_LAYERS.index(parts[2]) if parts[2] in CORE_LAYERS else None
    return None


def wrong_includes() -> list[str]:
    roots = [ROOT / "src/lib", ROOT / "src/python", ROOT / "sarnet", ROOT / "include", ROOT]
    found = []
    for source in sources("src") + sources("sarnet") + sources("common"):
        where = source.relative_to(ROOT)
        text = source.read_text(encoding="utf-8")
        for match in INCLUDE.finditer(text):
            target = resolve(source, match.group(1), roots)
            if target is None:
                continue
            line = text.count("\n", 0, match.start()) + 1
            tops = {where.parts[0], target.parts[0]}
            if where.parts[0] == "common" and target.parts[0] != "common":
                found.append(f"{where}:{line}: {target}: common needs nothing")
            elif tops == {"src", "sarnet"}:
                found.append(f"{where}:{line}: {target} lies across the contract")
            elif where.parts[0] == "src" and target.parts[0] == "src":
                above, below = rank(where), rank(target)
                if above is None or below is None:
                    found.append(f"{where}:{line}: {target}: one of the two is in no known layer")
                elif below > above:
                    found.append(f"{where}:{line}: {target} lies in a layer above")
    return found


def main() -> int:
    found = wrong_includes()
    for line in found:
        print(line)
    if not sources("src") or not sources("sarnet"):
        print("no sources found: is this the project's folder?")
        return 1
    print(f"{len(found)} include(s) run the wrong way")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
