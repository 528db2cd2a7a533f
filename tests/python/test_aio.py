"""The asyncio face on the embedded engine: each case of aio_cases.py in a process that ends without a complaint."""

from __future__ import annotations

import ast
import os
import signal
import subprocess
import sys
from pathlib import Path

import pytest

HERE = Path(__file__).resolve().parent
ROOT = HERE.parents[1]
BUILD = Path(os.environ.get("TAVRIN_BUILD") or ROOT / "build" / os.environ.get("TAVRIN_PRESET", "release"))
CASES = HERE / "aio_cases.py"
#: On standard error these tell of something that was left behind.
COMPLAINTS = ("Traceback", "was destroyed", "never awaited", "never retrieved", "Exception in", "ResourceWarning")


def names() -> list[str]:
    (cases,) = (
        node.value
        for node in ast.parse(CASES.read_text()).body
        if isinstance(node, ast.Assign) and ast.unparse(node.targets[0]) == "CASES"
    )
    return [each.id for each in cases.elts]


def start(case: str) -> subprocess.Popen[str]:
    variables = {key: value for key, value in os.environ.items() if key not in ("LD_LIBRARY_PATH", "API_HOSTNAME")}
    variables["PYTHONPATH"] = os.pathsep.join([str(BUILD / "python"), str(ROOT / "python")])
    return subprocess.Popen(
        [sys.executable, "-X", "dev", "-W", "ignore::DeprecationWarning", str(CASES), case],
        env=variables, text=True, errors="replace", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
    )  # fmt: skip


@pytest.mark.parametrize("case", names())
def test_case(case):
    program = start(case)
    try:
        out, err = program.communicate(timeout=60)
    finally:
        program.kill()
    assert program.returncode == 0, f"exit code {program.returncode}\n{out[-3000:]}\n{err[-6000:]}"
    assert not [each for each in COMPLAINTS if each in err], err


def test_ctrl_c():
    program = start("interrupted")
    try:
        while "running" not in program.stdout.readline():
            assert program.poll() is None, program.stderr.read()
        program.send_signal(signal.SIGINT)
        out, err = program.communicate(timeout=30)
    finally:
        program.kill()
    assert program.returncode == -signal.SIGINT and "left" in out, out + err
    assert err.strip().endswith("KeyboardInterrupt")
    assert not [each for each in COMPLAINTS[1:] if each in err], err
