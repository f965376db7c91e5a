// The sample RPC server: JSON-RPC 2.0 over HTTP POST on http://127.0.0.1:4201/rpc.
//   channel.open                     {"channel": 1}
//   channel.frames {channel, after}  {"frames": [{"number": 1, "x": 512, "y": 30, "hue": 2}, ...]}

#include "bundle/rpcServer/Channels.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <httplib.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

using Json = nlohmann::json;

namespace {

constexpr std::size_t mostBytes = std::size_t{64} * 1024; // of one body
constexpr std::size_t mostCalls = 16;                     // of one batch

struct RpcError
{
    int code;
    const char *message;
};

/// One line on the output, at once. Nobody may be there to read it; that stops nothing.
void say(const std::string &line)
{
    std::puts(line.c_str());
    std::fflush(stdout);
}

std::uint64_t number(const Json &params, const char *name)
{
    const Json value = params.is_object() ? params.value(name, Json()) : Json();
    return value.is_number_unsigned() ? value.get<std::uint64_t>()
                                      : throw RpcError{-32602, "Invalid params"};
}

Json call(Channels &channels, const std::string &method, const Json &params)
{
    if (method == "channel.open") {
        return {{"channel", channels.open()}};
    }
    if (method == "channel.frames") {
        return {{"frames", channels.frames(number(params, "channel"), number(params, "after"))}};
    }
    throw RpcError{-32601, "Method not found"};
}

Json refusal(const Json &id, const RpcError &error)
{
    say("refused: " + std::string(error.message));
    return {{"jsonrpc", "2.0"},
            {"id", id},
            {"error", {{"code", error.code}, {"message", error.message}}}};
}

/// The answer to one request; null for a notification, a request without an id.
Json answer(Channels &channels, const Json &request)
{
    const Json fields = request.is_object() ? request : Json::object();
    const Json id = fields.value("id", Json());
    const Json method = fields.value("method", Json());
    const Json params = fields.value("params", Json::object());
    if (fields.value("jsonrpc", Json()) != "2.0" || !method.is_string() ||
        !params.is_structured() || !(id.is_string() || id.is_number() || id.is_null())) {
        return refusal(nullptr, {-32600, "Invalid Request"});
    }
    Json reply;
    try {
        reply = {{"jsonrpc", "2.0"}, {"id", id}, {"result", call(channels, method, params)}};
        say(method);
    } catch (const RpcError &error) {
        reply = refusal(id, error);
    } catch (const std::out_of_range &) {
        reply = refusal(id, {-32001, "No such channel"});
    }
    return fields.contains("id") ? reply : Json();
}

/// The answer to a body, which is a request or a batch of them; null if it needs none.
Json answerBody(Channels &channels, const std::string &body)
{
    // Values nested deeper than a batch's parameters are dropped: a copy of 30,000 levels takes
    // more stack than there is.
    const auto keep = [](int depth, Json::parse_event_t, const Json &) { return depth <= 4; };
    const Json parsed = Json::parse(body, keep, false);
    if (parsed.is_discarded()) {
        return refusal(nullptr, {-32700, "Parse error"});
    }
    if (!parsed.is_array()) {
        return answer(channels, parsed);
    }
    if (parsed.empty() || parsed.size() > mostCalls) {
        return refusal(nullptr, {-32600, "Invalid Request"});
    }
    Json replies;
    for (const Json &request : parsed) {
        if (const Json reply = answer(channels, request); !reply.is_null()) {
            replies.push_back(reply);
        }
    }
    return replies;
}

void answerHttp(Channels &channels, httplib::Response &response, const httplib::ContentReader &read)
{
    std::string body;
    const bool complete = read([&body](const char *data, std::size_t length) {
        body.append(data, length); // counted here: a body may come without its length
        return body.size() <= mostBytes;
    });
    if (body.size() > mostBytes) {
        response.status = 413;
    } else if (complete) { // otherwise the library has set a status
        const Json reply = answerBody(channels, body);
        response.status = reply.is_null() ? 204 : 200;
        response.set_content(reply.is_null() ? "" : reply.dump(), "application/json");
    }
}

/// Tries for 2.5 seconds: a killed server that this one replaces may hold the port a little longer.
bool listen(httplib::Server &server)
{
    server.set_socket_options([](socket_t socket) {
        const int yes = 1; // not the library's own SO_REUSEPORT: two servers would share the port
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof(yes));
    });
    int attempts = 25;
    while (!server.bind_to_port("127.0.0.1", 4201) && --attempts > 0) {
        usleep(100'000); // microseconds
    }
    return attempts > 0;
}

} // namespace

int main() // started with neither arguments nor environment, and stopped by SIGKILL
{
    std::signal(SIGPIPE, SIG_IGN);
    // The launcher's descriptors come along, the one that it reads nginx's output from among them:
    // kept open here, nginx would wait for a reader for ever once the launcher has been killed.
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
        close(descriptor);
    }

    httplib::Server server;
    if (!listen(server)) {
        say(errno == EADDRINUSE
                ? "rpcServer: port 4201 is taken by another program, or by a "
                  "server that a killed launcher left running. End it, then press "
                  "[Deploy Service] again."
                : "rpcServer: port 4201: " + std::generic_category().message(errno));
        return 1;
    }
    say("rpcServer: listening on 127.0.0.1:4201");

    Channels channels;
    server.set_keep_alive_max_count(1); // an idle connection would hold a thread of the pool
    server.set_payload_max_length(mostBytes);
    server.set_error_handler([](const httplib::Request &, const httplib::Response &response) {
        say("refused: HTTP status " + std::to_string(response.status));
    });
    server.Post("/rpc", [&channels](const auto &, auto &response, const auto &read) {
        answerHttp(channels, response, read);
    });
    server.listen_after_bind();
}
