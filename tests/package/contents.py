#!/usr/bin/python3
"""The installed bundle and the packages hold what they should, and their metadata agree."""

import os
import pathlib
import plistlib
import re
import struct
import tarfile
import tempfile
import xml.etree.ElementTree as xml

from PIL import Image

import built
from built import APP_ID, BUILD, PACKAGE, PROJECT, SYSTEM_APP, run

BUNDLE_FILES = sorted(["Contents/Info.plist", "Contents/MacOS/orvane",
                       "Contents/Resources/orvane.icns", "rpcServer/MacOs/rpcServer"]
                      + ["nginx/" + name for name in built.files(PROJECT / "bundle/nginx")
                         if not name.startswith("run/")])
PROGRAMS = ["Contents/MacOS/orvane", "nginx/sbin/nginx", "rpcServer/MacOs/rpcServer"]
BLUE, RED, WHITE = (100, 149, 237), (255, 19, 3), (255, 255, 255)


class Unpacked(built.TestCase):
    """A directory that a test can unpack or install into."""

    def setUp(self):
        self.directory = tempfile.TemporaryDirectory()
        self.addCleanup(self.directory.cleanup)
        self.path = pathlib.Path(self.directory.name)

    def unpack_deb(self):
        run("dpkg-deb", "--extract", built.deb(), self.path)
        return self.path

    def assert_is_bundle(self, app):
        self.assertEqual(built.files(app), BUNDLE_FILES)
        for name in PROGRAMS:
            self.assertTrue((app / name).stat().st_mode & 0o111, f"{name} is not executable")


class InstalledTree(Unpacked):
    def test_install_gives_the_bundle_and_nothing_else(self):
        run("cmake", "--install", BUILD, "--prefix", self.path)
        self.assertEqual([entry.name for entry in self.path.iterdir()], ["orvane.app"])
        self.assert_is_bundle(self.path / "orvane.app")

    def test_build_tree_has_the_same_bundle(self):
        in_build = [name for name in built.files(BUILD / "orvane.app")
                    if not name.startswith("nginx/run/")]
        self.assertEqual(in_build, BUNDLE_FILES)

    def test_installed_programs_search_no_library_path_of_the_build(self):
        run("cmake", "--install", BUILD, "--prefix", self.path)
        for name in ("Contents/MacOS/orvane", "rpcServer/MacOs/rpcServer"):
            dynamic = run("readelf", "--dynamic", self.path / "orvane.app" / name)
            self.assertIn("(NEEDED)", dynamic)
            self.assertNotRegex(dynamic, "RPATH|RUNPATH")

    def test_install_takes_an_integrators_services_without_their_run_files(self):
        nginx, build = self.path / "my+nginx", self.path / "build"
        for name in ("sbin/nginx", "html/a b.html", "html/run/page.html", "run/nginx.pid"):
            (nginx / name).parent.mkdir(parents=True, exist_ok=True)
            (nginx / name).write_text(name)
        (nginx / "sbin/nginx").chmod(0o755)
        server = self.path / "server"
        server.write_text("integrator's")
        run("cmake", "-S", PROJECT, "-B", build, "-G", "Ninja", "-DBUILD_TESTING=OFF",
            f"-DORVANE_NGINX_DIR={nginx}/", f"-DORVANE_RPC_SERVER={server}")
        # Only the services matter here: what the build would add stands in as an empty file.
        for name in ("Contents/MacOS/orvane", "Contents/Resources/orvane.icns"):
            (build / "orvane.app" / name).parent.mkdir(parents=True, exist_ok=True)
            (build / "orvane.app" / name).touch()
        run("cmake", "--install", build, "--prefix", self.path / "prefix")
        app = self.path / "prefix/orvane.app"
        self.assertEqual(built.files(app / "nginx"),
                         ["html/a b.html", "html/run/page.html", "sbin/nginx"])
        self.assertEqual(built.files(app / "rpcServer"), ["MacOs/rpcServer"])
        self.assertEqual((app / "rpcServer/MacOs/rpcServer").read_text(), "integrator's")
        for name in ("nginx/sbin/nginx", "rpcServer/MacOs/rpcServer"):
            self.assertTrue((app / name).stat().st_mode & 0o111, f"{name} is not executable")


