"""A server's settings: addresses, ports, rooms, secrets. Written into its folder from the templates."""

from __future__ import annotations

import ipaddress
import os
import re
import secrets
import subprocess
import tempfile
from dataclasses import dataclass, field
from pathlib import Path
from string import Template

_TEMPLATES = Path(__file__).resolve().parent / "templates"
_PLAIN = re.compile(r"[A-Za-z0-9._-]+")
CERTIFICATE_DAYS = 30


def default_folder(port: int) -> Path:
    """Where a server on `port` keeps its files, and where `token` looks for its secret."""
    return Path(tempfile.gettempdir()) / f"tavrin-relay-{os.getuid()}-{port}"


@dataclass
class Settings:
    """The settings of one server. Every value for a configuration file is checked, so that none can end a
    string there and begin another."""

    folder: Path | None = None
    """Its own folder; made if missing, emptied of the server's files when it stops. None: a default."""
    address: str = "127.0.0.1"
    """The address of media and TLS. A loopback address serves this machine alone."""
    public_address: str = ""
    """The address by which others reach `address` through a translating router."""
    port: int = 8188
    """Port of the unencrypted WebSocket, on 127.0.0.1 alone."""
    tls_port: int = 0
    """Port of the WebSocket over TLS, on `address`. 0: 801 above `port`, so 8989."""
    rtp_ports: tuple[int, int] = (0, 0)
    """First and last UDP port of media. (0, 0): the 1000 ports from 20000 on."""
    rooms: list[str] = field(default_factory=list)
    """Rooms that exist from the start, each open only to tokens made for it."""
    admin_key: str = ""
    """Required for making further rooms. Empty: a new, secret one, so that nobody can."""
    anyone_may_make_rooms: bool = False
    """Everyone with a token for the server can make further rooms, and forward what they publish there to any
    address: for development among people who trust each other. Excludes an admin key."""
    token_secret: str = ""
    """Signs the tokens. Empty: a new one."""
    events: tuple[int, str] | None = None
    """Port on 127.0.0.1 to which the server tells what participants do, and the password that it shows there;
    None: it tells nobody."""
    certificate: Path | None = None
    """PEM files to use for TLS, with `key`; None: a new self-signed certificate."""
    key: Path | None = None

    def __post_init__(self) -> None:
        self.folder = Path(self.folder or default_folder(self.port)).absolute()
        self.address = str(ipaddress.ip_address(self.address))
        if self.public_address:
            self.public_address = str(ipaddress.ip_address(self.public_address))
        self.tls_port = self.tls_port or self.port + 801
        if self.rtp_ports == (0, 0):
            self.rtp_ports = (20000, 20999)
        first, last = self.rtp_ports
        for port in (self.port, self.tls_port, first, last):
            if not 0 < port < 65536:
                raise ValueError(f"a port is a number from 1 to 65535, not {port}")
        if first >= last:
            raise ValueError(f"the first of the media's ports must be below the last, not {first}-{last}")
        if self.anyone_may_make_rooms and self.admin_key:
            raise ValueError("either anyone may make rooms, or those who know the admin key: not both")
        if not self.anyone_may_make_rooms:
            self.admin_key = self.admin_key or secrets.token_urlsafe(32)
        self.token_secret = self.token_secret or secrets.token_urlsafe(32)
        for name, values in (
            ("room", self.rooms), ("admin key", [self.admin_key] if self.admin_key else []),
            ("token secret", [self.token_secret]),
        ):  # fmt: skip
            for value in values:
                if not _PLAIN.fullmatch(value):
                    raise ValueError(f"a {name} is made of letters, digits, '-', '_' and '.', not {value!r}")
        if (self.certificate is None) != (self.key is None):
            raise ValueError("a certificate needs its key, and a key its certificate")
        for path in (self.folder, self.certificate, self.key):
            if path is not None and set(str(path)) & set('"\\\n'):
                raise ValueError(f"a path with quotes or backslashes cannot be used: {path}")

    @property
    def loopback(self) -> bool:
        return ipaddress.ip_address(self.address).is_loopback

    @property
    def host(self) -> str:
        """The API_HOSTNAME for a program on this machine (loopback) or on another (TLS)."""
        if self.loopback:
            return f"ws://127.0.0.1:{self.port}"
        address = self.public_address or self.address
        return f"wss://{f'[{address}]' if ':' in address else address}:{self.tls_port}"


def _make_certificate(settings: Settings, certificate: Path, key: Path) -> None:
    addresses = ["127.0.0.1", settings.address, settings.public_address]
    names = dict.fromkeys(["DNS:localhost", *(f"IP:{address}" for address in addresses if address)])
    done = subprocess.run(
        [
            "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
            "-days", str(CERTIFICATE_DAYS), "-subj", "/CN=tavrin-media-relay development",
            "-addext", f"subjectAltName={','.join(names)}", "-out", certificate, "-keyout", key,
        ],
        capture_output=True, text=True,
    )  # fmt: skip
    if done.returncode != 0:
        raise RuntimeError(f"openssl could not make a certificate:\n{done.stderr}")


def write(settings: Settings) -> list[Path]:
    """Fills the folder; returns the files written. Only their owner can read them."""
    folder = settings.folder
    assert folder is not None
    certificate = settings.certificate or folder / "cert.pem"
    key = settings.key or folder / "key.pem"
    values = {
        "folder": folder,
        "address": settings.address,
        "port": settings.port,
        "tls_port": settings.tls_port,
        "rtp_ports": "{}-{}".format(*settings.rtp_ports),
        "token_secret": settings.token_secret,
        "certificate": certificate.absolute(),
        "key": key.absolute(),
        "public_address_line": f'\tnat_1_1_mapping = "{settings.public_address}"\n'
        if settings.public_address
        else "",
        "events_enabled": "true" if settings.events else "false",
        "events_port": settings.events[0] if settings.events else 0,
        "events_password": settings.events[1] if settings.events else "",
        "admin_key_lines": (
            f'\tadmin_key = "{settings.admin_key}"\n\tlock_rtp_forward = true\n' if settings.admin_key else ""
        ),
    }
    texts = {
        name: Template((_TEMPLATES / name).read_text()).substitute(values)
        for name in ("janus.jcfg", "janus.transport.websockets.jcfg", "janus.plugin.videoroom.jcfg")
        + (("janus.eventhandler.sampleevh.jcfg",) if settings.events else ())
    }
    room = Template((_TEMPLATES / "room.jcfg").read_text())
    for name in settings.rooms:
        texts["janus.plugin.videoroom.jcfg"] += room.substitute(
            room=name, room_secret=secrets.token_urlsafe(32)
        )
    texts["token_secret"] = settings.token_secret + "\n"
    written = []
    for name, text in texts.items():
        path = folder / name
        path.unlink(missing_ok=True)
        with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "w") as file:
            file.write(text)
        written.append(path)
    if settings.certificate is None:
        before = os.umask(0o077)
        try:
            _make_certificate(settings, certificate, key)
        finally:
            os.umask(before)
        written += [certificate, key]
    return written
