// libFuzzer's entry: the RPC server's answer to any body is empty, or JSON that says what it is.

#include "bundle/rpcServer/Calls.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Channels channels;
    static Rows rows;
    const std::string answer = answerBody(channels, rows, {data, data + size});
    if (!answer.empty()) {
        const auto parsed = nlohmann::json::parse(answer);
        const auto first = parsed.is_array() ? parsed.at(0) : parsed;
        if (first.at("jsonrpc") != "2.0" || first.contains("result") == first.contains("error")) {
            std::abort();
        }
    }
    return 0;
}
