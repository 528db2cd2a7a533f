"""The command line, each command in a process of its own, on the embedded engine."""

from __future__ import annotations

import json
import re
import resource
import shutil
import signal
import socket
import subprocess
import time
import wave
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from programs import BUILD, end, launch


def start(
    *arguments: object, python: tuple[str, ...] = ("-X", "dev"), **variables: Any
) -> subprocess.Popen[str]:
    return launch(*python, "-m", "tavrin_media_relay", *arguments, **variables)


def run(*arguments: object, code: int = 0, **variables: Any) -> str:
    out, err = end(start(*arguments, **variables), code)
    return out + err if code else out


def told(*arguments: object, code: int = 0, **variables: Any) -> dict[str, dict]:
    """The last of each kind of what was told in JSON, which is all that standard output may hold."""
    out, _ = end(start(*arguments, "--json", **variables), code)
    return {each.get("event"): each for each in map(json.loads, out.splitlines())}


def scenario(folder: Path, **keys: object) -> Path:
    path = folder / "scenario.json"
    path.write_text(json.dumps(keys))
    return path


def tone(path: Path, hertz: float, seconds: float, rate: int = 16000) -> Path:
    samples = (9000 * np.sin(2 * np.pi * hertz * np.arange(int(seconds * rate)) / rate)).astype("<i2")
    with wave.open(str(path), "wb") as file:
        file.setnchannels(1), file.setsampwidth(2), file.setframerate(rate)
        file.writeframes(samples.tobytes())
    return path


def film(path: Path, seconds: float) -> Path:
    """White, with a tone of 500 Hz."""
    picture, sound = (
        f"color=white:size=64x32:rate=20:duration={seconds}",
        f"sine=frequency=500:duration={seconds}",
    )
    subprocess.run(
        ["ffmpeg", "-v", "error", "-f", "lavfi", "-i", picture, "-f", "lavfi", "-i", sound, "-c:v", "ffv1",
         "-c:a", "pcm_s16le", path], check=True,
    )  # fmt: skip
    return path


def heard(path: Path) -> tuple[np.ndarray, float]:
    with wave.open(str(path)) as file:
        samples = np.frombuffer(file.readframes(file.getnframes()), "<i2").reshape(-1, file.getnchannels())
        return samples[:, 0].astype(float), file.getframerate()


def frequency(samples: np.ndarray, rate: float) -> float:
    return float(np.abs(np.fft.rfft(samples * np.hanning(len(samples)))).argmax()) * rate / len(samples)


@pytest.mark.parametrize(
    "arguments, code, message",
    [
        ([], 2, "COMMAND"),
        (["--help"], 0, "a first minute"),
        (["play", "{wav}"], 2, "--session"),
        (["play", "{wav}", "--session", "s", "--size", "0x9"], 2, "a size looks like"),
        (["echo", "--session", "s", "--delay", "nan"], 2, "must be 0.1 to 20 seconds"),
        (["play", "{here}/none.wav", "--session", "s"], 1, "none.wav: there is no such file"),
        (["play", "{text}", "--session", "s"], 1, "words.txt: Invalid data"),
        (["play", "{wav}", "--session", "s", "--host", "embedded:{text}"], 1, "'.*words.txt': line 1"),
        (["play", "{wav}", "--session", "s", "--host", "ws://192.0.2.1"], 1, "in the clear"),
        (["record", "--session", "s", "--out", "{text}"], 1, "cannot write to .*words.txt"),
        (["report", "{text}"], 1, "words.txt, line 1: not figures"),
        (["report", "{wav}"], 1, "tone.wav.*not figures"),
        (["report", "{here}"], 1, "session.jsonl: No such file"),
        (["scenario", "check", "{text}"], 1, "scenario '.*words.txt': line 1"),
        (["token", "lobby", "--dir", "{here}"], 1, "Start the server first"),
        (["token", "a:b"], 1, "a room's name"),
        (["token", "lobby", "--pin", "2718"], 2, "could read --pin .*: set SARNET_RELAY_PIN"),
        (["relay", "--admin-key=key"], 2, "could read --admin-key .*: set SARNET_RELAY_ADMIN_KEY"),
        (["relay", "--anyone-may-make-rooms"], 1, "not both"),
        (["configure", "--dir", "{here}", "--room", "a:b"], 1, "a room is made of letters"),
    ],
)
def test_wrong_use_and_bad_files_are_told(arguments, code, message, tmp_path):
    (tmp_path / "words.txt").write_text("only words")
    places = {"wav": tone(tmp_path / "tone.wav", 440, 0.1), "here": tmp_path, "text": tmp_path / "words.txt"}
    secret = {"SARNET_RELAY_TOKEN_SECRET": "x"} if arguments[1:] == ["a:b"] else {}
    secret |= {"SARNET_RELAY_ADMIN_KEY": "key"} if "relay" in arguments[:1] else {}
    printed = run(*(each.format(**places) for each in arguments), code=code, **secret) or run("--help")
    assert re.search(message, printed), printed


