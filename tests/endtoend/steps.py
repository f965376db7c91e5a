"""The steps that the stories have in common."""

import subprocess
from contextlib import contextmanager

from drive.bundle import RPC_PORT, port_open, site_answers, wait_for_closed_ports
from drive.processes import wait_for


def deploy(launcher, services):
    """Clicks on deploy and waits until both services of the throw-away bundle have started."""
    before = min(len(services.pids("nginx")), len(services.pids("rpc")))
    launcher.click("deploy")
    wait_for("the start of both services", lambda: services.deployed(before + 1))


def deploy_real(launcher):
    """Clicks on deploy and waits until both real services answer."""
    launcher.click("deploy")
    wait_for("the site", site_answers)
    wait_for("the rpc server", lambda: port_open(RPC_PORT))


def stop(launcher):
    """Clicks on stop and waits until the services have ended."""
    launcher.click("stop")
    wait_for("the end of the services", lambda: not launcher.started())


def close(launcher):
    """Closes the window. What was clicked before has happened when this returns."""
    launcher.close()
    assert launcher.wait() == 0
    # A process that was killed just now may take a moment to go.
    wait_for("nothing left running", lambda: not launcher.started())
    wait_for_closed_ports()


@contextmanager
def shown(desktop, program, *options, **environment):
    """The window, as Xlib has it, of a launcher that is started so by an ordinary command."""
    environment = {**desktop.environment, "HOME": str(program.parent), **environment}
    with subprocess.Popen([program, *options], env=environment,
                          stderr=subprocess.DEVNULL) as process:
        try:
            yield wait_for("the window", lambda: desktop.find_window(process.pid))
        finally:
            process.kill()


def settled(picture):
    """Returns what picture() returns once the window is drawn and has stopped to change."""
    seen = []

    def unchanged():
        seen.append(picture())
        same = [earlier.tobytes() == seen[-1].tobytes() for earlier in seen[-10:]]
        drawn = seen[-1].getpixel((1, seen[-1].height - 2)) == (255, 255, 255)  # to its lower edge
        return same == [True] * 10 and drawn and len(seen[-1].getcolors(2 ** 24)) > 10

    wait_for("a picture that no longer changes", unchanged)
    return seen[-1]


def looks(desktop, program, *options, **environment):
    """Returns the picture of the window of a launcher that is started so."""
    with shown(desktop, program, *options, **environment) as window:
        return settled(lambda: desktop.picture_of(window))
