"""Finds known speech in received audio, even at a slightly different speed."""

from __future__ import annotations

import numpy as np

from ear import level

RATE = 8000  # enough to compare speech
WINDOW = 1600  # samples of each piece looked for: 0.2 s
FIRST = 3000  # of the piece that is searched for everywhere
STRETCHES = np.arange(-0.03, 0.0301, 0.0025)


def reduced(samples: np.ndarray, factor: int) -> np.ndarray:
    """Mono at a lower rate: the mean of each run of `factor` samples."""
    mono = samples.astype(np.float64)
    return mono[: len(mono) // factor * factor].reshape(-1, factor).mean(axis=1)


def correlation(piece: np.ndarray, signal: np.ndarray) -> np.ndarray:
    """Normalised correlation (-1 to 1) of a piece with every position of a signal."""
    piece = piece - piece.mean()
    size = 1 << (len(signal) + len(piece)).bit_length()
    product = np.fft.irfft(np.fft.rfft(signal, size) * np.conj(np.fft.rfft(piece, size)), size)
    places = len(signal) - len(piece) + 1
    sums = np.concatenate([[0.0], np.cumsum(signal)])
    squares = np.concatenate([[0.0], np.cumsum(np.square(signal))])
    mean = (sums[len(piece) :] - sums[: -len(piece)]) / len(piece)
    energy = np.maximum(squares[len(piece) :] - squares[: -len(piece)] - len(piece) * mean**2, 1.0)
    return product[:places] / np.sqrt(energy * np.sum(piece**2) + 1e-9)


def stretched(piece: np.ndarray, by: float) -> np.ndarray:
    places = np.arange(0, len(piece) - 1, 1 + by)
    return np.interp(places, np.arange(len(piece)), piece)


def find_speech(reference: np.ndarray, heard: np.ndarray) -> tuple[list[float], list[float]]:
    """Looks for each loud piece of the reference in the received audio; both at RATE.

    Returns the best correlation of each piece, and its delay (seconds) against the reference.
    """
    pieces = [
        at for at in range(0, len(reference) - WINDOW, WINDOW) if level(reference[at : at + WINDOW]) > -30
    ]
    if not pieces or len(heard) < 4 * WINDOW:
        return [], []
    first = pieces[0]
    rough = int(np.argmax(correlation(reference[first : first + FIRST], heard))) - first
    matches, delays = [], []
    for at in pieces:
        begin = max(0, at + rough - RATE)
        region = heard[begin : at + rough + WINDOW + RATE]
        if len(region) < 2 * WINDOW:
            continue
        best = (-1.0, 0)
        for by in STRETCHES:
            found = correlation(stretched(reference[at : at + WINDOW], by), region)
            place = int(np.argmax(found))
            best = max(best, (float(found[place]), place))
        matches.append(best[0])
        delays.append((begin + best[1] - at) / RATE)
    return matches, delays
