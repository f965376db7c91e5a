"""The lists of packages hold what the build and the tests look for."""

import pytest

NEEDED = {  # a package -> what the build or the tests take from it
    "g++": "/usr/bin/g++",
    "cmake": "/usr/bin/cmake",
    "make": "/usr/bin/make",
    "ninja-build": "/usr/bin/ninja",
    "qtbase5-dev": "/usr/lib/*/cmake/Qt5/Qt5Config.cmake",
    "libmicrohttpd-dev": "/usr/include/microhttpd.h",
    "nlohmann-json3-dev": "/usr/include/nlohmann/json.hpp",
    "pkgconf": "/usr/bin/pkg-config",
    "librsvg2-bin": "/usr/bin/rsvg-convert",
    "icnsutils": "/usr/bin/png2icns",
    "nginx": "/usr/sbin/nginx",
    "dpkg-dev": "/usr/bin/dpkg-shlibdeps",
    "file": "/usr/bin/file",
    "xvfb": "/usr/bin/Xvfb",
    "fonts-dejavu-core": "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf",
    "chromium": "/usr/bin/chromium",
    "chromium-driver": "/usr/bin/chromedriver",
    "iproute2": "/usr/sbin/ip",
    "python3": "/usr/bin/python3",
    "python3-pil": "/usr/lib/python3/dist-packages/PIL/Image.py",
    "python3-psutil": "/usr/lib/python3/dist-packages/psutil/__init__.py",
    "python3-selenium": "/usr/lib/python3/dist-packages/selenium/__init__.py",
    "python3-xlib": "/usr/lib/python3/dist-packages/Xlib/__init__.py",
    "clang": "/usr/bin/clang++",
    "desktop-file-utils": "/usr/bin/desktop-file-validate",
    "appstream": "/usr/bin/appstreamcli",
    "llvm": "/usr/bin/llvm-ar",
    "gcovr": "/usr/bin/gcovr",
    "lintian": "/usr/bin/lintian",
    "lld": "/usr/bin/ld.lld",
    "mmdebstrap": "/usr/bin/mmdebstrap",
    "procps": "/usr/bin/ps",
    "python3-markdown-it": "/usr/lib/python3/dist-packages/markdown_it/__init__.py",
    "python3-pytest": "/usr/lib/python3/dist-packages/pytest/__init__.py",
    "python3-pytest-timeout": "/usr/lib/python3/dist-packages/pytest_timeout.py",
    "clang-format-19": "/usr/bin/clang-format-19",
    "clang-tidy-19": "/usr/bin/run-clang-tidy-19",
    "clazy": "/usr/bin/clazy-standalone",
    "cppcheck": "/usr/bin/cppcheck",
    "flake8": "/usr/bin/flake8",
    "python3-flake8-docstrings": "/usr/lib/python3/dist-packages/flake8_docstrings.py",
    "isort": "/usr/bin/isort",
    "shellcheck": "/usr/bin/shellcheck",
    "tidy": "/usr/bin/tidy",
    "libclang-rt-dev": "the sanitizers of clang++",
    "nodejs": "/usr/bin/node",
}


@pytest.mark.parametrize("package", NEEDED)
def test_package_is_installed_for_the_tests(machine, package):
    machine.run("test", MISSING=package)
    assert machine.calls("apt-get")[-1:] == [
        "apt-get -q -o DPkg::Lock::Timeout=600 install -y --no-install-recommends " + package], (
            f"no list has {package}, which holds {NEEDED[package]}")
