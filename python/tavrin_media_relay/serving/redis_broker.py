"""Jobs over many machines: a broker on Redis 7, or another server with its streams and scripts.

The contract, for those who dispatch from another language (`PREFIX` is "tavrin"):

    XADD tavrin:jobs:AGENT * job '{"room": "ROOM", "data": ANY_JSON}'

The job's id is AGENT:ENTRY, with what XADD returns. Keys, all beginning with the prefix:

    jobs:AGENT         stream of what waits and runs; its consumer group "workers" holds the leases
    job:ID             hash of one job's state; expires a day after its end
    on:AGENT:ROOM      id of the job that has the room; expires with its lease
    stop:ID            somebody asked for its end; expires after a day
    failed:AGENT       stream of the last 1,000 jobs that were set aside, each with its reason
    workers, agents    hash of the workers that told of themselves, set of the agents that are known

A lease is an entry's idle time on the server's own clock, so no two machines' clocks have to agree.
"""

from __future__ import annotations

import contextlib
import json
import os
import time
import urllib.parse
from dataclasses import asdict
from typing import Any, Callable, Iterable, Sequence

try:
    import redis
    from redis.sentinel import Sentinel
except ImportError as error:
    raise ImportError(
        "a broker on Redis needs the Python package redis: pip install 'tavrin-media-relay[fleet]'"
        " (Debian: python3-redis)"
    ) from error

from .broker import ATTEMPTS, LEASE_SECONDS, RESULT_SECONDS, BrokerError
from .jobs import Beat, Job, JobEnd, JobState, JobStatus, WorkerStatus, checked_data, checked_name

_GROUP = "workers"
_NOBODY = "nobody"  # has what was handed back
_KEPT_FAILURES = 1000
_LISTED = 10_000  # jobs of one agent that are shown at most
# For the server to answer; a server that hangs is away.
_ANSWER_SECONDS = 3.0
# Owners beat once a second: after an outage they come before those who take over.
_OWNERS_FIRST_SECONDS = 2.0
_PLACES = "redis://HOST[:PORT][/DB], rediss://HOST[:PORT][/DB][?ca=FILE] or redis+sentinel://A,B,C/NAME[/DB]"

