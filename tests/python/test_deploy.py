"""The files of examples/deploy against the programs that read them, and the names that a worker gives out."""

from __future__ import annotations

import json
import re
import shutil
import subprocess
from pathlib import Path

import pytest

DEPLOY = Path(__file__).resolve().parents[2] / "examples" / "deploy"


def needs(program: str):
    return pytest.mark.skipif(not shutil.which(program), reason=f"{program} is not installed")


@needs("promtool")
@pytest.mark.parametrize(
    "arguments", [["check", "config", "prometheus.yml"], ["test", "rules", "alerts_test.yml"]]
)
def test_prometheus_takes_them_and_alerts_fire_when_they_should(arguments):
    done = subprocess.run(["promtool", *arguments], cwd=DEPLOY / "prometheus", capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr


@needs("systemd-analyze")
@pytest.mark.parametrize("name", ["tavrin-worker@greeter.service", "tavrin-relay.service"])
def test_systemd_takes_the_units(tmp_path, name):
    template = DEPLOY / "systemd" / re.sub("@.*[.]", "@.", name)
    # With a program that is here in place of theirs.
    text = template.read_text().replace("/opt/tavrin/bin/tavrin-media-relay", "/bin/true")
    (tmp_path / name).write_text(text)
    done = subprocess.run(["systemd-analyze", "verify", tmp_path / name], capture_output=True, text=True)
    told = [line for line in done.stderr.splitlines() if name.split("@")[0] in line]
    assert not told, done.stderr


def test_dashboard_and_alerts_ask_for_figures_that_there_are(tmp_path):
    figures = pytest.importorskip("tavrin_media_relay.serving.figures")
    prometheus = pytest.importorskip("prometheus_client", reason="python3-prometheus-client is not installed")
    from tavrin_media_relay.serving.local_broker import LocalBroker
    from tavrin_media_relay.serving.worker import Settings, Worker

    told = figures.Figures("greeter")
    told.of(Worker(Settings(tmp_path / "greeter.py", "greeter"), LocalBroker()))
    for why in ("crash", "blocked"):
        told.happened("restarted", why=why)
    text = prometheus.generate_latest(told.registry).decode()
    given = set(re.findall(r"^(tavrin_\w+)", text, re.M))
    dashboard = json.loads((DEPLOY / "grafana" / "workers.json").read_text())
    queries = [target["expr"] for panel in dashboard["panels"] for target in panel.get("targets", ())]
    queries.append((DEPLOY / "prometheus" / "alerts.yml").read_text())
    asked = {name for query in queries for name in re.findall(r"\btavrin_\w+", query)}
    assert asked and asked <= given, sorted(asked - given)


def test_kubernetes_manifests_are_whole():
    yaml = pytest.importorskip("yaml", reason="python3-yaml is not installed")
    kinds = [
        document["kind"]
        for name in ("worker", "relay")
        for document in yaml.safe_load_all((DEPLOY / "kubernetes" / f"{name}.yaml").read_text())
    ]
    assert kinds == [
        "Deployment",
        "ScaledObject",
        "PodDisruptionBudget",
        "DaemonSet",
        "Service",
        "StatefulSet",
    ]
