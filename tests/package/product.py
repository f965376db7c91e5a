"""Uses the launcher as its user would: deploy, look at the product, stop, close."""

import json
import sys

from built import PROJECT

sys.path.insert(0, str(PROJECT))

# pylint: disable=wrong-import-position
from drive import desktop  # noqa: E402
from drive.browser import Browser  # noqa: E402, F401
from drive.bundle import ask  # noqa: E402
from drive.desktop import Desktop, Launcher  # noqa: E402, F401
from drive.processes import running, wait_for  # noqa: E402, F401


def use(launcher, page, look=lambda: None):
    """A session in which the product is this page and its RPC server, calls look() too."""
    def look_at_the_product():
        assert ask()[1].encode() == page, "another page is served than the bundle's"
        call = {"jsonrpc": "2.0", "id": 1, "method": "channel.open"}
        assert json.loads(ask("/rpc", json.dumps(call))[1])["result"]["channel"] > 0
        look()

    desktop.use(launcher, look_at_the_product)
