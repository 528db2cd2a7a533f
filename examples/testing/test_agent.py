"""Tests the agent beside this file, with no server.

Usage: pytest examples/testing     (in a source tree: ./dev python -m pytest -p
tavrin_media_relay.testing.plugin ...)"""

import math

import pytest
from agent import agent

from tavrin_media_relay import aio
from tavrin_media_relay.testing import babble

ANSWER_HZ = 24000 / 17 / math.tau


def test_answers_when_spoken_to(rehearsal):
    alice = rehearsal.participant("alice")
    question = alice.says(babble(0.6), at=0.3)  # or the path of a recording
    performance = rehearsal.run(agent, until=2.0)
    (answer,) = performance.sound.utterances()
    assert 0.2 < answer.begin - question.end < 1.0
    assert performance.sound.frequency(answer.begin, answer.end) == pytest.approx(ANSWER_HZ, rel=0.02)


def test_stops_when_interrupted(rehearsal):
    alice = rehearsal.participant("alice")
    alice.says(babble(0.5), at=0.2)
    interruption = alice.says(babble(1.0), at=1.6)
    answer = rehearsal.run(agent, until=2.3).sound.utterances()[0]
    assert answer.begin < interruption.begin < answer.end < interruption.begin + 0.6


def test_stays_silent_among_the_silent(rehearsal):
    rehearsal.participant("bob", join_at=0.2).shows(width=160, height=120)
    assert not rehearsal.run(agent, until=0.8).sound.utterances()


def test_notices_the_end_of_the_session(rehearsal):
    rehearsal.fail(at=0.4, code=2001, text="Power cut")
    performance = rehearsal.run(agent)  # ends by itself
    assert performance.entry("error").at == pytest.approx(0.4, abs=0.2)
    assert any(
        isinstance(event, aio.SessionFailed) and event.error.code == 2001 for _, event in performance.told
    )
