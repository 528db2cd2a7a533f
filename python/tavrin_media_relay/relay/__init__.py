"""The former name of `tavrin_media_relay.server`, kept for programs and service files that use it."""

from .. import server
from ..server import RelayServer, ServerError, Settings, join_token, realm_token, room_token

#: The submodules, and what `python3 -m` runs, are those of the server.
__path__ = server.__path__
__all__ = ["RelayServer", "ServerError", "Settings", "join_token", "realm_token", "room_token"]