@pytest.mark.parametrize(
    "keys, options, code, message",
    [
        ({"token": "right"}, [], 1004, "token"),
        ({"refuse": {"code": 1030, "text": "Not today"}}, [], 1030, "Not today"),
        ({"join_delay_ms": 60000}, ["--timeout", "0.2"], -2, "has not answered in 0.2 s"),
        ({"events": [{"at_ms": 300, "kind": "error", "code": 2005, "text": "Cut"}]}, [], 2005, "Cut"),
        ({"events": [{"at_ms": 300, "kind": "disconnect"}]}, [], None, "the server ended the session"),
        ({"events": [{"at_ms": 300, "kind": "publisher_error"}]}, [], None, "publisher 'player' has failed"),
    ],
)
def test_failures_of_the_session_are_told(keys, options, code, message, tmp_path):
    sound = tone(tmp_path / "tone.wav", 440, 5)
    host = f"embedded:{scenario(tmp_path, **keys)}"
    failed = told("play", sound, "--session", "s", *options, code=1, API_HOSTNAME=host)["failed"]
    assert failed["code"] == code and message in failed["text"]


def test_play_sends_what_the_files_hold(tmp_path):
    files = [film(tmp_path / "film.mkv", 1.5), tone(tmp_path / "tone.wav", 900, 1)]
    host = f"embedded:{scenario(tmp_path, record='out')}"
    figures = tmp_path / "deep" / "figures.jsonl"
    run("play", *files, "--session", "s", "--size", "64x64", "--host", host, "--figures", figures)
    samples, rate = heard(tmp_path / "out" / "audio-1.wav")
    loud = np.flatnonzero(np.abs(samples) > 100)
    assert loud[-1] - loud[0] == pytest.approx(2.5 * rate, abs=0.4 * rate)
    begin = int(loud[0])
    assert frequency(samples[begin : begin + int(rate)], rate) == pytest.approx(500, rel=0.02)
    assert frequency(samples[loud[-1] - int(0.8 * rate) : loud[-1]], rate) == pytest.approx(900, rel=0.02)
    y4m = (tmp_path / "out" / "video-1.y4m").read_bytes()
    assert y4m.startswith(b"YUV4MPEG2 W64 H64 F20:1 ")
    stride = 64 * 96 + 6
    places = range(y4m.index(b"FRAME"), len(y4m), stride)
    lumas = [np.frombuffer(y4m, "u1", 64 * 64, at + 6).reshape(64, 64) for at in places]
    white = [each for each in lumas if each[32].min() > 200]
    borders = [max(each[:15].max(), each[-15:].max()) for each in white]
    assert len(white) >= 25 and max(borders) < 40
    drawn = told("report", figures)["report"]
    assert Path(drawn["file"]).read_bytes().startswith(b"\x89PNG") and drawn["seconds"] > 2
    assert run("report", figures, "--out", tmp_path / "x.nokind", code=1).count("cannot write") == 1


