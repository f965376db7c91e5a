"""What a build puts into the bundle, and what the configuration refuses."""

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


def cmake(*arguments):
    """Runs CMake. Returns its exit status and its output."""
    done = subprocess.run(["cmake", *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          text=True, check=False)
    return done.returncode, done.stdout


class Tree:
    """A build tree of the project, and an integrator's services beside it."""

    def __init__(self, project, directory):
        self.project = project
        self.directory = directory
        self.build = directory / "build"
        self.bundle = self.build / "orvane.app"
        self.nginx = directory / "my nginx"
        write(self.nginx / "sbin/nginx", "#!/bin/sh\n", 0o755)
        write(self.nginx / "html/a b.html", "first")
        (self.nginx / "logs").mkdir()
        self.server = directory / "my server"
        shutil.copy("/bin/sleep", self.server)
        self.page = self.bundle / "nginx/html/a b.html"
        self.program = self.bundle / "rpcServer/MacOs/rpcServer"

    def configure(self, *options):
        """Returns CMake's exit status and its output."""
        return cmake("-S", self.project, "-B", self.build, "-G", "Ninja", "-DBUILD_TESTING=OFF",
                     *options)

    def stage(self):
        """Brings the bundle's services up to date."""
        status, output = cmake("--build", self.build, "--target", "stage_nginx", "stage_rpc_server")
        assert status == 0, output

    def files(self):
        """Returns what is staged as nginx."""
        top = self.bundle / "nginx"
        return {str(path.relative_to(top)) for path in top.rglob("*") if not path.is_dir()}


@pytest.fixture
def tree(project, directory):
    """A tree that is not configured yet."""
    return Tree(project, directory)


@pytest.fixture
def staged(tree):
    """A tree in which the integrator's services are staged."""
    status, output = tree.configure(f"-DORVANE_NGINX_DIR={tree.nginx}",
                                    f"-DORVANE_RPC_SERVER={tree.server}")
    assert status == 0, output
    tree.stage()
    return tree


def test_stages_both_where_the_launcher_looks(staged):
    assert os.access(staged.bundle / "nginx/sbin/nginx", os.X_OK)
    assert staged.files() == {"sbin/nginx", "html/a b.html"}
    assert (staged.bundle / "nginx/logs").is_dir()
    assert [path.name for path in (staged.bundle / "rpcServer").iterdir()] == ["MacOs"]
    assert staged.program.read_bytes() == staged.server.read_bytes()
    assert os.access(staged.program, os.X_OK)
    # And it looks for no library of the sample server, and every build does it.
    cache = (staged.build / "CMakeCache.txt").read_text(encoding="utf-8")
    assert not re.search("microhttpd|nlohmann", cache)
    planned = cmake("--build", staged.build, "--", "-n")[1]
    assert "Staging nginx" in planned
    assert "Staging the RPC server" in planned


def test_stages_what_was_edited_added_and_removed(staged):
    write(staged.nginx / "html/a b.html", "second")
    write(staged.nginx / "html/new.html", "new")
    staged.stage()
    assert staged.page.read_text("ascii") == "second"
    assert "html/new.html" in staged.files()
    (staged.nginx / "html/new.html").unlink()
    staged.stage()
    assert "html/new.html" not in staged.files()


def test_stages_an_edit_that_the_clock_does_not_show(staged):
    page = staged.nginx / "html/a b.html"
    times = page.stat()
    write(page, "other")
    os.utime(page, ns=(times.st_atime_ns, times.st_mtime_ns))
    staged.stage()
    assert staged.page.read_text("ascii") == "other"


def test_stages_permissions_and_links_and_leaves_the_rest_in_its_place(staged):
    (staged.nginx / "html/link").symlink_to("a b.html")
    (staged.nginx / "html/a b.html").chmod(0o600)
    with open(staged.page, encoding="ascii") as before:  # so that its number is not given again
        staged.stage()
        assert staged.page.stat().st_ino == os.fstat(before.fileno()).st_ino
    assert os.readlink(staged.bundle / "nginx/html/link") == "a b.html"
    assert stat.S_IMODE(staged.page.stat().st_mode) == 0o600


def test_keeps_what_a_running_nginx_has_written(staged):
    write(staged.bundle / "nginx/run/nginx.pid", "1\n")
    write(staged.bundle / "nginx/logs/access.log", "a line\n")
    (staged.nginx / "html/a b.html").unlink()
    staged.stage()
    assert staged.files() == {"sbin/nginx", "run/nginx.pid", "logs/access.log"}


def test_clears_the_files_of_a_directory_that_is_no_longer_staged(staged):
    other = staged.directory / "other"
    write(other / "sbin/nginx", "#!/bin/sh\n# the other\n", 0o755)
    staged.configure(f"-DORVANE_NGINX_DIR={other}")
    staged.stage()
    assert staged.files() == {"sbin/nginx"}
    assert "the other" in (staged.bundle / "nginx/sbin/nginx").read_text("ascii")


def test_replaces_programs_that_run(tree, ending, request):
    shutil.copy("/bin/sleep", tree.nginx / "sbin/nginx")
    staged = request.getfixturevalue("staged")
    for source, program in ((staged.server, staged.program),
                            (staged.nginx / "sbin/nginx", staged.bundle / "nginx/sbin/nginx")):
        running = ending.enter_context(subprocess.Popen([program, "600"]))
        ending.callback(running.kill)
        with open(source, "ab") as server:
            server.write(b"a newer build")
        staged.stage()
        assert running.poll() is None
        assert program.read_bytes() == source.read_bytes()


def test_goes_back_to_the_sample(staged):
    status, output = staged.configure("-UORVANE_NGINX_DIR", "-UORVANE_RPC_SERVER")
    assert status == 0, output
    status, output = cmake("--build", staged.build, "--target", "stage_nginx")
    assert status == 0, output
    sample = (staged.project / "bundle/nginx/sbin/nginx").read_bytes()
    assert (staged.bundle / "nginx/sbin/nginx").read_bytes() == sample
    planned = cmake("--build", staged.build, "--target", "stage_rpc_server", "--", "-n")[1]
    assert "Linking CXX executable bundle/rpcServer/rpcServer" in planned


@pytest.mark.parametrize(("name", "path"), [
    ("ORVANE_NGINX_DIR", "missing"), ("ORVANE_NGINX_DIR", "my server"),
    ("ORVANE_RPC_SERVER", "missing"), ("ORVANE_RPC_SERVER", "my nginx")])
def test_refuses_a_path_that_does_not_exist(tree, name, path):
    status, output = tree.configure(f"-D{name}={tree.directory / path}")
    assert status != 0
    line, = (line for line in output.splitlines() if str(tree.directory / path) in line)
    assert re.search(f"{name}: there is no (directory|file) ", line)
