// The sample RPC server: JSON-RPC 2.0 over HTTP POST on http://127.0.0.1:4201/rpc. It is started
// with neither arguments nor environment, and stopped by SIGKILL.
//
// GNU libmicrohttpd, because it asks before it reads a body, keeps what a connection may take below
// a limit, and serves all of them from one thread: a connection that says nothing holds nobody up.

#include "bundle/rpcServer/Calls.h"
#include "bundle/rpcServer/Port.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <microhttpd.h>
#include <set>
#include <strings.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace {

constexpr int rpcPort = 4201;
constexpr std::size_t mostBytes = std::size_t{64} * 1024;       // of one body
constexpr std::size_t mostHeaderBytes = std::size_t{32} * 1024; // as nginx accepts
constexpr std::size_t mostConnections = 64;
constexpr unsigned idleSeconds = 5; // until a connection is closed
constexpr int longestWait = 1000;   // milliseconds

// Only the site's own page gets in: any page on the web may send requests to this port.
// A name that its owner points to 127.0.0.1 stands in Host. nginx passes on what the page named.
const std::set<std::string> ownHosts{"localhost:4200", "127.0.0.1:4200", "[::1]:4200",
                                     "localhost:4201", "127.0.0.1:4201", "[::1]:4201"};
// A browser says which page asks, and whether it is one of the site's; other programs say nothing.
const std::set<std::string> ownOrigins{"", "http://localhost:4200", "http://127.0.0.1:4200",
                                       "http://[::1]:4200"};
const std::set<std::string> ownFetchSites{"", "same-origin"};

struct Server
{
    Channels channels;
    Rows rows;
    std::deque<MHD_Connection *> connections; // the oldest first
};

/// The HTTP status that refuses a request, by all that comes before its body; 0 for one that is let
/// in.
unsigned refusal(MHD_Connection *connection, const std::string &path, const std::string &method)
{
    const auto header = [connection](const char *name) {
        const char *value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
        return std::string(value != nullptr ? value : "");
    };
    if (ownHosts.count(header("Host")) == 0 || ownOrigins.count(header("Origin")) == 0 ||
        ownFetchSites.count(header("Sec-Fetch-Site")) == 0) {
        return MHD_HTTP_FORBIDDEN;
    }
    if (path != "/rpc") {
        return MHD_HTTP_NOT_FOUND;
    }
    if (method != "POST") {
        return MHD_HTTP_METHOD_NOT_ALLOWED;
    }
    // A foreign page can declare its body so only after it has asked, which is refused above.
    const std::string type = header("Content-Type");
    const std::string json = "application/json";
    if (strncasecmp(type.c_str(), json.c_str(), json.size()) != 0 ||
        type.find_first_not_of("; ", json.size()) == json.size()) {
        return MHD_HTTP_UNSUPPORTED_MEDIA_TYPE;
    }
    return std::strtoull(header("Content-Length").c_str(), nullptr, 10) > mostBytes
               ? MHD_HTTP_CONTENT_TOO_LARGE
               : 0;
}

MHD_Result reply(MHD_Connection *connection, unsigned status, const std::string &text)
{
    std::string copy = text; // the library takes no const, and makes a copy of its own
    MHD_Response *response =
        MHD_create_response_from_buffer(copy.size(), copy.data(), MHD_RESPMEM_MUST_COPY);
    MHD_add_response_header(response, "Content-Type", "application/json");
    MHD_add_response_header(response, "Connection", "close");
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

/// Called for each request: once for its header, for each piece of its body, and at its end.
MHD_Result onRequest(void *self, MHD_Connection *connection, const char *path, const char *method,
                     const char * /*version*/, const char *data, std::size_t *length,
                     void **context)
{
    if (*context == nullptr) {
        if (const unsigned status = refusal(connection, path, method); status != 0) {
            return reply(connection, status, "");
        }
        *context = new std::string;
        return MHD_YES;
    }
    std::string &body = *static_cast<std::string *>(*context);
    if (*length == 0) {
        auto &server = *static_cast<Server *>(self);
        const std::string text = answerBody(server.channels, server.rows, body);
        return reply(connection, text.empty() ? MHD_HTTP_NO_CONTENT : MHD_HTTP_OK, text);
    }
    if (body.size() + *length > mostBytes) {
        return MHD_NO; // it came without its length; the connection is closed
    }
    body.append(data, *length);
    *length = 0;
    return MHD_YES;
}

void onRequestEnd(void * /*self*/, MHD_Connection * /*connection*/, void **context,
                  MHD_RequestTerminationCode /*why*/)
{
    delete static_cast<std::string *>(*context);
}

/// When all connections are taken, the oldest makes room for the newest. An answer takes no time,
/// so whoever has been there for longest is not about to ask.
void onConnection(void *self, MHD_Connection *connection, void ** /*context*/,
                  MHD_ConnectionNotificationCode code)
{
    auto &server = *static_cast<Server *>(self);
    auto &open = server.connections;
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        open.erase(std::remove(open.begin(), open.end(), connection), open.end());
        return;
    }
    if (open.size() == mostConnections) {
        const auto what = MHD_CONNECTION_INFO_CONNECTION_FD;
        shutdown(MHD_get_connection_info(open.front(), what)->connect_fd, SHUT_RDWR);
        open.pop_front();
    }
    open.push_back(connection);
}

/// The launcher's descriptors come along, the one that it reads nginx's output from among them:
/// kept open here, nginx would wait for a reader for ever once the launcher has been killed.
void closeInherited()
{
    const int first = STDERR_FILENO + 1;
#ifdef __APPLE__
    for (int descriptor = first; descriptor < getdtablesize(); ++descriptor) {
        close(descriptor);
    }
#else
    closefrom(first); // there may be no limit to count to
#endif
}

} // namespace

int main()
{
    std::signal(SIGPIPE, SIG_IGN);
    closeInherited();

    const int listener = takePort(rpcPort);
    if (listener == -1) {
        Rows::say(errno == EADDRINUSE
                      ? "rpcServer: port 4201 is taken by another program, or by the server of "
                        "another launcher. Close that, then press [Deploy Service] again."
                      : "rpcServer: port 4201: " + std::generic_category().message(errno));
        return 1;
    }
    Server server;
    MHD_Daemon *daemon = MHD_start_daemon(
        MHD_USE_AUTO, 0, nullptr, nullptr, onRequest, &server, MHD_OPTION_LISTEN_SOCKET, listener,
        // Above the server's own limit: those that were just shut down take their time to go.
        MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(2 * mostConnections),
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, mostHeaderBytes, MHD_OPTION_CONNECTION_TIMEOUT,
        idleSeconds, MHD_OPTION_NOTIFY_CONNECTION, onConnection, &server,
        MHD_OPTION_NOTIFY_COMPLETED, onRequestEnd, nullptr, MHD_OPTION_END);
    if (daemon == nullptr) {
        Rows::say("rpcServer: the HTTP library did not start");
        return 1;
    }
    Rows::say("rpcServer: listening on 127.0.0.1:4201");
    while (MHD_run_wait(daemon, longestWait) == MHD_YES) {
        server.rows.report();
    }
}
