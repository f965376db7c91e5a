#!/usr/bin/python3
"""The installed bundle runs from wherever it is moved to."""

import pathlib
import shutil
import tempfile

import built
from built import BUILD, run
from product import Desktop, Launcher, use


class Moved(built.TestCase):
    def test_installed_bundle_serves_from_where_it_was_moved_to(self):
        with tempfile.TemporaryDirectory() as directory:
            place = pathlib.Path(directory).resolve()
            prefix, elsewhere = place / "prefix", place / "elsewhere"
            run("cmake", "--install", BUILD, "--prefix", prefix)
            elsewhere.mkdir()
            shutil.move(prefix / "orvane.app", elsewhere)
            prefix.rmdir()
            app = elsewhere / "orvane.app"
            page = (app / "nginx/html/index.html").read_bytes()
            with Desktop() as desktop, Launcher(desktop, app / "Contents/MacOS/orvane",
                                                landmarks=BUILD / "landmarks") as launcher:
                def services_are_the_moved_ones():
                    # nginx is told its directory; the RPC server has no arguments at all.
                    programs = [" ".join([process.exe(), *process.cmdline()])
                                for process in launcher.started()]
                    for name in ("nginx", "rpcServer/MacOs/rpcServer"):
                        self.assertTrue(any(f"{app}/{name}" in line for line in programs),
                                        (name, programs))

                use(launcher, page, services_are_the_moved_ones)


if __name__ == "__main__":
    built.unittest.main()
