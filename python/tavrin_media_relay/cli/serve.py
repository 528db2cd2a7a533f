"""`serve`, `dispatch`, `jobs`, `workers`, `stop`: agents that wait for rooms."""

from __future__ import annotations

import argparse
import json
import os
import signal
import sys
import threading
import time
from dataclasses import asdict
from typing import Any, Callable

from ..serving.broker import BrokerError
from ..serving.brokers import Dispatcher, address_of, broker_of, dispatcher_of, is_local
from ..serving.jobs import Job, JobStatus
from ..server.tokens import join_token
from ._failure import Failure
from ._options import command
from ._terminal import Bar, Terminal

SECRET = "SARNET_RELAY_TOKEN_SECRET"
_SERVE = """\
Serves the function `async def agent(session)` or `agent(session, job)` of a file to rooms: each visit in a
process of its own, started ahead. `prepare()` of the file, if there is one, loads what takes time.

  serve agent.py                                       then, elsewhere: dispatch ROOM --agent agent
  serve agent.py --relay ws://127.0.0.1:8188           to rooms of a server on this machine
  serve agent.py --broker redis://broker.internal --relay 'wss://relay.example.org/room/{room}' --sessions 12

SIGTERM or Ctrl-C drains: nothing more is taken, what runs may end. A second one ends at once. The secret that
signs tokens for rooms is in SARNET_RELAY_TOKEN_SECRET; without it each visit has the token in TOKEN.
"""
_UNITS = {"s": 1.0, "m": 60.0, "h": 3600.0, "d": 86400.0}
_SIZES = {"K": 1 << 10, "M": 1 << 20, "G": 1 << 30}


def duration(text: str) -> float:
    """A type for argparse: "30s", "5m", "1h", or seconds."""
    try:
        value = float(text[:-1]) * _UNITS[text[-1]] if text[-1:] in _UNITS else float(text)
    except ValueError:
        value = float("nan")
    if not 0 <= value <= 1e8:
        raise argparse.ArgumentTypeError(f"must be a time such as 30s, 5m or 1h, not {text!r}")
    return value


def size(text: str) -> int:
    """A type for argparse: "500M", "2G"."""
    try:
        value = int(text[:-1]) * _SIZES[text[-1].upper()]
    except (ValueError, KeyError, IndexError):
        value = 0
    if value < 1 << 20:
        raise argparse.ArgumentTypeError(f"must be a size such as 500M or 2G, not {text!r}")
    return value


def place(text: str) -> tuple[str, int]:
    """A type for argparse: "127.0.0.1:9464"."""
    host, _, port = text.rpartition(":")
    if not host or not port.isdigit() or int(port) > 65535:
        raise argparse.ArgumentTypeError(f"must be HOST:PORT, not {text!r}")
    return host.strip("[]"), int(port)


def add(commands: Any) -> None:
    serving = command(commands, "serve", serve, "serve an agent to rooms", _SERVE)
    serving.add_argument("agent", metavar="FILE", help="with the agent; or a folder with a __main__.py")
    serving.add_argument("--name", help="what is dispatched to (default: the file's name)")
    _add_broker(serving)
    serving.add_argument(
        "--relay",
        default=os.environ.get("API_HOSTNAME") or "embedded:",
        metavar="HOST",
        help="where the rooms are; {room} stands for the room (default: API_HOSTNAME, else the embedded"
        " engine, whose companion is the only one there)",
    )
    serving.add_argument("--app-id", default=os.environ.get("APPLICATION_ID") or "agent", metavar="ID")
    serving.add_argument("--sessions", type=int, default=2 * (os.cpu_count() or 2), metavar="N",
                         help="visits at a time, at most (default: two for each processor)")  # fmt: skip
    serving.add_argument("--warm", type=int, default=2, metavar="N",
                         help="processes that wait, ready (default: 2)")  # fmt: skip
    serving.add_argument(
        "--start",
        choices=("auto", "fork", "spawn"),
        default="auto",
        help="how processes are made (default: fork, where the agent's import starts no thread)",
    )
    serving.add_argument("--memory", type=size, metavar="SIZE", help="of a visit, at most: 500M")
    serving.add_argument(
        "--alone",
        type=duration,
        default=30.0,
        metavar="TIME",
        help="end a visit when nobody else was there for so long; 0: never (default: 30s)",
    )
    serving.add_argument("--max-age", type=duration, metavar="TIME", help="end a visit after so long")
    serving.add_argument("--drain", type=duration, default=3600.0, metavar="TIME",
                         help="how long visits may go on once asked to end (default: 1h)")  # fmt: skip
    serving.add_argument("--metrics", type=place, metavar="HOST:PORT",
                         help="serve /metrics, /healthz and /readyz there")  # fmt: skip
    serving.add_argument("--log", choices=("text", "json"), default="text",
                         help="form of the lines that tell what happens and what agents print")  # fmt: skip

    sending = command(
        commands, "dispatch", _asking(_dispatch), "send an agent to a room", "Prints the job's id."
    )
    sending.add_argument("room")
    sending.add_argument("--agent", required=True, metavar="NAME", help="which one: serve's --name")
    sending.add_argument("--data", metavar="JSON", default="null", help="for the agent: job.data")
    _add_broker(sending)
    listing = command(commands, "jobs", _asking(_jobs), "list the jobs that wait and run", "Lists jobs.")
    listing.add_argument("--agent", metavar="NAME", help="of this one alone")
    _add_broker(listing)
    _add_broker(command(commands, "workers", _asking(_workers), "list those who serve", "Lists workers."))
    stopping = command(
        commands, "stop", _asking(_stop), "end a job", "Asks for a job's end, queued or running."
    )
    stopping.add_argument("id", metavar="ID", help="as `dispatch` and `jobs` print it")
    _add_broker(stopping)


