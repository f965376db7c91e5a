"""The sample RPC server: the protocol, and how it starts and lives on."""

import json
import math
import os
import re
import shutil
import socket
import time

import psutil
import pytest
from machine import JSON, USER, assert_one_line, takes_root

from drive.bundle import RPC_PORT, ask
from drive.processes import wait_for

LISTENING = "rpcServer: listening on 127.0.0.1:4201\n"
MOST_BYTES = 64 * 1024
PARSE_ERROR = {"code": -32700, "message": "Parse error"}
INVALID_REQUEST = {"code": -32600, "message": "Invalid Request"}
UNKNOWN_METHOD = {"code": -32601, "message": "Method not found"}
INVALID_PARAMS = {"code": -32602, "message": "Invalid params"}
NO_SUCH_CHANNEL = {"code": -32001, "message": "No such channel"}


def request(method, params=None, **more):
    """Returns a request as an object."""
    parameters = {} if params is None else {"params": params}
    return {"jsonrpc": "2.0", "id": 1, "method": method, **parameters, **more}


def notification(method):
    """Returns a request that wants no answer."""
    return {"jsonrpc": "2.0", "method": method}


def frames(channel, after):
    """Returns the request for the frames of a channel that come after this one."""
    return request("channel.frames", {"channel": channel, "after": after})


def encoded(body):
    """Returns the body as bytes; what is no text becomes JSON."""
    text = body if isinstance(body, (bytes, str)) else json.dumps(body)
    return text if isinstance(text, bytes) else text.encode()


def post(body):
    """Returns HTTP status and text of the answer."""
    return ask("/rpc", encoded(body), port=RPC_PORT, host="127.0.0.1", headers=JSON)


def answer(body):
    """Returns the answer as an object."""
    return json.loads(post(body)[1])


def open_channel():
    """Returns the number of a new channel."""
    return answer(request("channel.open"))["result"]["channel"]


def frames_of(channel, after=0):
    """Returns the frames of the channel that come after this one."""
    return answer(frames(channel, after))["result"]["frames"]


# Error, id and request, each as it comes after one channel was opened.
ERRORS = [
    *((PARSE_ERROR, None, body) for body in (
        "", "{", b'"\xff"', '{"id": 1e999}', '[{"jsonrpc": "2.0", "method": "a"}, {')),
    *((INVALID_REQUEST, None, body) for body in (
        "1", [], {"jsonrpc": "2.0", "id": 1}, {"id": 1, "method": "channel.open"},
        request("channel.open", jsonrpc="1.0"), request("channel.open", jsonrpc=2.0),
        request(1), request("channel.open", "text"), request("channel.open", id=[1]),
        request("channel.open", id=True), [request("channel.open")] * 17)),
    (UNKNOWN_METHOD, -5, request("channel", id=-5)),
    (UNKNOWN_METHOD, "a\u00e4", request("", id="a\u00e4")),
    (UNKNOWN_METHOD, None, request("x" * 60000, id=None)),
    (UNKNOWN_METHOD, 2 ** 53, request("channel.close", id=2 ** 53)),
    (UNKNOWN_METHOD, 1.5, request("Channel.open", id=1.5)),
    *((INVALID_PARAMS, 1, request("channel.frames", params)) for params in (
        None, [1, 0], {"channel": 1}, {"after": 0})),
    *((INVALID_PARAMS, 1, frames(1, after)) for after in ("0", -1, 0.5, None, [[[[[0]]]]])),
    *((NO_SUCH_CHANNEL, 1, frames(channel, 0)) for channel in (0, 2 ** 64 - 1))]


@pytest.fixture
def start(start_rpc_server):
    """start(...): a server that listens, a subprocess.Popen."""
    def started(**how):
        server = start_rpc_server(**how)
        assert server.stdout.readline() == LISTENING
        return server

    return started


@pytest.fixture
def server(start):
    """A server that listens."""
    return start()


@pytest.mark.parametrize(("error", "identity", "body"), ERRORS)
def test_answers_an_error_with_its_code_message_and_id(server, error, identity, body):
    assert open_channel() == 1
    assert answer(body) == {"jsonrpc": "2.0", "id": identity, "error": error}


def test_answers_the_requests_of_a_batch_in_their_order(server):
    bad, unknown, _, good = answer([5, request("nothing", id=2), request("channel.open", id=3),
                                    notification("channel.open"), request("channel.open", id=4)])
    assert (bad["id"], bad["error"]) == (None, INVALID_REQUEST)
    assert (unknown["id"], unknown["error"]) == (2, UNKNOWN_METHOD)
    assert good == {"jsonrpc": "2.0", "id": 4, "result": {"channel": 3}}
    assert [len(answer([request("channel.open")] * calls)) for calls in (1, 16)] == [1, 16]


@pytest.mark.parametrize("body", [
    notification("channel.open"), notification("nothing"), [notification("channel.frames")] * 2])
