"""The server's commands, relay, room, token and configure, of both `tavrin-media-relay` and
`python3 -m tavrin_media_relay.server`, which differ only in how they show results.

A command raises ServerError, ValueError, RuntimeError or OSError when it cannot do what it is asked to.
"""

from __future__ import annotations

import argparse
import contextlib
import os
import signal
import subprocess
import sys
import threading
import time
import urllib.parse
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from types import FrameType
from typing import Callable, Protocol

from ..serving.brokers import address_of, dispatcher_of
from . import agent_check, on_join
from . import front as _front
from . import settings as _settings
from .front import place
from .page_server import PageServer, find_page
from .server import RelayServer, ServerError
from .settings import Settings
from .tokens import DAY, join_token

SECRET_VARIABLE = "SARNET_RELAY_TOKEN_SECRET"
ADMIN_VARIABLE = "SARNET_RELAY_ADMIN_KEY"
PIN_VARIABLE = "SARNET_RELAY_PIN"
AGENT_SECONDS = 5.0  # that a program has for leaving
_UNITS = {"s": 1, "m": 60, "h": 3600, "d": DAY}


class Tell(Protocol):
    """Shows an event: the text for people, its kind and the fields for machines."""

    def __call__(self, kind: str, text: str, /, **fields: object) -> None:
        ...


def lifetime(text: str) -> int:
    """ "90", "90s", "15m", "12h" or "7d" in seconds."""
    number, unit = (text[:-1], text[-1]) if text[-1:] in _UNITS else (text, "s")
    try:
        return int(number) * _UNITS[unit]
    except ValueError:
        raise argparse.ArgumentTypeError(f"a lifetime looks like 90s, 15m, 12h or 7d, not {text!r}") from None


def ports(text: str) -> tuple[int, int]:
    first, _, last = text.partition("-")
    try:
        return int(first), int(last)
    except ValueError:
        raise argparse.ArgumentTypeError(f"ports look like 20000-20999, not {text!r}") from None


class _FromEnvironment(argparse.Action):
    """An option that is refused: everyone on the machine can see a program's arguments."""

    def __init__(self, option_strings: Sequence[str], dest: str, const: str) -> None:
        super().__init__(option_strings, argparse.SUPPRESS, const=const, help=argparse.SUPPRESS)

    def __call__(self, parser: argparse.ArgumentParser, *_: object) -> None:
        parser.error(
            f"other users could read {self.option_strings[0]} in the list of processes: set {self.const}"
        )


def add_server_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("--dir", type=Path, dest="folder", help="the server's folder (default: one in /tmp)")
    parser.add_argument("--address", default="127.0.0.1", help="serve media and TLS here (default: loopback)")
    parser.add_argument("--loopback", action="store_const", const="127.0.0.1", dest="address",
                        help="serve this machine alone, which is the default")  # fmt: skip
    parser.add_argument("--public-address", default="", help="the address that others see, behind a router")
    parser.add_argument("--port", type=int, default=8188, help="WebSocket on 127.0.0.1 (default: 8188)")
    parser.add_argument(
        "--tls-port", type=int, default=0, help="WebSocket over TLS (default: 801 above --port)"
    )
    parser.add_argument("--rtp-ports", type=ports, default=(0, 0), metavar="FIRST-LAST",
                        help="UDP ports of media (default: 20000-20999)")  # fmt: skip
    parser.add_argument("--room", action="append", dest="rooms", metavar="ROOM",
                        help="a room to have from the start; may come again (default: lobby)")  # fmt: skip
    parser.add_argument(
        "--anyone-may-make-rooms",
        action="store_true",
        help="let everyone with a token make further rooms; else only those who know the key in "
        f"{ADMIN_VARIABLE}, and nobody if it is not set",
    )
    parser.add_argument("--admin-key", action=_FromEnvironment, const=ADMIN_VARIABLE)
    parser.add_argument("--certificate", type=Path, help="PEM file for TLS (default: a new self-signed one)")
    parser.add_argument("--key", type=Path, help="PEM file with the certificate's key")


