"""What every kind of the soak is given."""

from dataclasses import dataclass
from pathlib import Path


@dataclass
class Job:
    """How often, with which build, and where."""

    cycles: int
    build: Path  # where orvane.app and the programs of the soak lie
    directory: Path  # of this kind alone; it is removed afterwards
    seed: int  # chance has been seeded with it

    @property
    def launcher(self):
        """The launcher that was built."""
        return self.build / "orvane.app/Contents/MacOS/orvane"

    @property
    def landmarks(self):
        """The program that says where the launcher's widgets lie."""
        return self.build / "landmarks"
