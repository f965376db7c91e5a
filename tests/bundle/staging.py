"""What a build puts into the bundle, and what the configuration refuses."""

import os
import shutil
import stat
import subprocess
import tempfile
import unittest
from pathlib import Path

SOURCE = Path(os.environ["ORVANE_SOURCE"])
CMAKE = os.environ["ORVANE_CMAKE"]
TARGETS = ["stage_nginx", "stage_rpc_server"]


class Staging(unittest.TestCase):
    def setUp(self):
        self.scratch = Path(tempfile.mkdtemp(prefix="orvane-staging-"))
        self.addCleanup(shutil.rmtree, self.scratch)
        self.build = self.scratch / "build"
        self.bundle = self.build / "orvane.app"
        self.nginx = self.scratch / "my nginx"
        self.write(self.nginx / "sbin/nginx", "#!/bin/sh\n", 0o755)
        self.write(self.nginx / "html/a b.html", "first")
        (self.nginx / "logs").mkdir()
        self.server = self.scratch / "my server"
        shutil.copy("/bin/sleep", self.server)

    @staticmethod
    def write(path, text, mode=0o644):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="ascii")
        path.chmod(mode)

    def cmake(self, *arguments):
        return subprocess.run([CMAKE, *arguments], stdout=subprocess.PIPE, timeout=300,
                              stderr=subprocess.STDOUT, text=True, check=False)

    def configure(self, **variables):
        return self.cmake("-S", SOURCE, "-B", self.build, "-G", "Ninja", "-DBUILD_TESTING=OFF",
                          *(f"-D{name}={value}" for name, value in variables.items()))

    def stage(self, targets=tuple(TARGETS)):
        done = self.cmake("--build", self.build, "--target", *targets)
        self.assertEqual(done.returncode, 0, done.stdout)

    def staged(self):
        done = self.configure(ORVANE_NGINX_DIR=self.nginx, ORVANE_RPC_SERVER=self.server)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.stage()

    def files(self):
        """What is staged as nginx."""
        top = self.bundle / "nginx"
        return {str(path.relative_to(top)) for path in top.rglob("*") if not path.is_dir()}

    def test_stages_both_where_the_launcher_looks(self):
        self.staged()
        self.assertTrue(os.access(self.bundle / "nginx/sbin/nginx", os.X_OK))
        self.assertEqual(self.files(), {"sbin/nginx", "html/a b.html"})
        self.assertTrue((self.bundle / "nginx/logs").is_dir())
        self.assertEqual([path.name for path in (self.bundle / "rpcServer").iterdir()], ["MacOs"])
        program = self.bundle / "rpcServer/MacOs/rpcServer"
        self.assertEqual(program.read_bytes(), self.server.read_bytes())
        self.assertTrue(os.access(program, os.X_OK))

    def test_looks_for_no_library_of_the_sample_when_it_is_replaced(self):
        self.staged()
        cache = (self.build / "CMakeCache.txt").read_text(encoding="utf-8")
        for name in ("httplib", "nlohmann"):
            self.assertNotIn(name, cache)

    def test_stages_what_was_edited_added_and_removed(self):
        self.staged()
        self.write(self.nginx / "html/a b.html", "second")
        self.write(self.nginx / "html/new.html", "new")
        self.stage()
        self.assertEqual((self.bundle / "nginx/html/a b.html").read_text("ascii"), "second")
        self.assertIn("html/new.html", self.files())
        (self.nginx / "html/new.html").unlink()
        self.stage()
        self.assertNotIn("html/new.html", self.files())

    def test_stages_an_edit_that_the_clock_does_not_show(self):
        self.staged()
        page = self.nginx / "html/a b.html"
        times = page.stat()
        self.write(page, "other")
        os.utime(page, ns=(times.st_atime_ns, times.st_mtime_ns))
        self.stage()
        self.assertEqual((self.bundle / "nginx/html/a b.html").read_text("ascii"), "other")

    def test_stages_permissions_and_links(self):
        (self.nginx / "html/link").symlink_to("a b.html")
        self.staged()
        (self.nginx / "html/a b.html").chmod(0o600)
        self.stage()
        self.assertEqual(os.readlink(self.bundle / "nginx/html/link"), "a b.html")
        mode = (self.bundle / "nginx/html/a b.html").stat().st_mode
        self.assertEqual(stat.S_IMODE(mode), 0o600)

    def test_leaves_what_did_not_change_in_its_place(self):
        self.staged()
        page = self.bundle / "nginx/html/a b.html"
        with open(page, encoding="ascii") as before:  # open, so that its number is not given again
            self.stage()
            self.assertEqual(page.stat().st_ino, os.fstat(before.fileno()).st_ino)

    def test_is_part_of_every_build(self):
        self.staged()
        planned = self.cmake("--build", self.build, "--", "-n").stdout
        self.assertIn("Staging nginx", planned)
        self.assertIn("Staging the RPC server", planned)

    def test_keeps_what_a_running_nginx_has_written(self):
        self.staged()
        self.write(self.bundle / "nginx/run/nginx.pid", "1\n")
        self.write(self.bundle / "nginx/logs/access.log", "a line\n")
        (self.nginx / "html/a b.html").unlink()
        self.stage()
        self.assertEqual(self.files(), {"sbin/nginx", "run/nginx.pid", "logs/access.log"})

    def test_clears_the_files_of_a_directory_that_is_no_longer_staged(self):
        self.staged()
        other = self.scratch / "other"
        self.write(other / "sbin/nginx", "#!/bin/sh\n# the other\n", 0o755)
        self.configure(ORVANE_NGINX_DIR=other)
        self.stage()
        self.assertEqual(self.files(), {"sbin/nginx"})
        self.assertIn("the other", (self.bundle / "nginx/sbin/nginx").read_text("ascii"))

    def test_replaces_programs_that_run(self):
        shutil.copy("/bin/sleep", self.nginx / "sbin/nginx")
        self.staged()
        for source, program in ((self.server, self.bundle / "rpcServer/MacOs/rpcServer"),
                                (self.nginx / "sbin/nginx", self.bundle / "nginx/sbin/nginx")):
            with subprocess.Popen([program, "600"]) as running:
                self.addCleanup(running.kill)
                with open(source, "ab") as server:
                    server.write(b"a newer build")
                self.stage()
                self.assertIsNone(running.poll())
                running.kill()
            self.assertEqual(program.read_bytes(), source.read_bytes())

    def test_goes_back_to_the_sample(self):
        self.staged()
        done = self.cmake("-S", SOURCE, "-B", self.build, "-UORVANE_NGINX_DIR",
                          "-UORVANE_RPC_SERVER")
        self.assertEqual(done.returncode, 0, done.stdout)
        self.stage()
        program = (self.bundle / "rpcServer/MacOs/rpcServer").read_bytes()
        self.assertIn(b"rpcServer: listening on 127.0.0.1:4201", program)
        sample = (SOURCE / "bundle/nginx/sbin/nginx").read_bytes()
        self.assertEqual((self.bundle / "nginx/sbin/nginx").read_bytes(), sample)

    def test_refuses_a_path_that_does_not_exist(self):
        for name, path in (("ORVANE_NGINX_DIR", self.scratch / "missing"),
                           ("ORVANE_NGINX_DIR", self.server),
                           ("ORVANE_RPC_SERVER", self.scratch / "missing"),
                           ("ORVANE_RPC_SERVER", self.nginx)):
            with self.subTest(name=name, path=path):
                shutil.rmtree(self.build, ignore_errors=True)
                done = self.configure(**{name: path})
                self.assertNotEqual(done.returncode, 0)
                lines = [line for line in done.stdout.splitlines() if str(path) in line]
                self.assertEqual(len(lines), 1, done.stdout)
                self.assertRegex(lines[0], f"{name}: there is no (directory|file) ")


if __name__ == "__main__":
    unittest.main()
