#pragma once

#include "Steps.h"

#include <QObject>

class Connect
{
public:
    Connect() { Steps::add("coordinator"); }
    ~Connect() { Steps::all.append("coordinator ends"); }
    void openNginx() { Steps::add("open nginx"); }
    void openRpc() { Steps::add("open rpc"); }
    void closeNginx() { Steps::add("close nginx"); }
    void closeRpc() { Steps::add("close rpc"); }
    void setNginxUi(const QObject *view) { Steps::add("nginx in " + view->objectName()); }
    void setRpcUi(const QObject *view) { Steps::add("rpc in " + view->objectName()); }
};
