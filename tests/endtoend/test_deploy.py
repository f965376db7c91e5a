"""What the buttons and the window's end do to the services, and in which order."""

import signal
from pathlib import Path

import pytest
from steps import close, deploy

from drive.bundle import NOTE_STOP
from drive.processes import runs, wait_for

NOTE_WHO_RUNS = Path(__file__).with_name("note-who-runs.sh")


def test_redeploy_replaces_nginx_before_the_rpc_server(throw_away, launch):
    services = throw_away(stop=f"echo answer; {NOTE_STOP}")
    launcher = launch(services.program)
    deploy(launcher, services)
    deploy(launcher, services)
    assert services.events()[2] == "nginx asked to stop"
    nginx, rpc = services.pids("nginx"), services.pids("rpc")
    wait_for("the end of the first services", lambda: not runs(nginx[0]) and not runs(rpc[0]))
    assert runs(nginx[1])
    assert runs(rpc[1])
    close(launcher)
    assert services.events().count("nginx asked to stop") == 2

    def start(pid):
        return f"Pipe ready\npid:{pid}\nMain progress ready\n"

    # The launcher's own lines wait for its end, since its output is a file.
    assert launcher.output == ("answer\n" * 2 + start(nginx[0]) + start(rpc[0])
                               + "Progress stopped" + start(nginx[1])
                               + "Progress stopped" + start(rpc[1])
                               + "Progress stopped" * 2)


def test_close_while_deployed_stops_the_services_and_waits_for_that(throw_away, launch):
    services = throw_away(stop=NOTE_WHO_RUNS.read_text())
    launcher = launch(services.program)
    deploy(launcher, services)
    launcher.close()
    wait_for("the stop command", lambda: services.events()[2:] == [
        "nginx asked to stop: rpc ended, nginx runs"])
    assert launcher.process.poll() is None
    services.journal.with_suffix(".go").touch()
    assert launcher.wait() == 0
    assert services.lines()[3:] == ["done"]


@pytest.mark.parametrize("number", [signal.SIGKILL, signal.SIGTERM, signal.SIGINT, signal.SIGHUP],
                         ids=lambda number: number.name)
def test_killed_launcher_leaves_the_services_running(throw_away, launch, number):
    services = throw_away()
    launcher = launch(services.program)
    deploy(launcher, services)
    launcher.process.send_signal(number)
    assert launcher.wait() == -number
    assert runs(services.pids("nginx")[0])
    assert runs(services.pids("rpc")[0])
    assert "nginx asked to stop" not in services.events()
