"""What of an integrator's services comes into the bundle, and what the configuration refuses."""

import os
import re
import shutil
import stat
import subprocess

import pytest


def write(path, text, mode=0o644):
    """Makes a file, and the directories above it."""
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="ascii")
    path.chmod(mode)


def files(directory):
    """Returns what is in it that is no directory."""
    return {str(path.relative_to(directory)) for path in directory.rglob("*") if not path.is_dir()}


class Tree:
    """A build tree of the project, and an integrator's services beside it."""

    def __init__(self, project, directory):
        self.project = project
        self.directory = directory
        self.build = directory / "build"
        self.nginx, self.server = directory / "my+nginx dir", directory / "my server"
        write(self.nginx / "sbin/nginx", "#!/bin/sh\n", 0o755)
        write(self.nginx / "html/a b.html", "first")
        (self.nginx / "logs").mkdir()
        write(self.nginx / "run/nginx.pid", "1\n")  # of an nginx that ran here
        shutil.copy("/bin/sleep", self.server)
        # What is made of them.
        self.bundle = self.build / "orvane.app"
        self.staged, self.program = self.bundle / "nginx", self.bundle / "rpcServer/MacOs/rpcServer"

    @staticmethod
    def cmake(*arguments, fails=False):
        """Runs CMake, which goes well unless it `fails`. Returns its output."""
        done = subprocess.run(["cmake", *arguments], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)
        assert (done.returncode != 0) == fails, done.stdout
        return done.stdout

    def configure(self, *options, **how):
        """Returns CMake's output."""
        return self.cmake("-S", self.project, "-B", self.build, "-G", "Ninja",
                          "-DBUILD_TESTING=OFF", *options, **how)

    def stage(self):
        """Brings the bundle's services up to date."""
        self.cmake("--build", self.build, "--target", "stage_nginx", "stage_rpc_server")

    def plan(self, *target):
        """Returns what a build would do."""
        return self.cmake("--build", self.build, *target, "--", "-n")


@pytest.fixture
def tree(project, directory):
    """A tree that is not configured yet."""
    return Tree(project, directory)


@pytest.fixture
def staged(tree):
    """A tree in which the integrator's services are staged."""
    tree.configure(f"-DORVANE_NGINX_DIR={tree.nginx}", f"-DORVANE_RPC_SERVER={tree.server}")
    tree.stage()
    return tree


def test_stages_both_where_the_launcher_looks_without_the_samples_libraries(staged):
    assert files(staged.staged) == {"sbin/nginx", "html/a b.html"}
    assert os.access(staged.staged / "sbin/nginx", os.X_OK)
    assert (staged.staged / "logs").is_dir()
    assert [path.name for path in staged.program.parents[1].iterdir()] == ["MacOs"]
    assert staged.program.read_bytes() == staged.server.read_bytes()
    assert os.access(staged.program, os.X_OK)
    cache = (staged.build / "CMakeCache.txt").read_text(encoding="utf-8")
    assert not re.search("microhttpd|nlohmann", cache)
    assert "Staging nginx" in staged.plan()
    assert "Staging the RPC server" in staged.plan()


def test_stages_what_was_edited_added_and_removed_and_keeps_what_nginx_wrote(staged):
    page, added = staged.nginx / "html/a b.html", staged.nginx / "html/new.html"
    times = page.stat()
    write(page, "other")
    os.utime(page, ns=(times.st_atime_ns, times.st_mtime_ns))  # which the clock does not show
    write(added, "new")
    write(staged.staged / "run/nginx.pid", "1\n")
    write(staged.staged / "logs/access.log", "a line\n")
    written = {"run/nginx.pid", "logs/access.log"}
    staged.stage()
    assert (staged.staged / "html/a b.html").read_text("ascii") == "other"
    assert files(staged.staged) == {"sbin/nginx", "html/a b.html", "html/new.html"} | written
    page.unlink()
    staged.stage()
    assert files(staged.staged) == {"sbin/nginx", "html/new.html"} | written


def test_stages_permissions_and_links_and_leaves_the_rest_in_its_place(staged):
    page = staged.staged / "html/a b.html"
    (staged.nginx / "html/link").symlink_to("a b.html")
    (staged.nginx / "html/a b.html").chmod(0o600)
    with open(page, encoding="ascii") as before:  # so that its number is not given again
        staged.stage()
        assert page.stat().st_ino == os.fstat(before.fileno()).st_ino
    assert os.readlink(staged.staged / "html/link") == "a b.html"
    assert stat.S_IMODE(page.stat().st_mode) == 0o600


def test_replaces_programs_that_run(staged, ending):
    shutil.copy("/bin/sleep", staged.nginx / "sbin/nginx")
    staged.stage()
    for source, program in ((staged.server, staged.program),
                            (staged.nginx / "sbin/nginx", staged.staged / "sbin/nginx")):
        running = ending.enter_context(subprocess.Popen([program, "600"]))
        ending.callback(running.kill)
        with open(source, "ab") as newer:
            newer.write(b"a newer build")
        staged.stage()
        assert running.poll() is None
        assert program.read_bytes() == source.read_bytes()


def test_goes_back_to_the_sample_and_leaves_nothing_behind(staged):
    staged.configure("-UORVANE_NGINX_DIR", "-UORVANE_RPC_SERVER")
    staged.cmake("--build", staged.build, "--target", "stage_nginx")
    sample = staged.project / "bundle/nginx"
    assert files(staged.staged) == files(sample)
    assert (staged.staged / "sbin/nginx").read_bytes() == (sample / "sbin/nginx").read_bytes()
    assert "Linking CXX executable bundle/rpcServer/rpcServer" in staged.plan(
        "--target", "stage_rpc_server")


def test_installs_them_without_what_nginx_wrote(staged):
    write(staged.nginx / "html/run/page.html", "a page")
    for name in ("MacOS/orvane", "Resources/orvane.icns"):  # in the place of what a build makes
        write(staged.bundle / "Contents" / name, "")
    staged.configure(f"-DORVANE_NGINX_DIR={staged.nginx}/")
    staged.cmake("--install", staged.build, "--prefix", staged.directory / "prefix")
    app = staged.directory / "prefix/orvane.app"
    assert files(app / "nginx") == {"html/a b.html", "html/run/page.html", "sbin/nginx"}
    assert files(app / "rpcServer") == {"MacOs/rpcServer"}
    assert (app / "rpcServer/MacOs/rpcServer").read_bytes() == staged.server.read_bytes()
    for name in ("Contents/MacOS/orvane-launcher", "nginx/sbin/nginx", "rpcServer/MacOs/rpcServer"):
        assert os.access(app / name, os.X_OK), name


@pytest.mark.parametrize(("name", "path"), [
    ("ORVANE_NGINX_DIR", "missing"), ("ORVANE_NGINX_DIR", "my server"),
    ("ORVANE_RPC_SERVER", "missing"), ("ORVANE_RPC_SERVER", "my+nginx dir")])
def test_refuses_a_path_that_does_not_exist(tree, name, path):
    output = tree.configure(f"-D{name}={tree.directory / path}", fails=True)
    line, = (line for line in output.splitlines() if str(tree.directory / path) in line)
    assert re.search(f"{name}: there is no (directory|file) ", line)
