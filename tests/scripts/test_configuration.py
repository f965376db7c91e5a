"""What a configuration says and asks for, on machines that have more or less than this one."""

import json
import re
import shutil
import subprocess
from pathlib import Path

import pytest

pytestmark = pytest.mark.timeout(600)  # the compiler is tried out each time
CMAKE, CTEST = shutil.which("cmake"), shutil.which("ctest")
FRAMEWORKS = ["DiskArbitration", "IOKit", "OpenGL", "AGL"]
BUILD_TOOLS = """ar as c++ cc date g++ gcc gcc-ar gcc-ranlib ld ninja nm objcopy objdump pkg-config
    png2icns ranlib readelf rsvg-convert sh strip""".split()


class Tree:
    """Configures the project in a directory."""

    def __init__(self, project, build, directory):
        self.project, self.built, self.directory = project, build, directory
        self.build = directory / "build"

    def configure(self, *options, **more):
        """Returns whether that went well, and what was said."""
        done = subprocess.run(
            [CMAKE, "-S", self.project, "-B", self.build, "-G", "Ninja", *options],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **more)
        return done.returncode == 0, done.stdout

    def configure_for_macos(self, frameworks):
        """The same for macOS, with an SDK that has these frameworks and nothing else."""
        for name in frameworks:
            (self.directory / f"SDK/{name}.framework").mkdir(parents=True)
        qt = re.search("^Qt5_DIR:PATH=(.*)$", (self.built / "CMakeCache.txt").read_text(), re.M)
        tools = "ORVANE_ICNS_MAKER ORVANE_MACDEPLOYQT CMAKE_INSTALL_NAME_TOOL".split()
        return self.configure(
            "-DCMAKE_SYSTEM_NAME=Darwin", "-DCMAKE_OSX_SYSROOT=", "-DCMAKE_OSX_DEPLOYMENT_TARGET=",
            f"-DCMAKE_FRAMEWORK_PATH={self.directory}/SDK", f"-DQt5_DIR={qt.group(1)}",
            *(f"-D{tool}=/bin/true" for tool in tools))


@pytest.fixture
def tree(project, build, directory):
    return Tree(project, build, directory)


@pytest.mark.parametrize("preset, errors", [
    ("dev", True), ("asan", True), ("coverage", True), ("release", False), (None, False)])
def test_warnings_are_errors_in_the_presets_for_development_alone(tree, preset, errors):
    well, said = tree.configure(*([f"--preset={preset}"] if preset else []),
                                "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")
    assert well, said
    commands = json.loads((tree.build / "compile_commands.json").read_text())
    own = [entry["command"] for entry in commands if "/process/MyProgress.cpp" in entry["file"]]
    assert own and all(("-Werror" in command) == errors for command in own)


def test_missing_tool_skips_its_test_and_is_named(tree):
    tools = tree.directory / "bin"
    tools.mkdir()
    for name in BUILD_TOOLS:
        (tools / name).symlink_to(shutil.which(name))
    elsewhere = ";".join(("/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin",
                          "/bin", str(Path(CMAKE).parent)))
    well, said = tree.configure(f"-DCMAKE_IGNORE_PATH={elsewhere}", env={"PATH": str(tools)})
    assert well, said
    done = subprocess.run([CTEST, "-R", r"\.needs-"], cwd=tree.build, stdout=subprocess.PIPE,
                          text=True, check=False)
    assert done.returncode == 0, done.stdout
    for test in ("lint.needs-run-clang-tidy-19", "formatting.needs-clang-format-19",
                 "cppcheck.needs-cppcheck", "clazy.needs-clazy-standalone",
                 "scripts.needs-shellcheck", "page-markup.needs-tidy", "page-script.needs-node",
                 "build-clang++-Debug.needs-clang++", "endtoend_window.needs-python3"):
        assert f"{test} (Skipped)" in done.stdout


@pytest.mark.parametrize("tool", ["ORVANE_RSVG_CONVERT", "ORVANE_ICNS_MAKER"])
def test_lack_of_what_draws_the_icon_ends_the_configuration_and_is_said(tree, tool):
    well, said = tree.configure(f"-D{tool}=")
    assert not well and "apt-get install librsvg2-bin icnsutils" in " ".join(said.split())


def test_macos_links_the_four_frameworks_and_has_no_tests(tree):
    well, said = tree.configure_for_macos(FRAMEWORKS)
    assert well, said
    assert "The tests need Linux: there are none here" in said
    link = (tree.build / "build.ninja").read_text()
    for name in FRAMEWORKS:
        assert re.search(f"-framework[ ,]{name}", link), name


@pytest.mark.parametrize("missing", FRAMEWORKS)
def test_framework_that_the_macos_sdk_lacks_is_said(tree, missing):
    well, said = tree.configure_for_macos([name for name in FRAMEWORKS if name != missing])
    assert well == (missing == "AGL"), said
    assert ("no longer has the framework AGL" if well else f"lacks the framework {missing}") in said


FOLDERS = ("process", "ui", "services", "app")


def test_folder_sees_the_folders_that_it_uses_and_no_other(tree):
    well, said = tree.configure("-DCMAKE_EXPORT_COMPILE_COMMANDS=ON")
    assert well, said
    seen = {}
    for entry in json.loads((tree.build / "compile_commands.json").read_text()):
        folder = Path(entry["file"]).parent
        if folder.name in FOLDERS and folder.parent == tree.project:
            places = re.findall(r"(?:-I|-isystem )(\S+)", entry["command"])
            seen[folder.name] = {name for name in FOLDERS for place in places
                                 if Path(place, name).is_dir()}
    assert seen == {"process": {"process"}, "ui": {"ui"}, "services": {"process", "ui", "services"},
                    "app": {"process", "ui", "services", "app"}}


def test_package_for_arm64_says_so(tree):
    qt = re.search("^Qt5_DIR:PATH=(.*)$", (tree.built / "CMakeCache.txt").read_text(), re.M)
    well, said = tree.configure(  # by this machine's compiler
        f"--toolchain={tree.project}/cmake/arm64.cmake", "-DBUILD_TESTING=OFF",
        f"-DCMAKE_CXX_COMPILER={shutil.which('c++')}", f"-DQt5_DIR={qt.group(1)}",
        "-DORVANE_RPC_SERVER=/bin/true")
    assert well, said
    packs = (tree.build / "CPackConfig.cmake").read_text()
    assert 'set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "arm64")' in packs
