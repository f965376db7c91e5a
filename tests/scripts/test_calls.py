"""What the scripts call and how they end."""

import pytest

LAUNCHER = "build/release/orvane.app/Contents/MacOS/orvane-launcher"
LANDMARKS = "cmake --build --preset release --target landmarks"
RELEASE = ["cmake --preset release --log-level=WARNING", "cmake --build --preset release"]


@pytest.mark.parametrize("option, preset, shown", [
    ([], "dev", []), (["--asan"], "asan", []),
    (["--coverage"], "coverage", ["gcovr --object-directory build/coverage"])])
@pytest.mark.parametrize("status", [0, 8])
def test_test_hands_its_arguments_to_the_tests_of_a_preset_and_ends_as_they_do(
        machine, option, preset, shown, status):
    ended, _, errors = machine.run("test", *option, "-L", "unit", CTEST=str(status))
    assert ended == status
    calls = machine.calls()
    assert calls[:3] == [f"cmake --preset {preset} --log-level=WARNING",
                         f"cmake --build --preset {preset}",
                         "ctest --output-on-failure -j4 -L unit"]
    assert [" ".join(call.split()[:3]) for call in calls[3:]] == shown
    assert ["this step failed" in line for line in errors] == [True] * (status != 0)


@pytest.mark.parametrize("script", ["run", "test", "soak"])
def test_step_that_fails_ends_the_script_and_is_named(machine, script):
    status, _, errors = machine.run(script, "5", CMAKE="3", DISPLAY=":1")
    assert (status, len(machine.calls())) == (3, 1)
    preset = "dev" if script == "test" else "release"
    assert f"this step failed: configure the {preset} preset (status 3)" in errors[-1]


@pytest.mark.parametrize("display", [{"DISPLAY": ":1"}, {"WAYLAND_DISPLAY": "wayland-0"}])
def test_run_opens_the_launcher_and_ends_as_it_does(machine, display):
    assert machine.run("run", "-style", "fusion", **display)[0] == 5
    assert machine.calls() == RELEASE + ["orvane-launcher -style fusion"]


def test_run_demonstrates_the_launcher_where_there_is_no_display(machine):
    assert machine.run("run", "-style", "fusion")[0] == 6
    assert machine.calls() == RELEASE + [LANDMARKS, f"demo {LAUNCHER} -style fusion"]


@pytest.mark.parametrize("answers", ["yes", "no"])
def test_run_opens_the_launcher_only_if_the_display_answers(machine, answers):
    status, _, errors = machine.run("run", DISPLAY=":77", ANSWERS=answers)
    calls = RELEASE + [LANDMARKS, "landmarks "]
    if answers == "yes":
        assert (status, machine.calls()) == (5, [*calls, "orvane-launcher "])
    else:
        assert (status, machine.calls(), len(errors)) == (1, calls, 1)
        assert "the display :77 does not answer" in errors[0]


def test_soak_soaks_the_release_build_and_ends_as_it_does(machine):
    assert machine.run("soak", "5", "real")[0] == 4
    *built, landmarks, soak = machine.calls()
    assert built == RELEASE
    assert "landmarks" in landmarks
    assert soak == "isolated /usr/bin/python3 -B tests/soak/soak.py 5 real"


def test_soak_without_arguments_only_says_what_it_takes(machine):
    assert machine.run("soak")[0] == 2
    assert machine.calls() == []
