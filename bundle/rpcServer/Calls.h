#pragma once

#include "Channels.h"
#include "Rows.h"

/// JSON-RPC 2.0. The calls are:
///   channel.open                     {"channel": 1}
///   channel.frames {channel, after}  {"frames": [{"number": 1, "x": 512, "y": 30, "hue": 2}, ...]}
///
/// The answer to a body, which is a request or a batch of them; empty if it needs none. An opened
/// channel and a refusal are worth a row; frames are not, since a page asks for them every second.
std::string answerBody(Channels &channels, Rows &rows, const std::string &body);
