"""The configuration of HAProxy as the one door in front of several relay servers.

A room's address is `wss://DOOR/room/NAME`. Whoever comes first takes the room to the server with the fewest
participants; who comes after goes there too, as long as somebody is in it. A server that fails loses its
rooms to others: programs and pages join the same address again. Several doors share what they know.
"""

from __future__ import annotations

import ipaddress
import re
from dataclasses import dataclass, field
from pathlib import Path

_HOST = re.compile(r"[A-Za-z0-9]([A-Za-z0-9.-]{0,252}[A-Za-z0-9])?")
_WORD = re.compile(r"[a-z][a-z0-9]{0,15}")
_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}")
DEFAULT_AGENT_PORT = 8991


@dataclass(frozen=True)
class Place:
    """A host and a port."""

    host: str
    port: int

    @property
    def is_loopback(self) -> bool:
        try:
            return ipaddress.ip_address(self.host).is_loopback
        except ValueError:
            return self.host == "localhost"

    def __str__(self) -> str:
        return f"[{self.host}]:{self.port}" if ":" in self.host else f"{self.host}:{self.port}"


def place(argument: str, text: str, default_port: int = 0) -> Place:
    """ "10.0.0.1:8989", "[2001:db8::1]:8989", "relay-1.internal"; ValueError, which names the argument."""
    found = re.fullmatch(r"(?:\[(?P<six>[0-9a-fA-F:.]+)\]|(?P<host>[^:\[\]]+))(?::(?P<port>\d{1,5}))?", text)
    port = int(found["port"]) if found and found["port"] else default_port
    if found and found["six"]:
        try:
            host = str(ipaddress.IPv6Address(found["six"]))
        except ValueError:
            found = None
    elif found:
        host = found["host"]
        found = found if _HOST.fullmatch(host) else None
    if not found or not 0 < port < 65536:
        raise ValueError(f"{argument}: {text!r:.80} is no HOST:PORT")
    return Place(host, port)


@dataclass(frozen=True)
class Server:
    """A relay server behind the door."""

    place: Place
    pool: str = ""
    """Servers with another token secret: rooms at /room/POOL/NAME."""
    agent_port: int = DEFAULT_AGENT_PORT
    """Of its `--agent-check`."""


def server(text: str) -> Server:
    """ "HOST:PORT", "POOL=HOST:PORT", either with "/AGENT_PORT"."""
    pool, equals, rest = text.rpartition("=")
    if equals and not _WORD.fullmatch(pool):
        raise ValueError(f"--server: a pool has letters and digits, at most 16, not {pool!r:.40}")
    address, slash, agent = rest.partition("/")
    if slash and not (agent.isdigit() and 0 < int(agent) < 65536):
        raise ValueError(f"--server: {agent!r:.40} is no port of an agent-check")
    return Server(place("--server", address), pool, int(agent) if slash else DEFAULT_AGENT_PORT)


