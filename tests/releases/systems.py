"""The systems that a release is tested on."""

from dataclasses import dataclass

# The parts of a desktop whose plugins the toolkit loads; Debian's newest has them for Qt 6 alone.
PLASMA_OF_BOOKWORM = ("plasma-integration", "kde-style-breeze")
PLASMA_OF_TRIXIE = ("plasma5-integration", "kde-style-breeze-qt5")


@dataclass(frozen=True)
class System:
    """A release of Debian. `desktop` are packages that go in after the tests have run once; what
    looks at desktops runs again then. On an `emulated` one an emulator runs the tests."""

    name: str
    release: str
    desktop: tuple = ()
    emulated: bool = False


SYSTEMS = {system.name: system for system in (
    System("bookworm", "bookworm", PLASMA_OF_BOOKWORM),
    System("trixie", "trixie", PLASMA_OF_TRIXIE),
    System("forky", "forky"),
    # Its emulator is the first that knows what the tests' processes ask for.
    System("arm64", "trixie", emulated=True),
)}