# What the scripts share. KEYS: stream, on, hash, stop. ARGV: job, entry, worker, ...
_OWNER = """
local function owner(stream, entry)
  local found = redis.pcall('XPENDING', stream, 'workers', entry, entry, 1)
  if found.err or #found == 0 then return nil, 0 end
  return found[1][2], found[1][4]
end
local function now()
  local time = redis.call('TIME')
  return time[1] .. '.' .. string.format('%06d', time[2])
end
local function free(on, job)
  if redis.call('GET', on) == job then redis.call('DEL', on) end
end
local function over(stream, on, hash, stop, job, entry, state, why, keep)
  redis.pcall('XACK', stream, 'workers', entry)
  redis.call('XDEL', stream, entry)
  redis.call('HSET', hash, 'state', state, 'why', why, 'since', now())
  redis.call('EXPIRE', hash, keep)
  redis.call('DEL', stop)
  free(on, job)
end
"""
# Notes who took it. Returns 1 if it was to be stopped, and is.
_TAKEN = (
    _OWNER
    + """
if redis.call('EXISTS', KEYS[4]) == 1 then
  local why = 'stopped before it began'
  over(KEYS[1], KEYS[2], KEYS[3], KEYS[4], ARGV[1], ARGV[2], 'stopped', why, ARGV[4])
  return 1
end
redis.call('HSET', KEYS[3], 'state', 'taken', 'worker', ARGV[3], 'why', '', 'since', now())
return 0
"""
)
# Returns the id of the job that has the room, or false.
_START = (
    _OWNER
    + """
if owner(KEYS[1], ARGV[2]) ~= ARGV[3] then return ARGV[1] end
local other = redis.call('GET', KEYS[2])
if other and other ~= ARGV[1] then
  over(KEYS[1], KEYS[2], KEYS[3], KEYS[4], ARGV[1], ARGV[2], 'ended', other .. ' is in the room', ARGV[4])
  return other
end
redis.call('SET', KEYS[2], ARGV[1], 'PX', ARGV[5])
redis.call('HSET', KEYS[3], 'state', 'starting', 'worker', ARGV[3], 'why', '', 'since', now())
return false
"""
)
_TELL = (
    _OWNER
    + """
if owner(KEYS[1], ARGV[2]) == ARGV[3] then
  redis.call('HSET', KEYS[3], 'state', ARGV[4], 'worker', ARGV[3], 'since', now())
end
"""
)
# For each job 0: kept, 1: lost, 2: kept, and to be stopped. KEYS: four a job. ARGV: worker, lease, then a
# job's id, entry and text each. What the server does not know was lost with its memory, and is told anew.
_BEAT = (
    _OWNER
    + """
local answers = {}
for i = 1, #KEYS / 4 do
  local stream, on, hash, stop = KEYS[4 * i - 3], KEYS[4 * i - 2], KEYS[4 * i - 1], KEYS[4 * i]
  local job, entry, text = ARGV[3 * i], ARGV[3 * i + 1], ARGV[3 * i + 2]
  local who = owner(stream, entry)
  local room = redis.call('GET', on)
  if not who and redis.call('EXISTS', hash) == 0 and (not room or room == job) then
    redis.pcall('XGROUP', 'CREATE', stream, 'workers', '0', 'MKSTREAM')
    local added = redis.pcall('XADD', stream, entry, 'job', text)
    -- Refused if newer ones came first: then the key of the room alone holds it.
    if not added.err then
      redis.call('XCLAIM', stream, 'workers', ARGV[1], 0, entry, 'FORCE', 'JUSTID', 'LASTID', entry)
    end
    redis.call('HSET', hash, 'state', 'running', 'worker', ARGV[1], 'why', '', 'since', now())
    who = ARGV[1]
  elseif not who and redis.call('HGET', hash, 'worker') == ARGV[1]
      and redis.call('HGET', hash, 'state') == 'running' then
    who = ARGV[1]
  end
  if who == ARGV[1] and (not room or room == job) then
    redis.pcall('XCLAIM', stream, 'workers', ARGV[1], 0, entry, 'JUSTID')
    redis.call('SET', on, job, 'PX', ARGV[2])
    answers[i] = redis.call('EXISTS', stop) == 1 and 2 or 0
  else
    answers[i] = 1
  end
end
return answers
"""
)
# ARGV: worker, idle, count, attempts, keep, prefix, agent, kept failures. Returns entry, text and attempt
# of each.
_TAKE_OVER = (
    _OWNER
    + """
local found = redis.call('XAUTOCLAIM', KEYS[1], 'workers', ARGV[1], ARGV[2], '0-0', 'COUNT', ARGV[3])
local taken = {}
for _, item in ipairs(found[2]) do
  local entry, text = item[1], ''
  for i = 1, #item[2], 2 do
    if item[2][i] == 'job' then text = item[2][i + 1] end
  end
  local _, count = owner(KEYS[1], entry)
  if count > tonumber(ARGV[4]) then
    local job = ARGV[7] .. ':' .. entry
    local why = 'its workers died ' .. (count - 1) .. ' times'
    redis.call('XADD', KEYS[2], 'MAXLEN', '~', ARGV[8], '*', 'id', job, 'job', text, 'why', why)
    local room = pcall(cjson.decode, text) and cjson.decode(text).room or ''
    over(KEYS[1], ARGV[6] .. ':on:' .. ARGV[7] .. ':' .. room, ARGV[6] .. ':job:' .. job,
         ARGV[6] .. ':stop:' .. job, job, entry, 'failed', why, ARGV[5])
  else
    taken[#taken + 1] = {entry, text, count}
  end
end
return taken
"""
)
_HAND_BACK = (
    _OWNER
    + """
local who, count = owner(KEYS[1], ARGV[2])
if who ~= ARGV[3] then return end
redis.call('XCLAIM', KEYS[1], 'workers', 'nobody', 0, ARGV[2],
           'IDLE', 86400000, 'RETRYCOUNT', count - 1, 'JUSTID')
redis.call('DEL', KEYS[3])
free(KEYS[2], ARGV[1])
"""
)
_FINISH = (
    _OWNER
    + """
local who = owner(KEYS[1], ARGV[2])
if who == ARGV[3] or (not who and redis.call('HGET', KEYS[3], 'worker') == ARGV[3]) then
  over(KEYS[1], KEYS[2], KEYS[3], KEYS[4], ARGV[1], ARGV[2], ARGV[5], ARGV[6], ARGV[4])
end
"""
)
# ARGV: id, entry, text, why, kept.
_SET_ASIDE = """
redis.call('XADD', KEYS[2], 'MAXLEN', '~', ARGV[5], '*', 'id', ARGV[1], 'job', ARGV[3], 'why', ARGV[4])
redis.call('XACK', KEYS[1], 'workers', ARGV[2])
redis.call('XDEL', KEYS[1], ARGV[2])
"""
# KEYS: stream, hash, stop. ARGV: entry, keep.
_STOP = (
    _OWNER
    + """
local state = redis.call('HGET', KEYS[2], 'state')
if state == 'ended' or state == 'failed' or state == 'stopped' then return 0 end
if #redis.call('XRANGE', KEYS[1], ARGV[1], ARGV[1]) == 0 and not state then return 0 end
redis.call('SET', KEYS[3], '1', 'EX', ARGV[2])
if not owner(KEYS[1], ARGV[1]) and not state then
  local why = 'stopped before it began'
  redis.call('HSET', KEYS[2], 'state', 'stopped', 'why', why, 'worker', '', 'since', now())
  redis.call('EXPIRE', KEYS[2], ARGV[2])
end
return 1
"""
)


