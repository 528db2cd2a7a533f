#!/usr/bin/env python3
"""Checks that includes and imports go one way: a subsystem sees itself and those below it, and the module's
core and the open library see nothing of each other but the contract's header. Each room of the open library
includes only those listed here. The rooms of the Python package import downwards, and the modules of each
room do not import each other in a circle.

Run from anywhere; prints each include or import that runs the wrong way, and exits 1 if there is one.
"""

from __future__ import annotations

import ast
import graphlib
import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent

#: Lowest first. The module's binding is above them all.
CORE_LAYERS = ("support", "runtime", "media", "session", "controller")

#: Rooms of the open library, and which of those before it each may see.
LIBRARY_ROOMS: dict[str, set[str]] = {
    "base": set(),
    "audio": {"base"},
    "pictures": {"base"},
    "plugins": {"base"},
    "files": {"base", "plugins"},
    "embedded": {"base", "plugins"},
    "session": {"base", "audio", "pictures"},
    "relay/signalling": {"base"},
    "relay/media/packets": set(),
    "relay/media/payloads": {"relay/media/packets"},
    "relay/media/codecs": {"base"},
    "relay/media/receive": {"base", "relay/media/packets", "relay/media/payloads", "relay/media/codecs"},
    "relay/media/send": {"relay/media/packets", "relay/media/payloads", "relay/media/codecs"},
    "relay/media/sdp": {"base", "relay/signalling"},
    "relay/media/transport": {"base", "relay/signalling", "relay/media/sdp"},
    "relay/peer": {
        "base", "plugins", "relay/signalling", "relay/media/codecs", "relay/media/receive",
        "relay/media/send", "relay/media/sdp", "relay/media/transport"
    },  # fmt: skip
    "relay/room": {"base", "relay/signalling", "relay/media/transport", "relay/peer"},
    "relay": {"plugins", "relay/peer", "relay/room"},
    "api": {"base", "audio", "pictures", "plugins", "embedded", "session"},
}

PACKAGE = ROOT / "python/tavrin_media_relay"
#: Rooms of the Python package, lowest first. Those on one level do not import each other.
PYTHON_ROOMS = (
    {"_checks", "_media_files", "_recording", "_tasks"},
    {"models"},
    {"tavrin_media_relay"},
    {"_native"},
    {"captions", "aio"},
    {"testing", "integrations", "serving"},
    {"server"},
    {"relay"},
    {"cli"},
    {"__main__"},
)

INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]', re.MULTILINE)
SOURCES = {".h", ".hpp", ".c", ".cpp", ".inc"}


def sources(folder: str) -> list[Path]:
    return sorted(path for path in (ROOT / folder).rglob("*") if path.suffix in SOURCES)


def resolve(source: Path, name: str, roots: list[Path]) -> Path | None:
    """The project's file named by an include, as the compiler would find it; None for all others."""
    for folder in [source.parent, *roots]:
        path = (folder / name).resolve()
        if path.is_file() and path.is_relative_to(ROOT):
            return path.relative_to(ROOT)
    return None


def rank(path: Path) -> int | None:
    """Level of a file of src; None for a file of another folder."""
    parts = path.parts
    if parts[:2] == ("src", "python"):
        return len(CORE_LAYERS)
    if parts[:2] == ("src", "lib"):
        return CORE_LAYERS.index(parts[2]) if parts[2] in CORE_LAYERS else None
    return None


def library_room(path: Path) -> str:
    """The room of a file of sarnet: its folder."""
    return path.parent.relative_to("sarnet").as_posix()


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
            elif where.parts[0] == "sarnet" and target.parts[0] == "sarnet":
                here, there = library_room(where), library_room(target)
                if here != there and there not in LIBRARY_ROOMS.get(here, set()):
                    found.append(f"{where}:{line}: {target}: {here} is not to see {there}")
    return found


def python_modules() -> dict[str, Path]:
    """The package's files by their module names."""
    found = {}
    for path in sorted(PACKAGE.rglob("*.py")):
        parts = path.relative_to(PACKAGE.parent).with_suffix("").parts
        found[".".join(parts[:-1] if parts[-1] == "__init__" else parts)] = path
    return found


def imports(name: str, path: Path, modules: dict[str, Path]) -> list[tuple[int, str]]:
    """Lines and names of the package's modules that a module imports, also those only for type checkers."""
    found = []
    package = name if path.name == "__init__.py" else name.rpartition(".")[0]
    for node in ast.walk(ast.parse(path.read_text(encoding="utf-8"))):
        if isinstance(node, ast.Import):
            wanted = [each.name for each in node.names]
        elif isinstance(node, ast.ImportFrom):
            base = node.module or ""
            if node.level:
                above = package.split(".")[: len(package.split(".")) - node.level + 1]
                base = ".".join([*above, *([node.module] if node.module else [])])
            # A package's name is its module of that name, else defined in its __init__.
            wanted = [full if (full := f"{base}.{each.name}") in modules else base for each in node.names]
        else:
            continue
        found += [(node.lineno, each) for each in wanted if each in modules and each != name]
    return found


def python_room(name: str) -> str:
    return name.split(".")[1] if "." in name else name


def wrong_imports() -> list[str]:
    modules = python_modules()
    heights = {room: height for height, rooms in enumerate(PYTHON_ROOMS) for room in rooms}
    found = []
    graph: dict[str, set[str]] = {name: set() for name in modules}
    for name, path in modules.items():
        room = python_room(name)
        for line, target in imports(name, path, modules):
            where, other = f"{path.relative_to(ROOT)}:{line}", python_room(target)
            graph[name].add(target)
            if room not in heights or other not in heights:
                found.append(f"{where}: {target}: one of the two is in no known room")
            elif room != other and heights[other] >= heights[room]:
                found.append(f"{where}: {target} lies in a room above or beside")
            private = [part for part in target.split(".")[2:] if part.startswith("_")]
            if room != other and private:
                found.append(f"{where}: {target} is private to {other}")
    try:
        graphlib.TopologicalSorter(graph).prepare()
    except graphlib.CycleError as error:
        found.append("imports in a circle: " + " -> ".join(reversed(error.args[1])))
    return found


def main() -> int:
    seen: set[str] = set()
    for room, below in LIBRARY_ROOMS.items():
        assert below <= seen, f"{room} sees rooms that are not before it"
        seen.add(room)
    found = wrong_includes() + wrong_imports()
    for line in found:
        print(line)
    if not sources("src") or not sources("sarnet"):
        print("no sources found: is this the project's folder?")
        return 1
    print(f"{len(found)} include(s) and import(s) run the wrong way")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
