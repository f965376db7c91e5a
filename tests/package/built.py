"""What the tests of the packages share: where they are built and what has been made."""

import pathlib
import re
import subprocess
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = PROJECT / "build/package"
PACKAGES = BUILD / "packages"
APP_ID = "com.orvane.Launcher"
PACKAGE = "orvane-launcher"
SYSTEM_APP = pathlib.Path("/opt/orvane/orvane.app")


def run(*command, **options):
    """The command's standard output. A command that fails shows what it wrote."""
    done = subprocess.run([str(word) for word in command], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{command[0]} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def version():
    """The one in project(VERSION)."""
    text = (PROJECT / "CMakeLists.txt").read_text()
    return re.search(r"^project\(orvane VERSION ([0-9.]+)", text, re.MULTILINE).group(1)


def only(pattern):
    """The one package of this version whose name matches."""
    found = sorted(PACKAGES.glob(pattern))
    if len(found) != 1:
        raise AssertionError(f"expected one {pattern} in {PACKAGES}, found {found}")
    return found[0]


def deb():
    return only(f"{PACKAGE}_{version()}-*.deb")


def archive():
    return only(f"orvane-{version()}-*.tar.gz")


def files(directory):
    """Every file below it, as a sorted list of relative paths."""
    return sorted(str(path.relative_to(directory)) for path in pathlib.Path(directory).rglob("*")
                  if not path.is_dir() or path.is_symlink())


class TestCase(unittest.TestCase):
    maxDiff = None
