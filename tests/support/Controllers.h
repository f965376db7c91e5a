#pragma once

#include "services/Connect.h"
#include "services/Nginx.h"
#include "services/RpcServer.h"
#include "tests/support/Services.h"

/// What a test looks up in a coordinator; only a subclass may name it.
namespace Controllers {

class OpenConnect : public Connect
{
public:
    using Connect::nginx;
    using Connect::nginxView;
    using Connect::rpc;
    using Connect::rpcView;
};

inline Nginx *nginxOf(const Connect &connect)
{
    return connect.*(&OpenConnect::nginx);
}

inline RpcServer *rpcOf(const Connect &connect)
{
    return connect.*(&OpenConnect::rpc);
}

/// Waits until both services run and both readers have nothing to do.
inline bool areIdle(const Connect &connect)
{
    return Services::isIdle(nginxOf(connect), "nginx starts") &&
           Services::isIdle(rpcOf(connect), "rpc starts");
}

} // namespace Controllers
