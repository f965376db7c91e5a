"""The steps that the stories have in common."""

from drive.bundle import RPC_PORT, SITE_PORT, port_open, site_answers
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
    assert not port_open(SITE_PORT)
    assert not port_open(RPC_PORT)
