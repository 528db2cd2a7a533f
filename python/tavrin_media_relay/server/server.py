"""Runs one Janus: starts it in its own folder, waits until it listens, and stops it."""

from __future__ import annotations

import grp
import os
import re
import shutil
import signal
import socket
import subprocess
import time
from pathlib import Path
from types import TracebackType

from . import settings as _settings
from .settings import Settings

START_SECONDS = 10.0
STOP_SECONDS = 5.0
_SHIM = "libtavrin_loopback.so"
# The server's lines contain colour codes and text from participants.
_UNPRINTABLE = re.compile(
    r"\x1b\[[0-9;]*m|([\x00-\x08\x0b-\x1f\x7f-\x9f\u061c\u200e\u200f\u2028-\u202e\u2066-\u2069\ud800-\udfff])"
)


def printable(line: str) -> str:
    """`line` as one left-to-right line without colours; U+FFFD replaces other control characters."""
    return _UNPRINTABLE.sub(lambda found: "\N{REPLACEMENT CHARACTER}" if found[1] else "", line)


class ServerError(RuntimeError):
    """The server could not be started, or ended by itself. The text says why, for a person."""


def find_shim() -> Path | None:
    """The library that makes Janus accept loopback interfaces, beside the native module."""
    named = os.environ.get("TAVRIN_LOOPBACK_SHIM")
    folders = [Path(folder) for folder in os.environ.get("PYTHONPATH", "").split(os.pathsep) if folder]
    beside = [folder / _SHIM for folder in folders]
    package = Path(__file__).resolve().parents[1]
    beside += [package.parent / _SHIM, package.parent / "tavrin_media_relay.libs" / _SHIM]
    # In a source tree, the latest build.
    built = package.parents[1].glob(f"build/*/python/{_SHIM}")
    beside += sorted(built, key=lambda path: path.stat().st_mtime, reverse=True)
    candidates = [Path(named)] if named else beside
    return next((path.absolute() for path in candidates if path.is_file()), None)


def _can_be_nobody(folder: Path) -> bool:
    """True for the machine's root (not for that of a user namespace) and a folder that all can reach."""
    if os.geteuid() != 0 or Path("/proc/self/uid_map").read_text().split() != ["0", "0", "4294967295"]:
        return False
    return all(parent.stat().st_mode & 0o001 for parent in folder.resolve().parents)