class Archives(Unpacked):
    def test_archive_is_the_bundle(self):
        with tarfile.open(built.archive()) as archive:
            archive.extractall(self.path)
        self.assertEqual([entry.name for entry in self.path.iterdir()], ["orvane.app"])
        self.assert_is_bundle(self.path / "orvane.app")

    def test_debian_package_is_the_bundle_below_opt_and_what_a_desktop_reads(self):
        root = self.unpack_deb()
        app = root / SYSTEM_APP.relative_to("/")
        self.assert_is_bundle(app)
        sizes = [f"{n}x{n}" for n in (16, 22, 24, 32, 48, 64, 128, 256, 512)]
        icons = "usr/share/icons/hicolor"
        beside = [name for name in built.files(root) if not (root / name).is_relative_to(app)]
        self.assertEqual(beside, sorted(
            [f"{icons}/{size}/apps/{APP_ID}.png" for size in sizes]
            + [f"{icons}/scalable/apps/{APP_ID}.svg",
               f"usr/share/applications/{APP_ID}.desktop",
               f"usr/share/doc/{PACKAGE}/changelog.Debian.gz",
               f"usr/share/doc/{PACKAGE}/changelog.gz",
               f"usr/share/doc/{PACKAGE}/copyright",
               f"usr/share/lintian/overrides/{PACKAGE}",
               f"usr/share/metainfo/{APP_ID}.metainfo.xml"]))

    def test_everybody_may_read_the_debian_package_and_only_root_write(self):
        for line in run("dpkg-deb", "--contents", built.deb()).splitlines():
            mode, owner = line.split()[:2]
            self.assertEqual(owner, "root/root", line)
            self.assertRegex(mode, "^(drwxr-xr-x|-rwxr-xr-x|-rw-r--r--)$", line)

    def test_debian_package_depends_on_nginx_and_on_the_libraries_of_both_programs(self):
        depends = run("dpkg-deb", "--field", built.deb(), "Depends")
        for name in ("nginx", "libc6", "libstdc\\+\\+6", "libqt5core5a", "libqt5widgets5",
                     "libmicrohttpd"):
            self.assertRegex(depends, f"(^|, ){name}")

    def test_menu_entry_starts_a_program_of_the_package(self):
        root = self.unpack_deb()
        entry = (root / f"usr/share/applications/{APP_ID}.desktop").read_text()
        program = re.search("^Exec=(.*)$", entry, re.MULTILINE).group(1)
        self.assertNotRegex(program, r"\s")
        self.assertTrue((root / program.lstrip("/")).is_file(), program)
        icon = re.search("^Icon=(.*)$", entry, re.MULTILINE).group(1)
        self.assertEqual(icon, APP_ID)


