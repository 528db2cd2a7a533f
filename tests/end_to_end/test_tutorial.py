"""What the tutorial and the README have one write runs, in their order, and prints what they show."""

from __future__ import annotations

import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]

#: "Save as `FILE`:" and the like, in front of what is to be written there; and what is typed into the
#: terminal.
STEP = re.compile(
    r"(Save as|Add to|Change)\s`(\w+\.\w+)`[^`]*?:\n\n```\w+\n(.*?)```|```console\n(.*?)```", re.DOTALL
)


def write(verb: str, path: Path, text: str) -> None:
    if verb == "Add to":
        path.write_text(path.read_text() + text)
    elif verb == "Change":
        before, _, rest = path.read_text().partition("async def agent(")
        path.write_text(before + text + "\n\n" + rest[rest.index("async def main(") :])
    else:
        path.write_text(text)


def run(command: str, folder: Path) -> str:
    variables = {
        key: value for key, value in os.environ.items() if key not in ("API_HOSTNAME", "SESSION_ID", "TOKEN")
    }
    command = command.replace("../dev python", sys.executable)
    done = subprocess.run(
        command, shell=True, cwd=folder, env=variables, capture_output=True, text=True, timeout=60
    )
    return done.stdout + done.stderr


def plain(line: str) -> str:
    """Without its numbers and ids, which differ from run to run."""
    return re.sub(r"[0-9a-f]*\d[0-9a-f]*", "#", line)


def assert_shows(shown: list[str], printed: str) -> None:
    """Each shown line was printed, in this order; "..." stands for any lines."""
    rest = iter([plain(line) for line in printed.splitlines()])
    for line in shown:
        assert line == "..." or plain(line) in rest, f"not printed, or not here: {line}\n{printed}"


@pytest.mark.parametrize(("page", "commands"), [("README.md", 1), ("docs/tutorial.md", 8)])
def test_page(page, commands, tmp_path):
    text = (ROOT / page).read_text(encoding="utf-8")
    for verb, name, program, console in STEP.findall(text):
        if verb:
            write(verb, tmp_path / name, program)
            continue
        for command, shown in re.findall(r"^\$ (.*)\n((?:[^$].*\n)*)", console, re.MULTILINE):
            assert_shows(shown.splitlines(), run(command, tmp_path))
            commands -= 1
    assert commands == 0, "a command of the page was not understood"
