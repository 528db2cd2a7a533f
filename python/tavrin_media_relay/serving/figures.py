"""What a worker tells of itself over HTTP: /metrics for Prometheus, /healthz and /readyz for whoever runs it.

/healthz speaks of this process alone: a broker or a server that is away is no reason to end what runs.
/readyz also of the broker, of an agent that does not start, and of draining.
"""

from __future__ import annotations

import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any, Callable, Iterable

from .jobs import Job
from .worker import Observer, Worker

try:
    import prometheus_client
    from prometheus_client import CollectorRegistry, Counter, Histogram
    from prometheus_client.core import CounterMetricFamily, GaugeMetricFamily
except ImportError:
    prometheus_client = None  # type: ignore[assignment]

_WAITS = (0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25, 0.5, 1, 2.5, 5, 10, 30, 60)
_NO_PACKAGE = (
    "metrics need the Python package prometheus-client: pip install 'tavrin-media-relay[metrics]'"
    " (Debian: python3-prometheus-client)\n"
)
# Of the visits that have ended, so that their sums never fall.
_SUMS = ("late_periods", "underruns", "frames_dropped", "cpu_seconds")


class Figures(Observer):
    """Counts what happens, and gives it out. With prometheus-client only."""

    def __init__(self, agent: str) -> None:
        self._agent = agent
        self.registry = CollectorRegistry()
        label: dict[str, Any] = {"registry": self.registry, "labelnames": ["agent"]}
        self._jobs = Counter(
            "tavrin_jobs", "Visits that ended", labelnames=["agent", "end"], registry=self.registry
        )
        self._wait = Histogram(
            "tavrin_job_wait_seconds", "From dispatch to a worker", buckets=_WAITS, **label
        ).labels(agent)
        self._join = Histogram(
            "tavrin_job_join_seconds", "From a worker to the room", buckets=_WAITS, **label
        ).labels(agent)
        self._full = Counter("tavrin_full", "Times that no place was left", **label).labels(agent)
        self._restarts = Counter(
            "tavrin_restarts", "Visits begun again", labelnames=["agent", "why"], registry=self.registry
        )
        self._leases = Counter("tavrin_leases_lost", "Jobs that another worker got", **label).labels(agent)
        for end in ("ended", "failed", "stopped"):
            self._jobs.labels(agent, end)
        self._worker: Worker | None = None
        self._last: dict[str, dict[str, float]] = {}
        self._gone = dict.fromkeys(_SUMS, 0.0)

    def of(self, worker: Worker) -> None:
        """Whose gauges are given out."""
        self._worker = worker
        self.registry.register(self)  # type: ignore[arg-type]  # it has the one method that is needed

    def happened(self, kind: str, job: Job | None = None, **fields: Any) -> None:
        match kind:
            case "taken":
                self._wait.observe(fields["seconds"])
            case "joined":
                self._join.observe(fields["seconds"])
            case "ended":
                self._jobs.labels(self._agent, fields["end"]).inc()
            case "full":
                self._full.inc()
            case "restarted":
                self._restarts.labels(self._agent, fields["why"]).inc()
            case "leases_lost":
                self._leases.inc()

    def collect(self) -> Iterable[Any]:
        """For the registry, on the HTTP server's thread."""
        worker = self._worker
        if worker is None:
            return

        def gauge(name: str, text: str, value: float) -> Any:
            family = GaugeMetricFamily(name, text, labels=["agent"])
            family.add_metric([self._agent], value)
            return family

        states = GaugeMetricFamily("tavrin_processes", "Children", labels=["agent", "state"])
        for state, count in (("warm", worker.warm), ("busy", worker.busy), ("starting", worker.starting)):
            states.add_metric([self._agent, state], count)
        yield states
        yield gauge("tavrin_sessions_limit", "Visits at a time, at most", worker.settings.sessions)
        yield gauge("tavrin_broker_up", "1 if the broker answers", worker.broker_up)
        yield gauge("tavrin_draining", "1 if nothing more is taken", worker.draining)
        yield gauge("tavrin_memory_bytes", "Resident memory of all children", worker.memory)
        running = {job.id: figures for job, figures in worker.runs}
        worst = max((each.get("loop_delay", 0.0) for each in running.values()), default=0.0)
        yield gauge("tavrin_loop_delay_seconds", "The worst delay of an event loop in the last second", worst)
        for name, figures in list(self._last.items()):
            now = running.get(name)
            # A visit that has ended, or was begun again.
            if now is None or any(now.get(each, 0.0) < figures.get(each, 0.0) for each in _SUMS):
                for each in _SUMS:
                    self._gone[each] += figures.get(each, 0.0)
        self._last = {name: dict(figures) for name, figures in running.items()}
        for each, text in (
            ("late_periods", "Periods of sound that were late"),
            ("underruns", "Times that sound ran out"),
            ("frames_dropped", "Frames that slow consumers lost"),
            ("cpu_seconds", "Processor time of the visits"),
        ):
            family = CounterMetricFamily(f"tavrin_{each}", text, labels=["agent"])
            family.add_metric(
                [self._agent], self._gone[each] + sum(of.get(each, 0.0) for of in running.values())
            )
            yield family


class Page:
    """The HTTP server, on a thread of its own."""

    def __init__(
        self, place: tuple[str, int], not_ready: Callable[[], str], figures: Figures | None = None
    ) -> None:
        """place: host and port; 0: one that is free. not_ready: why, or "". OSError if it is taken."""

        class Handler(BaseHTTPRequestHandler):
            timeout = 5

            def do_GET(self) -> None:
                path = self.path.partition("?")[0]
                if path == "/healthz":
                    self._answer(200, "ok\n")
                elif path == "/readyz":
                    why = not_ready()
                    self._answer(503 if why else 200, f"{why or 'ok'}\n")
                elif path == "/metrics" and figures is not None:
                    text = prometheus_client.generate_latest(figures.registry).decode()
                    self._answer(200, text, prometheus_client.CONTENT_TYPE_LATEST)
                elif path == "/metrics":
                    self._answer(501, _NO_PACKAGE)
                else:
                    self._answer(404, "there are /metrics, /healthz and /readyz\n")

            def _answer(self, code: int, text: str, kind: str = "text/plain; charset=utf-8") -> None:
                body = text.encode()
                self.send_response(code)
                self.send_header("Content-Type", kind)
                self.send_header("Content-Length", str(len(body)))
                self.end_headers()
                self.wfile.write(body)

            def log_message(self, *_: object) -> None:
                """Says nothing: probes come each second."""

        self._server = ThreadingHTTPServer(place, Handler)
        self._server.daemon_threads = True
        self.port = int(self._server.server_address[1])
        self._thread = threading.Thread(target=self._server.serve_forever, name="tavrin-http", daemon=True)
        self._thread.start()

    def close(self) -> None:
        self._server.shutdown()
        self._server.server_close()
        self._thread.join()


def figures_of(agent: str) -> Figures | None:
    """None where prometheus-client is not installed."""
    return None if prometheus_client is None else Figures(agent)
