"""Programs on the asyncio face that meet in a room of a real server."""

from __future__ import annotations

import re

import pytest

from tavrin_media_relay.server import join_token


def test_programs_hear_see_and_read_each_other_and_strangers_are_refused(server):
    programs = [server.program(maker, script="aio_program.py") for maker in (1, 2)]
    stranger = server.program(3, script="aio_program.py", TOKEN=join_token("marks", "another-secret"))
    refused = stranger.wait_for("refused")
    assert refused["code"] == 1004 and refused["text"], refused
    had = [program.wait_for("enough") for program in programs]
    for other, told in zip((2, 1), had):
        assert told["hertz"] == pytest.approx(500 + 200 * other, abs=25)
        assert {maker for maker, _ in told["seen"]} == {other}
        numbers = [number for _, number in told["seen"]]
        assert numbers == sorted(numbers) and len(set(numbers)) > 0.7 * len(numbers), numbers
        assert re.fullmatch(rf"Grüße \d+0? von {other}", told["caption"])
    for program in programs:
        program.leave()
