"""The installed bundle and the packages hold what they should, and their metadata agree."""

import os
import plistlib
import re
import subprocess
import xml.etree.ElementTree as xml

import pytest
from built import (APP_ID, BUILD, PACKAGE, PROJECT, SYSTEM_APP, deb, dependencies, files,
                   menu_entry, only, run, version)
from PIL import Image

BUNDLE_FILES = sorted(["Contents/Info.plist", "Contents/MacOS/orvane",
                       "Contents/MacOS/orvane-launcher", "Contents/Resources/orvane.icns",
                       "rpcServer/MacOs/rpcServer"]
                      + ["nginx/" + name for name in files(PROJECT / "bundle/nginx")
                         if not name.startswith("run/")])
BLUE, RED, WHITE = (100, 149, 237), (255, 19, 3), (255, 255, 255)


@pytest.fixture
def root(directory):
    """The Debian package, unpacked."""
    run("dpkg-deb", "--extract", deb(), directory)
    return directory


@pytest.fixture
def metainfo(root):
    """What it tells software centres, as XML."""
    return xml.parse(root / f"usr/share/metainfo/{APP_ID}.metainfo.xml")


def assert_is_bundle(app):
    """It has a bundle's files and no others, and its programs can be executed."""
    assert files(app) == BUNDLE_FILES
    for name in ("Contents/MacOS/orvane", "Contents/MacOS/orvane-launcher", "nginx/sbin/nginx",
                 "rpcServer/MacOs/rpcServer"):
        assert (app / name).stat().st_mode & 0o111, f"{name} is not executable"


def plist_of(app):
    """Returns what its Info.plist says."""
    return plistlib.loads((app / "Contents/Info.plist").read_bytes())


def test_install_gives_the_bundle_of_the_build_tree_and_nothing_else(directory):
    run("cmake", "--install", BUILD, "--prefix", directory)
    assert [entry.name for entry in directory.iterdir()] == ["orvane.app"]
    app = directory / "orvane.app"
    assert_is_bundle(app)
    assert [name for name in files(BUILD / "orvane.app")
            if not name.startswith("nginx/run/")] == BUNDLE_FILES


@pytest.mark.parametrize("program", ["Contents/MacOS/orvane", "rpcServer/MacOs/rpcServer"])
def test_installed_program_searches_no_library_path_of_the_build(program, directory):
    run("cmake", "--install", BUILD, "--prefix", directory)
    dynamic = run("readelf", "--dynamic", directory / "orvane.app" / program)
    assert "(NEEDED)" in dynamic
    assert not re.search("RPATH|RUNPATH", dynamic)


def test_archive_is_the_bundle(directory):
    run("tar", "-C", directory, "-xf", only(f"orvane-{version()}-*.tar.gz"))
    assert [entry.name for entry in directory.iterdir()] == ["orvane.app"]
    assert_is_bundle(directory / "orvane.app")


def test_debian_package_is_the_bundle_below_opt_and_what_a_desktop_reads(root):
    app = root / SYSTEM_APP
    assert_is_bundle(app)
    sizes = [f"{n}x{n}" for n in (16, 22, 24, 32, 48, 64, 128, 256, 512)]
    icons = "usr/share/icons/hicolor"
    assert [name for name in files(root) if not (root / name).is_relative_to(app)] == sorted(
        [f"{icons}/{size}/apps/{APP_ID}.png" for size in sizes]
        + ["usr/bin/orvane-launcher", f"{icons}/scalable/apps/{APP_ID}.svg",
           f"usr/share/applications/{APP_ID}.desktop",
           f"usr/share/doc/{PACKAGE}/changelog.Debian.gz",
           f"usr/share/doc/{PACKAGE}/changelog.gz",
           f"usr/share/doc/{PACKAGE}/copyright",
           f"usr/share/lintian/overrides/{PACKAGE}",
           f"usr/share/metainfo/{APP_ID}.metainfo.xml"])


def test_everybody_may_read_the_debian_package_and_only_root_write():
    for line in run("dpkg-deb", "--contents", deb()).splitlines():
        assert re.match("(drwxr-xr-x|-rwxr-xr-x|-rw-r--r--|lrwxrwxrwx) root/root ", line), line


@pytest.mark.parametrize("names", [
    pytest.param({"nginx"}, id="the server that the sample runs"),
    pytest.param({"qtwayland5"}, id="what shows the window where there is no X"),
    pytest.param({"libqt5widgets5", "libqt5widgets5t64"}, id="the launcher's library"),
    pytest.param({"libmicrohttpd12", "libmicrohttpd12t64"}, id="the RPC server's library")])
def test_debian_package_depends_on(names):
    assert names & set(dependencies(deb())), dependencies(deb())


