"""The bundle's nginx alone, stopped or killed while it starts."""

import os
import pwd
import random
import time
from pathlib import Path

from drive.bundle import SITE_PORT, Nginx, port_open
from drive.processes import wait_for

SHIPPED = Path(__file__).resolve().parents[2] / "bundle/nginx"
STARTS = 4  # a cycle
LONGEST_START = 0.06  # seconds; nginx serves after about half of it


def start_and_end(nginx, starts):
    """Raises ChildProcessError or TimeoutError when something stays behind."""
    for _ in range(starts):
        nginx.start()
        time.sleep(random.uniform(0, LONGEST_START))
        random.choice((nginx.stop, nginx.kill))()
        wait_for("the end of nginx", lambda: not nginx.left())
        wait_for("a closed port", lambda: not port_open(SITE_PORT))
    nginx.deploy()
    if [process.pid for process in nginx.left()] != [nginx.child.pid]:
        raise ChildProcessError("more than one process runs")
    if "taken" in nginx.output or "held" in nginx.output:
        raise ChildProcessError(f"a start found the port taken: {nginx.output}")


def soak_as(user, directory, starts, **how):
    """Returns what went wrong when this user starts it."""
    with Nginx(directory, SHIPPED, user, **how) as nginx:
        nginx.environment = {**nginx.environment, "XDG_STATE_HOME": str(directory)}
        try:
            start_and_end(nginx, starts)
        except (ChildProcessError, TimeoutError) as why:
            return [str(why)]
    return []


def soak(job):
    """Returns what went wrong, for this user and for an ordinary one who cannot write there."""
    starts = job.cycles * STARTS
    ordinary = os.getuid() or pwd.getpwnam("nobody").pw_uid
    theirs = job.directory / "theirs"
    theirs.mkdir()
    os.chown(theirs, ordinary, -1)
    wrong = soak_as(os.getuid(), job.directory, starts)
    wrong += soak_as(ordinary, theirs, starts, writable=False)
    print(f"nginx: {starts} starts as each of two users", flush=True)
    return wrong
