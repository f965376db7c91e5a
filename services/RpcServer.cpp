#include "services/RpcServer.h"

#include "services/MessageList.h"
#include "ui/RpcQListView.h"

void RpcServer::insertMsg(std::string msg)
{
    showMessage(msg, messages, view);
}

void RpcServer::setUi(RpcQListView *v)
{
    view = v;
    const std::string path = getBasePath() + "/rpcServer/MacOs/rpcServer"; // mind the small s
    insertMsg(path);
    makeProgress(path, "");
    launchRequest();
}
