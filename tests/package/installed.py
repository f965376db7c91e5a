#!/usr/bin/python3
"""The Debian package in a clean system: installed, used by an ordinary user, removed.

Needs root, for the clean system. Where the kernel does not let it be made, the test is skipped and
says why. The first run gets the clean system's packages from where apt does.
"""

import os
import pathlib
import re
import subprocess
import sys

import psutil

import built
import clean_root
from built import APP_ID, BUILD, PACKAGE, PROJECT, SYSTEM_APP
from clean_root import enter
from product import Browser, Desktop, Launcher, running, use, wait_for

SKIPPED = 77  # CTest is told that this is no failure
NAMESPACES = ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
USER = "alice"
ORDINARY = {"HOME": f"/home/{USER}", "USER": USER, "LOGNAME": USER, "SHELL": "/bin/bash",
            "PATH": "/usr/local/bin:/usr/bin:/bin", "LANG": "C.UTF-8"}
# What installing and removing any package changes: the package manager's own books.
BOOKS = ("var/lib/dpkg", "var/lib/apt", "var/cache", "var/log")
OUTSIDE = ("proc", "dev")


def listing(root, below="", without=()):
    """Every path: its kind and permissions, its owner, and for a file its size, a link its end."""
    found = {}
    for directory, names, files in os.walk(root / below):
        here = pathlib.Path(directory)
        names[:] = [n for n in names if str((here / n).relative_to(root)) not in without]
        for path in (here / name for name in names + files):
            status = path.lstat()
            end = os.readlink(path) if path.is_symlink() else status.st_size
            found[str(path.relative_to(root))] = (
                oct(status.st_mode), status.st_uid, status.st_gid, end if not path.is_dir() else 0)
    return found


def changes(before, after):
    """What has come, gone or changed, and how."""
    return {path: (before.get(path), after.get(path)) for path in {**before, **after}
            if before.get(path) != after.get(path)}