def settings_from(arguments: argparse.Namespace) -> Settings:
    return Settings(
        folder=arguments.folder,
        address=arguments.address,
        public_address=arguments.public_address,
        port=arguments.port,
        tls_port=arguments.tls_port,
        rtp_ports=arguments.rtp_ports,
        rooms=arguments.rooms or ["lobby"],
        admin_key=os.environ.get(ADMIN_VARIABLE, ""),
        anyone_may_make_rooms=arguments.anyone_may_make_rooms,
        token_secret=os.environ.get(SECRET_VARIABLE, ""),
        certificate=arguments.certificate,
        key=arguments.key,
    )


def variables_for(server: RelayServer) -> dict[str, str]:
    variables = {"API_HOSTNAME": server.settings.host}
    if not server.settings.loopback and server.settings.certificate is None:
        variables["SARNET_RELAY_CA_FILE"] = str(server.certificate)
    return variables


def how_to_join(server: RelayServer) -> str:
    settings = server.settings
    room = settings.rooms[0]
    token = join_token(room, settings.token_secret)
    variables = variables_for(server)
    lines = [f"Relay server on {settings.address}, stopped with Ctrl-C. To join:", ""]
    lines += [f"  {name:<21} {value}" for name, value in variables.items()]
    lines += [f"  {'session id':<21} {room}", f"  {'token (one day)':<21} {token}", ""]
    lines += ["Or, ready to paste, before any of the examples:", ""]
    assignments = " ".join(f"{name}={value}" for name, value in variables.items())
    lines += [f"  export {assignments} SESSION_ID={room} TOKEN='{token}'", ""]
    if settings.loopback:
        lines += [
            f"Over TLS: wss://localhost:{settings.tls_port} with SARNET_RELAY_CA_FILE={server.certificate}"
        ]
    return "\n".join(lines)


def stop_on_signals() -> None:
    def leave(number: int, frame: FrameType | None) -> None:
        # Only once: stopping takes a moment and must not be cut short.
        for name in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(name, signal.SIG_IGN)
        raise SystemExit(0)

    for name in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(name, leave)


def add_relay_options(parser: argparse.ArgumentParser) -> None:
    add_server_options(parser)
    parser.add_argument(
        "--agent-check",
        metavar="HOST:PORT",
        help="tell HAProxy there how the server is, by really joining; SIGTERM then drains",
    )
    parser.add_argument(
        "--drain", type=lifetime, default=lifetime("1h"), metavar="TIME",
        help="how long participants may stay once it drains: 90s, 15m, 1h (default: 1h)",
    )  # fmt: skip
    parser.add_argument(
        "--on-join", action="append", default=[], metavar="ROOMS=AGENT",
        help="send an agent to a room when somebody comes: 'support-*=greeter'; may come again",
    )  # fmt: skip
    parser.add_argument("--broker", metavar="URL", help="of --on-join (default: TAVRIN_BROKER, else local)")


def _connections(settings: Settings) -> int:
    """TCP connections of participants to the server on this machine."""
    ports = {f"{settings.port:04X}", f"{settings.tls_port:04X}"}
    count = 0
    for name in ("tcp", "tcp6"):
        with contextlib.suppress(OSError):
            for line in Path(f"/proc/net/{name}").read_text().splitlines()[1:]:
                local, state = line.split()[1], line.split()[3]
                count += local.rpartition(":")[2] in ports and state == "01"
    return count


def _ended(server: RelayServer, status: int | None) -> ServerError:
    print(server.log_tail(), file=sys.stderr)
    return ServerError(f"the server ended by itself (status {status})")


def relay(arguments: argparse.Namespace, tell: Tell) -> int:
    stop_on_signals()
    settings = settings_from(arguments)
    shown = list(settings.rooms)
    with contextlib.ExitStack() as stack:
        if arguments.on_join:
            rules = [on_join.rule(text) for text in arguments.on_join]
            try:
                dispatcher = dispatcher_of(address_of(arguments.broker))
            except ImportError as error:
                raise RuntimeError(str(error)) from None
            hearing = on_join.OnJoin(rules, dispatcher, lambda line: tell("on_join", line))
            stack.callback(hearing.close)
            settings.events = (hearing.port, hearing.password)
        if arguments.agent_check:
            settings.rooms = [*settings.rooms, agent_check.ROOM]
        server = stack.enter_context(RelayServer(settings))
        check = None
        if arguments.agent_check:
            check = agent_check.AgentCheck(place("--agent-check", arguments.agent_check), server)
            stack.callback(check.close)
        tell(
            "serving",
            how_to_join(server),
            environment=variables_for(server),
            rooms={room: join_token(room, settings.token_secret) for room in shown},
        )
        if check is None:
            raise _ended(server, server.wait())
        _until_drained(arguments.drain, server, check, tell)
    return 0


