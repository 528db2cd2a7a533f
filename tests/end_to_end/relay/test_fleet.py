"""The whole fleet: a person enters a new room, is greeted, and stays so when a worker and a server die."""

from __future__ import annotations

import json
import os
import re
import shutil
import signal
import sys
import time

import pytest
from processes import HERE, ROOT, Process

sys.path.insert(0, str(ROOT / "tools"))
from fleet import Fleet  # noqa: E402

pytestmark = pytest.mark.skipif(
    not (shutil.which("redis-server") and shutil.which("haproxy")),
    reason="redis-server or haproxy is not installed",
)


def greeted(visitor: Process, fresh: bool, patience: float = 40.0) -> int:
    """Seconds that the agent says it has been there; fresh: one that has just come."""
    deadline = time.monotonic() + patience
    while True:
        text = visitor.wait_for("shown", max(0.1, deadline - time.monotonic()))["text"]
        if (found := re.search(r"here for (\d+) s", text)) and (not fresh or int(found[1]) <= 2):
            return int(found[1])


def worker_of(fleet: Fleet) -> str:
    """Which worker serves now: the one whose log has the last visit."""
    found = {}
    for number in range(1, fleet.workers + 1):
        lines = (fleet.folder / f"worker{number}.log").read_text().splitlines()
        joined = [line for line in lines if '"event": "joined"' in line]
        if joined:
            found[float(json.loads(joined[-1])["time"])] = f"worker{number}"
    return found[max(found)]


def test_a_conversation_goes_on_when_its_worker_and_its_server_die(tmp_path):
    os.chmod(tmp_path, 0o755)
    with Fleet(tmp_path, ROOT / "examples" / "greeter.py", 19400) as fleet:
        visitor = Process([sys.executable, str(HERE / "visitor.py"), fleet.link("new-room")])
        try:
            visitor.wait_for("joined", 60)
            greeted(visitor, fresh=True)
            for whom in ("worker", "relay"):
                if whom == "worker":
                    name = worker_of(fleet)
                else:
                    logs = [fleet.folder / f"relay{number}.log" for number in (1, 2)]
                    name = max(logs, key=lambda log: log.read_text().count("sent greeter")).stem
                began = time.monotonic()
                os.killpg(fleet.processes[name].pid, signal.SIGKILL)
                fleet.processes[name].wait()
                greeted(visitor, fresh=True)
                took = time.monotonic() - began
                print(f"{name} killed: greeted again after {took:.1f} s")
                assert took < 25  # 8 s and 4 s on a quiet machine
                greeted(visitor, fresh=False)
            assert visitor.leave()["problem"] == ""
        finally:
            visitor.end()
