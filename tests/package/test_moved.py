"""The installed bundle runs from wherever it is moved to."""

import shutil

from built import BUILD, run, use

from drive.desktop import Desktop, Launcher


def test_installed_bundle_serves_from_where_it_was_moved_to(directory):
    prefix, app = directory / "prefix", directory / "elsewhere/orvane.app"
    run("cmake", "--install", BUILD, "--prefix", prefix)
    app.parent.mkdir()
    shutil.move(prefix / "orvane.app", app)
    with Desktop() as desktop, Launcher(desktop, app / "Contents/MacOS/orvane",
                                        landmarks=BUILD / "landmarks") as launcher:
        def services_are_the_moved_ones():
            # nginx is told its directory; the RPC server has no arguments at all.
            programs = [" ".join([process.exe(), *process.cmdline()])
                        for process in launcher.started()]
            for name in ("nginx", "rpcServer/MacOs/rpcServer"):
                assert any(f"{app}/{name}" in line for line in programs), (name, programs)

        use(launcher, app, services_are_the_moved_ones)