def _add_broker(parser: argparse.ArgumentParser) -> None:
    parser.add_argument(
        "--broker",
        metavar="URL",
        help="redis://HOST, rediss://HOST or redis+sentinel://A,B,C/NAME; the password in"
        " TAVRIN_BROKER_PASSWORD (default: TAVRIN_BROKER, else this machine alone)",
    )


# ---- those who dispatch and look ----------------------------------------------------------------------


def _asking(
    question: Callable[[argparse.Namespace, Terminal, Dispatcher], int],
) -> Callable[[argparse.Namespace, Terminal], int]:
    def run(options: argparse.Namespace, terminal: Terminal) -> int:
        try:
            dispatcher = dispatcher_of(address_of(options.broker))
            try:
                return question(options, terminal, dispatcher)
            finally:
                dispatcher.close()
        except (BrokerError, ValueError, ImportError) as error:
            raise Failure(str(error)) from None

    return run


def _dispatch(options: argparse.Namespace, terminal: Terminal, dispatcher: Dispatcher) -> int:
    try:
        data = json.loads(options.data)
    except ValueError as error:
        raise Failure(f"--data: is no JSON: {error}") from None
    job_id = dispatcher.dispatch(options.agent, options.room, data)
    terminal.tell("dispatched", job_id, id=job_id, room=options.room, agent=options.agent)
    return 0


def _shown(status: JobStatus) -> str:
    ago = max(0, round(time.time() - status.since))
    job = status.job
    parts = [f"{job.id:32}", f"{job.room:20}", f"{status.state:8} {ago:5} s ago", status.worker, status.why]
    return "  ".join(part for part in parts if part)


def _jobs(options: argparse.Namespace, terminal: Terminal, dispatcher: Dispatcher) -> int:
    for status in dispatcher.jobs(options.agent):
        terminal.tell("job", _shown(status), **asdict(status))
    return 0


def _workers(options: argparse.Namespace, terminal: Terminal, dispatcher: Dispatcher) -> int:
    for each in dispatcher.workers():
        state = "draining" if each.draining else f"{each.warm} warm"
        text = f"{each.id:40}  {each.agent:20}  {each.busy}/{each.sessions} busy, {state}"
        terminal.tell("worker", text, **asdict(each))
    return 0


def _stop(options: argparse.Namespace, terminal: Terminal, dispatcher: Dispatcher) -> int:
    if not dispatcher.stop(options.id):
        raise Failure(f"no job {options.id} waits or runs")
    terminal.tell("stopping", f"asked for the end of {options.id}", id=options.id)
    return 0


# ---- serve --------------------------------------------------------------------------------------------


