"""Each port is the same in every place that cannot take it from another."""

import re

import pytest

from drive.bundle import RPC_PORT

# The file, and what stands around the port there. Whoever moves one in one place is shown the rest.
RPC_PLACES = {
    "bundle/rpcServer/Port.h": r"rpcPort = (\d+);",
    "bundle/nginx/conf/nginx.conf": r"proxy_pass http://127\.0\.0\.1:(\d+);",
    "docs/example/rpcServer": r"SITE_PORT, RPC_PORT = \d+, (\d+)\n",
    "drive/bundle.py": r"RPC_PORT = (\d+)\n",
    "README.md": r"the same of rpcServer and (\d+)"}
SITE_PLACES = {
    "bundle/rpcServer/Port.h": r"sitePort = (\d+);",
    "bundle/nginx/conf/nginx.conf": r"(?:localhost:|::1\]:|listen +127\.0\.0\.1:)(\d+)",
    "bundle/nginx/sbin/nginx": r"port=(\d+)",
    "docs/example/rpcServer": r"SITE_PORT, RPC_PORT = (\d+), \d+\n",
    "docs/bundling.md": r"keep the page on port (\d+)",
    "drive/bundle.py": r"SITE_PORT = (\d+)\n",
    "packaging/Packages.cmake": r"at port\s+(\d+)",
    "packaging/linux/com.orvane.Launcher.metainfo.xml.in": r"at port\s+(\d+)",
    "ui/MainWindow.ui": r"http://localhost:(\d+)",
    "README.md": r"http://localhost:(\d+)"}
FOLDERS = ("app", "benchmarks", "bundle", "cmake", "docs", "drive", "packaging", "process",
           "scripts", "services", "tests", "ui")


@pytest.mark.parametrize("places", [RPC_PLACES, SITE_PLACES], ids=["rpc", "site"])
def test_is_the_same_in_every_place(project, places):
    named = {place: set(re.findall(pattern, (project / place).read_text(encoding="utf-8")))
             for place, pattern in places.items()}
    lines = "\n".join(f"{place}: {' '.join(ports) or 'none'}" for place, ports in named.items())
    assert len(set().union(*named.values())) == 1, f"not one port:\n{lines}"
    assert all(named.values()), f"not in every place:\n{lines}"


def test_rpc_port_stands_nowhere_else(project):
    paths = [path for folder in FOLDERS for path in (project / folder).rglob("*")]
    paths += project.glob("*.*")
    found = {str(path.relative_to(project)) for path in paths
             if path.is_file() and re.search(rb"\b%d\b" % RPC_PORT, path.read_bytes())}
    others = found - {*RPC_PLACES, "CHANGELOG.md"}  # which may tell of a move
    assert not others, (f"{' '.join(sorted(others))} can take it from bundle/rpcServer/Port.h, "
                        f"or from drive/bundle.py")
