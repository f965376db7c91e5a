"""The sample RPC server: its protocol, its channels and its rows."""

import json
import math
import re
import time
from typing import Any, NamedTuple

import pytest
from machine import JSON

from drive.bundle import RPC_PORT, ask
from drive.processes import wait_for

MOST_BYTES = 64 * 1024  # of a body
MOST_CALLS = 16  # of a batch
MOST_CHANNELS = 1024
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


class Reply(NamedTuple):
    """The server's answer to a body."""

    status: int
    text: str


def post(body):
    """Returns the Reply."""
    return Reply(*ask("/rpc", encoded(body), port=RPC_PORT, host="127.0.0.1", headers=JSON))


def answer(body):
    """Returns the answer as an object."""
    return json.loads(post(body).text)


def open_channel():
    """Returns the number of a new channel."""
    return answer(request("channel.open"))["result"]["channel"]


def open_channels(number):
    """Opens so many at once, in batches."""
    for begin in range(0, number, MOST_CALLS):
        post([request("channel.open")] * min(MOST_CALLS, number - begin))


def frames_of(channel, after=0):
    """Returns the frames of the channel that come after this one."""
    return answer(frames(channel, after))["result"]["frames"]


class Refused(NamedTuple):
    """A body, and the error and the id of its answer, after one channel was opened."""

    error: dict
    identity: Any
    body: Any


REFUSED = {
    "nothing": Refused(PARSE_ERROR, None, ""),
    "half an object": Refused(PARSE_ERROR, None, "{"),
    "a string that is not UTF-8": Refused(PARSE_ERROR, None, b'"\xff"'),
    "a number out of range": Refused(PARSE_ERROR, None, '{"id": 1e999}'),
    "half a batch": Refused(PARSE_ERROR, None, '[{"jsonrpc": "2.0", "method": "a"}, {'),
    "a number": Refused(INVALID_REQUEST, None, "1"),
    "an empty batch": Refused(INVALID_REQUEST, None, []),
    "a batch that is too long":
        Refused(INVALID_REQUEST, None, [request("channel.open")] * (MOST_CALLS + 1)),
    "no method": Refused(INVALID_REQUEST, None, {"jsonrpc": "2.0", "id": 1}),
    "no version": Refused(INVALID_REQUEST, None, {"id": 1, "method": "channel.open"}),
    "another version": Refused(INVALID_REQUEST, None, request("channel.open", jsonrpc="1.0")),
    "a version that is no text": Refused(INVALID_REQUEST, None, request("channel.open", jsonrpc=2)),
    "a method that is no text": Refused(INVALID_REQUEST, None, request(1)),
    "parameters that are a text": Refused(INVALID_REQUEST, None, request("channel.open", "text")),
    "an id that is a list": Refused(INVALID_REQUEST, None, request("channel.open", id=[1])),
    "an id that is true": Refused(INVALID_REQUEST, None, request("channel.open", id=True)),
    "the beginning of a method": Refused(UNKNOWN_METHOD, 1, request("channel")),
    "an empty method": Refused(UNKNOWN_METHOD, 1, request("")),
    "a long method": Refused(UNKNOWN_METHOD, 1, request("x" * 60000)),
    "a method in other letters": Refused(UNKNOWN_METHOD, 1, request("Channel.open")),
    "an id below 0": Refused(UNKNOWN_METHOD, -5, request("no.such.method", id=-5)),
    "an id that is a text":
        Refused(UNKNOWN_METHOD, "a\u00e4", request("no.such.method", id="a\u00e4")),
    "an id that is null": Refused(UNKNOWN_METHOD, None, request("no.such.method", id=None)),
    "a large id": Refused(UNKNOWN_METHOD, 2 ** 53, request("no.such.method", id=2 ** 53)),
    "an id with a fraction": Refused(UNKNOWN_METHOD, 1.5, request("no.such.method", id=1.5)),
    "no parameters": Refused(INVALID_PARAMS, 1, request("channel.frames")),
    "parameters without names": Refused(INVALID_PARAMS, 1, request("channel.frames", [1, 0])),
    "no frame": Refused(INVALID_PARAMS, 1, request("channel.frames", {"channel": 1})),
    "no channel": Refused(INVALID_PARAMS, 1, request("channel.frames", {"after": 0})),
    "a frame that is a text": Refused(INVALID_PARAMS, 1, frames(1, "0")),
    "a frame below 0": Refused(INVALID_PARAMS, 1, frames(1, -1)),
    "a frame with a fraction": Refused(INVALID_PARAMS, 1, frames(1, 0.5)),
    "a frame that is null": Refused(INVALID_PARAMS, 1, frames(1, None)),
    "a frame that is nested": Refused(INVALID_PARAMS, 1, frames(1, [[[[[0]]]]])),
    "channel 0": Refused(NO_SUCH_CHANNEL, 1, frames(0, 0)),
    "the largest channel": Refused(NO_SUCH_CHANNEL, 1, frames(2 ** 64 - 1, 0))}

DEEP = "[" * 30000 + "]" * 30000
NESTED = {
    "lists": DEEP,
    "lists without an end": "[" * MOST_BYTES,
    "objects": '{"a":' * 10000 + "1" + "}" * 10000,
    "parameters": f'{{"jsonrpc":"2.0","id":1,"method":"a","params":{DEEP}}}'}


@pytest.fixture
def server(start_rpc_server):
    """A server that listens; its next row is the first about a request."""
    started = start_rpc_server()
    assert started.stdout.readline() == f"rpcServer: listening on 127.0.0.1:{RPC_PORT}\n"
    return started