class RedisBroker:
    """See `Broker`. Several threads may use it; each call has a connection of its own for its time.

    Errors name the server's place, never its password, which is best given in TAVRIN_BROKER_PASSWORD.
    """

    def __init__(
        self,
        url: str,
        *,
        prefix: str = "tavrin",
        lease: float = LEASE_SECONDS,
        owners_first: float = _OWNERS_FIRST_SECONDS,
    ) -> None:
        """url: as `_PLACES`. lease: seconds without a beat until a job may be taken over. owners_first:
        seconds more that this process waits with taking over, after it has reached the server (again).

        Does not connect. ValueError for a URL that is none, without repeating it.
        """
        checked_name("prefix", prefix)
        self._prefix, self._lease_ms = prefix, round(lease * 1000)
        self._owners_first = lease + owners_first
        self._reached: float | None = None  # since when, without a failure
        self._closed = False
        self._run_id = ""  # of the server
        self._client, self._place = _client_of(url)
        self._scripts: dict[str, Any] = {}
        self._groups: set[str] = set()

    # ---- dispatching --------------------------------------------------------------------------------------

    def dispatch(self, agent: str, room: str, data: Any = None) -> str:
        checked_name("agent", agent)
        checked_name("room", room)
        text = f'{{"room":{json.dumps(room)},"data":{checked_data(data)}}}'
        entry = self._ask(lambda client: client.xadd(self._stream(agent), {"job": text}))
        self._ask(lambda client: client.sadd(self._key("agents"), agent))
        return f"{agent}:{entry}"

    def stop(self, job_id: str) -> bool:
        agent, entry = _parts(job_id)
        if not entry:
            return False
        keys = [self._stream(agent), self._key("job", job_id), self._key("stop", job_id)]
        return bool(self._run(_STOP, keys, [entry, RESULT_SECONDS]))

    # ---- serving ------------------------------------------------------------------------------------------

    def take(self, worker: str, agent: str, timeout: float) -> Job | None:
        deadline = time.monotonic() + timeout
        while True:
            self._make_group(agent)
            # Short, so that `close` is heard; BLOCK 0 would wait without end.
            block = max(1, round(min(deadline - time.monotonic(), 1.0) * 1000))
            try:
                found = self._ask(
                    lambda client: client.xreadgroup(
                        _GROUP, worker, {self._stream(agent): ">"}, count=1, block=block
                    )
                )
            except _NoGroup:  # the server lost its memory
                self._groups.discard(agent)
                continue
            if found:
                (entry, fields), *_ = found[0][1]
                job = self._job(agent, entry, fields.get("job", ""), 1)
                if job and not self._run(_TAKEN, *self._of(job, worker, RESULT_SECONDS)):
                    return job
            if time.monotonic() >= deadline:
                return None

    def take_over(self, worker: str, agent: str, count: int) -> list[Job]:
        self._make_group(agent)
        # A server that was started again, or another one in its place, is noticed even where the client has
        # connected anew without a word.
        run: str = self._ask(lambda client: client.info("server")["run_id"])
        if run != self._run_id:
            self._run_id, self._reached = run, time.monotonic()
        if count < 1 or self._reached is None or time.monotonic() - self._reached < self._owners_first:
            return []
        keys = [self._stream(agent), self._key("failed", agent)]
        arguments: list[Any] = [worker, self._lease_ms, count, ATTEMPTS, RESULT_SECONDS, self._prefix, agent]
        try:
            found = self._run(_TAKE_OVER, keys, [*arguments, _KEPT_FAILURES])
        except _NoGroup:
            self._groups.discard(agent)
            return []
        jobs = [self._job(agent, entry, text, count) for entry, text, count in found]
        return [job for job in jobs if job and not self._run(_TAKEN, *self._of(job, worker, RESULT_SECONDS))]

    def start(self, worker: str, job: Job) -> str | None:
        other: str | None = self._run(_START, *self._of(job, worker, RESULT_SECONDS, self._lease_ms))
        return other

    def tell(self, worker: str, job: Job, state: JobState) -> None:
        self._run(_TELL, *self._of(job, worker, state))

    def beat(self, worker: str, jobs: Sequence[Job]) -> Beat:
        if not jobs:
            self._ask(lambda client: client.ping())
            return Beat()
        keys: list[str] = []
        arguments: list[Any] = [worker, self._lease_ms]
        for job in jobs:
            keys += self._of(job, worker)[0]
            arguments += [job.id, _parts(job.id)[1], _text(job)]
        answers = self._run(_BEAT, keys, arguments)
        named = list(zip(jobs, answers))
        return Beat(
            frozenset(job.id for job, answer in named if answer == 1),
            frozenset(job.id for job, answer in named if answer == 2),
        )

    def hand_back(self, worker: str, job: Job) -> None:
        self._run(_HAND_BACK, *self._of(job, worker))

    def finish(self, worker: str, job: Job, end: JobEnd, why: str = "") -> None:
        self._run(_FINISH, *self._of(job, worker, RESULT_SECONDS, end, why[:1000]))

    def announce(self, status: WorkerStatus) -> None:
        now = self._now()
        text = json.dumps({**asdict(status), "at": now})
        self._ask(lambda client: client.hset(self._key("workers"), status.id, text))
        self._ask(lambda client: client.sadd(self._key("agents"), status.agent))

    def withdraw(self, worker: str) -> None:
        self._ask(lambda client: client.hdel(self._key("workers"), worker))

    # ---- looking ------------------------------------------------------------------------------------------

    def job(self, job_id: str) -> JobStatus | None:
        agent, entry = _parts(job_id)
        if not entry:
            return None
        stream = self._stream(agent)
        entries = self._ask(lambda client: client.xrange(stream, entry, entry))
        known = self._ask(lambda client: client.hgetall(self._key("job", job_id)))
        if not entries and not known:
            return None
        text = entries[0][1].get("job", "") if entries else ""
        return self._status(agent, entry, text, known, self._pending(agent).get(entry))

    def jobs(self, agent: str | None = None) -> list[JobStatus]:
        agents = [agent] if agent else sorted(self._ask(lambda client: client.smembers(self._key("agents"))))
        found: list[JobStatus] = []
        for name in agents:
            found += self._jobs_of(checked_name("agent", name))
        return sorted(found, key=lambda each: each.job.dispatched_at)

    def workers(self) -> list[WorkerStatus]:
        now = self._now()
        told = self._ask(lambda client: client.hgetall(self._key("workers")))
        alive = []
        for name, text in told.items():
            fields = json.loads(text)
            if now - fields.pop("at") > self._lease_ms / 1000:
                self._ask(lambda client: client.hdel(self._key("workers"), name))
            else:
                alive.append(WorkerStatus(**fields))
        return sorted(alive, key=lambda each: (each.agent, each.since, each.id))

    def waiting(self, agent: str) -> int:
        stream = self._stream(agent)
        held = len(self._pending(agent))
        return max(0, int(self._ask(lambda client: client.xlen(stream))) - held)

    def close(self) -> None:
        self._closed = True
        # Beside a thread that waits in one the client stumbles over its own connections.
        for _ in range(3):
            with contextlib.suppress(AttributeError, OSError):
                self._client.connection_pool.disconnect()
                return

    # ---- the rest -----------------------------------------------------------------------------------------

    def _key(self, *names: str) -> str:
        return ":".join((self._prefix, *names))

    def _stream(self, agent: str) -> str:
        return self._key("jobs", agent)

    def _of(self, job: Job, worker: str, *more: Any) -> tuple[list[str], list[Any]]:
        """Keys and arguments of a script about one job."""
        keys = [
            self._stream(job.agent),
            self._key("on", job.agent, job.room),
            self._key("job", job.id),
            self._key("stop", job.id),
        ]
        return keys, [job.id, _parts(job.id)[1], worker, *more]

    def _make_group(self, agent: str) -> None:
        if agent in self._groups:
            return
        checked_name("agent", agent)
        try:
            self._ask(lambda client: client.xgroup_create(self._stream(agent), _GROUP, "0", mkstream=True))
        except _GroupExists:
            pass
        self._ask(lambda client: client.sadd(self._key("agents"), agent))
        self._groups.add(agent)

    def _job(self, agent: str, entry: str, text: str, attempt: int) -> Job | None:
        """The job of an entry that is ours. One that makes no sense is set aside."""
        try:
            return _job_of(agent, entry, text, attempt)
        except ValueError as error:
            keys = [self._stream(agent), self._key("failed", agent)]
            arguments = [f"{agent}:{entry}", entry, text[:1000], str(error)[:300], _KEPT_FAILURES]
            self._run(_SET_ASIDE, keys, arguments)
            return None

    def _pending(self, agent: str) -> dict[str, tuple[str, int]]:
        """Of each entry that somebody took: who has it, and its attempt."""
        try:
            found = self._ask(
                lambda client: client.xpending_range(self._stream(agent), _GROUP, "-", "+", _LISTED)
            )
        except _NoGroup:
            return {}
        return {each["message_id"]: (each["consumer"], each["times_delivered"]) for each in found}

    def _jobs_of(self, agent: str) -> list[JobStatus]:
        entries = self._ask(lambda client: client.xrange(self._stream(agent), count=_LISTED))
        pending = self._pending(agent)

        def all_known(client: Any) -> Any:
            with client.pipeline(transaction=False) as pipe:
                for entry, _ in entries:
                    pipe.hgetall(self._key("job", f"{agent}:{entry}"))
                return pipe.execute()

        known = self._ask(all_known)
        found = [
            self._status(agent, entry, fields.get("job", ""), state, pending.get(entry))
            for (entry, fields), state in zip(entries, known)
            if state.get("state") != "stopped"
        ]
        failed = self._ask(lambda client: client.xrange(self._key("failed", agent)))
        for at, fields in failed:
            _, entry = _parts(fields.get("id", ""))
            state = {"state": "failed", "why": fields.get("why", ""), "since": str(_seconds(at))}
            found.append(self._status(agent, entry, fields.get("job", ""), state, None))
        return found

    def _status(
        self, agent: str, entry: str, text: str, known: dict[str, str], held: tuple[str, int] | None
    ) -> JobStatus:
        handed_back = held is not None and held[0] == _NOBODY
        attempt = held[1] + handed_back if held else 1
        try:
            job = _job_of(agent, entry, text, attempt)
        except ValueError:
            job = Job(f"{agent}:{entry}", agent, "", None, attempt, _seconds(entry))
        state: Any = known.get("state") or ("taken" if held and not handed_back else "queued")
        worker = known.get("worker") or (held[0] if held and not handed_back else "")
        since = float(known.get("since") or job.dispatched_at)
        return JobStatus(job, state, worker, known.get("why", ""), since)

    def _now(self) -> float:
        seconds, micros = self._ask(lambda client: client.time())
        return float(seconds + micros / 1e6)

    def _run(self, script: str, keys: Iterable[str], arguments: Iterable[Any]) -> Any:
        if script not in self._scripts:
            self._scripts[script] = self._client.register_script(script)
        return self._ask(lambda client: self._scripts[script](list(keys), list(arguments)))

    def _ask(self, question: Callable[[Any], Any]) -> Any:
        if self._closed:
            raise BrokerError(f"{self._place}: the connection has been closed")
        try:
            answer = question(self._client)
        except redis.ResponseError as error:
            if "NOGROUP" in str(error):
                raise _NoGroup(f"{self._place}: {error}") from None
            if "BUSYGROUP" in str(error):
                raise _GroupExists(f"{self._place}: {error}") from None
            raise BrokerError(f"{self._place} refuses: {_short(error)}") from None
        except (redis.RedisError, OSError) as error:
            self._reached = None
            self._groups.clear()  # it may come back without its memory
            raise BrokerError(f"{self._place} is away: {_short(error)}") from None
        except (AttributeError, ValueError):  # what the client does when its connection goes under its feet
            if not self._closed:
                raise
            raise BrokerError(f"{self._place}: the connection has been closed") from None
        if self._reached is None:
            self._reached = time.monotonic()
        return answer


