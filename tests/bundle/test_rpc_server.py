"""The sample RPC server: the protocol, and how it starts and lives on."""

import ctypes
import json
import os
import re
import time

import psutil
import pytest

from drive.bundle import RPC_PORT, ask
from drive.processes import wait_for

LISTENING = "rpcServer: listening on 127.0.0.1:4201\n"
PARSE_ERROR, INVALID_REQUEST, UNKNOWN_METHOD, INVALID_PARAMS, NO_SUCH_CHANNEL = (
    -32700, -32600, -32601, -32602, -32001)
MESSAGES = {PARSE_ERROR: "Parse error", INVALID_REQUEST: "Invalid Request",
            UNKNOWN_METHOD: "Method not found", INVALID_PARAMS: "Invalid params",
            NO_SUCH_CHANNEL: "No such channel"}
MOST_BYTES = 64 * 1024
FRAMES = {"channel": 1, "after": 0}


def request(method, params=None, **more):
    """Returns a request as an object."""
    parameters = {} if params is None else {"params": params}
    return {"jsonrpc": "2.0", "id": 1, "method": method, **parameters, **more}


def encoded(body):
    """Returns the body as bytes; what is no text becomes JSON."""
    text = body if isinstance(body, (bytes, str)) else json.dumps(body)
    return text if isinstance(text, bytes) else text.encode()


def post(body, **headers):
    """Returns HTTP status and text of the answer; a body that is no text is sent as JSON."""
    return ask("/rpc", encoded(body), port=RPC_PORT, host="127.0.0.1",
               headers={"Content-Type": "application/json", **headers})


def call(method, params=None, **more):
    """Returns the answer to a request, as an object."""
    return json.loads(post(request(method, params, **more))[1])


def open_channel():
    """Returns the number of a new channel."""
    return call("channel.open")["result"]["channel"]


def frames_of(channel, after=0):
    """Returns the frames of the channel that come after this one."""
    return call("channel.frames", {"channel": channel, "after": after})["result"]["frames"]


# Code, id and request, each as it comes after one channel was opened.
ERRORS = [
    (PARSE_ERROR, None, ""), (PARSE_ERROR, None, "{"), (PARSE_ERROR, None, "nonsense"),
    (PARSE_ERROR, None, b'"\xff"'), (PARSE_ERROR, None, '{"id": 1e999}'),
    (PARSE_ERROR, None, '[{"jsonrpc": "2.0", "method": "a"}, {'),
    (INVALID_REQUEST, None, "1"), (INVALID_REQUEST, None, "null"),
    (INVALID_REQUEST, None, []), (INVALID_REQUEST, None, {}),
    (INVALID_REQUEST, None, {"jsonrpc": "2.0", "id": 1}),
    (INVALID_REQUEST, None, request("channel.open", jsonrpc="1.0")),
    (INVALID_REQUEST, None, request("channel.open", jsonrpc=2.0)),
    (INVALID_REQUEST, None, {"id": 1, "method": "channel.open"}),
    (INVALID_REQUEST, None, request(1)),
    (INVALID_REQUEST, None, request("channel.open", "text")),
    (INVALID_REQUEST, None, request("channel.open", id=[1])),
    (INVALID_REQUEST, None, request("channel.open", id={})),
    (INVALID_REQUEST, None, request("channel.open", id=True)),
    (INVALID_REQUEST, None, [request("channel.open")] * 17),
    (UNKNOWN_METHOD, 7, request("channel", id=7)),
    (UNKNOWN_METHOD, "a\u00e4", request("", id="a\u00e4")),
    (UNKNOWN_METHOD, None, request("x" * 60000, id=None)),
    (UNKNOWN_METHOD, 1.5, request("Channel.open", id=1.5)),
    (INVALID_PARAMS, 1, request("channel.frames")),
    (INVALID_PARAMS, 1, request("channel.frames", [1, 0])),
    (INVALID_PARAMS, 1, request("channel.frames", {"channel": 1})),
    (INVALID_PARAMS, 1, request("channel.frames", {"channel": 1, "after": "0"})),
    (INVALID_PARAMS, 1, request("channel.frames", {"channel": 1, "after": -1})),
    (INVALID_PARAMS, 1, request("channel.frames", {"channel": 1, "after": 0.5})),
    (INVALID_PARAMS, 1, request("channel.frames", {"channel": 1, "after": None})),
    (INVALID_PARAMS, 1, request("channel.frames", {"channel": 1, "after": [[[[[0]]]]]})),
    (NO_SUCH_CHANNEL, 1, request("channel.frames", {"channel": 0, "after": 0})),
    (NO_SUCH_CHANNEL, 1, request("channel.frames", {"channel": 2 ** 64 - 1, "after": 0}))]
ANSWERED = [request("channel.open"), request("channel.frames", FRAMES), [request("channel.open")],
            {"jsonrpc": "2.0", "method": "channel.open"}]


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


