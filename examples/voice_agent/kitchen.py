"""What the agent understands and knows: timers with names, the time, and a counting game.

No sound, no session, and no clock but the one that is given: `answer` takes words and gives words.
"""

from __future__ import annotations

import re
import time
from collections.abc import Callable
from dataclasses import dataclass

ONES = (
    "zero one two three four five six seven eight nine ten eleven twelve thirteen fourteen fifteen sixteen"
    " seventeen eighteen nineteen"
).split()
TENS = {"twenty": 20, "thirty": 30, "forty": 40, "fifty": 50}
UNITS = {"second": 1, "minute": 60, "hour": 3600}
NAMES = (
    "bread cake chicken coffee cookies egg eggs fish laundry noodles pasta pizza potatoes rice soup tea"
).split()
HELP = (
    "I keep timers for your kitchen. Say: set a pasta timer for ten minutes. Ask me how long is left. Or"
    " cancel it. I know what time it is, and I like to play a counting game."
)

GRAMMAR = f"""#JSGF V1.0;
grammar kitchen;
<digit> = {" | ".join(ONES[1:10])};
<number> = <digit> | {" | ".join(ONES[10:])} | ({" | ".join(TENS)}) [<digit>];
<name> = {" | ".join(NAMES)};
<time> = (<number> | a | an | half an) (second | seconds | minute | minutes | hour | hours);
<article> = a | an | another | the;
<called> = (called | for) [the] <name>;
<set> = (set | start | make) [<article>] [<name>] timer (for | of) <time> [<called>];
<left> = (how long | how much time) is left [(on | for) [the] <name>] [timer];
<cancel> = (cancel | delete) ([the] <name> [timer] | all timers | the timer);
<which> = (what | which) timers are (there | running);
<clock> = what time is it | what is the time;
<game> = [let us] play [a] counting game | count with me;
<small> = hello | hi | good morning | thank you | thanks | goodbye | bye | help | what can you do;
<end> = stop | be quiet | never mind;
public <said> = <set> | <left> | <cancel> | <which> | <clock> | <game> | <small> | <end> | <number>;
"""


def number(words: str) -> int | None:
    """Of "twenty five"; None for what is none."""
    total = None
    for word in words.split():
        value = TENS.get(word, ONES.index(word) if word in ONES else None)
        if value is None:
            return None
        total = (total or 0) + value
    return total


def spoken(seconds: float) -> str:
    """ "2 minutes and 5 seconds": the two largest units."""
    left, parts = max(round(seconds), 0), []
    for unit in ("hour", "minute", "second"):
        count, left = divmod(left, UNITS[unit])
        if count:
            parts.append(f"{count} {unit}{'s' if count > 1 else ''}")
    return " and ".join(parts[:2]) or "no time"


def _seconds(words: str) -> int:
    amount, unit = words.rsplit(" ", 1)
    size = UNITS[unit.removesuffix("s")]
    if amount == "half an":
        return size // 2
    return size * (1 if amount in ("a", "an") else number(amount) or 1)


@dataclass
class Timer:
    name: str
    ends: float