def test_record_writes_every_stream(tmp_path):
    captions = [{"at_ms": 500, "text": "Grüße"}]
    card = {"testcard": True, "width": 64, "height": 48, "fps": 30}
    peers = [
        {"id": "a", "audio": {"tone_hz": 700}, "video": card},
        {"id": "b/../c", "audio": {"tone_hz": 300}, "leave_at_ms": 1500, "captions": captions},
    ]
    out = tmp_path / "out"
    options = ["--session", "s", "--out", out, "--host", f"embedded:{scenario(tmp_path, participants=peers)}"]
    events = told("record", *options, "--video", "y4m", "--seconds", 2)
    assert events["caption"]["text"] == "Grüße" and events["StreamDropped"]["id"] == "b/../c-stream"
    names = ["a-stream.wav", "a-stream.y4m", "b_.._c-stream.wav", "session.jsonl"]
    assert sorted(each.name for each in out.iterdir()) == names
    for name, hertz, seconds in (("a-stream", 700, 2), ("b_.._c-stream", 300, 1.5)):
        samples, rate = heard(out / f"{name}.wav")
        assert frequency(samples[-int(rate) :], rate) == pytest.approx(hertz, rel=0.02)
        assert len(samples) / rate == pytest.approx(seconds, abs=0.4)
    pictures = (out / "a-stream.y4m").read_bytes()
    assert len(pictures.split(b"FRAME\n")) - 1 == pytest.approx(60, abs=12)
    assert told("report", out)["report"]["events"] >= 8


def test_echo_speaks_after_the_delay(tmp_path):
    voice = {"file": str(tone(tmp_path / "t.wav", 600, 0.7)), "loop": False}
    peer = {"id": "a", "audio": voice, "join_at_ms": 300}
    host = f"embedded:{scenario(tmp_path, participants=[peer], record='out')}"
    run("echo", "--session", "s", "--delay", 1, "--seconds", 2.5, "--host", host)
    log = [json.loads(line) for line in (tmp_path / "out" / "events.jsonl").read_text().splitlines()]
    samples, rate = heard(tmp_path / "out" / "audio-1.wav")
    loud = np.flatnonzero(np.abs(samples) > 500)
    assert loud[-1] - loud[0] == pytest.approx(0.7 * rate, abs=0.15 * rate)
    seconds = {each["event"]: float(each["time"][17:-1]) for each in log}
    silent = (seconds["recorded"] - seconds["participant_joined"]) % 60 - (len(samples) - loud[0]) / rate
    assert silent == pytest.approx(1, abs=0.25)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("command, code", [("play", 128), ("record", 0), ("echo", 0)])
def test_an_interruption_ends_in_order(command, code, number, tmp_path):
    sound = ["-f", "lavfi", "-i", "sine=duration=60", tmp_path / "long.flac"]
    options = {"play": [tmp_path / "long.flac"], "record": ["--out", tmp_path / "out"], "echo": []}[command]
    if command == "play":
        subprocess.run(["ffmpeg", "-v", "error", *sound], check=True)
    program = start(command, *options, "--session", "s")
    try:
        assert program.stdout is not None and "Joined" in program.stdout.readline()
        assert any("Stream came" in line for line in iter(program.stdout.readline, ""))
        program.send_signal(number)
        assert "Audio periods" in end(program, code and code + number)[0]
    finally:
        program.kill()


@pytest.mark.parametrize("command", ["record", "play"])
def test_a_full_disk_is_told(command, tmp_path):
    sound, log = tone(tmp_path / "tone.wav", 440, 2), tmp_path / "log.jsonl"
    options = {"record": ["--out", tmp_path, "--seconds", 2], "play": [sound, "--figures", log]}[command]
    program = start(command, *options, "--session", "s", "--json")
    assert program.stdout is not None and "joined" in program.stdout.readline()
    size = {"record": 50_000, "play": log.stat().st_size if log.exists() else 0}[command]
    resource.prlimit(program.pid, resource.RLIMIT_FSIZE, (size, size))
    out, err = end(program, 1)
    assert "File too large" in out + err