class Metadata(Unpacked):
    def test_the_projects_version_is_everywhere(self):
        root = self.unpack_deb()
        with (root / SYSTEM_APP.relative_to("/") / "Contents/Info.plist").open("rb") as file:
            plist = plistlib.load(file)
        metainfo = xml.parse(root / f"usr/share/metainfo/{APP_ID}.metainfo.xml")
        changelog = (PROJECT / "CHANGELOG.md").read_text()
        newest = re.search(r"^## \[([0-9.]+)\] - (\S+)$", changelog, re.MULTILINE)
        release = metainfo.find("releases/release")
        debian = run("dpkg-deb", "--field", built.deb(), "Version").strip()
        log = run("dpkg-parsechangelog", "--file",
                  root / f"usr/share/doc/{PACKAGE}/changelog.Debian.gz", "--show-field", "Version")
        self.assertEqual({"Info.plist": plist["CFBundleVersion"],
                          "Info.plist, short": plist["CFBundleShortVersionString"],
                          "package": debian.rpartition("-")[0],
                          "Debian changelog": log.strip().rpartition("-")[0],
                          "metadata": release.get("version"),
                          "CHANGELOG.md": newest.group(1)},
                         dict.fromkeys(("Info.plist", "Info.plist, short", "package",
                                        "Debian changelog", "metadata", "CHANGELOG.md"),
                                       built.version()))
        self.assertEqual(release.get("date"), newest.group(2))

    def test_info_plist_names_the_program_and_its_icon(self):
        app = BUILD / "orvane.app"
        with (app / "Contents/Info.plist").open("rb") as file:
            plist = plistlib.load(file)
        self.assertTrue((app / "Contents/MacOS" / plist["CFBundleExecutable"]).is_file())
        self.assertTrue((app / "Contents/Resources" / plist["CFBundleIconFile"]).is_file())
        self.assertEqual(plist["CFBundleIdentifier"], APP_ID)
        self.assertEqual(plist["CFBundlePackageType"], "APPL")
        self.assertIs(plist["NSHighResolutionCapable"], True)
        self.assertRegex(plist["LSMinimumSystemVersion"], r"^\d+\.\d+$")

    def test_no_licence_is_claimed(self):
        root = self.unpack_deb()
        metainfo = xml.parse(root / f"usr/share/metainfo/{APP_ID}.metainfo.xml")
        self.assertEqual(metainfo.findtext("project_license"), "LicenseRef-proprietary")
        words = (root / f"usr/share/doc/{PACKAGE}/copyright").read_text()
        self.assertIn("LicenseRef-proprietary", words)
        self.assertIn("No licence has been chosen", words)

    def test_the_platforms_own_checks_find_nothing(self):
        root = self.unpack_deb()
        self.assertEqual(run("desktop-file-validate",
                             root / f"usr/share/applications/{APP_ID}.desktop"), "")
        run("appstreamcli", "validate", "--no-net",
            root / f"usr/share/metainfo/{APP_ID}.metainfo.xml")
        run("lintian", "--fail-on", "error,warning", "--allow-root", built.deb(),
            env={**os.environ, "TMPDIR": str(self.path)})  # it does not clean up after itself


class Icon(Unpacked):
    def test_each_size_is_drawn_in_the_windows_colours(self):
        icons = self.unpack_deb() / "usr/share/icons/hicolor"
        pngs = sorted(icons.glob("*x*/apps/*.png"))
        self.assertEqual(len(pngs), 9)
        for png in pngs:
            size = int(png.parts[-3].partition("x")[0])
            with Image.open(png) as image:
                self.assertEqual(image.size, (size, size))
                opaque = {pixel[:3] for _, pixel in image.convert("RGBA").getcolors(size * size)
                          if pixel[3] == 255}
            self.assertLessEqual({BLUE, RED, WHITE}, opaque, png)

    def test_bundles_icon_holds_each_size_of_macos(self):
        data = (BUILD / "orvane.app/Contents/Resources/orvane.icns").read_bytes()
        self.assertEqual(struct.unpack(">4sI", data[:8]), (b"icns", len(data)))
        with Image.open(BUILD / "orvane.app/Contents/Resources/orvane.icns") as icon:
            sizes = {width * scale for width, _, scale in icon.info["sizes"]}
        self.assertLessEqual({16, 32, 128, 256, 512, 1024}, sizes)


class TranslatorsTemplate(built.TestCase):
    def test_template_holds_exactly_the_windows_texts(self):
        run("cmake", "--build", BUILD, "--target", "translations")
        root = xml.parse(BUILD / "translations/orvane.ts").getroot()
        self.assertEqual([context.findtext("name") for context in root.iter("context")],
                         ["MainWindow"])
        self.assertEqual(sorted(source.text for source in root.iter("source")), sorted([
            "MainWindow", "Orvane Launcher", "Directions", "RPC Service", "Nginx",
            "Deploy Servicde", "Stop Service",
            "[About Start] Please click the [Deploy Service] bottom.Then ope the "
            "(Chrome/Firefox) browser,type \"http://localhost:4200\" into the URL blank,go in. ",
            "[About Close] Please check that all your device playing has been stopped.Then "
            "click the [Stop Service] buttom to stop all orvane services",
            "[About Restart] If you find that the DPS number(onthe right top side of the "
            "video window) always been 0 while you had opened the channel.You can try to "
            "restart the services by clicking the [Deploy Service] bottom again"]))
        self.assertEqual(list(root.iter("comment")), [])


if __name__ == "__main__":
    built.unittest.main()
