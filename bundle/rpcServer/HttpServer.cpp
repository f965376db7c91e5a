#include "HttpServer.h"

#include "Access.h"

#include <algorithm>
#include <sys/socket.h>
#include <utility>

namespace {

constexpr std::size_t mostHeaderBytes = std::size_t{32} * 1024; // as nginx accepts
constexpr std::size_t mostConnections = 64;
constexpr unsigned idleSeconds = 5; // until a connection is closed
constexpr int longestWait = 1000;   // milliseconds

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

} // namespace

// clang-format off: an option a line, with its values
HttpServer::HttpServer(int listener, Handler onBody)
    : handle(std::move(onBody)),
      daemon(MHD_start_daemon(
          MHD_USE_AUTO, 0, nullptr, nullptr, onRequest, this,
          MHD_OPTION_LISTEN_SOCKET, listener,
          // Above the server's own limit: those that were just shut down take their time to go.
          MHD_OPTION_CONNECTION_LIMIT, static_cast<unsigned>(2 * mostConnections),
          MHD_OPTION_CONNECTION_MEMORY_LIMIT, mostHeaderBytes,
          MHD_OPTION_CONNECTION_TIMEOUT, idleSeconds,
          MHD_OPTION_NOTIFY_CONNECTION, onConnection, this,
          MHD_OPTION_NOTIFY_COMPLETED, onRequestEnd, nullptr,
          MHD_OPTION_END))
{}
// clang-format on

HttpServer::~HttpServer()
{
    if (started()) {
        MHD_stop_daemon(daemon);
    }
}

bool HttpServer::serve()
{
    return MHD_run_wait(daemon, longestWait) == MHD_YES;
}

/// Called for each request: once for its header, for each piece of its body, and at its end.
MHD_Result HttpServer::onRequest(void *self, MHD_Connection *connection, const char *path,
                                 const char *method, const char * /*version*/, const char *data,
                                 std::size_t *length, void **context)
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
        const std::string text = static_cast<HttpServer *>(self)->handle(body);
        return reply(connection, text.empty() ? MHD_HTTP_NO_CONTENT : MHD_HTTP_OK, text);
    }
    if (body.size() + *length > mostBytes) {
        return MHD_NO; // it came without its length; the connection is closed
    }
    body.append(data, *length);
    *length = 0;
    return MHD_YES;
}

void HttpServer::onRequestEnd(void * /*self*/, MHD_Connection * /*connection*/, void **context,
                              MHD_RequestTerminationCode /*why*/)
{
    delete static_cast<std::string *>(*context);
}

/// When all connections are taken, the oldest is closed for the newest. An answer takes no time, so
/// the oldest connection is not one that waits for its answer.
void HttpServer::onConnection(void *self, MHD_Connection *connection, void ** /*context*/,
                              MHD_ConnectionNotificationCode code)
{
    auto &open = static_cast<HttpServer *>(self)->connections;
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
