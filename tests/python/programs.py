"""Where the build is, and what programs of their own are started with and looked through for."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("TAVRIN_BUILD") or ROOT / "build" / os.environ.get("TAVRIN_PRESET", "release"))
PYTHON_PATH = [str(BUILD / "python"), str(ROOT / "python"), str(Path(__file__).parent)]

#: On standard error these tell of something that was left behind.
COMPLAINTS = (
    "Traceback", "was destroyed", "never awaited", "never retrieved", "Exception in", "Exception ignored",
    "ResourceWarning",
)  # fmt: skip

_OTHERS = ("LD_LIBRARY_PATH", "API_HOSTNAME", "SESSION_ID", "TOKEN", "SARNET_RELAY_TOKEN_SECRET")


def environment(**extra: object) -> dict[str, str]:
    """Of a program on the build's own library, with nothing of the caller's that would lead it elsewhere."""
    kept = {key: value for key, value in os.environ.items() if key not in _OTHERS}
    return {**kept, "PYTHONPATH": os.pathsep.join(PYTHON_PATH), **{key: str(extra[key]) for key in extra}}


def launch(*arguments: object, cwd: Path | None = None, **variables: object) -> subprocess.Popen[str]:
    """Python with these arguments, in such an environment."""
    return subprocess.Popen(
        [sys.executable, *map(str, arguments)], env=environment(**variables), cwd=cwd,
        text=True, errors="replace", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL),  # not so in the background
    )  # fmt: skip


def end(
    program: subprocess.Popen[str], code: int, complaints: tuple[str, ...] = COMPLAINTS
) -> tuple[str, str]:
    """What it printed, once it has ended as it should."""
    try:
        out, err = program.communicate(timeout=60)
    finally:
        program.kill()
    assert program.returncode == code, f"exit code {program.returncode}\n{out[-3000:]}\n{err[-6000:]}"
    assert not [each for each in complaints if each in err], err
    return out, err
