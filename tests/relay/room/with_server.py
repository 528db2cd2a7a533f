"""Runs a program with a relay server of its own: `with_server.py PROGRAM ARGS...`.

The program finds the server in SARNET_TEST_HOST and SARNET_TEST_TLS_HOST (with SARNET_TEST_CA_FILE), and
how to enter in SARNET_TEST_ROOM and SARNET_TEST_TOKEN. Ends with the program's status, or with 77 where no
server is installed.
"""

from __future__ import annotations

import os
import shutil
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

from tavrin_media_relay.relay import RelayServer, Settings, join_token

ROOM = "tests"


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return int(probe.getsockname()[1])


def main() -> int:
    if shutil.which("janus") is None:
        return 77
    with tempfile.TemporaryDirectory() as folder:
        settings = Settings(
            folder=Path(folder) / "server", port=free_port(), tls_port=free_port(),
            rtp_ports=(21000, 21999), rooms=[ROOM],
        )  # fmt: skip
        # The server runs as nobody when we are root.
        Path(folder).chmod(0o755)
        with RelayServer(settings) as server:
            environment = os.environ | {
                "SARNET_TEST_HOST": settings.host,
                "SARNET_TEST_TLS_HOST": f"wss://localhost:{settings.tls_port}",
                "SARNET_TEST_CA_FILE": str(server.certificate),
                "SARNET_TEST_ROOM": ROOM,
                "SARNET_TEST_TOKEN": join_token(ROOM, settings.token_secret),
            }
            status = subprocess.run(sys.argv[1:], env=environment).returncode
            if status != 0:
                print(server.log_tail(40), file=sys.stderr)
            return status


if __name__ == "__main__":
    sys.exit(main())