@pytest.mark.parametrize(("code", "identity", "body"), ERRORS)
def test_answers_an_error_with_its_code_message_and_id(server, code, identity, body):
    assert open_channel() == 1
    status, text = post(body)
    answer = json.loads(text)
    assert status == 200
    assert answer == {"jsonrpc": "2.0", "id": identity,
                      "error": {"code": code, "message": MESSAGES[code]}}


@pytest.mark.parametrize("identity", [0, -5, 2 ** 53, "text", "", None])
def test_returns_the_id_as_it_came(server, identity):
    answer = call("channel.open", id=identity)
    assert answer["id"] == identity
    assert "result" in answer


def test_answers_a_batch_in_its_order(server):
    answers = json.loads(post([request("channel.open", id=1), 5, request("nothing", id=2)])[1])
    assert [answer["id"] for answer in answers] == [1, None, 2]
    assert "result" in answers[0]
    assert [answer["error"]["code"] for answer in answers[1:]] == [INVALID_REQUEST, UNKNOWN_METHOD]


def test_answers_a_batch_of_one_with_a_batch(server):
    assert len(json.loads(post([request("channel.open")])[1])) == 1


def test_answers_no_notification(server):
    for body in ({"jsonrpc": "2.0", "method": "channel.open"},
                 {"jsonrpc": "2.0", "method": "nothing"},
                 [{"jsonrpc": "2.0", "method": "channel.frames"}] * 2):
        assert post(body) == (204, "")
    mixed = [{"jsonrpc": "2.0", "method": "nothing"}, request("channel.open", id=3)]
    assert [answer["id"] for answer in json.loads(post(mixed)[1])] == [3]


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
                       (request("channel.frames", {"channel": 1, "after": 0}), "channel.frames\n"),
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


def test_delivers_the_first_frame_at_once(server):
    assert frames_of(open_channel())[0]["number"] == 1


def test_delivers_each_frame_once_and_in_order(server):
    channel, numbers = open_channel(), [0]

    def ask_on():
        numbers.extend(frame["number"] for frame in frames_of(channel, numbers[-1]))
        return len(numbers) > 10

    wait_for("ten frames", ask_on)
    assert numbers == list(range(len(numbers)))


def test_delivers_two_seconds_at_most_and_the_newest(server):
    channel = open_channel()
    wait_for("the 60th frame", lambda: any(f["number"] >= 60 for f in frames_of(channel)))
    frames = frames_of(channel)
    assert len(frames) == 50
    assert frames[-1]["number"] >= 60


def test_delivers_nothing_after_a_frame_to_come(server):
    assert frames_of(open_channel(), 2 ** 64 - 1) == []


def test_describes_a_moving_picture(server):
    channel = open_channel()
    frames = wait_for("25 frames", lambda: [] if len(f := frames_of(channel)) < 25 else f)
    for frame in frames:
        assert 0 <= frame["x"] <= 1000
        assert 0 <= frame["y"] <= 1000
        assert 0 <= frame["hue"] < 360
    assert len({(frame["x"], frame["y"]) for frame in frames}) == len(frames)


def test_keeps_the_newest_sixteen_channels(server):
    opened = [open_channel() for _ in range(17)]
    assert len(set(opened)) == 17
    first, *others = [call("channel.frames", {"channel": channel, "after": 0})
                      for channel in opened]
    assert first["error"]["code"] == NO_SUCH_CHANNEL
    assert all("result" in answer for answer in others)


@pytest.mark.parametrize("arguments", [[], [b""]])
def test_starts_with_neither_arguments_nor_environment(start, arguments, build):
    program = bytes(build / "orvane.app/rpcServer/MacOs/rpcServer")

    def bare_exec():
        """Replaces the child by the server, with these arguments and a null environment."""
        words = (ctypes.c_char_p * (len(arguments) + 1))(*arguments, None)
        ctypes.CDLL(None).execve(program, words, None)

    server = start(preexec_fn=bare_exec)
    assert psutil.Process(server.pid).environ() == {}
    open_channel()


def test_listens_on_loopback_only(server):
    assert [c.laddr for c in psutil.Process(server.pid).connections()] == [("127.0.0.1", RPC_PORT)]


def test_says_that_its_port_is_taken(server, start_rpc_server, assert_one_line):
    second = start_rpc_server()
    output = second.communicate(timeout=30)[0]
    assert second.returncode != 0
    assert_one_line(output, "port 4201", "taken by another program", "[Deploy Service]")
    open_channel()
    assert server.poll() is None


def test_waits_for_a_port_that_is_about_to_be_free(start_rpc_server, hold):
    holder = hold(RPC_PORT)
    server = start_rpc_server()
    started = psutil.Process(server.pid)
    wait_for("it sleeps after a try", lambda: sum(started.num_ctx_switches()) > 2
             and started.status() == psutil.STATUS_SLEEPING)
    holder.close()
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
