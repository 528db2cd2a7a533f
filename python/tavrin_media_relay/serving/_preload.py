"""What the fork server imports: the agent's file, once for all children. Whatever that raises is kept for the
child, which raises it again where it is reported."""

from __future__ import annotations

import os
from pathlib import Path

from . import agents, visit  # noqa: F401  the child's code, too

threads_before = agents.threads()
try:
    if os.environ.get(agents.FILE_VARIABLE):
        agents.imported(Path(os.environ[agents.FILE_VARIABLE]))
except BaseException:  # the child imports it again, and reports
    pass
threads = agents.threads()
"""After the import: more than one, and a fork would copy only one of them."""
