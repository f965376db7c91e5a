"""Which tests must notice a change of which file."""

import fnmatch
import subprocess
from typing import NamedTuple

from mutations.changes import PROJECT


class Covered(NamedTuple):
    """Files, by a pattern of the shell, and the tests that cover them, by one of `ctest -R`."""

    files: str
    tests: str


COVERED = (  # the first that fits a file
    Covered("process/ExecutablePath.*", "ExecutablePath|InstallRoot"),
    Covered("process/*", "InstallRoot|MyProgress|Contract"),
    Covered("services/*", "Nginx|RpcServer|Connect|Contract"),
    Covered("ui/MainWindow.ui", "MainWindowForm|Contract"),
    Covered("ui/*", "DeployBtn|QListView|AccessibleList|Contract"),
    Covered("app/CMakeLists.txt", "MainWindowTest|endtoend_window|package_hardening"),
    Covered("app/*", "MainWindowTest|Entry|Contract|endtoend_window"),
    Covered("bundle/nginx/html/*", "bundle_(page|foreign)"),
    Covered("bundle/nginx/sbin/*", "bundle_nginx|endtoend_real"),
    Covered("bundle/nginx/*", "bundle_(ports|rows|nginx|page|strangers|foreign)"),
    Covered("bundle/rpcServer/CMakeLists.txt", "bundle_rpc|package_hardening"),
    Covered("bundle/rpcServer/*", "bundle_(ports|rows|rpc|strangers)|endtoend_real"),
    Covered("bundle/CMakeLists.txt", "bundle_staging"),
    Covered("docs/example/*", "bundle_(ports|rpc_duties)|endtoend_bundling_example"),
    Covered("scripts/demo", "endtoend_demo"),
    Covered("scripts/fuzz", "bundle_fuzz|scripts_"),
    Covered("scripts/releases", "scripts_releases"),
    Covered("tests/releases/*", "scripts_releases"),
    Covered("benchmarks/bench.py", "scripts_bench"),
    Covered("scripts/*", "scripts_"),
    Covered("packaging/Icon.cmake", "package_contents|bundle_staging|scripts_configuration"),
    Covered("packaging/linux/orvane-launcher", "endtoend_(looks|start)"),
    Covered("packaging/linux/*", "package_(contents|installed)"),
    Covered("packaging/Packages.cmake", "package_(contents|installed)"),
    Covered("packaging/*", "package_contents|bundle_staging"),
    Covered("cmake/BuildOptions.cmake", "MyProgressStop|scripts_configuration|package_hardening"),
    Covered("cmake/StageDirectory.cmake", "bundle_staging"),
    Covered("cmake/Bundle.cmake", "bundle_staging|scripts_configuration"),
    Covered("CMakeLists.txt", "scripts_configuration|package_contents"),
    Covered("CMakePresets.json", "scripts_configuration|package_(contents|hardening)"),
)


def files():
    """Returns the names of the project's files."""
    command = ["git", "ls-files", "--cached", "--others", "--exclude-standard"]
    return subprocess.run(command, cwd=PROJECT, check=True, stdout=subprocess.PIPE,
                          text=True).stdout.splitlines()


def tests_of(name):
    """Returns the pattern of the tests that cover a file, or None."""
    return next((tests for pattern, tests in COVERED if fnmatch.fnmatch(name, pattern)), None)
