"""What the scripts call and how they end."""

import os

import pytest

LANDMARKS = "cmake --build --preset release --target landmarks"
RELEASE = ["cmake --preset release --log-level=WARNING", "cmake --build --preset release"]


@pytest.mark.parametrize("option, preset, shown", [
    ([], "dev", []), (["--asan"], "asan", []),
    (["--coverage"], "coverage", ["gcovr --object-directory build/coverage"])])
@pytest.mark.parametrize("status, failed", [(0, []), (8, ["run the tests (status 8)"])])
def test_test_hands_its_arguments_to_the_tests_of_a_preset_and_ends_as_they_do(
        machine, option, preset, shown, status, failed):
    ended, output, errors = machine.run("test", *option, "-L", "unit", CTEST=str(status))
    assert (ended, [line.split(": ")[-1] for line in errors]) == (status, failed)
    assert output[3:] == ["== run the tests", *["== print the line coverage"] * len(shown)]
    calls = machine.calls()
    assert calls[:3] == [call.replace("release", preset) for call in RELEASE] + [
        "ctest --output-on-failure -j6 -L unit"]
    assert [" ".join(call.split()[:3]) for call in calls[3:]] == shown


@pytest.mark.parametrize("script, preset", [("run", "release"), ("test", "dev")])
@pytest.mark.parametrize("fails, does", [("--preset", "configure"), ("--build", "build")])
def test_step_that_fails_ends_the_script_and_is_named(machine, script, preset, fails, does):
    status, _, errors = machine.run(script, FAILS=fails, DISPLAY=":1")
    assert (status, machine.calls()[-1].split()[1]) == (3, fails)
    assert f"this step failed: {does} the {preset} preset (status 3)" in errors[-1]


@pytest.mark.parametrize("variables, arguments, looks", [
    ({"DISPLAY": ":1", "WAYLAND_DISPLAY": "w", "MISSING": "qtwayland5"}, "", True),
    ({"DISPLAY": ":1"}, "-style fusion", False), ({"WAYLAND_DISPLAY": "w"}, "", False)])
def test_run_opens_the_launcher_where_there_is_a_display(machine, variables, arguments, looks):
    status, output, _ = machine.run("run", *arguments.split(), **variables)
    assert (status, output[3:-1]) == (5, ["== look for the display"] * looks)
    assert output[-1] == "== run the launcher"
    looked = [LANDMARKS, "landmarks "] * looks
    assert machine.calls() == RELEASE + looked + [f"orvane-launcher {arguments}"]


def test_run_says_that_the_display_does_not_answer_and_opens_nothing(machine):
    status, _, errors = machine.run("run", DISPLAY=":77", ANSWERS="no")
    assert (status, machine.calls()[-1], len(errors)) == (1, "landmarks ", 1)
    assert "the display :77 does not answer" in errors[0]


def test_run_demonstrates_the_launcher_where_there_is_no_display(machine):
    status, output, _ = machine.run("run", "-style", "fusion")
    assert (status, machine.calls()) == (6, RELEASE + [
        LANDMARKS, "demo build/release/orvane.app/Contents/MacOS/orvane-launcher -style fusion"])
    assert [line.split()[1] for line in output[3:]] == ["display", "build", "demonstrate"]


def test_soak_soaks_the_release_build_and_ends_as_it_does(machine):
    status, output, _ = machine.run("soak", "5", "real")
    assert (status, output[3:]) == (4, ["== soak the launcher"])
    assert machine.calls() == RELEASE + [
        "cmake --build --preset release --target soak_programs",
        "isolated /usr/bin/python3 -B tests/soak/soak.py 5 real"]


def test_fuzz_begins_with_what_the_tests_send_and_ends_as_the_fuzzer_does(machine):
    os.utime(machine.project / "build/fuzz/calls", (0, 0))  # older than its sources
    status, output, _ = machine.run("fuzz", "5")
    assert (status, output[1:]) == (
        7, ["== build it", "== write the bodies to begin with", "== send more for 5 seconds"])
    compiles, sends = machine.calls()
    assert compiles.startswith("clang++ -std=c++17 ")
    assert sends == ("calls -max_total_time=5 -max_len=65536 -timeout=10 -close_fd_mask=1 "
                     "-artifact_prefix=build/fuzz/ build/fuzz/bodies")
    assert '"channel": 1, "after": 0' in (machine.project / "build/fuzz/bodies/test2").read_text()


@pytest.mark.parametrize("script", ["soak", "fuzz"])
def test_script_without_arguments_only_says_what_it_takes(machine, script):
    status, output, _ = machine.run(script)
    assert (status, machine.calls()) == (2, []) and output[0].startswith(f"scripts/{script} ")
