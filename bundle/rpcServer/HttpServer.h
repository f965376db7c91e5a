#pragma once

#include <deque>
#include <functional>
#include <microhttpd.h>
#include <string>

/// POST /rpc over HTTP. GNU libmicrohttpd, because it asks before it reads a body, keeps what a
/// connection may take below a limit, and serves all of them from one thread: a connection that
/// says nothing holds nobody up. Who is let in is decided in Access.h.
///
/// Construct it, ask whether it has started(), then serve() on and on; all on one thread.
class HttpServer
{
public:
    /// Gives the answer to a body; empty if it needs none.
    using Handler = std::function<std::string(const std::string &body)>;

    /// @p listener is a listening socket.
    HttpServer(int listener, Handler onBody);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    [[nodiscard]] bool started() const { return daemon != nullptr; }

    /// Waits for what comes next, a second at most. Returns whether it can go on.
    bool serve();

private:
    static MHD_Result onRequest(void *self, MHD_Connection *connection, const char *path,
                                const char *method, const char *version, const char *data,
                                std::size_t *length, void **context);
    static void onRequestEnd(void *self, MHD_Connection *connection, void **context,
                             MHD_RequestTerminationCode why);
    static void onConnection(void *self, MHD_Connection *connection, void **context,
                             MHD_ConnectionNotificationCode code);

    Handler handle;
    std::deque<MHD_Connection *> connections; // the oldest first
    MHD_Daemon *daemon;
};
