"""A private server for development and tests: Debian's Janus, configured, started and stopped.

`RelayServer` runs one; `tokens` signs who may enter. On the command line:
`python3 -m tavrin_media_relay.server`.
"""

from .server import RelayServer, ServerError
from .settings import Settings
from .tokens import join_token, realm_token, room_token

__all__ = ["RelayServer", "ServerError", "Settings", "join_token", "realm_token", "room_token"]
