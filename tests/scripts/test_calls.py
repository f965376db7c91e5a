"""What the scripts call and how they end."""

import os

import pytest

LANDMARKS = "cmake --build --preset release --target landmarks"
RELEASE = ["cmake --preset release --log-level=WARNING", "cmake --build --preset release"]
LAUNCHER = "build/release/orvane.app/Contents/MacOS/orvane-launcher"
PRESETS = [pytest.param([], "dev", id="dev"), pytest.param(["--asan"], "asan", id="asan"),
           pytest.param(["--coverage"], "coverage", id="coverage")]


@pytest.mark.parametrize("option, preset", PRESETS)
def test_test_builds_a_preset_and_hands_its_arguments_to_ctest(machine, option, preset):
    machine.run("test", *option, "-L", "unit", "-R", "a b")
    assert machine.calls()[:3] == [
        f"cmake --preset {preset} --log-level=WARNING", f"cmake --build --preset {preset}",
        "ctest --output-on-failure -j6 -L unit -R 'a b'"]


@pytest.mark.parametrize("option, preset", PRESETS)
def test_test_ends_as_the_tests_do(machine, option, preset):
    result = machine.run("test", *option, CTEST="8")
    assert result.status == 8
    assert result.errors == [f"{machine.project}/scripts/test: this step failed: run the tests "
                             "(status 8)"]


@pytest.mark.parametrize("tests_end_with", ["0", "8"], ids=["tests pass", "tests fail"])
def test_coverage_is_printed_however_the_tests_end(machine, tests_end_with):
    machine.run("test", "--coverage", CTEST=tests_end_with)
    assert machine.calls()[-1].startswith("gcovr --object-directory build/coverage ")


def test_coverage_is_printed_only_where_it_was_counted(machine):
    machine.run("test")
    assert machine.calls("gcovr") == []


@pytest.mark.parametrize("script, preset", [("run", "release"), ("test", "dev")])
@pytest.mark.parametrize("fails, does", [("--preset", "configure"), ("--build", "build")])
def test_step_that_fails_ends_the_script_and_is_named(machine, script, preset, fails, does):
    result = machine.run(script, FAILS=fails, DISPLAY=":1")
    assert result.errors == [f"{machine.project}/scripts/{script}: this step failed: "
                             f"{does} the {preset} preset (status 3)"]
    assert result.status == 3
    assert machine.calls()[-1].split()[1] == fails


@pytest.mark.parametrize("script", ["run", "test", "soak", "bench"])
def test_builds_the_project_wherever_it_is_called(machine, script):
    machine.put(machine.tools / "cmake", 'echo "in $PWD" >>"$LOG"')
    machine.run(script, *(["5"] if script == "soak" else []))
    assert machine.calls("in")[:2] == [f"in {machine.project}"] * 2  # to configure and to build


@pytest.mark.parametrize("variables", [
    pytest.param({"DISPLAY": ":1"}, id="X"), pytest.param({"WAYLAND_DISPLAY": "w"}, id="Wayland")])
def test_run_opens_the_launcher_where_there_is_a_display(machine, variables):
    result = machine.run("run", "-style", "fusion", "-title", "a b", **variables)
    assert machine.calls() == RELEASE + ["orvane-launcher -style fusion -title 'a b'"]
    assert result.output[-1] == "== run the launcher"


def test_run_ends_as_the_launcher_does(machine):
    assert machine.run("run", DISPLAY=":1").status == 5


@pytest.mark.parametrize("variables", [
    pytest.param({"DISPLAY": ":1"}, id="X"),
    pytest.param({"DISPLAY": ":1", "WAYLAND_DISPLAY": "w", "MISSING": "qtwayland5"}, id="both")])
def test_run_without_arguments_first_looks_whether_the_display_answers(machine, variables):
    machine.run("run", **variables)
    assert machine.calls() == RELEASE + [LANDMARKS, "landmarks", "orvane-launcher"]


def test_run_says_that_the_display_does_not_answer(machine):
    result = machine.run("run", DISPLAY=":77", ANSWERS="no")
    assert result.errors == [
        f"{machine.project}/scripts/run: the display :77 does not answer: correct DISPLAY, or "
        "unset it for a virtual one."]
    assert result.status == 1


def test_run_opens_nothing_where_the_display_does_not_answer(machine):
    machine.run("run", DISPLAY=":77", ANSWERS="no")
    assert machine.calls()[-1] == "landmarks"


def test_run_demonstrates_the_launcher_where_there_is_no_display(machine):
    result = machine.run("run", "-style", "fusion", "-title", "a b")
    assert machine.calls() == RELEASE + [LANDMARKS,
                                         f"demo {LAUNCHER} -style fusion -title 'a b'"]
    assert result.status == 6


def test_soak_soaks_the_release_build(machine):
    machine.run("soak", "5", "real")
    assert machine.calls() == RELEASE + [
        "cmake --build --preset release --target soak_programs",
        "isolated /usr/bin/python3 -B tests/soak/soak.py 5 real"]


def test_soak_ends_as_the_soak_does(machine):
    assert machine.run("soak", "5", "real").status == 4


@pytest.fixture
def fuzzed(machine):
    """A machine whose fuzzer, older than its sources, has just run for 5 seconds."""
    os.utime(machine.project / "build/fuzz/calls", (0, 0))
    machine.fuzz = machine.run("fuzz", "5")
    return machine


def test_fuzz_compiles_and_runs_the_fuzzer(fuzzed):
    compiles, sends = fuzzed.calls()
    assert compiles.startswith("clang++ -std=c++17 ")
    assert sends == ("calls -max_total_time=5 -max_len=65536 -timeout=10 -close_fd_mask=1 "
                     "-artifact_prefix=build/fuzz/ build/fuzz/bodies")


def test_fuzz_begins_with_what_the_tests_send(fuzzed):
    body = (fuzzed.project / "build/fuzz/bodies/test2").read_text()
    assert '"channel": 1, "after": 0' in body


def test_fuzz_ends_as_the_fuzzer_does(fuzzed):
    assert fuzzed.fuzz.status == 7


@pytest.mark.parametrize("script", ["soak", "fuzz"])
def test_script_without_arguments_only_says_what_it_takes(machine, script):
    result = machine.run(script)
    assert result.output[0].startswith(f"scripts/{script} ")
    assert result.status == 2
    assert machine.calls() == []


def test_bench_takes_the_load_before_the_build(machine):
    load = machine.log.with_name("load")
    load.write_text("0.25 2.00 3.00 1/234 5678\n")
    script = machine.project / "scripts/bench"
    script.write_text(script.read_text().replace("/proc/loadavg", str(load)))
    machine.put(machine.tools / "cmake", f"echo '9.00 2.00 3.00 1/234 5678' >{load}")
    measures = machine.project / "benchmarks/bench.py"
    measures.parent.mkdir()
    measures.write_text("import sys\nprint(sys.argv[-2:])\n")
    assert machine.run("bench").output[-1] == "['--load', '0.25']"
