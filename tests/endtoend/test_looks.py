"""What the window looks like on other people's desktops, when orvane-launcher starts it."""

import os
import shutil
import subprocess
from collections import Counter
from pathlib import Path

import pytest
from steps import close, deploy
from Xlib import Xatom

from drive.desktop import Desktop, Launcher
from drive.processes import wait_for

DARK = {"KDE": {"XDG_CURRENT_DESKTOP": "KDE", "KDE_SESSION_VERSION": "5"},
        "qt5ct": {"QT_QPA_PLATFORMTHEME": "qt5ct"}}
KDE_COLOURS = "".join(
    f"[Colors:{part}]\nBackgroundNormal={colour}\nForegroundNormal=252,252,252\n"
    for part, colour in (("Window", "35,38,41"), ("View", "27,30,32"), ("Button", "49,54,59")))
QT5CT_COLOURS = ("[Appearance]\ncolor_scheme_path=/usr/share/qt5ct/colors/darker.conf\n"
                 "custom_palette=true\nstyle=Fusion\n")
READABLE = 4.5  # to 1, in the terms of the Web Content Accessibility Guidelines


def luminance(colour):
    """Returns the relative luminance of a colour."""
    parts = [c / 255 for c in colour]
    parts = [c / 12.92 if c <= 0.03928 else ((c + 0.055) / 1.055) ** 2.4 for c in parts]
    return sum(share * c for share, c in zip((0.2126, 0.7152, 0.0722), parts))


def contrast(picture):
    """Returns the contrast between the ground and what differs from it most."""
    colours = Counter(picture.convert("RGB").getdata())
    ground = luminance(colours.most_common(1)[0][0])
    return max((max(ground, other) + 0.05) / (min(ground, other) + 0.05)
               for other in map(luminance, colours))


def ink(picture):
    """Returns how much of the picture is text in the palette's colour."""
    return sum(1 for grey in picture.convert("L").getdata() if grey < 90)


@pytest.fixture
def services(throw_away, project):
    """Throw-away services, and beside their launcher what starts it."""
    bundle = throw_away()
    shutil.copy(project / "packaging/linux/orvane-launcher", bundle.program.parent)
    return bundle


@pytest.fixture
def started_by(directory, build, services, desktop, ending, monkeypatch):
    """started_by(name, options, environment): the window, in a home with dark settings."""
    (directory / ".config/qt5ct").mkdir(parents=True)
    (directory / ".config/kdeglobals").write_text(KDE_COLOURS)
    (directory / ".config/qt5ct/qt5ct.conf").write_text(QT5CT_COLOURS)
    # The landmarks are those of a window that is started in the same way.
    landmarks = directory / "landmarks"
    landmarks.mkdir()
    shutil.copy(services.program.with_name("orvane-launcher"), landmarks)
    (landmarks / "orvane").symlink_to(build / "landmarks")

    def start(name, options=(), **environment):
        for variable, value in {"HOME": str(directory), **environment}.items():
            monkeypatch.setenv(variable, value)
        return ending.enter_context(Launcher(
            desktop, services.program.with_name(name), options, landmarks=landmarks / name))
    return start


def directions(launcher):
    """Returns the picture of the page in front, without its frame."""
    window = launcher.picture()
    (_, tab), (_, button) = launcher.landmarks["directions"], launcher.landmarks["deploy"]
    return window.crop((14, tab + 20, window.width - 14, button - 20))


def readable(launcher):
    """Returns whether the directions come to be readable."""
    try:
        return wait_for("text", lambda: contrast(directions(launcher)) >= READABLE, 2)
    except TimeoutError:
        return False