def test_answers_no_notification(server, body):
    assert post(body) == (204, "")


def test_refuses_an_oversized_body(server):
    fits = b" " * (MOST_BYTES - 2) + b"{}"
    assert post(fits)[0] == 200
    assert post(fits + b" ")[0] == 413
    open_channel()


def test_survives_a_deeply_nested_body(server):
    deep = "[" * 30000 + "]" * 30000
    for body in (deep, "[" * MOST_BYTES, '{"a":' * 10000 + "1" + "}" * 10000,
                 f'{{"jsonrpc":"2.0","id":1,"method":"a","params":{deep}}}'):
        assert post(body)[0] == 200
    open_channel()


def test_writes_a_short_line_for_each_request(server):
    for body, line in ((request("channel.open"), "channel.open\n"),
                       (frames(1, 0), "channel.frames\n"),
                       (request("x" * 1000), "refused: Method not found\n"),
                       ("{", "refused: Parse error\n")):
        post(body)
        assert server.stdout.readline() == line


def test_writes_at_most_one_line_a_second_about_what_it_refuses(server):
    started, refused, lines = time.monotonic(), 0, 0
    for _ in range(60):
        post("{")
    while refused < 60:
        number = re.fullmatch("refused: (?:([0-9]+) requests, the last for: )?Parse error\n",
                              server.stdout.readline())[1]
        refused, lines = refused + int(number or 1), lines + 1
    assert refused == 60
    assert lines <= time.monotonic() - started + 1


def test_delivers_each_frame_once_in_order_and_the_first_at_once(server):
    channel = open_channel()
    numbers = [frame["number"] for frame in frames_of(channel)]
    assert numbers

    def ask_on():
        numbers.extend(frame["number"] for frame in frames_of(channel, numbers[-1]))
        return len(numbers) > 10

    wait_for("ten frames", ask_on)
    assert numbers == list(range(1, len(numbers) + 1))
    assert frames_of(channel, 2 ** 64 - 1) == []


def test_delivers_the_newest_two_seconds_of_a_moving_picture(server):
    before = time.monotonic()
    channel = open_channel()
    opened = time.monotonic()
    wait_for("the 60th frame", lambda: frames_of(channel, 59))
    asked = time.monotonic()
    delivered = frames_of(channel)
    assert len(delivered) == 50
    newest = delivered[-1]["number"]
    assert 25 * (asked - opened) <= newest <= 25 * (time.monotonic() - before) + 1
    assert delivered == [
        {"number": number, "hue": number * 2 % 360, "x": round(500 + 400 * math.cos(number / 20)),
         "y": round(500 + 400 * math.sin(number * 3 / 40))}
        for number in range(newest - 49, newest + 1)]


def test_keeps_the_newest_sixteen_channels(server):
    opened = [open_channel() for _ in range(17)]
    assert opened == list(range(1, 18))
    first, *others = [answer(frames(channel, 0)) for channel in opened]
    assert first["error"] == NO_SUCH_CHANNEL
    assert all("result" in other for other in others)


def test_listens_on_loopback_only(server):
    assert [c.laddr for c in psutil.Process(server.pid).connections()] == [("127.0.0.1", RPC_PORT)]


def test_says_that_its_port_is_taken(server, start_rpc_server):
    second = start_rpc_server()
    output = second.communicate(timeout=30)[0]
    assert second.returncode == 1
    assert_one_line(output, "port 4201", "taken by another program", "[Deploy Service]")
    open_channel()
    assert server.poll() is None


@takes_root
def test_says_so_when_another_user_runs_the_same_bundle(build, make_directory, start,
                                                        start_rpc_server):
    program = shutil.copy(build / "orvane.app/rpcServer/MacOs/rpcServer",
                          make_directory("bundle", mode=0o755))
    start(program=program)
    other = start_rpc_server(program=program, user=USER)
    assert other.stdout.readline().startswith("rpcServer: port 4201 is taken by another program")


def test_waits_for_a_port_that_is_about_to_be_free(start_rpc_server):
    with socket.create_server(("127.0.0.1", RPC_PORT)):
        server = start_rpc_server()
        started = psutil.Process(server.pid)
        wait_for("it sleeps after a try", lambda: sum(started.num_ctx_switches()) > 2
                 and started.status() == psutil.STATUS_SLEEPING)
    assert server.stdout.readline() == LISTENING


def test_a_killed_server_is_replaced_at_once(start):
    for _ in range(10):
        server = start()
        open_channel()
        server.kill()


def test_answers_on_when_nobody_reads_its_output_any_more(server):
    server.stdout.close()
    for _ in range(3):
        open_channel()
    assert server.poll() is None


def test_keeps_none_of_the_descriptors_that_came_along(start, ending):
    reading, writing = os.pipe()
    ending.callback(os.close, writing)
    start(pass_fds=[reading])
    os.close(reading)
    with pytest.raises(BrokenPipeError):
        os.write(writing, b"to nobody")
