"""What the tests of the packages share: where they are built and what has been made."""

import re
import subprocess
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
BUILD = PROJECT / "build/package"
APP_ID = "com.orvane.Launcher"
PACKAGE = "orvane-launcher"
SYSTEM_APP = "opt/orvane/orvane.app"  # below the root of a system


def run(*command, **options):
    """Returns the command's standard output. AssertionError shows what a failed one wrote."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command[0]} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def version():
    """Returns the one in project(VERSION)."""
    text = (PROJECT / "CMakeLists.txt").read_text()
    return re.search(r"^project\(orvane VERSION ([0-9.]+)", text, re.MULTILINE).group(1)


def only(pattern):
    """Returns the one package whose name matches; ValueError if it is not one."""
    package, = (BUILD / "packages").glob(pattern)
    return package


def deb():
    """Returns the Debian package of this version."""
    return only(f"{PACKAGE}_{version()}-*.deb")


def dependencies(package):
    """Returns the names of the packages that a Debian package depends on, the first choices."""
    groups = run("dpkg-deb", "--field", package, "Depends").strip().split(", ")
    return [group.split()[0] for group in groups]


def menu_entry(root, key):
    """Returns a value of the menu entry of the system at `root`."""
    entry = (root / f"usr/share/applications/{APP_ID}.desktop").read_text()
    return re.search(f"^{key}=(.*)$", entry, re.MULTILINE).group(1)


def files(directory):
    """Returns every file below it, as a sorted list of relative paths."""
    return sorted(str(path.relative_to(directory)) for path in Path(directory).rglob("*")
                  if not path.is_dir() or path.is_symlink())
