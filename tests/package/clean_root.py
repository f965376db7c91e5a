#!/usr/bin/python3
"""clean_root.py: makes the archive of a clean Debian with all that the package says it needs.

The system is of this machine's release. apt gets its packages from where this machine's apt gets
them. The archive is kept below build/, one for each set of dependencies. Everything is unpacked in
memory, so run this, and whatever unpacks the archive, in a mount namespace of its own: then nothing
is left, however it ends.
"""

import hashlib
import os
import pathlib
import platform
import shutil

import built
from built import PROJECT, run

CACHE = PROJECT / "build/clean-root"
MOST_MEMORY = "4g"  # about 0.5 GB is used
FROM_THIS_MACHINE = ("etc/apt", "etc/hosts", "etc/resolv.conf", "usr/share/keyrings")


def release():
    return platform.freedesktop_os_release()["VERSION_CODENAME"]


def depends():
    return run("dpkg-deb", "--field", built.deb(), "Depends").strip()


def archive():
    key = hashlib.sha256(f"{platform.machine()} {depends()}".encode()).hexdigest()[:16]
    return CACHE / f"{release()}-{key}.tar"


def in_memory():
    """An empty directory in memory, seen in this mount namespace only."""
    # Not below build/: debootstrap wants a path without blanks. Not on top of the project either.
    directory = next(place for place in (pathlib.Path("/mnt"), pathlib.Path("/media"))
                     if not PROJECT.is_relative_to(place))
    run("mount", "-t", "tmpfs", "-o", f"mode=755,size={MOST_MEMORY}", "tmpfs", directory)
    return directory


def mount_devices(root):
    run("mount", "-t", "proc", "proc", root / "proc")
    run("mount", "--rbind", "/dev", root / "dev")


def enter(root, *command):
    """Runs the command in the root as its administrator; returns what it wrote."""
    return run("chroot", root, *command, env={
        "PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
        "DEBIAN_FRONTEND": "noninteractive"})


def unpack(directory):
    """The system, ready to be entered, in a new directory below this one."""
    root = directory / "root"
    root.mkdir()
    run("tar", "-C", root, "-xpf", archive())
    mount_devices(root)
    return root


def mirror():
    listed = run("apt-get", "indextargets", "--format", "$(REPO_URI)", "Created-By: Packages",
                 f"Codename: {release()}", "Component: main")
    return listed.split()[0]


def proxies():
    """apt's, as debootstrap's downloader takes them."""
    shown = run("apt-config", "shell", "http_proxy", "Acquire::http::Proxy",
                "https_proxy", "Acquire::https::Proxy")
    pairs = (line.partition("=") for line in shown.splitlines())
    return {name: value.strip("'") for name, _, value in pairs}


def make(root):
    run("debootstrap", "--variant=minbase", release(), root, mirror(),
        env={**os.environ, **proxies()})
    for name in FROM_THIS_MACHINE:
        here, there = pathlib.Path("/", name), root / name
        if here.is_dir():
            shutil.rmtree(there, ignore_errors=True)
            shutil.copytree(here, there, symlinks=True)
        elif here.exists():
            shutil.copyfile(here, there)
    policy = root / "usr/sbin/policy-rc.d"  # no service starts because its package is installed
    policy.write_text("#!/bin/sh\nexit 101\n")
    policy.chmod(0o755)
    mount_devices(root)
    enter(root, "apt-get", "update", "-q")
    enter(root, "apt-get", "satisfy", "-qy", "--no-install-recommends", depends())
    enter(root, "apt-get", "clean")


def main():
    if archive().exists():
        return
    root = in_memory() / "root"
    root.mkdir()
    make(root)
    for old in CACHE.glob("*.tar*"):
        old.unlink()
    CACHE.mkdir(exist_ok=True)
    new = archive().with_suffix(".tar.new")
    run("tar", "-C", root, "--one-file-system", "-cpf", new, ".")
    new.rename(archive())


if __name__ == "__main__":
    main()
