"""What clean_root does where it cannot make its archive."""

import os
import shutil
import subprocess

import pytest
from built import PROJECT, run

CONTROL = """Package: some
Version: 1
Architecture: all
Maintainer: Nobody <nobody@localhost>
Description: needs one package
Depends: hello
"""
SKIPPED = 77


@pytest.mark.skipif(os.geteuid() != 0, reason="takes root")
@pytest.mark.skipif(os.environ.get("ORVANE_ISOLATED") != "network",
                    reason="takes a namespace without a network")
def test_is_skipped_where_the_mirror_cannot_be_reached(directory):
    place = directory / "tests/package"
    place.mkdir(parents=True)
    shutil.copy(PROJECT / "tests/package/clean_root", place)
    (directory / "some/DEBIAN").mkdir(parents=True)
    (directory / "some/DEBIAN/control").write_text(CONTROL)
    packages = directory / "build/package/packages"
    packages.mkdir(parents=True)
    run("dpkg-deb", "--build", directory / "some", packages / "some.deb")
    done = subprocess.run([place / "clean_root"], check=False, text=True, stdout=subprocess.PIPE)
    assert done.returncode == SKIPPED
    assert done.stdout.splitlines()[-1] == "skipped: the packages' mirror cannot be reached"
