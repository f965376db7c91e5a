#pragma once

#include "services/Connect.h"
#include "services/Nginx.h"
#include "services/RpcServer.h"
#include "tests/support/Services.h"

/// What a test looks up in a coordinator and its controllers; only a subclass may name it.
namespace Controllers {

class OpenConnect : public Connect
{
public:
    static Nginx *nginxOf(const Connect &connect) { return connect.*(&OpenConnect::nginx); }
    static RpcServer *rpcOf(const Connect &connect) { return connect.*(&OpenConnect::rpc); }
};

template <typename Controller>
class Open : public Controller
{
public:
    static pid_t childOf(const Controller &controller) { return controller.*(&Open::childPid); }
    static int pipeOf(const Controller &controller) { return (controller.*(&Open::pipeFds))[0]; }
};

inline Nginx *nginxOf(const Connect &connect)
{
    return OpenConnect::nginxOf(connect);
}

inline RpcServer *rpcOf(const Connect &connect)
{
    return OpenConnect::rpcOf(connect);
}

/// Whether there is a controller, its service has noted @p start, and its reader has nothing to do:
/// then no sink runs while the controller is deleted.
template <typename Controller>
bool isIdleNow(const Controller *controller, const QString &start)
{
    return controller != nullptr && CallLog::lines().contains(start) &&
           CallLog::readersOf(Open<Controller>::pipeOf(*controller)) == 1;
}

/// Waits until both services run and both readers have nothing to do.
inline bool areIdle(const Connect &connect)
{
    return eventually([&] {
        return isIdleNow(nginxOf(connect), "nginx starts") &&
               isIdleNow(rpcOf(connect), "rpc starts");
    });
}

/// The lines of the call log for the kill of a controller's child, and for the stop command.
template <typename Controller>
QString killOf(const Controller *controller)
{
    return QString("kill %1 9").arg(Open<Controller>::childOf(*controller));
}

inline QString stopCommand()
{
    return "system cd " + BundleTest::root() + "/nginx && sbin/nginx -s stop";
}

} // namespace Controllers
