"""What of an integrator's services comes into the bundle, and what the configuration refuses."""

import os
import re
import shutil
import stat
import subprocess
import tempfile
from pathlib import Path

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


def configured(project, directory):
    """Returns a tree in which the integrator's services are staged."""
    made = Tree(project, Path(directory).resolve())
    made.configure(f"-DORVANE_NGINX_DIR={made.nginx}", f"-DORVANE_RPC_SERVER={made.server}")
    made.stage()
    return made


@pytest.fixture(scope="module")
def staged(project):
    """One for all tests; a test that changes something has a file of its own there."""
    with tempfile.TemporaryDirectory(prefix="orvane-test-") as directory:
        yield configured(project, directory)


def test_stages_the_nginx_directory_but_for_what_an_nginx_wrote_there(staged):
    assert files(staged.nginx) - files(staged.staged) == {"run/nginx.pid"}


def test_stages_an_empty_directory(staged):
    assert (staged.staged / "logs").is_dir()


def test_stages_the_server_where_the_launcher_looks(staged):
    assert staged.program.read_bytes() == staged.server.read_bytes()


def test_stages_nothing_beside_the_server(staged):
    assert files(staged.bundle / "rpcServer") == {"MacOs/rpcServer"}


@pytest.mark.parametrize("program", ["nginx/sbin/nginx", "rpcServer/MacOs/rpcServer"])
def test_stages_a_program_that_can_be_executed(staged, program):
    assert os.access(staged.bundle / program, os.X_OK)


def test_asks_for_none_of_the_samples_libraries(staged):
    cache = (staged.build / "CMakeCache.txt").read_text(encoding="utf-8")
    assert re.findall("microhttpd|nlohmann", cache) == []


@pytest.mark.parametrize("step", ["Staging nginx", "Staging the RPC server"])
def test_stages_again_in_every_build(staged, step):
    assert step in staged.plan()


def test_stages_what_was_edited_even_if_the_clock_does_not_show_it(staged):
    page = staged.nginx / "html/edited.html"
    write(page, "first")
    staged.stage()
    times = page.stat()
    write(page, "other")
    os.utime(page, ns=(times.st_atime_ns, times.st_mtime_ns))
    staged.stage()
    assert (staged.staged / "html/edited.html").read_text("ascii") == "other"


def test_stages_what_was_added(staged):
    write(staged.nginx / "html/added.html", "new")
    staged.stage()
    assert "html/added.html" in files(staged.staged)


def test_removes_what_was_removed(staged):
    page = staged.nginx / "html/removed.html"
    write(page, "old")
    staged.stage()
    page.unlink()
    staged.stage()
    assert "html/removed.html" not in files(staged.staged)


@pytest.mark.parametrize("name", ["run/nginx.lock", "logs/access.log"])
def test_keeps_what_nginx_wrote(staged, name):
    write(staged.staged / name, "written")
    staged.stage()
    assert (staged.staged / name).read_text("ascii") == "written"


def test_stages_permissions(staged):
    page = staged.nginx / "html/private.html"
    write(page, "text")
    staged.stage()
    page.chmod(0o600)
    staged.stage()
    assert stat.S_IMODE((staged.staged / "html/private.html").stat().st_mode) == 0o600


def test_stages_a_link_as_a_link(staged):
    (staged.nginx / "html/link").symlink_to("a b.html")
    staged.stage()
    assert os.readlink(staged.staged / "html/link") == "a b.html"


def test_leaves_what_did_not_change_in_its_place(staged):
    page = staged.staged / "html/a b.html"
    with open(page, encoding="ascii") as before:  # so that its number is not given again
        staged.stage()
        assert page.stat().st_ino == os.fstat(before.fileno()).st_ino


@pytest.mark.parametrize(("source", "target"), [
    ("my server", "rpcServer/MacOs/rpcServer"),
    ("my+nginx dir/sbin/other", "nginx/sbin/other")], ids=["server", "nginx"])
