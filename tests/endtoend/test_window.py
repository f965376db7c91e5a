"""What the window shows, what the launcher writes, and where its bundle may lie."""

import os
import shutil
import signal
import threading
import tty

from steps import close, deploy, stop, without_pids

from drive.processes import wait_for

STARTED = "Pipe ready\npid:N\nMain progress ready\n"
STOPPED = "Progress stopped"  # without a line break
WARNINGS = ("QObject::connect: Cannot connect RpcQListView::updated() to MainWindow::(nullptr)\n"
            "QObject::connect: Cannot connect NginxQListView::nginxUpdatad()"
            " to MainWindow::(nullptr)\n")


def contents(directory):
    """Returns every path below it, with what a change would change."""
    return {path: (path.lstat().st_mode, path.lstat().st_mtime_ns, path.lstat().st_size)
            for path in [directory, *directory.rglob("*")]}


def test_start_deploys_nothing_and_gets_two_warnings_of_the_toolkit(throw_away, launch):
    services = throw_away()
    launcher = launch(services.program)
    launcher.click("nginx")
    close(launcher)
    assert services.lines() == []
    assert launcher.output == ""
    assert launcher.errors == WARNINGS


def test_lists_show_path_then_found_then_the_output_and_start_anew(
        throw_away, directory, launch, assert_list_shows):
    turn = f'echo "→ {{0}} $(grep -c "^{{0}} started" {directory}/journal)" {{1}}; exec sleep 600'
    services = throw_away(nginx=turn.format("nginx", ""), rpc=turn.format("rpc", ">&2"))
    launcher = launch(services.program)
    for number in (1, 2):
        deploy(launcher, services)
        for name, program in (("nginx", services.nginx), ("rpc", services.rpc)):
            assert_list_shows(launcher, name, str(program), "File found", f"→ {name} {number}\n")


def test_outside_a_bundle_nothing_is_found_and_a_second_stop_ends_it(
        directory, build, launch, assert_list_shows):
    program = directory / "bin/orvane"
    program.parent.mkdir()
    shutil.copy(build / "orvane.app/Contents/MacOS/orvane", program)
    launcher = launch(program)
    launcher.click("deploy")
    assert_list_shows(launcher, "nginx", "/nginx/sbin/nginx", "File not found")
    launcher.click("stop")
    assert_list_shows(launcher, "rpc", "/rpcServer/MacOs/rpcServer", "File not found")
    assert launcher.process.poll() is None
    assert launcher.started() == []
    launcher.click("stop")
    assert launcher.wait() == -signal.SIGSEGV
    assert launcher.output == ""


def test_blank_in_the_path_keeps_nginx_from_starting_but_not_the_rpc_server(
        throw_away, launch, assert_list_shows):
    services = throw_away("a blank")
    launcher = launch(services.program)
    launcher.click("deploy")
    wait_for("the rpc server", lambda: services.pids("rpc"))
    assert_list_shows(launcher, "nginx", str(services.nginx), "File found",
                      "bash: line 1: cd: too many arguments\n")
    close(launcher)
    assert services.events() == ["rpc started"]


def test_bundle_is_the_one_that_a_link_leads_to(throw_away, directory, launch, assert_list_shows):
    services = throw_away("Übergröße")
    link = directory / "link"
    link.symlink_to(services.program)
    launcher = launch(link)
    deploy(launcher, services)
    assert_list_shows(launcher, "rpc", str(services.rpc), "File found")


def test_leaves_nothing_in_the_bundle_and_in_the_home(throw_away, directory, launch, ending):
    services = throw_away()
    for path in [services.path, *services.path.rglob("*")]:
        path.chmod(path.stat().st_mode & ~0o222)
        ending.callback(path.chmod, path.stat().st_mode | 0o200)
    before = contents(services.path)
    home = directory / "home"
    home.mkdir()
    launcher = launch(services.program, within=[
        "env", "-u", "XDG_CONFIG_HOME", "-u", "XDG_DATA_HOME", "-u", "XDG_STATE_HOME",
        "-u", "XDG_CACHE_HOME", f"HOME={home}"])
    deploy(launcher, services)
    stop(launcher)
    close(launcher)
    assert contents(services.path) == before
    # Fonts and pictures that the system's libraries may look up there again.
    assert [path for path in home.iterdir() if path.name != ".cache"] == []


def test_toolkit_takes_its_options(throw_away, launch, assert_list_shows):
    services = throw_away()
    pictures = []
    for style in ("fusion", "windows"):
        with launch(services.program, ["-style", style]) as launcher:
            launcher.point_at("title")
            deploy(launcher, services)
            assert_list_shows(launcher, "rpc", str(services.rpc), "File found",
                              options=["-style", style])
            pictures.append(launcher.picture())
            close(launcher)
    assert pictures[0] != pictures[1]


def test_lines_in_a_file_follow_what_the_stop_command_wrote(throw_away, launch):
    services = throw_away(stop="echo answer")
    launcher = launch(services.program)
    deploy(launcher, services)
    stop(launcher)
    close(launcher)
    assert without_pids(launcher.output) == "answer\n" + STARTED * 2 + STOPPED * 2


def test_lines_on_a_terminal_appear_as_they_are_written(throw_away, launch):
    ours, theirs = os.openpty()
    tty.setraw(theirs)  # no carriage returns
    services = throw_away(stop="echo answer")
    with open(theirs, "rb") as terminal:
        launcher = launch(services.program, stdout=terminal)
    seen = []

    def read():
        try:
            while chunk := os.read(ours, 4096):
                seen.append(chunk)
        except OSError:
            pass  # nobody holds the other end any more

    def text():
        return without_pids(b"".join(seen).decode())

    reader = threading.Thread(target=read)
    reader.start()
    deploy(launcher, services)
    wait_for("the lines of both starts", lambda: text() == STARTED * 2)
    stop(launcher)
    close(launcher)
    reader.join()
    os.close(ours)
    # A line that is not complete yet waits, and the stop command overtakes it.
    assert text() == STARTED * 2 + "answer\n" + STOPPED * 2