@pytest.mark.parametrize("theme", DARK)
def test_texts_are_readable_under_a_dark_theme(theme, started_by, services):
    if theme == "qt5ct" and not Path("/usr/share/qt5ct/colors/darker.conf").exists():
        pytest.skip("qt5ct is not installed")
    bare = started_by("orvane", **DARK[theme])
    assert not readable(bare), "the theme is not dark here"
    bare.end()

    launcher = started_by("orvane-launcher", **DARK[theme])
    assert readable(launcher)
    for name in ("directions", "rpc", "nginx"):
        x, y = launcher.landmarks[name]
        assert contrast(launcher.picture().crop((x - 15, y - 6, x + 15, y + 6))) >= READABLE, name
    deploy(launcher, services)
    for name in ("rpc", "nginx"):
        def rows_are_readable(name=name):
            launcher.click("directions")  # a list repaints when it comes to the front
            launcher.click(name)
            launcher.point_at("title")
            return contrast(launcher.picture(f"{name} list")) >= READABLE

        wait_for(f"readable rows of {name}", rows_are_readable)
    close(launcher)


def test_theme_that_is_asked_for_by_the_toolkits_option_stays(started_by):
    launcher = started_by("orvane-launcher", ["-platformtheme", "kde"], **DARK["KDE"])
    assert not readable(launcher)


@pytest.mark.parametrize("dpi", [96, 134, 144, 192])
def test_directions_lose_no_line_in_the_initial_size(dpi, services, ending):
    tall = ending.enter_context(Desktop(1024, 1400))
    tall.root.change_property(Xatom.RESOURCE_MANAGER, Xatom.STRING, 8,
                              f"Xft.dpi:\t{dpi}\n".encode())
    tall.display.sync()
    environment = {**tall.environment, "QT_AUTO_SCREEN_SCALE_FACTOR": "0"}  # as in Plasma
    process = ending.enter_context(subprocess.Popen(
        [services.program.with_name("orvane-launcher")], env=environment,
        stderr=subprocess.DEVNULL))
    ending.callback(process.kill)
    window = wait_for("the window", lambda: tall.find_window(process.pid))

    def picture():
        place, size = window.translate_coords(tall.root, 0, 0), window.get_geometry()
        return tall.picture((-place.x, -place.y, size.width - place.x, size.height - place.y))

    def settled():
        """The amount of text, once it has stopped to change."""
        seen = []

        def unchanged():
            seen.append(ink(picture()))
            return len(seen) > 20 and len(set(seen[-20:])) == 1 and seen[-1]
        return wait_for("a picture that no longer changes", unchanged)

    initially = settled()
    window.configure(height=1300)  # room for every line
    tall.display.sync()
    assert initially >= 0.98 * settled()


@pytest.mark.parametrize("given, expected", [
    ({"WAYLAND_DISPLAY": "w"}, {"QT_QPA_PLATFORM": "wayland"}),
    ({"WAYLAND_DISPLAY": "w", "QT_QPA_PLATFORM": "vnc"}, {"QT_QPA_PLATFORM": "vnc"}),
    ({"WAYLAND_DISPLAY": "w", "DISPLAY": ":0"}, {"QT_QPA_PLATFORM": None}),
    ({"DISPLAY": ":0"}, {"QT_QPA_PLATFORM": None}),
    ({"QT_SCALE_FACTOR_ROUNDING_POLICY": "Floor"}, {"QT_SCALE_FACTOR_ROUNDING_POLICY": "Floor"})])
def test_environment_of_the_launcher_is_what_the_user_did_not_say(
        given, expected, directory, project):
    for name in ("orvane", "orvane-launcher"):
        shutil.copy(project / "packaging/linux/orvane-launcher", directory / name)
    (directory / "orvane").write_text('#!/bin/sh\nprintf "%s " "$@"; env\n')
    (directory / "command").symlink_to(directory / "orvane-launcher")
    said = subprocess.run([directory / "command", "-style", "a b"], check=True, text=True,
                          env={"PATH": os.environ["PATH"], **given}, stdout=subprocess.PIPE).stdout
    assert said.startswith("-style a b ")
    lines = dict(line.split("=", 1) for line in said.splitlines()[1:])
    assert {name: lines.get(name) for name in expected} == expected