def test_replaces_a_program_that_runs(staged, ending, source, target):
    program, source = staged.bundle / target, staged.directory / source
    shutil.copy("/bin/sleep", source)
    staged.stage()
    running = ending.enter_context(subprocess.Popen([program, "600"]))
    ending.callback(running.kill)
    with open(source, "ab") as newer:
        newer.write(b"a newer build")
    staged.stage()
    assert program.read_bytes() == source.read_bytes()
    assert running.poll() is None


@pytest.fixture(scope="module")
def went_back(project):
    """A tree that stages the sample after it has staged the integrator's services."""
    with tempfile.TemporaryDirectory(prefix="orvane-test-") as directory:
        made = configured(project, directory)
        made.configure("-UORVANE_NGINX_DIR", "-UORVANE_RPC_SERVER")
        made.cmake("--build", made.build, "--target", "stage_nginx")
        yield made


def test_goes_back_to_the_samples_files_and_leaves_no_other(went_back):
    assert files(went_back.staged) == files(went_back.project / "bundle/nginx")


def test_goes_back_to_the_samples_nginx(went_back):
    sample = went_back.project / "bundle/nginx/sbin/nginx"
    assert (went_back.staged / "sbin/nginx").read_bytes() == sample.read_bytes()


def test_goes_back_to_the_samples_server(went_back):
    assert "Linking CXX executable bundle/rpcServer/rpcServer" in went_back.plan(
        "--target", "stage_rpc_server")


@pytest.fixture(scope="module")
def installed(project):
    """The tree whose bundle is installed in `directory`/prefix."""
    with tempfile.TemporaryDirectory(prefix="orvane-test-") as directory:
        made = configured(project, directory)
        write(made.nginx / "html/run/page.html", "a page")
        for name in ("MacOS/orvane", "Resources/orvane.icns"):  # in the place of a whole build
            write(made.bundle / "Contents" / name, "")
        made.configure(f"-DORVANE_NGINX_DIR={made.nginx}/")
        made.cmake("--install", made.build, "--prefix", made.directory / "prefix")
        yield made


def test_installs_the_nginx_directory_without_what_nginx_wrote(installed):
    assert files(installed.directory / "prefix/orvane.app/nginx") == {
        "html/a b.html", "html/run/page.html", "sbin/nginx"}


def test_installs_the_server_and_nothing_beside_it(installed):
    assert files(installed.directory / "prefix/orvane.app/rpcServer") == {"MacOs/rpcServer"}


def test_installs_the_server_as_it_is(installed):
    program = installed.directory / "prefix/orvane.app/rpcServer/MacOs/rpcServer"
    assert program.read_bytes() == installed.server.read_bytes()


@pytest.mark.parametrize("program", [
    "Contents/MacOS/orvane-launcher", "nginx/sbin/nginx", "rpcServer/MacOs/rpcServer"])
def test_installs_a_program_that_can_be_executed(installed, program):
    assert os.access(installed.directory / "prefix/orvane.app" / program, os.X_OK)


def test_relative_paths_begin_where_cmake_is_called(tree):
    tree.configure(f"-DORVANE_NGINX_DIR={os.path.relpath(tree.nginx)}",
                   f"-DORVANE_RPC_SERVER={os.path.relpath(tree.server)}")
    cache = (tree.build / "CMakeCache.txt").read_text(encoding="utf-8")
    assert re.findall("^ORVANE_(?:NGINX_DIR|RPC_SERVER):[A-Z]+=(.*)$", cache, re.M) == [
        str(tree.nginx), str(tree.server)]


@pytest.mark.parametrize(("variable", "name"), [
    ("ORVANE_NGINX_DIR", "missing"), ("ORVANE_NGINX_DIR", "my server"),
    ("ORVANE_RPC_SERVER", "missing"), ("ORVANE_RPC_SERVER", "my+nginx dir")],
    ids=["no nginx directory", "a file for nginx", "no server", "a directory for the server"])
def test_refuses_a_path_that_is_not_what_it_must_be(tree, variable, name):
    output = tree.configure(f"-D{variable}={tree.directory / name}", fails=True)
    line, = (line for line in output.splitlines() if str(tree.directory / name) in line)
    assert re.search(f"{variable}: there is no (directory|file) ", line)