@pytest.mark.parametrize("refused", REFUSED.values(), ids=REFUSED)
def test_answers_an_error_with_its_code_message_and_id(server, refused):
    open_channel()
    assert answer(refused.body) == {
        "jsonrpc": "2.0", "id": refused.identity, "error": refused.error}


def test_answers_a_good_request_with_its_id(server):
    assert answer(request("channel.open", id="a")) == {
        "jsonrpc": "2.0", "id": "a", "result": {"channel": 1}}


def test_answers_the_requests_of_a_batch_in_their_order(server):
    answers = answer([request("no.such.method", id=3), request("channel.open", id=1),
                      request("channel.open", id=2)])
    assert [one["id"] for one in answers] == [3, 1, 2]


def test_answers_the_good_requests_of_a_batch_beside_a_bad_one(server):
    bad, good = answer([5, request("channel.open")])
    assert bad["error"] == INVALID_REQUEST
    assert good["result"] == {"channel": 1}


def test_answers_no_notification_of_a_batch(server):
    assert len(answer([notification("channel.open"), request("channel.open")])) == 1


@pytest.mark.parametrize("calls", [1, MOST_CALLS])
def test_answers_a_batch_with_a_list(server, calls):
    assert len(answer([request("channel.open")] * calls)) == calls


@pytest.mark.parametrize("body", [
    notification("channel.open"), notification("no.such.method"),
    [notification("channel.open")] * 2], ids=["good", "bad", "batch"])
def test_answers_no_notification(server, body):
    assert post(body) == Reply(204, "")


def test_carries_out_a_notification(server):
    post(notification("channel.open"))
    assert open_channel() == 2


def test_takes_a_body_of_the_greatest_size(server):
    assert post(b" " * (MOST_BYTES - 2) + b"{}").status == 200


def test_refuses_an_oversized_body(server):
    assert post(b" " * (MOST_BYTES - 1) + b"{}").status == 413


@pytest.mark.parametrize("body", NESTED.values(), ids=NESTED)
def test_survives_a_deeply_nested_body(server, body):
    assert post(body).status == 200
    open_channel()


def test_writes_a_row_for_an_opened_channel(server):
    open_channel()
    assert server.stdout.readline() == "channel.open\n"


def test_writes_a_row_for_what_it_refuses(server):
    post(request("x" * 1000))
    assert server.stdout.readline() == "refused: Method not found\n"


def test_writes_no_row_for_frames(server):
    channel = open_channel()
    assert server.stdout.readline() == "channel.open\n"
    for _ in range(10):
        frames_of(channel)
    post("{")
    assert server.stdout.readline() == "refused: Parse error\n"  # not one of eleven


def test_says_in_one_row_how_many_requests_there_were_and_what_the_last_was(server):
    post([request("channel.open"), request("channel.open"), request("no.such.method")])
    assert server.stdout.readline() == "3 requests, the last: refused: Method not found\n"


@pytest.mark.parametrize("body", ["{", request("channel.open")], ids=["refused", "opened"])
def test_writes_at_most_one_row_a_second_about_all_requests(server, body):
    begin, noted, rows = time.monotonic(), 0, 0
    for _ in range(60):
        post(body)
    while noted < 60:
        row = re.fullmatch("(?:([0-9]+) requests, the last: )?(.*)\n", server.stdout.readline())
        noted, rows = noted + int(row[1] or 1), rows + 1
    assert noted == 60
    assert rows <= time.monotonic() - begin + 1


def test_delivers_the_first_frame_at_once(server):
    assert frames_of(open_channel())[0]["number"] == 1


def test_delivers_each_frame_once_and_in_order(server):
    channel, numbers = open_channel(), [0]

    def ask_on():
        numbers.extend(frame["number"] for frame in frames_of(channel, numbers[-1]))
        return len(numbers) > 10

    wait_for("ten frames", ask_on)
    assert numbers == list(range(len(numbers)))


def test_delivers_no_frame_after_the_last_possible_one(server):
    assert frames_of(open_channel(), 2 ** 64 - 1) == []


def test_delivers_the_newest_two_seconds(server):
    channel = open_channel()
    wait_for("the 60th frame", lambda: frames_of(channel, 59))
    newest = frames_of(channel, 59)[-1]["number"]
    numbers = [frame["number"] for frame in frames_of(channel)]
    assert numbers == list(range(numbers[-1] - 49, numbers[-1] + 1))
    assert numbers[-1] >= newest


def test_makes_twenty_five_frames_a_second(server):
    before = time.monotonic()
    channel = open_channel()
    opened = time.monotonic()
    wait_for("the 60th frame", lambda: frames_of(channel, 59))
    asked = time.monotonic()
    newest = frames_of(channel)[-1]["number"]
    assert 25 * (asked - opened) <= newest <= 25 * (time.monotonic() - before) + 1


def test_moves_the_ball_along_a_curve_in_changing_colours(server):
    channel = open_channel()
    for frame in wait_for("the fifth frame", lambda: frames_of(channel, 4)):
        assert frame == {
            "number": frame["number"], "hue": frame["number"] * 2 % 360,
            "x": round(500 + 400 * math.cos(frame["number"] / 20)),
            "y": round(500 + 400 * math.sin(frame["number"] * 3 / 40))}


def test_keeps_as_many_channels_as_nobody_has_pages_open(server):
    open_channels(MOST_CHANNELS)
    assert frames_of(1)


def test_forgets_the_channel_that_was_asked_for_the_longest_ago(server):
    open_channels(MOST_CHANNELS)
    frames_of(1)
    open_channel()
    assert answer(frames(2, 0))["error"] == NO_SUCH_CHANNEL


def test_keeps_a_channel_that_is_asked_for(server):
    open_channels(MOST_CHANNELS)
    frames_of(1)
    open_channel()
    assert frames_of(1)