def test_a_scenario_is_checked_without_a_trace(tmp_path):
    (tmp_path / "out").mkdir()
    (tmp_path / "out" / "events.jsonl").write_text("of an earlier rehearsal")
    good = scenario(tmp_path, record="out", participants=[{"id": "a", "audio": {"tone_hz": 440}}])
    assert "can be played" in run("scenario", "check", good)
    assert (tmp_path / "out" / "events.jsonl").read_text() == "of an earlier rehearsal"
    (tmp_path / "bad.wav").write_text("no sound")
    bad = tmp_path / "bad.json"
    for audio, reason in (({"file": "bad.wav"}, "bad.wav"), ({"hertz": 1}, "unknown key")):
        bad.write_text(json.dumps({"participants": [{"id": "a", "audio": audio}]}))
        found = told("scenario", "check", good, bad, code=1)["scenario"]
        assert found["ok"] is False and reason in found["text"]


def test_doctor_finds_all_well():
    (found,) = told("doctor").values()
    assert found["fine"], found
    about = {each["about"]: each for each in found["findings"]}
    assert about["libsarnet"]["text"] == str(BUILD / "python" / "libsarnet.so")
    assert found["figures"]["library"]["capture"]["periods_written"] > 50 and found["figures"]["pictures"] > 0


def test_extras_may_be_missing(tmp_path):
    """Without the system's packages there is no rich, no numpy and no matplotlib; without PATH no ffmpeg."""
    bare: dict[str, Any] = {"python": ("-S",), "PATH": "/nowhere"}
    assert "apt-get install python3-rich" in run("doctor", **bare)
    run("record", "--session", "s", "--out", tmp_path, "--seconds", 0.5, "--video", "y4m", **bare)
    assert "report needs matplotlib" in run("report", tmp_path, code=1, **bare)
    (tmp_path / "film.mp4").write_text("x")
    assert "apt-get install ffmpeg" in run("play", tmp_path / "film.mp4", "--session", "s", code=1, **bare)


@pytest.mark.skipif(
    shutil.which("janus") is None or not (BUILD / "python" / "libsarnet_relay.so").exists(),
    reason="there is no server, or no relay engine",
)
def test_commands_meet_on_a_relay_of_ours(tmp_path):
    with socket.socket() as free:
        free.bind(("127.0.0.1", 0))
        port = free.getsockname()[1]
    other = port + 1 if port < 65535 else port - 1
    ports = ["--port", port, "--tls-port", other, "--rtp-ports", "31000-31099"]
    server = start("relay", "--room", "hall", *ports, "--dir", tmp_path / "server", "--json")
    try:
        assert server.stdout is not None
        serving = json.loads(server.stdout.readline() or "{}")
        token = told("token", "hall", "--dir", tmp_path / "server", "--lifetime", "2m")["token"]["token"]
        assert 60 < int(token.partition(",")[0]) - time.time() <= 120
        there = {**serving["environment"], "SESSION_ID": "hall", "TOKEN": token}
        assert told("echo", **{**there, "TOKEN": "wrong"}, code=1)["failed"]["code"] == 1004
        recorder = start("record", "--out", tmp_path / "heard", "--video", "y4m", "--json", **there)
        assert recorder.stdout is not None and "joined" in recorder.stdout.readline()
        run("play", film(tmp_path / "film.mkv", 6), "--size", "64x32", **there)
        assert any('"StreamDropped"' in line for line in iter(recorder.stdout.readline, ""))
        recorder.send_signal(signal.SIGINT)
        end(recorder, 0)
        (sound,) = (tmp_path / "heard").glob("*.wav")
        samples, rate = heard(sound)
        begin = int(np.flatnonzero(np.abs(samples) > 1000)[0])  # the rest came before it was subscribed to
        assert frequency(samples[begin : begin + int(rate)], rate) == pytest.approx(500, rel=0.03)
        (shown,) = (tmp_path / "heard").glob("*.y4m")
        pictures = shown.read_bytes().split(b"FRAME\n")[1:]
        assert sum(min(each[: 64 * 32]) > 200 for each in pictures) > 40, len(pictures)
        server.send_signal(signal.SIGINT)
        end(server, 0)
    finally:
        server.kill()