def _until_drained(seconds: float, server: RelayServer, check: agent_check.AgentCheck, tell: Tell) -> None:
    """SIGTERM: nobody new comes to new rooms, and it ends once the last participant has left, after
    `seconds`, or with a second signal."""
    asked = threading.Event()

    def drain(number: int, frame: FrameType | None) -> None:
        asked.set()
        check.drain()
        stop_on_signals()

    signal.signal(signal.SIGTERM, drain)
    while not asked.is_set():
        if (status := server.wait(0.25)) is not None:
            raise _ended(server, status)
    tell("draining", "Draining: ends when the last participant has left, or with a second signal")
    end = time.monotonic() + seconds
    time.sleep(min(seconds, 1.0))  # those who are on their way
    while time.monotonic() < end:
        # The check's own comes and goes.
        if max(_connections(server.settings), _connections(server.settings)) <= 0:
            return
        if (status := server.wait(0.25)) is not None:
            raise _ended(server, status)


def _add_front_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument(
        "--server",
        action="append",
        default=[],
        metavar="[POOL=]HOST:PORT[/AGENT_PORT]",
        help="a relay server and the port of its --agent-check (8991); may come again",
    )
    parser.add_argument("--template", metavar="NAME:PORT", help="a name in DNS whose addresses are servers")
    parser.add_argument("--bind", default="127.0.0.1:8443", metavar="HOST:PORT",
                        help="where the door is (default: 127.0.0.1:8443)")  # fmt: skip
    parser.add_argument("--certificate", type=Path, help="PEM file of the door, with its key")
    parser.add_argument("--ca", type=Path, help="PEM file of whoever signed the servers' certificates")
    parser.add_argument("--name", default="door1", help="of this door among its peers (default: door1)")
    parser.add_argument("--peer", action="append", default=[], metavar="NAME@HOST:PORT",
                        help="a door that shares what it knows, this one too; may come again")  # fmt: skip
    parser.add_argument("--metrics", metavar="HOST:PORT", help="serve /metrics for Prometheus there")


def front(arguments: argparse.Namespace, tell: Tell) -> int:
    peers = {}
    for text in arguments.peer:
        name, _, address = text.partition("@")
        peers[name] = place("--peer", address)
    door = _front.Front(
        servers=[_front.server(text) for text in arguments.server],
        bind=place("--bind", arguments.bind),
        certificate=arguments.certificate,
        ca=arguments.ca,
        template=place("--template", arguments.template) if arguments.template else None,
        name=arguments.name,
        peers=peers,
        metrics=place("--metrics", arguments.metrics) if arguments.metrics else None,
    )
    tell("configuration", door.configuration())
    return 0


def room(arguments: argparse.Namespace, tell: Tell) -> int:
    """The server, the page, and a program to talk to: all that a first conversation needs."""
    stop_on_signals()
    settings = settings_from(arguments)
    name = settings.rooms[0]
    agent: subprocess.Popen[bytes] | None = None
    with RelayServer(settings) as server:
        pair = None if settings.loopback else (server.certificate, settings.key or server.folder / "key.pem")
        with PageServer(settings.address, arguments.page_port, settings.port, find_page(), pair) as page:
            token = join_token(name, settings.token_secret)
            link = f"{page.url}#{urllib.parse.urlencode({'room': name, 'token': token})}"
            browser = f"Or from a browser, with camera and microphone (Ctrl-C ends it all):\n\n  {link}\n"
            tell(
                "serving",
                f"{how_to_join(server)}\n\n{browser}",
                environment=variables_for(server),
                rooms={name: token},
                page=link,
            )
            if arguments.agent is not None:
                environment = os.environ | variables_for(server)
                environment |= {"SESSION_ID": name, "TOKEN": token}
                command = ["setpriv", "--pdeathsig", "TERM", sys.executable, str(arguments.agent)]
                agent = subprocess.Popen(command, env=environment, start_new_session=True)
            try:
                while (status := server.wait(0.5)) is None:
                    if agent is not None and agent.poll() is not None:
                        print(
                            f"The program {arguments.agent} has ended (status {agent.returncode}).",
                            file=sys.stderr,
                        )
                        agent = None
                raise _ended(server, status)
            finally:
                if agent is not None:
                    agent.terminate()
                    try:
                        agent.wait(AGENT_SECONDS)
                    except subprocess.TimeoutExpired:
                        agent.kill()
                        agent.wait()