class Kitchen:
    """The state of one conversation, which all who are there share."""

    def __init__(self, now: Callable[[], float] = time.time) -> None:
        """now: seconds since the epoch."""
        self._now = now
        self.timers: list[Timer] = []
        self._count: int | None = None  # the next number of the game

    def answer(self, words: str) -> str:
        """To what was said, as the grammar has it. "" for what asks for silence."""
        if self._count is not None and (said := number(words)) is not None:
            return self._play(said)
        self._count = None
        for pattern, answer in self._ANSWERS:
            if found := re.fullmatch(pattern, words):
                return answer(self, **found.groupdict())
        return "Sorry, I did not understand that."

    def due(self) -> list[str]:
        """What is to be announced now."""
        ended = [each for each in self.timers if each.ends <= self._now()]
        self.timers = [each for each in self.timers if each not in ended]
        return [f"Your {self._called(each)} is done!" for each in ended]

    # ---- timers -------------------------------------------------------------------------------------------

    def _called(self, timer: Timer) -> str:
        return f"{timer.name} timer".strip()

    def _find(self, name: str | None) -> list[Timer]:
        return [each for each in self.timers if not name or each.name == name]

    def _set(self, time: str, name: str | None = None, name_after: str | None = None) -> str:
        seconds, called = _seconds(time), name or name_after or ""
        again = [each for each in self.timers if each.name == called]
        self.timers = [each for each in self.timers if each not in again]
        timer = Timer(called, self._now() + seconds)
        self.timers.append(timer)
        return f"{'Changed' if again else 'I set'} your {self._called(timer)} to {spoken(seconds)}."

    def _left(self, name: str | None = None) -> str:
        found = self._find(name)
        if not found:
            return f"There is no {name or ''} timer.".replace("  ", " ")
        return " ".join(f"{spoken(each.ends - self._now())} left for {each.name or 'it'}." for each in found)

    def _cancel(self, name: str | None = None) -> str:
        found = self._find(name)
        if not found:
            return f"There is no {name or ''} timer.".replace("  ", " ")
        if not name and len(found) > 1:
            return f"Which one? {self._which()}"
        self.timers.remove(found[0])
        return f"I cancelled your {self._called(found[0])}."

    def _cancel_all(self) -> str:
        count = len(self.timers)
        self.timers.clear()
        return f"I cancelled {count} timers." if count != 1 else "I cancelled one timer."

    def _which(self) -> str:
        names = [each.name or "one without a name" for each in self.timers]
        if not names:
            return "No timer is running."
        return f"{', '.join(names[:-1])} and {names[-1]}." if names[1:] else f"Just {names[0]}."

    # ---- the rest -----------------------------------------------------------------------------------------

    def _clock(self) -> str:
        now = time.localtime(self._now())
        return f"It is {now.tm_hour}:{now.tm_min:02}."

    def _game(self) -> str:
        self._count = 2
        return "I say a number, you say the next one. One!"

    def _play(self, said: int) -> str:
        wanted, self._count = self._count, None
        if said != wanted:
            return f"No, it was {wanted}. You counted to {(wanted or 2) - 2}."
        if said >= 19:
            return "You are good at this. You won!"
        self._count = said + 2
        return f"{ONES[said + 1].capitalize()}!"

    _NAME = "(?P<name>" + "|".join(NAMES) + ")"
    _ARTICLE = "(?: a| an| another| the)?"
    _TIME = "(?P<time>.+? (?:second|minute|hour)s?)"
    _AFTER = "(?: (?:called|for)(?: the)? (?P<name_after>" + "|".join(NAMES) + "))?"
    _ANSWERS: tuple[tuple[str, Callable[..., str]], ...] = (
        (rf"(?:set|start|make){_ARTICLE}(?: {_NAME})? timer (?:for|of) {_TIME}{_AFTER}", _set),
        (rf"how (?:long|much time) is left(?: (?:on|for)(?: the)? {_NAME})?(?: timer)?", _left),
        (r"cancel all timers|delete all timers", _cancel_all),
        (rf"(?:cancel|delete)(?: the)? {_NAME}(?: timer)?|(?:cancel|delete) the timer", _cancel),
        (r"(?:what|which) timers are (?:there|running)", _which),
        (r"what time is it|what is the time", _clock),
        (r".*counting game|count with me", _game),
        (r"stop|be quiet|never mind", lambda self: ""),
        (r"hello|hi|good morning", lambda self: "Hello! What are we cooking?"),
        (r"thank you|thanks", lambda self: "You are welcome."),
        (r"goodbye|bye", lambda self: "Goodbye. Enjoy your meal."),
        (r"help|what can you do", lambda self: HELP),
    )
