"""Voice activity detectors on speech with noise: what they miss, what they invent, how late they are.

    ./dev python benchmarks/speech/compare.py [--webrtcvad PYTHON]

The recordings are Debian's asterisk-core-sounds-en-wav, each between two seconds of the noise alone; where
the clean recording is louder than -42 dB (with gaps under 0.3 s closed), somebody speaks. All detectors are
asked every 10 ms and smoothed as `turns` does: 3 of 5 blocks begin a turn, the same rule ends it. --webrtcvad
names a Python that has the package webrtcvad."""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import time
import wave
from collections import deque
from pathlib import Path
from typing import Any, Callable

import numpy as np

SOUNDS = Path("/usr/share/asterisk/sounds/en_US_f_Allison")
RATE, BLOCK = 16000, 160
NAMES = ("agent-loginok", "conf-enteringno", "demo-abouttotry", "vm-options", "vm-intro", "demo-instruct",
         "invalid", "privacy-incorrect", "conf-onlyperson", "tt-weasels")  # fmt: skip


def recording(name: str) -> np.ndarray[Any, np.dtype[np.float64]]:
    with wave.open(str(SOUNDS / f"{name}.wav")) as file:
        rate = file.getframerate()
        samples = np.frombuffer(file.readframes(file.getnframes()), np.int16).astype(float)
    at = np.arange(int(len(samples) * RATE / rate)) * rate / RATE
    sound = np.interp(at, np.arange(len(samples)), samples)[: RATE * 12]
    return sound / np.sqrt(np.mean(sound**2)) * 2000


def spoken(clean: np.ndarray[Any, Any]) -> np.ndarray[Any, np.dtype[np.bool_]]:
    """Of each 10 ms, whether somebody speaks."""
    blocks = clean[: len(clean) // BLOCK * BLOCK].reshape(-1, BLOCK)
    loud = np.sqrt((blocks**2).mean(axis=1)) > 32768 * 10 ** (-42 / 20)
    on = np.flatnonzero(loud)
    for first, second in zip(on, on[1:]):
        if second - first < 30:
            loud[first:second] = True
    return np.asarray(loud)


def noise(kind: str, count: int, rng: np.random.Generator) -> np.ndarray[Any, Any]:
    if kind == "white":
        sound = rng.normal(size=count)
    elif kind == "hum":
        at = np.arange(count) / RATE
        sound = sum(
            np.sin(2 * np.pi * hertz * at) / order for order, hertz in enumerate((100, 200, 300, 500), 1)
        )
        sound = sound + 0.1 * rng.normal(size=count)
    else:  # a room full of others
        sound = np.zeros(count)
        for name in ("vm-msginstruct", "conf-usermenu", "demo-moreinfo", "vm-advopts", "dir-intro"):
            voice = recording(name)
            sound += np.roll(np.resize(voice, count), int(rng.integers(count)))
    return np.asarray(sound / np.sqrt(np.mean(sound**2)))


def ours() -> Callable[[bytes], bool]:
    from tavrin_media_relay._native.speech import Detector

    detector = Detector()
    return lambda block: any(voice for _, voice in detector.process(block, RATE, 1))


def energy() -> Callable[[bytes], bool]:
    """What the simplest agent does: louder than a fixed -42 dB."""
    return lambda block: bool(
        np.sqrt(np.mean(np.frombuffer(block, np.int16).astype(float) ** 2)) > 32768 * 10 ** (-42 / 20)
    )


def webrtc(mode: int) -> Callable[[bytes], bool]:
    import webrtcvad  # type: ignore[import-not-found]

    detector = webrtcvad.Vad(mode)
    return lambda block: bool(detector.is_speech(block, RATE))


DETECTORS: dict[str, Callable[[], Callable[[bytes], bool]]] = {
    "ours": ours,
    "level": energy,
    "webrtcvad 2": lambda: webrtc(2),
    "webrtcvad 3": lambda: webrtc(3),
}


def judge(name: str) -> list[dict[str, Any]]:
    rows = []
    for kind in ("white", "hum", "babble"):
        for snr in (20, 10, 5):
            rng = np.random.default_rng(3)
            missed = false = speech = silence = 0
            begins, ends, spent, blocks = [], [], 0.0, 0
            for each in NAMES:
                clean = np.concatenate([np.zeros(2 * RATE), recording(each), np.zeros(2 * RATE)])
                truth = spoken(clean)
                mixed = clean + noise(kind, len(clean), rng) * 2000 * 10 ** (-snr / 20)
                data = mixed.clip(-32768, 32767).astype(np.int16)
                detector, last = DETECTORS[name](), deque[bool](maxlen=5)
                found = np.zeros(len(truth), bool)
                began = time.process_time()
                for at in range(len(truth)):
                    last.append(detector(data[at * BLOCK : (at + 1) * BLOCK].tobytes()))
                    found[at] = sum(last) >= 3
                spent += time.process_time() - began
                blocks += len(truth)
                near = np.convolve(truth, np.ones(21), "same") > 0  # 100 ms around speech are nobody's fault
                missed += int((truth & ~found).sum())
                false += int((found & ~near).sum())
                speech += int(truth.sum())
                silence += int((~near).sum())
                first, final = np.flatnonzero(truth)[[0, -1]]
                after = np.flatnonzero(found[first - 5 :])
                begins.append((after[0] - 5) * 10 if len(after) else 2000)
                tail = np.flatnonzero(found[: final + 100])
                ends.append((tail[-1] - final) * 10 if len(tail) else 0)
            rows.append({
                "detector": name, "noise": kind, "snr": snr, "missed": round(100 * missed / speech, 1),
                "false": round(100 * false / silence, 1), "begin_ms": float(np.median(begins)),
                "end_ms": float(np.median(ends)), "cpu_percent": round(spent / (blocks * 0.01) * 100, 3),
            })  # fmt: skip
    return rows


def main() -> None:
    parser = argparse.ArgumentParser()
    parser.add_argument("--webrtcvad", metavar="PYTHON")
    parser.add_argument("--only")
    options = parser.parse_args()
    if options.only:
        print(json.dumps(judge(options.only)))
        return
    rows = judge("ours") + judge("level")
    for name in ("webrtcvad 2", "webrtcvad 3") if options.webrtcvad else ():
        done = subprocess.run([options.webrtcvad, __file__, "--only", name], capture_output=True, text=True)
        if done.returncode:
            sys.exit(done.stderr)
        rows += json.loads(done.stdout)
    print("| noise, SNR | " + " | ".join(dict.fromkeys(row["detector"] for row in rows)) + " |")
    for kind in ("white", "hum", "babble"):
        for snr in (20, 10, 5):
            cells = [
                f"{row['missed']:g} / {row['false']:g} %, {row['begin_ms']:g} / {row['end_ms']:g} ms"
                for row in rows
                if (row["noise"], row["snr"]) == (kind, snr)
            ]
            print(f"| {kind}, {snr} dB | " + " | ".join(cells) + " |")
    print("CPU, % of a core:", {row["detector"]: row["cpu_percent"] for row in rows})


if __name__ == "__main__":
    main()