def add_token_options(parser: argparse.ArgumentParser) -> None:
    parser.add_argument("room", metavar="ROOM")
    parser.add_argument("--lifetime", type=lifetime, default=DAY, help="90s, 15m, 12h or 7d (default: 1d)")
    parser.add_argument("--pin", action=_FromEnvironment, const=PIN_VARIABLE)
    parser.add_argument("--dir", type=Path, dest="folder", help="the folder of the server that it is for")
    parser.add_argument("--port", type=int, default=8188, help="or its port (default: 8188)")


def signed_token(arguments: argparse.Namespace) -> str:
    """Signed with the secret in the environment, or with that of the server running here."""
    secret = os.environ.get(SECRET_VARIABLE, "")
    file = (arguments.folder or _settings.default_folder(arguments.port)) / "token_secret"
    if not secret:
        try:
            secret = file.read_text().strip()
        except OSError as error:
            raise ServerError(
                f"no secret to sign with: {file}: {error.strerror}. Start the server first, name its "
                f"folder with --dir, or set {SECRET_VARIABLE}."
            ) from None
    return join_token(arguments.room, secret, arguments.lifetime, os.environ.get(PIN_VARIABLE, ""))


def token(arguments: argparse.Namespace, tell: Tell) -> int:
    text = signed_token(arguments)
    tell("token", text, room=arguments.room, token=text)
    return 0


def configure(arguments: argparse.Namespace, tell: Tell) -> int:
    settings = settings_from(arguments)
    assert settings.folder is not None
    settings.folder.mkdir(mode=0o700, parents=True, exist_ok=True)
    for path in _settings.write(settings):
        tell("file", str(path), file=str(path))
    print(f"Start it with: janus -F {settings.folder}", file=sys.stderr)
    return 0


def _add_room_options(parser: argparse.ArgumentParser) -> None:
    add_server_options(parser)
    parser.add_argument("--page-port", type=int, default=8080, help="of the room page (default: 8080)")
    parser.add_argument("--agent", type=Path, help="a Python program that joins the room as well")


_RELAY = """\
Starts a relay server (the program janus has to be installed), tells how to join it, and stops it with Ctrl-C.

  relay --room lobby --room stage
  relay --address 192.0.2.7            for other machines too, over TLS
"""
_ROOM = """\
Starts a relay server and a page for browsers, and with --agent a program that joins the room; Ctrl-C ends
them all.

  room --agent examples/talk_back
"""
_TOKEN = """\
Prints a token that lets its bearer into one room of a relay server, until it expires. It is signed with the
secret of the server that runs on this machine, or with the one in SARNET_RELAY_TOKEN_SECRET.

  TOKEN="$(tavrin-media-relay token lobby --lifetime 2h)"
"""
_CONFIGURE = """\
Writes the files that a relay server runs on, and starts none.

  configure --dir /var/lib/relay
"""


@dataclass(frozen=True)
class Command:
    name: str
    summary: str
    description: str
    add_options: Callable[[argparse.ArgumentParser], None]
    run: Callable[[argparse.Namespace, Tell], int]


_FRONT = """\
Prints a configuration of HAProxy, the one door in front of several relay servers: rooms at /room/NAME.

  relay front --server 127.0.0.1:8188/8991 --server 127.0.0.1:8288/8992 > haproxy.cfg
  relay front --server 10.0.0.1:8989 --server 10.0.0.2:8989 --ca /etc/tavrin/ca.pem \\
      --bind 0.0.0.0:443 --certificate /etc/tavrin/door.pem
"""


COMMANDS = (
    Command("relay", "run a relay server", _RELAY, add_relay_options, relay),
    Command("front", "write HAProxy's configuration for several servers", _FRONT, _add_front_options, front),
    Command(
        "room", "run a relay server, its room page and a program to talk to", _ROOM, _add_room_options, room
    ),
    Command("token", "sign a token for a room", _TOKEN, add_token_options, token),
    Command("configure", "only write a relay server's files", _CONFIGURE, add_server_options, configure),
)
