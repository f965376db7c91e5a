#pragma once

#include "process/MyProgress.h"

#include <QStringList>

class RpcQListView;

/// Runs the bundle's RPC server and shows what it writes. Construct; setUi(); delete.
/// GUI thread, but for insertMsg(), which also runs on the reader thread.
class RpcServer : public MyProgress
{
public:
    /// Records one message and shows the whole list; an empty one is dropped.
    void insertMsg(std::string msg) override;
    /// Stores the view (not owned, may be null) and starts the RPC server.
    void setUi(RpcQListView *v);
    /// Does nothing: only deletion stops the RPC server. Static, because the coordinator calls it
    /// with no controller as well, and a member entered through a null pointer allows the compiler
    /// to drop a test for null that follows.
    static void abolish() {}

protected:
    RpcQListView *view = nullptr;
    QStringList messages;
};