@dataclass(frozen=True)
class Front:
    """A door."""

    servers: list[Server]
    bind: Place = Place("127.0.0.1", 8443)
    certificate: Path | None = None
    """PEM with certificate and key, for TLS. Without one the door is for this machine alone."""
    ca: Path | None = None
    """Whom the servers' certificates are signed by. Without one they must be on this machine."""
    template: Place | None = None
    """A name in DNS whose addresses are the servers, as of a headless service of Kubernetes."""
    most_servers: int = 100
    name: str = "door1"
    """Of this door among its peers."""
    peers: dict[str, Place] = field(default_factory=dict)
    """All doors, this one too."""
    metrics: Place | None = None

    def __post_init__(self) -> None:
        if not self.servers and self.template is None:
            raise ValueError("--server: name one at least, or a --template")
        if self.certificate is None and not self.bind.is_loopback:
            raise ValueError("--certificate: is needed when the door is open to other machines")
        far = [each.place for each in self.servers if not each.place.is_loopback]
        if self.ca is None and (far or self.template):
            raise ValueError("--ca: is needed for servers on other machines, which speak TLS")
        seen = [each.place for each in self.servers]
        if len(set(seen)) < len(seen):
            raise ValueError("--server: one is named twice")
        for name in [self.name, *self.peers]:
            if not _NAME.fullmatch(name):
                raise ValueError(f"--peer: {name!r:.80} is no name")
        if self.peers and self.name not in self.peers:
            raise ValueError(f"--name: {self.name} is not among the peers {', '.join(self.peers)}")
        for option, path in (("--certificate", self.certificate), ("--ca", self.ca)):
            if path is not None and (set(str(path)) & set("\"'\\\n #") or not path.is_absolute()):
                raise ValueError(f"{option}: must be an absolute path without blanks or quotes, not {path}")

    def configuration(self) -> str:
        """The text of haproxy.cfg."""
        pools = sorted({each.pool for each in self.servers} | ({""} if self.template else set()))
        parts = [_GLOBAL]
        if self.peers:
            peers = "".join(f"  peer {name} {at}\n" for name, at in self.peers.items())
            parts.append(f"peers doors\n{peers}\n")
        parts.append(self._frontend(pools))
        parts += [self._backend(pool) for pool in pools]
        if self.metrics:
            parts.append(_METRICS.format(place=self.metrics))
        return "\n".join(parts)

    def _frontend(self, pools: list[str]) -> str:
        tls = f" ssl crt {self.certificate} alpn http/1.1 ssl-min-ver TLSv1.2" if self.certificate else ""
        lines = [f"frontend rooms\n  bind {self.bind}{tls}"]
        for pool in pools:
            path = f"/room/{pool}/" if pool else "/room/"
            lines.append(f"  acl in_{_backend_of(pool)} path_reg ^{path}{_NAME.pattern}$")
        known = " or ".join(f"in_{_backend_of(pool)}" for pool in pools)
        lines.append(f"  http-request deny deny_status 404 unless {known}")
        for pool in pools:
            lines.append(f"  use_backend {_backend_of(pool)} if in_{_backend_of(pool)}")
        return "\n".join(lines) + "\n"

    def _backend(self, pool: str) -> str:
        room = f"path,field({4 if pool else 3},/)"
        shared = " peers doors" if self.peers else ""
        tls = f"ssl verify required ca-file {self.ca} " if self.ca else ""
        lines = [_BACKEND.format(name=_backend_of(pool), room=room, peers=shared, tls=tls)]
        servers = [each for each in self.servers if each.pool == pool]
        for number, each in enumerate(servers, 1):
            checked = f"agent-check agent-port {each.agent_port} agent-inter 500ms"
            lines.append(f"  server s{number} {each.place} {checked}")
        if self.template and not pool:
            checked = f"agent-check agent-port {DEFAULT_AGENT_PORT} agent-inter 500ms resolvers dns"
            lines.append(f"  server-template t {self.most_servers} {self.template} {checked} init-addr none")
            lines.append("\nresolvers dns\n  parse-resolv-conf\n  hold valid 5s")
        return "\n".join(lines) + "\n"


def _backend_of(pool: str) -> str:
    return f"janus_{pool}" if pool else "janus"


_GLOBAL = """\
# Written by `tavrin-media-relay relay front`. haproxy -c -f haproxy.cfg checks it.
global
  # As many connections as descriptors allow: two each (LimitNOFILE of its unit).
  log stderr format short daemon notice

defaults
  mode http
  log global
  timeout connect 1s
  timeout client 30s
  timeout server 30s
  # Programs and pages send a keep-alive each 25 s.
  timeout tunnel 90s
  timeout http-request 10s
  option dontlognull
"""
_BACKEND = """\
backend {name}
  # A new room goes where the fewest participants are, and stays there while somebody is in it: its entry
  # lives as long as a connection is tracked in it, and no server forgets a room in use.
  balance leastconn
  stick-table type string len 64 size 1m expire 24h{peers} store conn_cur
  stick on {room}
  http-request track-sc0 {room}
  option redispatch 1
  retries 3
  # A server is away after two refused connections, or when its agent-check, which really joins, says so; its
  # participants are cut off at once, and join elsewhere.
  default-server {tls}check inter 500ms fall 2 rise 2 on-marked-down shutdown-sessions slowstart 30s"""
_METRICS = """\
frontend metrics
  bind {place}
  http-request use-service prometheus-exporter if {{ path /metrics }}
  http-request deny deny_status 404
"""
