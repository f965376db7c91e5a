#pragma once

class Nginx;
class NginxQListView;
class RpcQListView;
class RpcServer;

/// Owns the two service controllers: deploys, redeploys and stops them. Set both views once, then
/// open and close in any number, nginx first on deploy and the RPC server first on stop.
/// GUI thread. Operations that return bool return true.
class Connect
{
public:
    Connect() = default;
    /// Stops and deletes both controllers.
    ~Connect();
    Connect(const Connect &) = delete;
    Connect &operator=(const Connect &) = delete;

    /// Starts a new controller; one that is there is stopped and deleted first.
    bool openNginx();
    bool openRpc();
    /// Stops and deletes the nginx controller. Requires one: without it the process fails with an
    /// invalid memory access.
    bool closeNginx();
    /// Stops and deletes the RPC controller, if there is one.
    bool closeRpc();

    /// Records the view (not owned) for new controllers; a controller that is there starts again
    /// in it.
    void setNginxUi(NginxQListView *v);
    void setRpcUi(RpcQListView *v);

protected:
    Nginx *nginx = nullptr;
    RpcServer *rpc = nullptr;
    RpcQListView *rpcView = nullptr;
    NginxQListView *nginxView = nullptr;
};
