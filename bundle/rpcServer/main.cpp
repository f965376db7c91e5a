// The sample RPC server: JSON-RPC 2.0 over HTTP POST to /rpc. It is started with neither arguments
// nor environment, and stopped by SIGKILL.

#include "Calls.h"
#include "HttpServer.h"
#include "Platform.h"
#include "Port.h"

#include <cerrno>
#include <csignal>
#include <system_error>

int main()
{
    std::signal(SIGPIPE, SIG_IGN);
    // One of them is the launcher's end of nginx's pipe. If it stayed open here and the launcher
    // were killed, nginx would wait for a reader for ever.
    closeInherited();

    const std::string port = std::to_string(rpcPort);
    const int listener = takePort(rpcPort);
    if (listener == -1) {
        Rows::say("rpcServer: port " + port +
                  (errno == EADDRINUSE
                       ? " is taken by another program, or by the server of another launcher. "
                         "Close that, then press [Deploy Service] again."
                       : ": " + std::generic_category().message(errno)));
        return 1;
    }
    Channels channels;
    Rows rows;
    HttpServer server(listener, [&channels, &rows](const std::string &body) {
        return answerBody(channels, rows, body);
    });
    if (server.started()) {
        Rows::say("rpcServer: listening on 127.0.0.1:" + port);
        while (server.serve()) {
            rows.report();
        }
    }
    Rows::say("rpcServer: the HTTP library does not run. Press [Deploy Service] again.");
    return 1;
}
