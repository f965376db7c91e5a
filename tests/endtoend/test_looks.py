"""What the window looks like on other people's desktops, when orvane-launcher starts it."""

import os
import shutil
import subprocess
from contextlib import contextmanager

import pytest
from Xlib import Xatom

from drive.desktop import Desktop
from drive.processes import wait_for

KDE = {"XDG_CURRENT_DESKTOP": "KDE", "KDE_SESSION_VERSION": "5"}
DARK = "".join(
    f"[Colors:{part}]\nBackgroundNormal={colour}\nForegroundNormal=252,252,252\n"
    for part, colour in (("Window", "35,38,41"), ("View", "27,30,32"), ("Button", "49,54,59")))


@pytest.fixture
def starter(directory, build, project):
    """orvane-launcher beside its launcher, in a home with dark settings."""
    shutil.copy(build / "orvane.app/Contents/MacOS/orvane", directory)
    shutil.copy(project / "packaging/linux/orvane-launcher", directory)
    (directory / ".config").mkdir()
    (directory / ".config/kdeglobals").write_text(DARK)
    return directory / "orvane-launcher"


@contextmanager
def shown(desktop, program, *options, **environment):
    """The window, as Xlib has it, of a launcher that is started so."""
    environment = {**desktop.environment, "HOME": str(program.parent), **environment}
    with subprocess.Popen([program, *options], env=environment,
                          stderr=subprocess.DEVNULL) as process:
        try:
            yield wait_for("the window", lambda: desktop.find_window(process.pid))
        finally:
            process.kill()


def settled(desktop, window):
    """Returns the picture of the window once it has stopped to change."""
    seen = []

    def unchanged():
        place, size = window.translate_coords(desktop.root, 0, 0), window.get_geometry()
        seen.append(desktop.picture((-place.x, -place.y, size.width - place.x,
                                     size.height - place.y)))
        same = [picture.tobytes() == seen[-1].tobytes() for picture in seen[-10:]]
        drawn = seen[-1].getpixel((1, seen[-1].height - 2)) == (255, 255, 255)  # to its lower edge
        return same == [True] * 10 and drawn and len(seen[-1].getcolors(2 ** 24)) > 10

    wait_for("a picture that no longer changes", unchanged)
    return seen[-1]


def test_colours_of_a_dark_desktop_stay_out_unless_they_are_asked_for(desktop, starter):
    def looks(program, *options, **environment):
        with shown(desktop, program, *options, **environment) as window:
            return settled(desktop, window).tobytes()

    usual = looks(starter)
    assert looks(starter.with_name("orvane"), **KDE) != usual, "the theme is not dark here"
    assert looks(starter, **KDE) == usual
    assert looks(starter, "-platformtheme", "kde", **KDE) != usual


@pytest.mark.parametrize("dpi", [96, 134, 144, 192])
def test_directions_lose_no_line_in_the_initial_size(dpi, starter, ending):
    tall = ending.enter_context(Desktop(1024, 1400))
    tall.root.change_property(Xatom.RESOURCE_MANAGER, Xatom.STRING, 8,
                              f"Xft.dpi:\t{dpi}\n".encode())
    tall.display.sync()

    def ink(window):
        """The amount of text in the palette's colour."""
        return sum(1 for grey in settled(tall, window).convert("L").getdata() if grey < 90)

    with shown(tall, starter, QT_AUTO_SCREEN_SCALE_FACTOR="0") as window:  # as in Plasma
        initially = ink(window)
        window.configure(height=1300)  # room for every line
        tall.display.sync()
        assert initially >= 0.98 * ink(window) > 0


@pytest.mark.parametrize("given, expected", [
    ({"QT_QPA_PLATFORMTHEME": "qt5ct"}, {"QT_QPA_PLATFORMTHEME": "generic"}),
    ({"WAYLAND_DISPLAY": "w"}, {"QT_QPA_PLATFORM": "wayland"}),
    ({"WAYLAND_DISPLAY": "w", "QT_QPA_PLATFORM": "vnc"}, {"QT_QPA_PLATFORM": "vnc"}),
    ({"WAYLAND_DISPLAY": "w", "DISPLAY": ":0"}, {"QT_QPA_PLATFORM": None}),
    ({"QT_SCALE_FACTOR_ROUNDING_POLICY": "Floor"},
     {"QT_SCALE_FACTOR_ROUNDING_POLICY": "Floor", "QT_QPA_PLATFORM": None})])
def test_environment_of_the_launcher_is_what_the_user_did_not_say(
        given, expected, directory, starter):
    (directory / "orvane").write_text('#!/bin/sh\necho "$@"; env\n')
    (directory / "command").symlink_to(starter)
    said = subprocess.run([directory / "command", "-style", "a b"], check=True, text=True,
                          env={"PATH": os.environ["PATH"], **given}, stdout=subprocess.PIPE).stdout
    assert said.startswith("-style a b\n")
    lines = dict(line.split("=", 1) for line in said.splitlines()[1:])
    assert {name: lines.get(name) for name in expected} == expected
