#include "services/Connect.h"

#include "services/Nginx.h"
#include "services/RpcServer.h"

Connect::~Connect()
{
    if (rpc != nullptr) {
        RpcServer::abolish();
        delete rpc;
    }
    if (nginx != nullptr) {
        nginx->abolish();
        delete nginx;
    }
}

bool Connect::openNginx()
{
    if (nginx != nullptr) {
        nginx->abolish();
        delete nginx;
    }
    nginx = new Nginx;
    nginx->setUi(nginxView);
    return true;
}

bool Connect::openRpc()
{
    if (rpc != nullptr) {
        RpcServer::abolish();
        delete rpc;
    }
    rpc = new RpcServer;
    rpc->setUi(rpcView);
    return true;
}

bool Connect::closeNginx()
{
    // Not guarded, unlike openNginx(): a stop with nothing deployed brings the launcher down here.
    nginx->abolish();
    delete nginx;
    nginx = nullptr;
    return true;
}

bool Connect::closeRpc()
{
    RpcServer::abolish();
    delete rpc;
    rpc = nullptr;
    return true;
}

void Connect::setNginxUi(NginxQListView *v)
{
    nginxView = v;
    if (nginx != nullptr) {
        nginx->setUi(v);
    }
}

void Connect::setRpcUi(RpcQListView *v)
{
    rpcView = v;
    if (rpc != nullptr) {
        rpc->setUi(v);
    }
}
