"""Stops in the very moment in which a row arrives."""

import subprocess

from drive.bundle import Bundle


def soak(job):
    """Returns what went wrong: AimedStops allows itself one crash in 1,000 stops."""
    service = job.build / "ToldService"
    bundle = Bundle(job.directory, job.build / "AimedStops", nginx=service, rpc=service)
    ended = subprocess.run([bundle.program, str(job.cycles), str(job.seed)], check=False)
    return [f"AimedStops ended with {ended.returncode}"] if ended.returncode else []
