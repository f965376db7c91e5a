"""The Debian package in a clean system: installed, used by an ordinary user, removed.

The process is the first of a process namespace, as root, and has a mount namespace of its own: all
of this goes with it. The system, which clean_root has made, is unpacked in memory.
"""

import json
import os
from pathlib import Path
from typing import NamedTuple

import psutil
import pytest
from built import BUILD, PACKAGE, PROJECT, SYSTEM_APP, deb, menu_entry, run

from drive.browser import Browser
from drive.bundle import ask
from drive.desktop import Desktop, Launcher, use
from drive.processes import running, wait_for

pytestmark = [
    pytest.mark.skipif(os.getpid() != 1, reason="takes a process namespace of its own"),
    pytest.mark.skipif(not (PROJECT / "build/clean-root.tar").exists(),
                       reason="takes a clean system"),
    pytest.mark.timeout(300)]  # it unpacks a system and installs in it

USER = "alice"
ENVIRONMENT = {"HOME": f"/home/{USER}", "USER": USER, "LOGNAME": USER, "SHELL": "/bin/bash",
               "PATH": "/usr/local/bin:/usr/bin:/bin", "LANG": "C.UTF-8"}
ARCHIVE = PROJECT / "build/clean-root.tar"
MOST_MEMORY = "4g"  # about 0.5 GB is used
OPEN = json.dumps({"jsonrpc": "2.0", "id": 1, "method": "channel.open"})
# Outside; what is the user's own, the last of it the toolkit's; what installing and removing any
# package changes: the package manager's own books.
LEFT_OUT = ["proc", "dev", f"home/{USER}", f"tmp/runtime-{USER}",
            "var/lib/dpkg", "var/lib/apt", "var/cache", "var/log"]


class System:
    """The clean system at `root`, and its user."""

    def __init__(self):
        # Seen by this process only. Not on top of the project.
        memory = next(place for place in (Path("/mnt"), Path("/media"))
                      if not PROJECT.is_relative_to(place))
        run("mount", "-t", "tmpfs", "-o", f"mode=755,size={MOST_MEMORY}", "tmpfs", memory)
        self.root, self.scripts = memory / "root", memory / "scripts"
        self.root.mkdir()
        self.scripts.mkdir()
        run("tar", "-C", self.root, "-xpf", ARCHIVE)
        run("mount", "-t", "proc", "proc", self.root / "proc")
        run("mount", "--rbind", "/dev", self.root / "dev")
        self.enter("useradd", "--create-home", "--shell", "/bin/bash", USER)
        self.uid = int(self.enter("id", "--user", USER))

    def enter(self, *command):
        """Runs the command as the system's administrator. Returns what it wrote."""
        return run("chroot", self.root, *command, env={
            "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
            "DEBIAN_FRONTEND": "noninteractive"})

    def put(self, source, name):
        """Copies a program into the system's /tmp."""
        copy = self.root / "tmp" / name
        copy.write_bytes(source.read_bytes())
        copy.chmod(0o755)

    def as_user(self, program):
        """Returns a script that becomes the program, run in the system by its ordinary user."""
        script = self.scripts / Path(program).name
        words = " ".join(f"{name}='{value}'" for name, value in ENVIRONMENT.items())
        script.write_text(f"#!/bin/sh\nexec chroot --userspec={USER} '{self.root}' env -i {words} "
                          f"DISPLAY=\"$DISPLAY\" '{program}' \"$@\"\n")
        script.chmod(0o755)
        return script

    def listing(self):
        """Returns every other path with its permissions, its owner, and its size and end."""
        pruned = [word for path in LEFT_OUT for word in ("-path", f"./{path}", "-prune", "-o")]
        return set(run("find", ".", *pruned, "-type", "d", "-printf", "%P %M %U:%G\n",
                       "-o", "-printf", "%P %M %U:%G %s %l\n", cwd=self.root).splitlines())

    def use_the_package(self):
        """One session of the user, with the program that the menu entry names, and a browser."""
        with Desktop() as desktop, \
                Launcher(desktop, self.as_user(menu_entry(self.root, "Exec")),
                         landmarks=self.as_user("/tmp/landmarks")) as launcher:
            def look():
                assert {process.uids().real for process in launcher.started()} == {self.uid}
                assert ask()[1] == (self.root / SYSTEM_APP / "nginx/html/index.html").read_text()
                answer = ask("/rpc", OPEN, headers={"Content-Type": "application/json"})[1]
                assert json.loads(answer)["result"] == {"channel": 1}
                with Browser() as browser:
                    browser.visit()
                    browser.click("open")
                    wait_for("a DPS number above 0", lambda: browser.dps() > 0)

            # So the desktop shows the entry's icon for the window.
            assert menu_entry(self.root, "StartupWMClass") in launcher.window.get_wm_class()
            use(launcher, look)
        left = [process for process in psutil.process_iter()
                if running(process) and process.uids().real == self.uid]
        assert left == []


