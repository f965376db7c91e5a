"""What a stranger may send to the services, byte by byte: who is let in, and what it costs."""

import json
import re
import resource
import select
import socket
from contextlib import suppress

import pytest
from machine import JSON, OPEN, takes_ipv6

from drive.bundle import RPC_PORT, SITE_PORT, ask
from drive.processes import wait_for

CROSS_SITE = {"Sec-Fetch-Site": "cross-site"}
VISIT = {**CROSS_SITE, "Sec-Fetch-Mode": "navigate", "Sec-Fetch-Dest": "document"}
PORTS = pytest.mark.parametrize("port", [SITE_PORT, RPC_PORT])
IPV6 = pytest.param("[::1]", marks=takes_ipv6)


@pytest.fixture(autouse=True)
def services(deploy_nginx, start_rpc_server):
    """nginx and the RPC server, which serve."""
    nginx, rpc_server = deploy_nginx(), start_rpc_server()
    rpc_server.stdout.readline()
    return nginx, rpc_server


@pytest.fixture
def connect(ending):
    """connect(port, sent): a connection on which that was sent already."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(4096, hard), hard))
    ending.callback(resource.setrlimit, resource.RLIMIT_NOFILE, (soft, hard))

    def connected(port, sent=b""):
        connection = ending.enter_context(socket.create_connection(("127.0.0.1", port), 10))
        connection.sendall(sent)
        return connection

    return connected


def head(port, method="POST", path="/rpc", **headers):
    """Returns the head of a request that is let in, but for these headers (_ for -, None: not)."""
    headers = {"Host": f"localhost:{port}", **JSON, "Content-Length": 60000,
               **{name.replace("_", "-"): value for name, value in headers.items()}}
    lines = [f"{name}: {value}" for name, value in headers.items() if value is not None]
    return "\r\n".join([f"{method} {path} HTTP/1.1", *lines, "", ""]).encode()


def status(connection):
    """Returns the HTTP status of the answer."""
    return int(connection.recv(4096).split()[1])


REFUSED = [
    *((403, {"Host": host}) for host in (
        "other.example:{}", "localhost", "localhost:80", "127.0.0.2:{}", "localhost:{}.example",
        "user@localhost:{}")),
    *((403, {"Origin": origin}) for origin in (
        "http://other.example", "http://localhost:3000", "https://localhost:4200", "null",
        "http://localhost:4200.example", f"http://localhost:{RPC_PORT}")),
    *((403, {"Sec_Fetch_Site": site}) for site in ("cross-site", "same-site")),
    *((415, {"Content-Type": kind}) for kind in (
        "text/plain", "multipart/form-data; boundary=x", "application/x-www-form-urlencoded",
        "application/jsonx", "text/plain; application/json", None)),
    *((405, {"method": method}) for method in ("GET", "HEAD", "PUT", "OPTIONS", "DELETE"))]


@PORTS
@pytest.mark.parametrize(("refusal", "how"), REFUSED)
def test_stranger_is_refused_before_the_body_and_without_a_row(
        services, connect, port, refusal, how):
    how = {name: value and value.format(port) for name, value in how.items()}
    assert status(connect(port, head(port, **how))) == refusal
    assert json.loads(ask("/rpc", OPEN, headers=JSON)[1])["result"] == {"channel": 1}
    nginx, rpc_server = services
    assert rpc_server.stdout.readline() == "channel.open\n"
    wait_for("the good one's line", lambda: nginx.output)
    assert re.fullmatch(r"[0-9:]{8} 200 POST /rpc\n", nginx.output)


@pytest.mark.parametrize(("refusal", "how"), [
    (404, {"path": "/"}), (404, {"path": "/rpc/"}), (404, {"path": "/RPC"}), (403, {"Host": ""})])
def test_rpc_server_refuses_what_is_not_for_it(connect, refusal, how):
    assert status(connect(RPC_PORT, head(RPC_PORT, **how))) == refusal


@pytest.mark.parametrize(("allowed", "method", "headers"), [
    (200, "GET", VISIT), (200, "HEAD", VISIT), (403, "POST", VISIT),
    (403, "GET", {**VISIT, "Sec-Fetch-Dest": "iframe"}),
    (403, "GET", {**CROSS_SITE, "Sec-Fetch-Mode": "no-cors", "Sec-Fetch-Dest": "image"}),
    (200, "GET", {"Sec-Fetch-Site": "none"}), (200, "GET", {"Sec-Fetch-Site": "same-origin"})])
def test_link_on_another_site_leads_to_the_page_and_nothing_else_does(allowed, method, headers):
    assert ask(method=method, headers=headers)[0] == allowed


@pytest.mark.parametrize("name", ["localhost", "127.0.0.1", IPV6])
def test_page_is_let_in_by_each_of_its_names(name):
    own = {**JSON, "Host": f"{name}:4200", "Origin": f"http://{name}:4200",
           "Sec-Fetch-Site": "same-origin"}
    assert ask(headers=own)[0] == 200
    for port in (SITE_PORT, RPC_PORT):
        kind = {"Content-Type": "Application/JSON; charset=utf-8"}
        assert ask("/rpc", OPEN, port=port, headers={**own, **kind})[0] == 200


@PORTS
@pytest.mark.parametrize(("number", "sent", "more"), [
    (480, lambda port: b"", b"\r\n"),  # half a minute of 16 a second, at once
    (64, head, b" "), (600, lambda port: head(port)[:30], b" ")])
def test_connection_that_says_little_keeps_nobody_waiting(
        services, connect, port, number, sent, more):
    held = [connect(port, sent(port)) for _ in range(number)]
    if port == SITE_PORT:
        nginx, = services[0].left()
        wait_for("all are taken", lambda: len(nginx.connections()) >= number)

    def answered():
        """Whoever waits for the strangers to fall silent waits for ever."""
        came = select.select([good], [], [], 0.2)[0]
        for connection in held:
            with suppress(OSError):  # it was closed, to make room
                connection.send(more)
        return came

    call = [head(at, Content_Length=len(OPEN)) + OPEN.encode() for at in (SITE_PORT, RPC_PORT)]
    for at, request in ((SITE_PORT, head(SITE_PORT, "GET", "/", Content_Length=None)),
                        (SITE_PORT, call[0]), (RPC_PORT, call[1])):
        good = connect(at, request)
        wait_for("an answer", answered)
        assert status(good) == 200


@pytest.mark.parametrize(("start", "piece"), [
    *((head(RPC_PORT, **how), b" " * 0x8000) for how in (
        {"path": "/other"}, {"method": "PUT"}, {"Content_Length": 10 ** 9},
        {"Content_Length": 2 ** 64 + 2}, {"Content_Encoding": "gzip"},
        {"Content-Type": "multipart/form-data; boundary=x"})),
    *((head(RPC_PORT, method, path, Content_Length=None, Transfer_Encoding="chunked"),
       b"8000\r\n" + b" " * 0x8000 + b"\r\n")
      for method, path in (("POST", "/rpc"), ("PUT", "/rpc"), ("POST", "/other"))),
    (head(RPC_PORT)[:-2], b"a: b\r\n" * 5000), (b"G", b"G" * 0x8000)])
def test_request_of_any_kind_takes_little_memory(services, connect, start, piece):
    ask("/rpc", OPEN, port=RPC_PORT, headers=JSON)
    connection, pid, most = connect(RPC_PORT, start), services[1].pid, 16 * 1024  # KiB

    def peak():
        with open(f"/proc/{pid}/status", encoding="ascii") as lines:
            return int(re.search(r"VmHWM:\s+(\d+) kB", lines.read())[1])

    before = peak()
    with suppress(OSError):  # it was closed
        for _ in range(1500):  # of about 32 KiB
            connection.sendall(piece)
    ask("/rpc", OPEN, port=RPC_PORT, headers=JSON)
    assert peak() - before < most


def test_bad_request_and_visit_from_another_site_write_no_row(services, connect):
    for bad in (b"nonsense\r\n\r\n", b"GET / HTTP/1.1\r\n\r\n", b"\0" * 9000,
                head(SITE_PORT, path="/" + "x" * 7000, Host="other.example"),
                head(SITE_PORT, Content_Length=70000), head(SITE_PORT, Content_Length="x")):
        assert status(connect(SITE_PORT, bad)) in (400, 403, 413)
    assert ask(headers=VISIT)[0] == 200
    ask()
    nginx = services[0]
    wait_for("the good one's line", lambda: nginx.output)
    assert re.fullmatch(r"[0-9:]{8} 200 GET /\n", nginx.output)


def test_connection_that_falls_silent_is_closed(connect):
    held = [connect(port, sent) for port in (SITE_PORT, RPC_PORT)
            for sent in (b"", head(port)[:30], head(port))]
    for connection in held:
        connection.settimeout(20)  # the libraries' own limits are longer, or none
        with suppress(ConnectionResetError):
            connection.recv(4096)  # nginx says why
            assert connection.recv(1) == b""


@pytest.mark.parametrize(("answer", "sent"), [
    (200, head(SITE_PORT, "GET", "/", Content_Length=0)), (405, head(SITE_PORT, "GET")),
    (404, head(SITE_PORT, "GET", "/x", Content_Length=0)), (415, head(SITE_PORT, Content_Type="")),
    (403, head(SITE_PORT, Host="a")), (413, head(SITE_PORT, Content_Length=70000)),
    (400, b"nonsense\r\n\r\n"), (200, head(SITE_PORT, Content_Length=2) + b"{}")])
def test_every_answer_has_the_headers_that_keep_other_sites_out(connect, answer, sent):
    got = connect(SITE_PORT, sent).recv(4096).decode()
    assert int(got.split()[1]) == answer
    assert ("Content-Type: application/json" in got) == sent.endswith(b"{}")
    policy, = re.findall("(?m)^Content-Security-Policy: (.*)\r$", got)
    assert set(policy.split("; ")) >= {"default-src 'self'", "object-src 'none'", "base-uri 'none'",
                                       "form-action 'self'", "frame-ancestors 'none'"}
    assert "unsafe" not in policy
    for line in ("Cross-Origin-Opener-Policy: same-origin", "X-Content-Type-Options: nosniff",
                 "Cross-Origin-Resource-Policy: same-origin", "Referrer-Policy: no-referrer",
                 "Cache-Control: no-cache", "Server: nginx"):
        assert got.count(f"\r\n{line}\r\n") == 1


@pytest.mark.parametrize("name", [
    ".htpasswd", ".git/config", "a/.env", "page.js~", "page.js.bak", "page.js.BAK", "page.js.orig",
    "page.js.swp", ".page.js.swp", "#page.js#"])
def test_what_an_editor_leaves_beside_the_files_is_not_served(services, name):
    left = services[0].directory / "html" / name
    left.parent.mkdir(exist_ok=True)
    left.write_text("secret", encoding="ascii")
    for path in (name.replace("#", "%23"), "a/../" + name.replace("#", "%23").replace(".", "%2e")):
        assert ask("/" + path)[0] == 404
