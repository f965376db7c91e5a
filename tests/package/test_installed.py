"""The Debian package in a clean system: installed, used by an ordinary user, removed.

The process is the first of a process namespace, as root, and has a mount namespace of its own: all
of this goes with it. The system, which clean_root has made, is unpacked in memory.
"""

import os
from pathlib import Path

import psutil
import pytest
from built import BUILD, PACKAGE, PROJECT, SYSTEM_APP, deb, menu_entry, run, use

from drive.browser import Browser
from drive.desktop import Desktop, Launcher
from drive.processes import running, wait_for

USER = "alice"
ORDINARY = {"HOME": f"/home/{USER}", "USER": USER, "LOGNAME": USER, "SHELL": "/bin/bash",
            "PATH": "/usr/local/bin:/usr/bin:/bin", "LANG": "C.UTF-8"}
ARCHIVE = PROJECT / "build/clean-root.tar"
MOST_MEMORY = "4g"  # about 0.5 GB is used
# What installing and removing any package changes: the package manager's own books.
BOOKS = ("var/lib/dpkg", "var/lib/apt", "var/cache", "var/log")
OUTSIDE = ("proc", "dev")


class System:
    """The clean system at `root`, and its user's session."""

    def __init__(self):
        # Seen by this process only. Not on top of the project.
        memory = next(place for place in (Path("/mnt"), Path("/media"))
                      if not PROJECT.is_relative_to(place))
        run("mount", "-t", "tmpfs", "-o", f"mode=755,size={MOST_MEMORY}", "tmpfs", memory)
        self.root = memory / "root"
        self.root.mkdir()
        run("tar", "-C", self.root, "-xpf", ARCHIVE)
        run("mount", "-t", "proc", "proc", self.root / "proc")
        run("mount", "--rbind", "/dev", self.root / "dev")
        self.scripts = memory / "scripts"
        self.scripts.mkdir()
        self.enter("useradd", "--create-home", "--shell", "/bin/bash", USER)
        self.uid = int(self.enter("id", "--user", USER))
        self.session = f"run/user/{self.uid}"
        # As a session manager makes it.
        self.enter("install", "-d", "-m", "0700", "-o", USER, "-g", USER, f"/{self.session}")

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

    def as_user(self, program, environment):
        """Returns a script that becomes the program, run in the system by its ordinary user."""
        script = self.scripts / Path(program).name
        words = " ".join(f"{name}='{value}'" for name, value in environment.items())
        script.write_text(f"#!/bin/sh\nexec chroot --userspec={USER} '{self.root}' env -i {words} "
                          f"DISPLAY=\"$DISPLAY\" '{program}' \"$@\"\n")
        script.chmod(0o755)
        return script

    def listing(self, below="", without=()):
        """Returns for every path its kind and permissions, its owner, and its size or its end."""
        found = {}
        for directory, names, others in os.walk(self.root / below):
            here = Path(directory)
            names[:] = [n for n in names if str((here / n).relative_to(self.root)) not in without]
            for path in (here / name for name in names + others):
                status = path.lstat()
                end = os.readlink(path) if path.is_symlink() else status.st_size
                found[str(path.relative_to(self.root))] = (
                    oct(status.st_mode), status.st_uid, status.st_gid,
                    0 if path.is_dir() else end)
        return found

    def all_but_the_users_own(self):
        """Returns the listing() of that, without the package manager's books."""
        return self.listing(without=(
            *BOOKS, *OUTSIDE, f"home/{USER}", self.session,
            f"tmp/runtime-{USER}"))  # the toolkit's, where no session manager made one

    def private_files(self, directory):
        """Returns what is in the user's directory; nobody else may look at it."""
        found = self.listing(directory)
        for path, (mode, uid, *_) in found.items():
            assert uid == self.uid, path
            if not mode.startswith("0o12"):  # a link has no permissions of its own
                assert int(mode, 8) & 0o077 == 0, f"{path} is open to others: {mode}"
        return sorted(found)

    def use_the_package(self, environment, look):
        """One session of the user, with the program that the menu entry names."""
        with Desktop() as desktop, \
                Launcher(desktop, self.as_user(menu_entry(self.root, "Exec"), environment),
                         landmarks=self.as_user("/tmp/landmarks", environment)) as launcher:
            def services_are_the_users():
                assert {process.uids().real for process in launcher.started()} == {self.uid}
                look()

            # So the desktop shows the entry's icon for the window.
            assert menu_entry(self.root, "StartupWMClass") in launcher.window.get_wm_class()
            use(launcher, self.root / SYSTEM_APP, services_are_the_users)
        left = [process for process in psutil.process_iter()
                if running(process) and process.uids().real == self.uid]
        assert left == []


def changes(before, after):
    """Returns what has come, gone or changed, and how."""
    return {path: (before.get(path), after.get(path)) for path in {**before, **after}
            if before.get(path) != after.get(path)}


def look_with_a_browser():
    """Sees pictures arrive."""
    with Browser() as browser:
        browser.visit()
        browser.click("open")
        wait_for("a DPS number above 0", lambda: browser.dps() > 0)


@pytest.mark.skipif(os.getpid() != 1 or not ARCHIVE.exists(), reason="takes a clean system")
@pytest.mark.timeout(300)  # it unpacks a system and installs in it
def test_package_serves_an_ordinary_user_and_leaves_nothing():
    system = System()
    system.put(BUILD / "landmarks", "landmarks")
    system.put(deb(), "new.deb")
    before = system.all_but_the_users_own()

    # Without a network: the package needs nothing but what it says.
    said = system.enter("apt-get", "install", "-qy", "--no-install-recommends", "/tmp/new.deb")
    assert "systemctl disable --now nginx" in said  # which Debian's own package has started
    shipped = system.all_but_the_users_own()
    assert SYSTEM_APP in shipped

    system.use_the_package({**ORDINARY, "XDG_RUNTIME_DIR": f"/{system.session}"},
                           look_with_a_browser)
    assert system.private_files(f"home/{USER}/.local/state")
    assert changes(shipped, system.all_but_the_users_own()) == {}

    # Root can write in the bundle, and what nginx has written there goes with the package.
    system.enter(f"/{SYSTEM_APP}/nginx/sbin/nginx", "-t")
    assert (system.root / SYSTEM_APP / "nginx/run").is_dir()
    system.enter("apt-get", "purge", "-qy", PACKAGE)
    left = changes(before, system.all_but_the_users_own())
    # dpkg removes /opt too when it is empty then: base-files made it, but no package owns it.
    assert left in ({}, {"opt": (before["opt"], None)})
