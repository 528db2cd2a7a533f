"""The module as a file, its import, its one type, and the library's life in a process."""

from __future__ import annotations

import ctypes
import re
import subprocess

import pytest
import scripted
from programs import BUILD, ROOT

MODULE = BUILD / "python" / "_tavrin_video.abi3.so"
METHODS = """
connect disconnect subscribe unsubscribe publish unpublish is_publishing is_connected
get_connection add_audio add_video clear_media_buffers get_media_buffer_stats
""".split()


def tool(*command: object) -> str:
    return subprocess.run([*map(str, command)], capture_output=True, text=True, check=True).stdout


def test_names_and_documentation(world):
    import _tavrin_video as module

    kind = module.TavrinVideoClient
    assert module.__doc__ == "Tavrin Video API Python wrapper"
    assert (kind.__module__, kind.__qualname__, kind.__doc__) == (
        "_tavrin_video", "TavrinVideoClient", "TavrinVideoClient objects",
    )  # fmt: skip
    methods = {name: value.__doc__ for name, value in vars(kind).items() if not name.startswith("__")}
    assert sorted(methods) == sorted(METHODS) and all(methods.values())
    with pytest.raises(TypeError):
        type("Sub", (kind,), {})
    assert [name for name in vars(module) if not name.startswith("__")] == ["TavrinVideoClient"]


def test_clients_are_handles_on_one_controller(world):
    import _tavrin_video as module

    world.log.clear()
    calls = world.lib.calls()
    other = module.TavrinVideoClient(1, "any", thing=2)
    second = ("WARN", "tavrin_video: Trying to create a second instance of TavrinVideoClient")
    assert world.log.of("TavrinVideoClient", "WARN") == [second] and world.lib.calls() == calls
    world.connect(on_stream_received_cb=world.rec("received"))
    assert other.is_connected() is True
    calls = world.lib.calls()
    del other  # leaves nobody
    assert world.lib.calls() == calls
    world.stream()
    world.rec.wait("received")


def test_exports_and_imports():
    defined = tool("nm", "-D", "--defined-only", MODULE)
    assert {line.split()[-1].split("@")[0] for line in defined.splitlines()} == {
        "PyInit__tavrin_video", "srn_get_device_info",
    }  # fmt: skip
    asked = re.findall(r" (srn_\S+)", tool("nm", "-D", "--undefined-only", MODULE))
    assert len(asked) > 40 and all(name.endswith("@sarnet") for name in asked)
    dynamic = tool("readelf", "-d", MODULE)
    assert "[libsarnet.so]" in dynamic and "(RUNPATH)" in dynamic and "(RPATH)" not in dynamic
    assert not re.search(r"NEEDED.*libpython", dynamic)


class DeviceInfo(ctypes.Structure):
    _fields_ = [
        *((name, ctypes.c_char_p) for name in ("uuid", "bundle", "system", "model", "network")),
        ("stats_callback", ctypes.c_void_p),
        ("no_simulcast", ctypes.c_char),
    ]


def test_device_info(world):
    give = ctypes.CDLL(str(MODULE)).srn_get_device_info
    give.restype = ctypes.POINTER(DeviceInfo)
    first, second = give(), give()
    assert ctypes.addressof(first.contents) != ctypes.addressof(second.contents)
    for info in (first.contents, second.contents):
        told = [getattr(info, name) for name, _ in info._fields_[1:]]
        system = b"tavrin-media-relay-python-1.0.3"
        assert told == [b"1.0.3", system, b"tavrin-media-relay", b"Unknown", None, b"n"]
        assert re.fullmatch(rb"00000000-0000-0000-0000-[0-9a-fA-F]{12}", info.uuid)


def test_library_is_first_called_by_the_first_client(run):
    program = run(
        """
assert lib.calls() == "", lib.calls()
client = TavrinVideoClient()
assert [line.split("(")[0] for line in lib.calls().splitlines()] == ["srn_set_audio_device", "srn_init"]
assert client.get_media_buffer_stats() == MediaBufferStats()
assert client.connect("key", "session", "token", on_connected_cb=print) is True
lib.wait_idle(5000)
client.disconnect()
print(open("/proc/self/maps").read())
"""
    )
    assert program.code == 0, program
    # The search path put the scripted library into ours's place, with no rebuild.
    assert set(re.findall(r"\S*/libsarnet\.so", program.out)) == {
        str(scripted.SUPPORT.resolve() / "libsarnet.so")
    }
    # By default only warnings and errors show.
    assert {line.level for line in program.lines} <= {"WARN", "ERROR"}


MODELS = (ROOT / "python/tavrin_media_relay/models.py").read_text()


@pytest.mark.parametrize(
    ("models", "exception", "line"),
    [
        ("", "ModuleNotFoundError: .*'tavrin_media_relay.models'", "Failed to load models module"),
        ("1 / 0", "ZeroDivisionError: division by zero", "Failed to load models module"),
        (MODELS + "\nSession = Session('x')", "ImportError: Model classes", "Model classes are not valid"),
        (MODELS + "\ndel CaptionsData", "AttributeError: .*CaptionsData", "Model classes are not valid"),
    ],
    ids=["missing", "broken", "no class", "name missing"],
)  # fmt: skip
def test_models_that_will_not_do(run, tmp_path, models, exception, line):
    package = tmp_path / "tavrin_media_relay"
    package.mkdir()
    (package / "__init__.py").write_text("")
    (package / "_checks.py").write_text((ROOT / "python/tavrin_media_relay/_checks.py").read_text())
    if models:
        (package / "models.py").write_text(models)
    program = run(
        f"""
import sys, traceback
for _ in range(2):
    try:
        import _tavrin_video
    except Exception:
        traceback.print_exc()
sys.path.remove({str(tmp_path)!r})
for name in [name for name in sys.modules if "tavrin" in name]:
    del sys.modules[name]
import _tavrin_video  # can be tried again
_tavrin_video.TavrinVideoClient()
""",
        prelude="",
        path=[tmp_path],
    )
    assert program.code == 0 and len(re.findall(exception, program.err)) == 2, program
    assert "SystemError" not in program.err and program.texts()[:2] == [("ERROR", line)] * 2
