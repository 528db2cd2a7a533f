"""Runs a program with a relay server of its own: `with_server.py COMPANION PROGRAM ARGS...`.

The program finds the server in SARNET_TEST_HOST, and in SARNET_TEST_ROOM a room where the companion, a
program too, waits for it. With SARNET_RELAY_ADMIN_KEY both make that room and others, and SARNET_TEST_TOKEN
lets them in. Ends with the program's status, or with 77 where no server is installed.
"""

from __future__ import annotations

import os
import shutil
import socket
import subprocess
import sys
import tempfile
from pathlib import Path

from tavrin_media_relay.server import RelayServer, Settings, realm_token


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
            rtp_ports=(21000, 21999), rooms=[],
        )  # fmt: skip
        # The server runs as nobody when we are root.
        Path(folder).chmod(0o755)
        with RelayServer(settings) as server:
            environment = os.environ | {
                "SARNET_TEST_HOST": settings.host,
                "SARNET_TEST_ROOM": "the companion's",
                "SARNET_TEST_TOKEN": realm_token(settings.token_secret),
                "SARNET_RELAY_ADMIN_KEY": settings.admin_key,
            }
            companion = subprocess.Popen(
                sys.argv[1:2], env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE
            )
            assert companion.stdout is not None
            try:
                status = companion.stdout.readline() != b"ready\n" or (
                    subprocess.run(sys.argv[2:], env=environment).returncode
                )
            finally:
                companion.communicate(timeout=30)
            if status or companion.returncode:
                print(server.log_tail(40), file=sys.stderr)
            return status or companion.returncode


if __name__ == "__main__":
    sys.exit(main())