class Seen(NamedTuple):
    """What a package's life in the system showed. A listing is what System.listing() returns."""

    installing: str  # what apt said
    upgrading: str  # what dpkg said
    configuring_masked: str  # what the package's script said where nginx is masked
    shipped: set  # the listing once it was installed
    changed_by_use: set  # in the listing, by the session of a user
    state_of_the_user: bool  # that the user's own directory of state is there
    run_of_root: bool  # that nginx, started by root, has written in the bundle
    run_after_upgrade: bool  # that this is still there
    left: set  # of the listing, by a purge


@pytest.fixture(scope="module")
def seen():
    """One life: installed, used, written in by root, upgraded, purged."""
    system = System()
    system.put(BUILD / "landmarks", "landmarks")
    system.put(deb(), "new.deb")
    before = system.listing()
    # Without a network: the package needs nothing but what it says.
    installing = system.enter("apt-get", "install", "-qy", "--no-install-recommends",
                              "/tmp/new.deb")
    shipped = system.listing()
    system.use_the_package()
    changed_by_use = system.listing() ^ shipped
    system.enter(f"/{SYSTEM_APP}/nginx/sbin/nginx", "-t")
    written = system.root / SYSTEM_APP / "nginx/run"
    run_of_root = written.is_dir()
    upgrading = system.enter("dpkg", "--install", "/tmp/new.deb")
    run_after_upgrade = written.is_dir()
    masked = system.root / "etc/systemd/system/nginx.service"
    masked.symlink_to("/dev/null")
    configuring_masked = system.enter(f"/var/lib/dpkg/info/{PACKAGE}.postinst", "configure")
    masked.unlink()
    system.enter("apt-get", "purge", "-qy", PACKAGE)
    return Seen(installing, upgrading, configuring_masked, shipped, changed_by_use,
                (system.root / f"home/{USER}/.local/state/orvane").is_dir(), run_of_root,
                run_after_upgrade, system.listing() ^ before)


def test_bundle_is_the_administrators(seen):
    assert f"{SYSTEM_APP} drwxr-xr-x 0:0" in seen.shipped


def test_first_installation_says_how_to_end_debians_own_web_server(seen):
    assert "service nginx stop && update-rc.d nginx disable" in seen.installing


def test_upgrade_says_nothing_of_it(seen):
    assert "nginx disable" not in seen.upgrading


def test_nothing_is_said_where_nginx_is_masked(seen):
    assert seen.configuring_masked == ""


def test_use_by_an_ordinary_user_changes_nothing_outside_of_the_home(seen):
    assert seen.changed_by_use == set()


def test_nginx_of_root_writes_in_the_bundle(seen):
    assert seen.run_of_root


def test_upgrade_keeps_what_nginx_of_root_has_written(seen):
    assert seen.run_after_upgrade


def test_purge_leaves_what_nginx_of_a_user_has_written(seen):
    assert seen.state_of_the_user


def test_purge_leaves_nothing_else(seen):
    # dpkg removes /opt too when it is empty then: base-files made it, but no package owns it.
    assert seen.left <= {"opt drwxr-xr-x 0:0"}