class RelayServer:
    """A context manager: `with RelayServer(Settings(...)) as server:`.

    The server ends with the thread that started it, however that ends. Started by root it runs as nobody,
    unless its folder is inside one that is closed to others. Starting and stopping block, for at most
    START_SECONDS and STOP_SECONDS.
    """

    def __init__(self, settings: Settings) -> None:
        self.settings = settings
        self.process: subprocess.Popen[bytes] | None = None
        assert settings.folder is not None
        self.folder: Path = settings.folder
        self._written: list[Path] = []
        self._made_folder = False

    @property
    def certificate(self) -> Path:
        return self.settings.certificate or self.folder / "cert.pem"

    def __enter__(self) -> "RelayServer":
        self.start()
        return self

    def __exit__(
        self, kind: type[BaseException] | None, value: BaseException | None, trace: TracebackType | None
    ) -> None:
        self.stop()

    def start(self) -> None:
        """Returns once the server listens. Raises ServerError, with everything cleaned up, if it does not."""
        try:
            self._start()
        except BaseException:
            self.stop()
            raise

    def _start(self) -> None:
        for program, package in (("janus", "janus"), ("openssl", "openssl"), ("setpriv", "util-linux")):
            if shutil.which(program) is None:
                raise ServerError(f"{program} is not installed; Debian's package is called {package}")
        shim = find_shim() if self.settings.loopback else None
        if self.settings.loopback and shim is None:
            raise ServerError(f"{_SHIM} was not found: build the project first, or set TAVRIN_LOOPBACK_SHIM")
        self._check_ports()
        self._make_folder()
        self._written = _settings.write(self.settings)
        command = ["setpriv", "--pdeathsig", "KILL"]
        environment = {"PATH": os.defpath, "LANG": "C.UTF-8"}
        if shim is not None:
            copy = self.folder / _SHIM
            shutil.copyfile(shim, copy)
            self._written.append(copy)
            environment["LD_PRELOAD"] = str(copy)
        if _can_be_nobody(self.folder):
            command += ["--reuid", "nobody", "--regid", "nogroup", "--clear-groups", "--no-new-privs"]
            self._let_nobody_read()
        log = self.folder / "janus.log"
        self._written.append(log)
        with open(log, "wb") as output:
            self.process = subprocess.Popen(
                [*command, "janus", "-F", str(self.folder)],
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=subprocess.STDOUT,
                env=environment,
                cwd="/",
                # Ctrl-C is for us: we stop it in order. A session of its own would be a scheduling group of
                # its own, which a busy machine delays by hundreds of milliseconds.
                process_group=0,
            )
        self._wait_until_it_listens()

    def _listeners(self) -> list[tuple[str, int]]:
        return [("127.0.0.1", self.settings.port), (self.settings.address, self.settings.tls_port)]

    def _check_ports(self) -> None:
        for address, port in self._listeners():
            family = socket.AF_INET6 if ":" in address else socket.AF_INET
            with socket.socket(family) as probe:
                probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                try:
                    probe.bind((address, port))
                except OSError as error:
                    raise ServerError(
                        f"cannot listen on {address} port {port}: {error.strerror}. "
                        "Is another server running? Choose another port or address."
                    ) from None

    def _make_folder(self) -> None:
        try:
            self.folder.mkdir(mode=0o700, parents=True)
            self._made_folder = True
        except FileExistsError:
            # A predictable name in a world-writable folder: use it only if it is ours.
            found = self.folder.lstat()
            if not self.folder.is_dir() or self.folder.is_symlink() or found.st_uid != os.geteuid():
                raise ServerError(f"{self.folder} is there already, and not a folder of ours") from None

    def _let_nobody_read(self) -> None:
        group = grp.getgrnam("nogroup").gr_gid
        os.chown(self.folder, -1, group)
        self.folder.chmod(0o750)
        for path in self._written:
            if path.name != "token_secret":
                os.chown(path, -1, group)
                path.chmod(0o640)

    def _wait_until_it_listens(self) -> None:
        deadline = time.monotonic() + START_SECONDS
        for address, port in self._listeners():
            while True:
                try:
                    socket.create_connection((address, port), timeout=1).close()
                    break
                except OSError:
                    pass
                assert self.process is not None
                if self.process.poll() is not None:
                    raise ServerError(f"the server ended while it started:\n{self.log_tail()}")
                if time.monotonic() > deadline:
                    raise ServerError(f"port {port} of the server is still closed:\n{self.log_tail()}")
                time.sleep(0.02)

    def log_tail(self, lines: int = 15) -> str:
        try:
            text = (self.folder / "janus.log").read_text(encoding="utf-8", errors="replace")
        except OSError:
            return "(it wrote no log)"
        return "\n".join(map(printable, text.split("\n")[-lines - 1 :])).strip()

    def wait(self, timeout: float | None = None) -> int | None:
        """The server's exit status when it has ended by itself; None after `timeout` seconds."""
        assert self.process is not None
        try:
            return self.process.wait(timeout)
        except subprocess.TimeoutExpired:
            return None

    def kill(self) -> None:
        """Ends the server as a crash would. `stop` must still be called."""
        assert self.process is not None
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def stop(self) -> None:
        """Ends the server and removes its files; may be repeated, and called before `start`."""
        if self.process is not None and self.process.poll() is None:
            self.process.terminate()
            try:
                self.process.wait(STOP_SECONDS)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait()
        for path in self._written:
            path.unlink(missing_ok=True)
        self._written = []
        if self._made_folder:
            self._made_folder = False
            try:
                self.folder.rmdir()
            except OSError:
                pass  # others' files are in it