class _NoGroup(BrokerError):
    pass


class _GroupExists(BrokerError):
    pass


def _short(error: Exception) -> str:
    return str(error).splitlines()[0][:200] if str(error) else type(error).__name__


def _parts(job_id: str) -> tuple[str, str]:
    """Agent and entry of "AGENT:ENTRY"; "" for what is none."""
    agent, _, entry = job_id.partition(":")
    first, _, second = entry.partition("-")
    return (agent, entry) if agent and first.isdigit() and second.isdigit() else ("", "")


def _seconds(entry: str) -> float:
    first = entry.partition("-")[0]
    return int(first) / 1000 if first.isdigit() else 0.0


def _text(job: Job) -> str:
    return json.dumps({"room": job.room, "data": job.data}, ensure_ascii=False, separators=(",", ":"))


def _job_of(agent: str, entry: str, text: str, attempt: int) -> Job:
    """ValueError for what is no job, as it may come from any program."""
    try:
        fields = json.loads(text)
    except (ValueError, RecursionError):
        raise ValueError("job: is no JSON") from None
    if not isinstance(fields, dict):
        raise ValueError('job: is no object with "room"')
    checked_name("room", fields.get("room", ""))
    data = fields.get("data")
    checked_data(data)
    return Job(f"{agent}:{entry}", agent, fields["room"], data, attempt, _seconds(entry))


