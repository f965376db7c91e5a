"""What a run of the benchmarks writes, without measuring anything."""

import json
import platform
import sys
from contextlib import nullcontext
from types import ModuleType, SimpleNamespace

import pytest

# Of a package that only scripts/bench installs, and that nothing here calls.
sys.modules.setdefault("pexpect", ModuleType("pexpect"))

from benchmarks import bench, report, rows, runners  # noqa: E402

PUBLISHED = "the published figures"


@pytest.fixture
def run_bench(directory, monkeypatch):
    """run_bench(*options): the benchmarks' command, where nothing is measured. Returns the text of
    docs/performance.md afterwards."""
    document = directory / "docs/performance.md"
    results = directory / "results"
    document.parent.mkdir()
    results.mkdir()
    document.write_text(PUBLISHED)
    monkeypatch.setattr(bench, "PROJECT", directory)
    monkeypatch.setattr(bench, "measure", lambda context: ((), {}))
    monkeypatch.setattr(bench, "exit_on_signals", lambda: None)
    monkeypatch.setattr(bench.report, "write", lambda *given: given[-1].write_text("new figures"))

    def run(*options):
        monkeypatch.setattr(sys, "argv", ["bench", *options, "--build", str(directory),
                                          "--load", "0", "--results", str(results)])
        bench.main()
        return document.read_text()

    return run


def test_quick_run_leaves_the_published_figures_alone(run_bench):
    assert run_bench("--quick") == PUBLISHED


def test_full_run_publishes_its_figures(run_bench):
    assert run_bench() == "new figures"


@pytest.mark.parametrize("text", [
    pytest.param("<!-- begin -->\nold figures\n", id="the last is missing"),
    pytest.param("old figures\n<!-- end -->\n", id="the first is missing")])
def test_document_without_a_marker_is_refused(directory, monkeypatch, text):
    monkeypatch.setattr(report, "machine", lambda how: [how])
    monkeypatch.setattr(report, "plot", lambda *given: None)
    document = directory / "performance.md"
    document.write_text(text)
    with pytest.raises(ValueError, match="performance.md needs the markers"):
        report.write([], {}, "quiet", directory, document)


@pytest.mark.parametrize("text, named", [
    pytest.param("model name\t: Some CPU\n", "Some CPU", id="with a name"),
    pytest.param("BogoMIPS\t: 50.00\n", platform.machine(), id="without a name")])
def test_processor_is_named(directory, monkeypatch, text, named):
    (directory / "cpuinfo").write_text(text)
    monkeypatch.setattr(report, "Path", lambda _: directory / "cpuinfo")
    assert f" cores, {named}, " in report.machine("quiet")[1]


def test_runner_that_is_not_installed_is_left_out(directory, monkeypatch):
    services = SimpleNamespace(bundle=SimpleNamespace(path=directory))
    monkeypatch.setattr(runners, "staged", lambda *given: nullcontext(services))
    monkeypatch.setenv("PATH", str(directory))
    measured = [rows.Row(name, "ms", [1], [1], 1) for name in (
        "start", "deploy", "first line", "memory deployed", "stop, beyond the command")]
    compared = runners.compare(SimpleNamespace(subjects=("launcher", "floor")), measured)
    assert list(compared) == ["Orvane Launcher"]


@pytest.mark.parametrize("bytes_of_the_launcher, held", [
    pytest.param(164, True, id="64 bytes more"), pytest.param(165, False, id="65 bytes more")])
def test_memory_of_a_row_may_be_64_bytes_above_the_floor(
        directory, monkeypatch, bytes_of_the_launcher, held):
    runs = [{"run_type": "iteration", "run_name": f"{side}/{count}/{visible}/", "cpu_time": 1,
             "bytes": taken}
            for side, taken in (("launcher", bytes_of_the_launcher), ("floor", 100))
            for count in rows.ROWS for visible in (0, 1)]
    (directory / "runs").write_text(json.dumps({"benchmarks": runs}))
    (directory / "Sink").write_text(f"#!/bin/sh\ncat {directory}/runs\n")
    (directory / "Sink").chmod(0o755)
    monkeypatch.setattr(rows, "Screen", lambda: nullcontext(SimpleNamespace(environment=None)))
    found = rows.sink(SimpleNamespace(programs=directory, quick=True))
    assert {row.held for row in found if row.name.startswith("memory")} == {held}
