"""What the scripts call and how they end. Stand-ins for the tools write down their calls."""

import os
import shutil
import subprocess

import pytest

LAUNCHER = "build/release/orvane.app/Contents/MacOS/orvane-launcher"
STAND_INS = {
    "bin/apt-cache": "echo '  Candidate: 4.0'",
    "bin/cmake": 'exit "${CMAKE-0}"',
    "bin/ctest": 'exit "${CTEST-0}"',
    "bin/dpkg-query": "echo installed",
    "bin/gcovr": "",
    "bin/sudo": "exit 1",
    "drive/isolated": "exit 4",
    "build/release/landmarks": 'exit "${LANDMARKS-0}"',
    "scripts/demo": "exit 6",
    LAUNCHER: "exit 5",
}
LANDMARKS = "cmake --build --preset release --target landmarks"
RELEASE = ["cmake --preset release --log-level=WARNING", "cmake --build --preset release"]


@pytest.fixture
def run(project, directory):
    """A function of a script, its arguments and variables, which returns status, calls, errors."""
    shutil.copytree(project / "scripts", directory / "scripts")
    log = directory / "log"
    for name, does in STAND_INS.items():
        path = directory / name
        path.parent.mkdir(parents=True, exist_ok=True)
        asked = name in ("bin/apt-cache", "bin/dpkg-query")  # often, and changes nothing
        says = "" if asked else f'echo "${{0##*/}} $*" >>{log}'
        path.write_text(f"#!/bin/bash\n{says}\n{does}\n")
        path.chmod(0o755)
    for preset in "dev", "asan", "coverage":
        (directory / "build" / preset).mkdir()
    path = f"{directory}/bin:{os.environ['PATH']}"

    def run_script(script, *arguments, **variables):
        done = subprocess.run(
            [directory / "scripts" / script, *arguments], check=False, text=True,
            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
            env={"LC_ALL": "C", "PATH": path, **variables})
        calls = log.read_text().replace(f"{directory}/", "").splitlines() if log.exists() else []
        return done.returncode, calls, done.stderr

    return run_script


@pytest.mark.parametrize("option, preset", [
    ([], "dev"), (["--asan"], "asan"), (["--coverage"], "coverage")])
def test_test_builds_a_preset_and_hands_its_arguments_to_its_tests(run, option, preset):
    status, calls, _ = run("test", *option, "-L", "unit")
    assert status == 0
    assert calls[:3] == [f"cmake --preset {preset} --log-level=WARNING",
                         f"cmake --build --preset {preset}",
                         "ctest --output-on-failure -j2 -L unit"]
    shown = [call.split()[:3] for call in calls[3:]]
    coverage = [["gcovr", "--object-directory", "build/coverage"]]
    assert shown == (coverage if preset == "coverage" else [])


@pytest.mark.parametrize("option", [[], ["--coverage"]])
def test_test_ends_as_the_tests_do(run, option):
    status, calls, errors = run("test", *option, CTEST="8")
    assert status == 8
    assert [call.startswith("gcovr") for call in calls[3:]] == [True] * len(option)
    assert "this step failed" in errors


@pytest.mark.parametrize("script", ["run", "test", "soak"])
def test_step_that_fails_ends_the_script_and_is_named(run, script):
    status, calls, errors = run(script, "5", CMAKE="3", DISPLAY=":1")
    assert (status, len(calls)) == (3, 1)
    preset = "dev" if script == "test" else "release"
    assert f"this step failed: configure the {preset} preset (status 3)" in errors


@pytest.mark.parametrize("display", [{"DISPLAY": ":1"}, {"WAYLAND_DISPLAY": "wayland-0"}])
def test_run_opens_the_launcher_and_ends_as_it_does(run, display):
    status, calls, _ = run("run", "-style", "fusion", **display)
    assert (status, calls) == (5, RELEASE + ["orvane-launcher -style fusion"])


def test_run_demonstrates_the_launcher_where_there_is_no_display(run):
    status, calls, _ = run("run", "-style", "fusion")
    assert status == 6
    assert calls == RELEASE + [LANDMARKS, f"demo {LAUNCHER} -style fusion"]


@pytest.mark.parametrize("answers", [True, False])
def test_run_opens_the_launcher_only_if_the_display_answers(run, answers):
    status, calls, errors = run("run", DISPLAY=":1", LANDMARKS="0" if answers else "1")
    assert status == (5 if answers else 1)
    assert calls == RELEASE + [LANDMARKS, "landmarks "] + ["orvane-launcher "] * answers
    assert ("the display :1 does not answer" in errors) == (not answers)


def test_soak_soaks_the_release_build_and_ends_as_it_does(run):
    status, calls, _ = run("soak", "5", "real")
    assert status == 4
    assert calls[:2] == RELEASE
    assert "landmarks" in calls[2]
    assert calls[3:] == ["isolated /usr/bin/python3 -B tests/soak/soak.py 5 real"]


def test_soak_without_arguments_only_says_what_it_takes(run):
    status, calls, _ = run("soak")
    assert (status, calls) == (2, [])