def _client_of(url: str) -> tuple[Any, str]:
    """A client that has not connected, and its place without what is secret."""
    refusal = ValueError(f"broker: the address must be {_PLACES}")
    try:
        parts = urllib.parse.urlsplit(url)
        hosts = [_host(each) for each in parts.netloc.rpartition("@")[2].split(",")]
        path = [each for each in parts.path.split("/") if each]
        query = dict(urllib.parse.parse_qsl(parts.query, strict_parsing=bool(parts.query)))
    except ValueError:
        raise refusal from None
    by_sentinel = parts.scheme == "redis+sentinel"
    if parts.scheme not in ("redis", "rediss", "redis+sentinel") or not all(host for host, _ in hosts):
        raise refusal
    name = path.pop(0) if by_sentinel and path else ""
    if len(path) > 1 or (path and not path[0].isdigit()) or by_sentinel != bool(name) or set(query) - {"ca"}:
        raise refusal
    if len(hosts) > 1 and not by_sentinel:
        raise refusal
    options: dict[str, Any] = {
        "db": int(path[0]) if path else 0,
        "username": os.environ.get("TAVRIN_BROKER_USERNAME") or _unquoted(parts.username),
        "password": os.environ.get("TAVRIN_BROKER_PASSWORD") or _unquoted(parts.password),
        "decode_responses": True,
        "encoding_errors": "replace",
        "socket_timeout": _ANSWER_SECONDS,
        "socket_connect_timeout": _ANSWER_SECONDS,
        "socket_keepalive": True,
        "health_check_interval": 0,
    }
    shown = ",".join(f"{host}:{port or (26379 if by_sentinel else 6379)}" for host, port in hosts)
    if by_sentinel:
        sentinel = Sentinel([(host, port or 26379) for host, port in hosts], socket_timeout=1.0)
        return sentinel.master_for(name, **options), f"{parts.scheme}://{shown}/{name}"
    if parts.scheme == "rediss":
        options |= {"ssl": True, "ssl_cert_reqs": "required", "ssl_ca_certs": query.get("ca")}
    host, port = hosts[0]
    return redis.Redis(host=host, port=port or 6379, **options), f"{parts.scheme}://{shown}"


def _host(text: str) -> tuple[str, int | None]:
    parts = urllib.parse.urlsplit(f"//{text}")
    return parts.hostname or "", parts.port


def _unquoted(text: str | None) -> str | None:
    return None if text is None else urllib.parse.unquote(text)
