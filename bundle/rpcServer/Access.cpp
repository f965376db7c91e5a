#include "Access.h"

#include "Port.h"

#include <array>
#include <cstdlib>
#include <microhttpd.h>
#include <set>
#include <strings.h>

namespace {

/// The names of this machine, with what stands before and behind them.
std::set<std::string> around(const std::string &before, int port)
{
    std::set<std::string> all;
    for (const char *name : {"localhost", "127.0.0.1", "[::1]"}) {
        all.insert(before + name + ":" + std::to_string(port));
    }
    return all;
}

// Only the site's own page gets in: any page on the web may send requests to this port.
// A name that its owner points to 127.0.0.1 stands in Host. nginx passes on what the page named.
bool isOwnHost(const std::string &host)
{
    static const std::set<std::string> bySite = around("", sitePort);
    static const std::set<std::string> directly = around("", rpcPort);
    return bySite.count(host) != 0 || directly.count(host) != 0;
}

// A browser says which page asks, and whether it is one of the site's; other programs say nothing.
bool isOwnOrigin(const std::string &origin)
{
    static const std::set<std::string> own = around("http://", sitePort);
    return origin.empty() || own.count(origin) != 0;
}

bool isOwnFetch(const std::string &site)
{
    return site.empty() || site == "same-origin";
}

// A foreign page can declare its body as JSON only after it has asked, and that is refused.
bool isJson(const std::string &type)
{
    const std::string json = "application/json";
    const bool begins = strncasecmp(type.c_str(), json.c_str(), json.size()) == 0;
    return begins && type.find_first_not_of("; ", json.size()) != json.size();
}

} // namespace

unsigned refusal(MHD_Connection *connection, const std::string &path, const std::string &method)
{
    const auto header = [connection](const char *name) {
        const char *value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
        return std::string(value != nullptr ? value : "");
    };
    if (!isOwnHost(header("Host")) || !isOwnOrigin(header("Origin")) ||
        !isOwnFetch(header("Sec-Fetch-Site"))) {
        return MHD_HTTP_FORBIDDEN;
    }
    if (path != "/rpc") {
        return MHD_HTTP_NOT_FOUND;
    }
    if (method != "POST") {
        return MHD_HTTP_METHOD_NOT_ALLOWED;
    }
    if (!isJson(header("Content-Type"))) {
        return MHD_HTTP_UNSUPPORTED_MEDIA_TYPE;
    }
    if (std::strtoull(header("Content-Length").c_str(), nullptr, 10) > mostBytes) {
        return MHD_HTTP_CONTENT_TOO_LARGE;
    }
    return 0;
}
