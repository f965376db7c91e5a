#pragma once

#include <cstddef>
#include <string>

struct MHD_Connection;

constexpr std::size_t mostBytes =
    std::size_t{64} * 1024; // of one body, as in nginx's configuration

/// The HTTP status that refuses a request, by all that comes before its body; 0 for one that is let
/// in: a POST of JSON to /rpc by the site's own page, or by a program that is no browser.
unsigned refusal(MHD_Connection *connection, const std::string &path, const std::string &method);
