"""The command line: `python -m tavrin_media_relay`, or `tavrin-media-relay` where the package is installed.

One module per subcommand, except for the server's four. Each has `add(parsers)`, which declares the options,
and a function that takes them and a `Terminal` and returns the exit code: 0 success, 1 the session or a file
failed, 2 (argparse's) wrong usage, 130 and 143 interrupted before its work was done.
"""

from __future__ import annotations

import argparse
import sys
from typing import Sequence

from . import doctor, echo, play, record, report, scenario, serve, server
from ._failure import Failure
from ._terminal import Terminal

_COMMANDS = (doctor, play, record, echo, serve, scenario, server, report)
_EPILOG = """\
a first minute, with nothing but this machine:
  %(prog)s doctor
  %(prog)s record --session try --out /tmp/heard --seconds 5
  %(prog)s report /tmp/heard

Without --host or API_HOSTNAME the session is played on this machine by the embedded engine, with a companion
who talks, shows a test card and sends captions. --host embedded:FILE plays a scenario of your own; a server's
name or its ws:// or wss:// address joins a real session.

exit codes: 0 fine; 1 the session or a file failed; 2 wrong usage; 130 interrupted
"""


def _parser() -> argparse.ArgumentParser:
    from .. import __version__

    parser = argparse.ArgumentParser(
        prog="tavrin-media-relay",
        description="Take part in real-time video sessions from a terminal.",
        epilog=_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
    )
    parser.add_argument("--version", action="version", version=f"%(prog)s {__version__}")
    commands = parser.add_subparsers(title="commands", metavar="COMMAND", required=True)
    for command in _COMMANDS:
        command.add(commands)
    return parser


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs one command. Takes over standard output, so the process can only exit afterwards."""
    words = list(sys.argv[1:] if arguments is None else arguments)
    if words[:2] in (["relay", "front"], ["relay", "serve"]):
        words[:2] = ["front"] if words[1] == "front" else ["relay"]
    options = _parser().parse_args(words)
    terminal = Terminal(as_json=getattr(options, "json", False))
    try:
        return int(options.run(options, terminal))
    except Failure as failure:
        terminal.fail(str(failure), failure.code)
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:  # the reader of our output has gone
        terminal.forget_output()
    except OSError as error:
        terminal.fail(f"{error.filename}: {error.strerror}" if error.filename else str(error))
    finally:
        terminal.close()
    return 1


if __name__ == "__main__":
    sys.exit(main())
