"""What orvane-launcher gives to the launcher: descriptors, signals, variables, arguments."""

import os
import resource
import shutil
import signal
import socket
import subprocess
from typing import NamedTuple

import psutil
import pytest
from steps import deploy

from drive.desktop import Launcher
from drive.processes import runs, wait_for

TELL = """#!/bin/sh
printf '<%s>\\n' "$@"
env
"""


class Told(NamedTuple):
    """What a launcher was given, one that only says that; and what the starter said."""

    arguments: list
    variables: dict
    errors: str


@pytest.fixture
def told(home):
    """told(argument, ..., NAME=value, ...): what the launcher is given when started so."""
    home.launcher.write_text(TELL)

    def start(*arguments, **variables):
        done = subprocess.run([home.starter, *arguments], check=True, text=True,
                              env={"PATH": os.environ["PATH"], **variables},
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        lines = done.stdout.splitlines()
        return Told([line[1:-1] for line in lines if line.startswith("<")],
                    dict(line.split("=", 1) for line in lines if not line.startswith("<")),
                    done.stderr)

    return start


@pytest.fixture
def services(throw_away):
    """A bundle with services that only note that they run."""
    return throw_away()


@pytest.fixture
def start_from(desktop, services, add_starter, build, ending):
    """start_from(prepare): the launcher, started by a process that has called prepare()."""
    starter = add_starter(services.program)
    return lambda prepare: ending.enter_context(
        Launcher(desktop, starter, landmarks=build / "landmarks", prepare=prepare))


def limit_descriptors(soft, hard):
    """Returns what limits them so, for `prepare`."""
    return lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def test_arguments_pass_as_they_are(told):
    given = ["-style", "a b", "", "*"]
    assert told(*given).arguments == given


def test_path_with_an_equals_sign_is_not_taken_for_a_variable(home, told):
    place = home.starter.parent / "a=b"
    place.mkdir()
    told()  # which makes the launcher one that tells
    for program in home:
        shutil.copy(program, place)
    said = subprocess.run([place / home.starter.name, "an argument"], check=True, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    assert said.startswith("<an argument>\n")


def test_command_may_be_a_link_from_another_directory(home, told, directory):
    told()
    command = directory / "elsewhere/command"
    command.parent.mkdir()
    command.symlink_to(home.starter)
    said = subprocess.run([command, "an argument"], check=True, text=True, cwd="/",
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    assert said.startswith("<an argument>\n")


@pytest.mark.parametrize("given, name, expected", [
    pytest.param({"QT_QPA_PLATFORMTHEME": "qt5ct"}, "QT_QPA_PLATFORMTHEME", "generic",
                 id="the session's theme is replaced"),
    pytest.param({"XDG_CURRENT_DESKTOP": "KDE"}, "XDG_CURRENT_DESKTOP", "generic",
                 id="the desktop's name is replaced"),
    pytest.param({"QT_AUTO_SCREEN_SCALE_FACTOR": "0"}, "QT_AUTO_SCREEN_SCALE_FACTOR", "1",
                 id="the session's scaling is replaced"),
    pytest.param({"WAYLAND_DISPLAY": "w"}, "QT_QPA_PLATFORM", "wayland",
                 id="Wayland is taken where there is no X"),
    pytest.param({"WAYLAND_DISPLAY": "w", "QT_QPA_PLATFORM": "vnc"}, "QT_QPA_PLATFORM", "vnc",
                 id="the user's platform stays"),
    pytest.param({"WAYLAND_DISPLAY": "w", "QT_QPA_PLATFORM": ""}, "QT_QPA_PLATFORM", "wayland",
                 id="an empty platform is none"),
    pytest.param({"WAYLAND_DISPLAY": "w", "DISPLAY": ":4711"}, "QT_QPA_PLATFORM", "wayland",
                 id="Wayland is taken where X has gone"),
    pytest.param({"WAYLAND_SOCKET": "3"}, "QT_QPA_PLATFORM", "wayland",
                 id="Wayland is taken where its socket is passed on"),
    pytest.param({"WAYLAND_DISPLAY": "w", "DISPLAY": "elsewhere:0"}, "QT_QPA_PLATFORM", None,
                 id="the toolkit chooses where there are both"),
    pytest.param({"DISPLAY": ":0"}, "QT_QPA_PLATFORM", None,
                 id="the toolkit chooses where there is X"),
    pytest.param({}, "QT_SCALE_FACTOR_ROUNDING_POLICY", "PassThrough",
                 id="scales are not rounded"),
    pytest.param({"QT_SCALE_FACTOR_ROUNDING_POLICY": "Floor"}, "QT_SCALE_FACTOR_ROUNDING_POLICY",
                 "Floor", id="the user's rounding stays")])
def test_variables_of_the_launcher(given, name, expected, told):
    assert told(**given).variables.get(name) == expected


NO_DISPLAY = ("orvane-launcher: no display at DISPLAY=\"{}\" or WAYLAND_DISPLAY=\"{}\": "
              "start it in a desktop session, as the user of that.")


@pytest.mark.parametrize("display, wayland", [
    pytest.param("", "", id="none is named"),
    pytest.param(":4711", "", id="no X server has the number"),
    pytest.param("unix:4711.0", "", id="no X server has the number of the long form"),
    pytest.param("", "nobody", id="no compositor has the name")])
def test_display_that_is_not_there_is_said_first(display, wayland, home, directory):
    done = subprocess.run(
        [home.starter], stderr=subprocess.PIPE, text=True, check=False,
        env={"PATH": os.environ["PATH"], "XDG_RUNTIME_DIR": str(directory), "DISPLAY": display,
             "WAYLAND_DISPLAY": wayland},
        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_CORE, (0, 0)))
    assert done.returncode == -signal.SIGABRT
    assert done.stderr.splitlines()[0] == NO_DISPLAY.format(display, wayland)


@pytest.mark.parametrize("arguments, given", [
    pytest.param([], {"DISPLAY": "elsewhere:0"}, id="X on another machine"),
    pytest.param([], {"QT_QPA_PLATFORM": "offscreen"}, id="the user names a platform"),
    pytest.param(["-platform", "offscreen"], {}, id="an argument names a platform"),
    pytest.param(["-display", "elsewhere:0"], {}, id="an argument names a display"),
    pytest.param([], {"WAYLAND_DISPLAY": "w", "WAYLAND_SOCKET": "3"}, id="a socket is passed on")])
def test_nothing_is_said_of_a_display_that_cannot_be_looked_for(arguments, given, told):
    assert told(*arguments, **given).errors == ""


def test_theme_is_no_platform(told):
    assert told("-platformtheme", "kde").errors.splitlines() == [NO_DISPLAY.format("", "")]


@pytest.mark.parametrize("screen", [pytest.param("", id="short"), pytest.param(".0", id="long")])
def test_nothing_is_said_of_an_x_server_without_a_socket_file(screen, desktop, told):
    assert told(DISPLAY=desktop.name + screen).errors == ""


def test_number_of_an_x_server_is_taken_as_a_whole(desktop, told):
    first_digits = desktop.name[:-1]
    assert told(DISPLAY=first_digits).errors.splitlines() == [NO_DISPLAY.format(first_digits, "")]


def test_nothing_is_said_of_an_x_server_with_a_socket_file(home, directory, told):
    before = home.starter.read_text()
    home.starter.write_text(before.replace("/tmp/.X11-unix", str(directory)))  # for who may write
    assert home.starter.read_text() != before
    with socket.socket(socket.AF_UNIX) as server:
        server.bind(str(directory / "X4711"))
        assert told(DISPLAY=":4711").errors == ""


@pytest.mark.parametrize("name", ["w", "{}/w"], ids=["by its name", "by its path"])
def test_nothing_is_said_of_a_compositor_that_is_there(name, directory, told):
    runtime = directory / "runtime"
    runtime.mkdir()
    place = directory if name.startswith("{}") else runtime
    with socket.socket(socket.AF_UNIX) as compositor:
        compositor.bind(str(place / "w"))
        assert told(WAYLAND_DISPLAY=name.format(directory),
                    XDG_RUNTIME_DIR=str(runtime)).errors == ""


@pytest.mark.parametrize("session", [
    pytest.param({"QT_QPA_PLATFORM": "wayland"}, id="the user names the platform"),
    pytest.param({"XDG_SESSION_TYPE": "wayland"}, id="the session has this type")])
def test_nothing_is_said_of_a_compositor_with_the_usual_name(session, directory, told):
    with socket.socket(socket.AF_UNIX) as compositor:
        compositor.bind(str(directory / "wayland-0"))
        assert told(XDG_RUNTIME_DIR=str(directory), **session).errors == ""


def test_compositor_with_the_usual_name_is_not_taken_unasked(directory, told):
    with socket.socket(socket.AF_UNIX) as compositor:
        compositor.bind(str(directory / "wayland-0"))
        assert told(XDG_RUNTIME_DIR=str(directory)).errors.splitlines() == [
            NO_DISPLAY.format("", "")]


@pytest.mark.parametrize("number", [0, 1, 2], ids=["input", "output", "errors"])
def test_closed_descriptor_leads_nowhere(number, start_from):
    launcher = start_from(lambda: os.close(number))
    assert os.readlink(f"/proc/{launcher.pid}/fd/{number}") == "/dev/null"


def test_open_descriptor_stays(start_from):
    launcher = start_from(None)
    assert os.readlink(f"/proc/{launcher.pid}/fd/1").endswith("/output")


def test_service_that_has_ended_keeps_its_number(start_from, services):
    starter = services.program.with_name("orvane-launcher")
    starter.write_text("#!/bin/bash\n" + starter.read_text())  # a shell that changes no signal
    launcher = start_from(lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
    deploy(launcher, services)
    service, = services.pids("rpc")
    os.kill(service, signal.SIGKILL)
    wait_for("its end", lambda: not runs(service))
    assert psutil.Process(service).status() == psutil.STATUS_ZOMBIE


def test_limit_of_descriptors_is_raised_as_far_as_it_may_be(start_from):
    launcher = start_from(limit_descriptors(1024, 2000))
    assert psutil.Process(launcher.pid).rlimit(psutil.RLIMIT_NOFILE) == (2000, 2000)


def test_limit_of_descriptors_is_not_raised_without_end(services, start_from):
    starter = services.program.with_name("orvane-launcher")
    before = starter.read_text()
    starter.write_text(before.replace(" 65536 ", " 1500 "))  # not every machine allows as many
    assert starter.read_text() != before
    launcher = start_from(limit_descriptors(1024, 2000))
    assert psutil.Process(launcher.pid).rlimit(psutil.RLIMIT_NOFILE) == (1500, 2000)


def test_deploys_go_on_where_the_usual_limit_would_end_them(start_from, services):
    launcher = start_from(limit_descriptors(64, 1024))
    for _ in range(40):  # two descriptors each
        deploy(launcher, services)
