"""The pytest plug-in: the fixture `rehearsal`."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING, Any, Generator

import pytest

if TYPE_CHECKING:
    from . import Rehearsal

_SECTION = "rehearsal"


@pytest.fixture
def rehearsal(tmp_path: Path) -> Rehearsal:
    """A `tavrin_media_relay.testing.Rehearsal`: script participants and events, then `run` an agent in it.

    When the test fails, its report shows the log of events and when the agent spoke.
    """
    # Here, since only users of the fixture need numpy and the native module.
    from . import Rehearsal

    folder = tmp_path / "rehearsal"
    folder.mkdir()
    return Rehearsal(folder)


@pytest.hookimpl(hookwrapper=True)  # type: ignore[misc]  # which pytest 7 leaves untyped
def pytest_runtest_makereport(item: pytest.Item, call: pytest.CallInfo[None]) -> Generator[None, Any, None]:
    outcome = yield
    report: pytest.TestReport = outcome.get_result()
    found: Any = getattr(item, "funcargs", {}).get("rehearsal")
    if report.when == "call" and report.failed and getattr(found, "performance", None) is not None:
        report.sections.append((_SECTION, f"{found.performance.log()}\n(files in {found.folder})"))
