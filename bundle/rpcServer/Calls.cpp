#include "Calls.h"

#include <stdexcept>

using Json = nlohmann::json;

namespace {

constexpr std::size_t mostCalls = 16; // of one batch

struct RpcError
{
    int code;
    const char *message;
};

constexpr RpcError parseError{-32700, "Parse error"};
constexpr RpcError invalidRequest{-32600, "Invalid Request"};
constexpr RpcError methodNotFound{-32601, "Method not found"};
constexpr RpcError invalidParams{-32602, "Invalid params"};
constexpr RpcError noSuchChannel{-32001, "No such channel"};

std::uint64_t number(const Json &params, const char *name)
{
    const Json value = params.is_object() ? params.value(name, Json()) : Json();
    if (!value.is_number_unsigned()) {
        throw RpcError(invalidParams);
    }
    return value.get<std::uint64_t>();
}

/// The result of one call; throws RpcError, or what Channels throws.
Json call(Channels &channels, Rows &rows, const std::string &method, const Json &params)
{
    if (method == "channel.open") {
        rows.note(method);
        return {{"channel", channels.open()}};
    }
    if (method == "channel.frames") {
        return {{"frames", channels.frames(number(params, "channel"), number(params, "after"))}};
    }
    throw RpcError(methodNotFound);
}

Json refusal(Rows &rows, const Json &id, const RpcError &error)
{
    rows.note(std::string("refused: ") + error.message);
    return {{"jsonrpc", "2.0"},
            {"id", id},
            {"error", {{"code", error.code}, {"message", error.message}}}};
}

/// The answer to one request; null for a notification, a request without an id.
Json answer(Channels &channels, Rows &rows, const Json &request)
{
    const Json fields = request.is_object() ? request : Json::object();
    const Json id = fields.value("id", Json());
    const Json method = fields.value("method", Json());
    const Json params = fields.value("params", Json::object());
    if (fields.value("jsonrpc", Json()) != "2.0" || !method.is_string() ||
        !params.is_structured() || !(id.is_string() || id.is_number() || id.is_null())) {
        return refusal(rows, nullptr, invalidRequest);
    }
    Json reply;
    try {
        reply = {{"jsonrpc", "2.0"}, {"id", id}, {"result", call(channels, rows, method, params)}};
    } catch (const RpcError &error) {
        reply = refusal(rows, id, error);
    } catch (const std::out_of_range &) {
        reply = refusal(rows, id, noSuchChannel);
    }
    return fields.contains("id") ? reply : Json();
}

Json answerParsed(Channels &channels, Rows &rows, const Json &parsed)
{
    if (!parsed.is_array()) {
        return answer(channels, rows, parsed);
    }
    if (parsed.empty() || parsed.size() > mostCalls) {
        return refusal(rows, nullptr, invalidRequest);
    }
    Json replies;
    for (const Json &request : parsed) {
        const Json reply = answer(channels, rows, request);
        if (!reply.is_null()) {
            replies.push_back(reply);
        }
    }
    return replies;
}

} // namespace

std::string answerBody(Channels &channels, Rows &rows, const std::string &body)
{
    // Values nested deeper than a batch's parameters are dropped: a copy of 30,000 levels takes
    // more stack than there is.
    const auto keep = [](int depth, Json::parse_event_t, const Json &) { return depth <= 4; };
    const Json parsed = Json::parse(body, keep, false);
    const Json reply = parsed.is_discarded() ? refusal(rows, nullptr, parseError)
                                             : answerParsed(channels, rows, parsed);
    return reply.is_null() ? "" : reply.dump();
}
