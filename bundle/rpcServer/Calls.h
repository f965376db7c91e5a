#pragma once

#include "bundle/rpcServer/Channels.h"
#include "bundle/rpcServer/Rows.h"

/// JSON-RPC 2.0. The calls are:
///   channel.open                     {"channel": 1}
///   channel.frames {channel, after}  {"frames": [{"number": 1, "x": 512, "y": 30, "hue": 2}, ...]}
///
/// The answer to a body, which is a request or a batch of them; empty if it needs none.
std::string answerBody(Channels &channels, Rows &rows, const std::string &body);
