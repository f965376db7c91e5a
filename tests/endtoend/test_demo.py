"""scripts/demo, which shows the launcher where there is no display."""

import shutil
import signal
import subprocess
import time
from types import SimpleNamespace
from typing import NamedTuple

import pytest
from PIL import Image

from drive import processes
from drive.processes import GaveUp, Steps, end, processes_below

PAGE = "demo: failed: open a channel, and look at its picture for a second: "
STOPPED = """const all = draw;
draw = frame => { all(frame); if (frame.number > 25) draw = () => {}; };"""
STANDS_STILL = "const all = draw; draw = frame => all({...frame, x: 700, y: 300});"
# The launcher leads the session of sbin/nginx, and is a child of the demonstration.
KILL_LAUNCHER = "[[ $* != '-s stop' ]] || trap 'kill -KILL $(ps -o sid= $$)' EXIT"
END_DEMONSTRATION = "kill -TERM $(ps -o ppid= $(ps -o sid= $$))"


class Result(NamedTuple):
    """How a demonstration ended, and what it wrote."""

    status: int
    output: str


def demonstrate(project, *words):
    """Runs a demonstration to its end and returns the Result."""
    demo = subprocess.Popen(["env", "-u", "PYTHONPATH", project / "scripts/demo", *words],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    try:
        output = demo.communicate()[0]
    finally:
        end(demo)  # which ends what it has started, when this takes too long
    return Result(demo.returncode, output)


@pytest.fixture
def pictures(project):
    """Where the pictures go, with one of an earlier demonstration."""
    place = project / "build/demo"
    place.mkdir(parents=True, exist_ok=True)
    (place / "of an earlier one.png").touch()
    return place


def test_takes_a_picture_of_each_tab_and_of_the_page(project, build, pictures):
    result = demonstrate(project, build / "orvane.app/Contents/MacOS/orvane")
    assert result.status == 0, result.output
    seen = {path.stem: Image.open(path).convert("RGB") for path in pictures.iterdir()}
    assert sorted(seen) == ["directions", "nginx", "page", "rpc"]
    blank = [name for name, picture in seen.items() if len(picture.getcolors(2 ** 24)) <= 10]
    assert blank == []
    assert len({picture.tobytes() for picture in seen.values()}) == 4, "two are the same"


@pytest.mark.parametrize("file, line, status, last_line", [
    pytest.param("sbin/nginx", KILL_LAUNCHER, 1,
                 "demo: failed: close the window: the launcher's exit status is -9",
                 id="the launcher is killed"),
    pytest.param("html/page.js", STOPPED, 1, PAGE + "the picture does not move",
                 id="the picture stops"),
    pytest.param("html/page.js", STANDS_STILL, 1, PAGE + "the picture does not move",
                 id="the ball stands still"),
    pytest.param("sbin/nginx", END_DEMONSTRATION, 143,
                 "demo: click on deploy, and wait until the services answer",
                 id="the demonstration is ended")])
def test_says_what_fails_and_leaves_nothing_behind(
        project, build, real, file, line, status, last_line):
    broken = real.path / "nginx" / file
    first, others = broken.read_text().split("\n", 1)
    broken.write_text(f"{first}\n{line}\n{others}")
    shutil.rmtree(project / "build/demo", ignore_errors=True)  # as if it were the first time
    (real.path.parent / "landmarks").symlink_to(build / "landmarks")
    result = demonstrate(project, real.program)
    assert result.output.splitlines()[-1] == last_line
    assert result.status == status
    assert not processes_below(real.path)


def test_program_that_is_missing_is_the_failure_of_a_step(project, real):
    last = demonstrate(project, real.program).output.splitlines()[-1]  # it has no landmarks
    assert last.startswith("demo: failed: start the launcher: [Errno 2] ")


def test_without_a_launcher_says_what_it_takes(project):
    assert demonstrate(project).output.startswith("scripts/demo <launcher>")


def test_step_that_takes_long_says_so_and_is_given_up(capsys):
    with Steps("demo", seconds=0.5, remind=0.2) as step:
        step("open the page")
        with pytest.raises(GaveUp, match="given up after 0.5 s"):
            time.sleep(60)
    said = capsys.readouterr().out.splitlines()
    assert said[:2] == [
        "demo: open the page",
        "demo: still waiting after 0 s, gives up after 0.5 s: open the page"]


@pytest.fixture
def clock(monkeypatch):
    """The seconds that the steps take for the time, in a list of one."""
    now = [0]
    monkeypatch.setattr(processes, "time", SimpleNamespace(monotonic=lambda: now[0]))
    return now


def test_each_step_has_the_time_to_itself(clock, capsys):
    with Steps("demo", seconds=90) as step:
        step("the first one")
        clock[0] = 80
        step("the next one")
        clock[0] = 100
        signal.raise_signal(signal.SIGALRM)
    assert capsys.readouterr().out.splitlines()[-1] == (
        "demo: still waiting after 20 s, gives up after 90 s: the next one")


def test_next_step_has_the_time_until_its_first_reminder_to_itself():
    with Steps("demo", remind=1000) as step:
        signal.setitimer(signal.ITIMER_REAL, 100)  # what is left of the one before
        step("the next one")
        left, _ = signal.getitimer(signal.ITIMER_REAL)
    assert left > 900


def test_what_ends_after_a_step_that_was_given_up_has_a_limit_too():
    with Steps("demo", seconds=0.2, remind=0.1) as step:
        step("open the page")
        for _ in ("the step", "what is ended after it"):
            with pytest.raises(GaveUp):
                time.sleep(60)


def test_time_for_steps_ends_with_them(capsys):
    with Steps("demo", seconds=0.2, remind=0.1) as step:
        step("the last one")
    time.sleep(0.3)
    assert "still waiting" not in capsys.readouterr().out