class Installed(built.TestCase):
    @classmethod
    def setUpClass(cls):
        memory = clean_root.in_memory()
        cls.root = clean_root.unpack(memory)
        cls.scripts = memory / "scripts"
        cls.scripts.mkdir()
        enter(cls.root, "useradd", "--create-home", "--shell", "/bin/bash", USER)
        cls.uid = int(enter(cls.root, "id", "--user", USER))
        cls.session = f"run/user/{cls.uid}"
        # As a session manager makes it.
        enter(cls.root, "install", "-d", "-m", "0700", "-o", USER, "-g", USER, f"/{cls.session}")

    def listing(self):
        """All of the system but the books and what is the user's own."""
        return listing(self.root, without=(
            *BOOKS, *OUTSIDE, f"home/{USER}", self.session,
            f"tmp/runtime-{USER}"))  # the toolkit's, where no session manager made one

    def as_user(self, program, environment):
        """A script that becomes the program, run in the clean system by its ordinary user."""
        script = self.scripts / pathlib.Path(program).name
        words = " ".join(f"{name}='{value}'" for name, value in environment.items())
        script.write_text(f"#!/bin/sh\nexec chroot --userspec={USER} '{self.root}' env -i {words} "
                          f"DISPLAY=\"$DISPLAY\" '{program}' \"$@\"\n")
        script.chmod(0o755)
        return script

    def processes_of_user(self):
        return [process.cmdline() for process in psutil.process_iter()
                if running(process) and process.uids().real == self.uid]

    @staticmethod
    def look_with_a_browser():
        with Browser() as browser:
            browser.visit()
            browser.click("open")
            wait_for("a DPS number above 0", lambda: browser.dps() > 0)

    def use_installed(self, environment, look=lambda: None):
        """One session of the user, with the program that the menu entry names."""
        entry = (self.root / f"usr/share/applications/{APP_ID}.desktop").read_text()
        program = re.search("^Exec=(.*)$", entry, re.MULTILINE).group(1)
        window_class = re.search("^StartupWMClass=(.*)$", entry, re.MULTILINE).group(1)
        page = self.root / SYSTEM_APP.relative_to("/") / "nginx/html/index.html"
        with Desktop() as desktop, \
                Launcher(desktop, self.as_user(program, environment),
                         landmarks=self.as_user("/tmp/landmarks", environment)) as launcher:
            def services_are_the_users():
                owners = {process.uids().real for process in launcher.started()}
                self.assertEqual(owners, {self.uid})
                look()

            # So the desktop shows the entry's icon for the window.
            self.assertIn(window_class, launcher.window.get_wm_class())
            use(launcher, page.read_bytes(), services_are_the_users)
        self.assertEqual(self.processes_of_user(), [])

    def private_files(self, directory):
        """What is in the user's directory after that; nobody else may look at it."""
        found = listing(self.root, directory)
        for path, (mode, uid, *_) in found.items():
            self.assertEqual(uid, self.uid, path)
            if not mode.startswith("0o12"):  # a link has no permissions of its own
                self.assertEqual(int(mode, 8) & 0o077, 0, f"{path} is open to others: {mode}")
        return sorted(found)

    def test_package_serves_an_ordinary_user_and_leaves_nothing(self):
        for name, source in (("landmarks", BUILD / "landmarks"), ("new.deb", built.deb())):
            copy = self.root / "tmp" / name
            copy.write_bytes(source.read_bytes())
            copy.chmod(0o755)
        before = self.listing()

        # Without a network: the package needs nothing but what it says.
        enter(self.root, "apt-get", "install", "-qy", "--no-install-recommends", "/tmp/new.deb")
        shipped = self.listing()
        self.assertIn(str(SYSTEM_APP.relative_to("/")), shipped)

        self.use_installed({**ORDINARY, "XDG_RUNTIME_DIR": f"/{self.session}"},
                           self.look_with_a_browser)
        in_session = self.private_files(self.session)
        self.assertTrue(in_session)
        self.use_installed(ORDINARY)
        in_home = self.private_files(f"home/{USER}/.local/state")
        self.assertTrue(in_home)
        self.assertEqual(changes(shipped, self.listing()), {})

        # Root can write in the bundle, and what nginx has written there goes with the package.
        enter(self.root, SYSTEM_APP / "nginx/sbin/nginx", "-t")
        self.assertTrue((self.root / SYSTEM_APP.relative_to("/") / "nginx/run").is_dir())
        enter(self.root, "apt-get", "purge", "-qy", PACKAGE)
        left = changes(before, self.listing())
        # dpkg removes /opt too when it is empty then: base-files made it, but no package owns it.
        self.assertIn(left, ({}, {"opt": (before["opt"], None)}))
        print("What stays with the user:", *in_session, *in_home, sep="\n  ")


def possible():
    """Why this cannot run here, or nothing."""
    if os.getuid() != 0:
        return "only root can make a clean system"
    tried = subprocess.run([*NAMESPACES, "sh", "-c", "mount -t tmpfs tmpfs /mnt && chroot / true"],
                           stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    return tried.stdout or "no namespaces" if tried.returncode != 0 else ""


def main():
    if os.environ.get("ORVANE_CLEAN_ROOT"):
        built.unittest.main()
    if why_not := possible():
        print(f"skipped: {why_not}")
        sys.exit(SKIPPED)
    here = pathlib.Path(__file__).resolve().parent
    python = [sys.executable, "-B"]
    # The network is there while the clean system is made, and gone while the package is tried.
    subprocess.run([*NAMESPACES, *python, str(here / "clean_root.py")], check=True)
    os.environ["ORVANE_CLEAN_ROOT"] = "made"
    isolated = str(PROJECT / "drive/isolated")
    os.execv(isolated, [isolated, *NAMESPACES, *python, __file__, *sys.argv[1:]])


if __name__ == "__main__":
    main()
