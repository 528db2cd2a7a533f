"""Pictures and sounds that say who made them: what goes in at one end is looked for at the other."""

from __future__ import annotations

import numpy as np

WIDTH, HEIGHT, FPS = 320, 240, 20
RATE, CHANNELS = 48000, 2
BLOCK = 16  # pixels; large enough to survive a low bitrate
NUMBER_BITS, MAKER_BITS = 12, 6
LOUD = 1500  # root mean square of 10 ms that belong to a burst


NOISE = np.random.default_rng(1).integers(60, 120, (HEIGHT, WIDTH), np.uint8)


def picture(maker: int, number: int, busy: bool = False) -> np.ndarray:
    """A YUV420P picture whose top row of blocks reads: white, black, 6 bits of maker, 12 bits of number. A
    busy one takes all the bitrate that it can get."""
    bits = [1, 0]
    bits += [maker >> i & 1 for i in range(MAKER_BITS)] + [number >> i & 1 for i in range(NUMBER_BITS)]
    luma = np.roll(NOISE, 7 * number) if busy else np.full((HEIGHT, WIDTH), 90, np.uint8)
    luma[:BLOCK] = np.repeat(np.where(np.array(bits, bool), 225, 25).astype(np.uint8), BLOCK)
    x = number * 8 % (WIDTH - 40)
    luma[100:140, x : x + 40] = 200  # something that moves
    chroma = np.full(HEIGHT * WIDTH // 2, 128, np.uint8)
    return np.concatenate([luma.ravel(), chroma])


def read(luma: np.ndarray) -> tuple[int, int] | None:
    """Maker and number of a picture, or None if it carries no mark."""
    row = luma[BLOCK // 2, BLOCK // 2 :: BLOCK].astype(int)
    if len(row) != 2 + MAKER_BITS + NUMBER_BITS or np.any((row > 90) & (row < 160)):
        return None
    bits = (row > 125).astype(int)
    if bits[0] != 1 or bits[1] != 0:
        return None
    maker = int(bits[2 : 2 + MAKER_BITS] @ (1 << np.arange(MAKER_BITS)))
    return maker, int(bits[2 + MAKER_BITS :] @ (1 << np.arange(NUMBER_BITS)))


def bursts(left: int, right: int, seconds: int) -> np.ndarray:
    """Each second 300 ms of tone, one frequency in each channel, then silence."""
    time = np.arange(RATE) / RATE
    sounding = (time >= 0.3) & (time < 0.6)
    one = np.stack([np.sin(2 * np.pi * f * time) * sounding for f in (left, right)], 1) * 9000
    return np.tile(one.astype(np.int16), (seconds, 1)).ravel()


def find_bursts(samples: np.ndarray) -> list[np.ndarray]:
    """The loud stretches of (n, channels) samples of at least 100 ms."""
    periods = samples[: len(samples) // 480 * 480].reshape(-1, 480, samples.shape[1]).astype(np.float32)
    loud = np.sqrt((periods**2).mean((1, 2))) > LOUD
    edges = np.flatnonzero(np.diff(np.concatenate([[0], loud.astype(int), [0]])))
    return [samples[a * 480 : b * 480] for a, b in zip(edges[::2], edges[1::2]) if b - a >= 10]


def frequencies(samples: np.ndarray) -> list[float]:
    """The strongest frequency of each channel."""
    window = np.hanning(len(samples))[:, None]
    spectrum = np.abs(np.fft.rfft(samples * window, axis=0))
    return [float(i) * RATE / len(samples) for i in spectrum.argmax(0)]
