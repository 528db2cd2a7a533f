"""How a session is joined."""

from __future__ import annotations


from .._checks import number, of_type
from ..models import LoggingSettings, SessionSettings
from ._opening import Opening
from .session import Session

_REJOIN_SECONDS = 60.0


def connect(
    application_id: str,
    session_id: str,
    token: str,
    *,
    settings: SessionSettings | None = None,
    timeout: float = 30.0,
    rejoin: bool | float = False,
) -> Opening[Session]:
    """Joins a session: `async with connect(...) as session:`, or `session = await connect(...)` and, in the
    end, `await session.close()`.

    settings: media formats, log level; None: all defaults, and a log of errors alone. timeout: seconds until
    the attempt is abandoned.

    rejoin: when the server, or the way to it, is lost, the session is joined again under the same address,
    for so many seconds (True: 60) before it fails. Then a `SessionLost` comes, with all participants dropped,
    and a `SessionRejoined` once it is joined, with all participants anew. The publisher goes on: its writes
    wait meanwhile; what was queued is gone. Subscriptions end with their streams; the iterators of the
    session's mix and of its events go on.

    Raises SessionError if the session refuses, fails or doesn't answer, TypeError or ValueError for bad
    arguments. A process is in one session at a time. When joining is cancelled, it is undone before the
    cancellation is raised, so that the next `connect` starts clean.
    """
    for name, value in (("application_id", application_id), ("session_id", session_id), ("token", token)):
        of_type(name, value, str)
    if settings is not None:
        of_type("settings", settings, SessionSettings)
    number("timeout", timeout, 0.0, 1e9, "seconds")
    if not isinstance(rejoin, bool):
        number("rejoin", rejoin, 0.0, 1e6, "seconds")
    patience = _REJOIN_SECONDS if rejoin is True else float(rejoin)

    async def begin() -> Session:
        session = Session(session_id, settings or SessionSettings(logging=LoggingSettings("error")), patience)
        return await session.open(application_id, token, timeout)

    return Opening(begin)