@pytest.mark.parametrize("tool", ["dpkg-shlibdeps", "file"])
def test_lack_of_what_finds_its_libraries_ends_the_packaging_and_is_said(tool):
    done = subprocess.run(
        ["cmake", "-DCPACK_GENERATOR=DEB", f"-Dprogram_{tool}=", "-P",
         BUILD / "packaging/Generator.cmake"], stderr=subprocess.PIPE, text=True, check=False)
    assert f"{tool} is missing: apt-get install dpkg-dev file" in done.stderr
    assert done.returncode != 0


def test_menu_entry_starts_the_packages_command(root):
    command = root / menu_entry(root, "Exec").lstrip("/")
    assert os.readlink(command) == f"/{SYSTEM_APP}/Contents/MacOS/orvane-launcher"


def test_menu_entry_shows_the_packages_icon(root):
    assert menu_entry(root, "Icon") == APP_ID


def test_projects_version_is_everywhere(root, metainfo):
    plist = plist_of(root / SYSTEM_APP)
    newest = re.search(r"^## \[([0-9.]+)\] - \S+$", (PROJECT / "CHANGELOG.md").read_text(),
                       re.MULTILINE)
    release = metainfo.find("releases/release")
    debian = run("dpkg-deb", "--field", deb(), "Version").strip()
    log = run("dpkg-parsechangelog", "--file",
              root / f"usr/share/doc/{PACKAGE}/changelog.Debian.gz", "--show-field", "Version")
    found = {"Info.plist": plist["CFBundleVersion"],
             "Info.plist, short": plist["CFBundleShortVersionString"],
             "package": debian.rpartition("-")[0],
             "Debian changelog": log.strip().rpartition("-")[0],
             "metadata": release.get("version"),
             "CHANGELOG.md": newest.group(1)}
    assert found == dict.fromkeys(found, version())


def test_date_of_the_release_is_the_changelogs(metainfo):
    newest = re.search(r"^## \[[0-9.]+\] - (\S+)$", (PROJECT / "CHANGELOG.md").read_text(),
                       re.MULTILINE)
    assert metainfo.find("releases/release").get("date") == newest.group(1)


@pytest.mark.parametrize("folder, key", [
    pytest.param("MacOS", "CFBundleExecutable", id="program"),
    pytest.param("Resources", "CFBundleIconFile", id="icon")])
def test_info_plist_names_a_file_of_the_bundle(folder, key):
    app = BUILD / "orvane.app"
    assert (app / "Contents" / folder / plist_of(app)[key]).is_file()


def test_info_plist_says_how_macos_is_to_start_it():
    plist = plist_of(BUILD / "orvane.app")
    expected = {"CFBundleIdentifier": APP_ID, "CFBundlePackageType": "APPL",
                "NSHighResolutionCapable": True, "NSRequiresAquaSystemAppearance": True}
    assert {key: plist.get(key) for key in expected} == expected


def test_info_plist_names_the_oldest_macos():
    assert re.fullmatch(r"\d+\.\d+", plist_of(BUILD / "orvane.app")["LSMinimumSystemVersion"])


def test_metadata_claim_no_licence(metainfo):
    assert metainfo.findtext("project_license") == "LicenseRef-proprietary"


@pytest.mark.parametrize("words", ["LicenseRef-proprietary", "No licence has been chosen"])
def test_copyright_claims_no_licence(words, root):
    assert words in (root / f"usr/share/doc/{PACKAGE}/copyright").read_text()


def test_menu_entry_is_valid(root):
    assert run("desktop-file-validate", root / f"usr/share/applications/{APP_ID}.desktop") == ""


def test_metadata_are_valid(root):
    run("appstreamcli", "validate", "--no-net",
        root / f"usr/share/metainfo/{APP_ID}.metainfo.xml")


@pytest.mark.timeout(300)  # it takes its time
def test_lintian_finds_nothing_in_the_debian_package(root):
    run("lintian", "--fail-on", "error,warning", "--allow-root", deb(),
        env={**os.environ, "TMPDIR": str(root)})  # it does not clean up after itself


def test_icon_of_each_size_is_drawn_in_the_windows_colours(root):
    pngs = sorted((root / "usr/share/icons/hicolor").glob("*x*/apps/*.png"))
    assert len(pngs) == 9
    for png in pngs:
        size = int(png.parts[-3].partition("x")[0])
        with Image.open(png) as image:
            assert image.size == (size, size)
            opaque = {pixel[:3] for _, pixel in image.convert("RGBA").getcolors(size * size)
                      if pixel[3] == 255}
        assert opaque >= {BLUE, RED, WHITE}, png


def test_bundles_icon_holds_each_size_of_macos():
    with Image.open(BUILD / "orvane.app/Contents/Resources/orvane.icns") as icon:
        sizes = {width * scale for width, _, scale in icon.info["sizes"]}
    assert sizes >= {16, 32, 128, 256, 512, 1024}
