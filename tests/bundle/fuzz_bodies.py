"""fuzz_bodies.py DIRECTORY: writes the bodies that scripts/fuzz begins with, a file each."""

import sys
from pathlib import Path

from test_rpc_server import REFUSED, encoded, frames, notification, request

OPEN = request("channel.open")
BODIES = [OPEN, [OPEN], frames(1, 0), notification("channel.open"),
          *(refused.body for refused in REFUSED.values())]

for number, body in enumerate(BODIES):
    Path(sys.argv[1], f"test{number}").write_bytes(encoded(body))
