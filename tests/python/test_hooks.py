"""Printing what a callable raised never decides about the process, whatever hooks and streams do."""

from __future__ import annotations

import pytest

#: What a program has put in the place of a hook or a stream, and what standard error shows nevertheless.
REPLACEMENTS: dict[str, tuple[str, list[str]]] = {
    "a hook that exits": (
        "sys.excepthook = lambda *_: sys.exit(9)",
        ["Error in sys.excepthook", "SystemExit: 9", "no luck"],
    ),
    "a hook that raises": (
        "sys.excepthook = lambda *_: 1 / 0",
        ["ZeroDivisionError", "Original exception", "no luck"],
    ),
    "a hook that is missing": ("del sys.excepthook", ["sys.excepthook is missing", "no luck"]),
    "a hook that cannot be called": ("sys.excepthook = 7", ["TypeError", "no luck"]),
    "a hook that works": (
        "sys.excepthook = lambda kind, value, trace: os.write(2, f'{kind is type(value)} "
        "{value} {trace.tb_lineno > 0}'.encode())",
        ["True no luck True"],
    ),
    "an unraisable hook that exits": (
        "sys.unraisablehook = lambda *_: sys.exit(9)\nclass Remains:\n    def __del__(self): "
        "raise ValueError('no luck')",
        ["Exception ignored in sys.unraisablehook", "SystemExit: 9"],
    ),
    "no standard error": ("sys.stderr = None", []),
    "a closed standard error": ("sys.stderr = open(os.devnull, 'w')\nsys.stderr.close()", []),
    "a standard error that exits": (
        "class Exits:\n    def write(self, text): sys.exit(9)\n    def flush(self): "
        "pass\nsys.stderr = Exits()",
        [],
    ),
}

PROGRAM = """
{replacement}
called = threading.Semaphore(0)
def raises(*_):
    called.release()
    {left_behind}
    raise {what}('no luck')
client = TavrinVideoClient()
assert client.connect("key", "session", "token", on_connected_cb=raises, on_stream_received_cb=raises)
for number in range(2):
    lib.stream_received(str(number), "c", "", 0)
for _ in range(3):
    assert called.acquire(timeout=20)
assert lib.wait_idle(20000)
assert client.get_connection() is not None  # the worker lives
{end}
os.write(1, f"\\nlast: {{sys.last_value!r}}".encode())
sys.exit(5)
"""


#: Where the ways part: a SystemExit, and an exit that waits for the delivering threads.
CASES = [(name, "ValueError", "assert client.disconnect()") for name in REPLACEMENTS] + [
    (name, "SystemExit", end)
    for name in ("a hook that exits", "a standard error that exits")
    for end in ("assert client.disconnect()", "")
]


@pytest.mark.parametrize(("name", "what", "end"), CASES, ids=lambda value: value or "left to the exit")
def test_showing_what_was_raised(run, name, what, end):
    replacement, shown = REPLACEMENTS[name]
    left_behind = "remains = Remains()" if "Remains" in replacement else "pass"
    program = run(
        PROGRAM.format(replacement=replacement, left_behind=left_behind, what=what, end=end), timeout=4
    )
    assert program.code == 5, program
    assert f"last: {what}('no luck')" in program.out, program
    assert all(part in program.err for part in shown), program