class _Log:
    """Lines of what happens and of what agents print, each with its job."""

    def __init__(self, terminal: Terminal, as_json: bool, agent: str) -> None:
        self._terminal, self._as_json, self._agent = terminal, as_json, agent
        self._lock = threading.Lock()

    def __call__(self, kind: str, job: Job | None, text: str, **fields: object) -> None:
        with self._lock:
            if self._as_json or self._terminal.as_json:
                line = {"time": round(time.time(), 3), "event": kind, "agent": self._agent, "text": text}
                if job is not None:
                    line |= {"job": job.id, "room": job.room, "session": job.room, "attempt": job.attempt}
                self._terminal.write(json.dumps(line | fields, ensure_ascii=False, default=str))
            else:
                self._terminal.write(f"{time.strftime('%H:%M:%S')} {job.room + ': ' if job else ''}{text}")


def serve(options: argparse.Namespace, terminal: Terminal) -> int:
    """Until it was drained or stopped."""
    from ..serving import agents
    from ..serving.figures import Page, figures_of
    from ..serving.jobs import checked_name
    from ..serving.local_broker import Door, LocalBroker, socket_path
    from ..serving.worker import Observer, Settings, Worker

    for name, value, low in (("--sessions", options.sessions, 1), ("--warm", options.warm, 0)):
        if not low <= value <= 10_000:
            raise Failure(f"{name}: must be {low} to 10000, not {value}")
    try:
        file = agents.file_of(options.agent)
        name = checked_name(
            "--name", options.name or (file.stem if file.stem != "__main__" else file.parent.name)
        )
        address = address_of(options.broker)
        broker = broker_of(address)
        door = Door(broker, socket_path(name)) if isinstance(broker, LocalBroker) else None
    except (ValueError, ImportError, BrokerError) as error:
        raise Failure(str(error)) from None
    secret, token = os.environ.get(SECRET, ""), os.environ.get("TOKEN", "a-token")

    def token_of(room: str) -> str:
        return join_token(room, secret) if secret else token

    settings = Settings(
        file=file,
        name=name,
        host=options.relay,
        application=options.app_id,
        token=token_of,
        sessions=options.sessions,
        warm=max(options.warm, 1),
        start=options.start,
        memory=options.memory,
        alone=options.alone or None,
        max_age=options.max_age,
        drain=options.drain,
    )
    log = _Log(terminal, options.log == "json", name)
    figures = figures_of(name)

    class Told(Observer):
        def said(self, job: Job | None, text: str) -> None:
            log("said", job, text)

        def happened(self, kind: str, job: Job | None = None, **fields: Any) -> None:
            if figures is not None:
                figures.happened(kind, job, **fields)
            match kind:
                case "taken" | "published" if options.log == "json":
                    log(kind, job, f"{kind} after {fields['seconds'] * 1000:.1f} ms", **fields)
                case "joined":
                    log(kind, job, f"joined after {fields['seconds'] * 1000:.0f} ms", **fields)
                case "ended":
                    log(kind, job, f"{fields['end']}{': ' if fields['why'] else ''}{fields['why']}", **fields)
                case "draining":
                    log(kind, job, f"draining: {worker.busy} visits may go on; once more to end them now")

    worker = Worker(settings, broker, Told())
    if figures is not None:
        figures.of(worker)
    try:
        page = Page(options.metrics, worker.not_ready, figures) if options.metrics else None
    except OSError as error:
        raise Failure(f"--metrics: {options.metrics[0]}:{options.metrics[1]}: {error.strerror}") from None
    for number_ in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number_, lambda *_: worker.drain())
    where = "on this machine" if is_local(address) else "by its broker"
    log("serving", None, f'serving "{name}" {where}: dispatch ROOM --agent {name}')
    if page is not None:
        log("metrics", None, f"figures at http://{options.metrics[0]}:{page.port}/metrics", port=page.port)
    over = threading.Event()
    showing = threading.Thread(target=_show, args=(worker, terminal, over), daemon=True)
    if sys.stderr.isatty() and not terminal.as_json and options.log == "text":
        showing.start()
    try:
        worker.serve()
    finally:
        over.set()
        for each in (door, page):
            if each is not None:
                each.close()
        if showing.ident:
            showing.join()
    log("over", None, "all visits have ended")
    return 0


def _show(worker: Any, terminal: Terminal, over: threading.Event) -> None:
    """The live view."""
    with terminal.live() as live:
        while not over.wait(0.25):
            limit = worker.settings.sessions
            state = worker.not_ready() or "ready"
            text = f"{worker.busy} of {limit} busy, {worker.warm} warm, {worker.memory >> 20} MiB, {state}"
            live.show([Bar(worker.settings.name, worker.busy / limit, text)])
