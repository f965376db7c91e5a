"""What a run of the benchmarks writes, without measuring anything."""

import sys
from types import ModuleType

import pytest

# Of a package that only scripts/bench installs, and that nothing here calls.
sys.modules.setdefault("pexpect", ModuleType("pexpect"))

from benchmarks import bench  # noqa: E402

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
