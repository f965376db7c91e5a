#include "services/Connect.h"

#include "services/Nginx.h"
#include "services/RpcServer.h"
#include "tests/support/Apart.h"
#include "tests/support/Services.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <memory>
#include <stdexcept>

using namespace Services;

namespace {

/// A coordinator, its fields in the open.
struct OpenConnect : Connect
{
    using Connect::nginx;
    using Connect::rpc;
};

} // namespace

class ConnectTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        SystemCalls::recordStops();
        nginxView = std::make_unique<WatchedView<NginxQListView>>(nullptr);
        rpcView = std::make_unique<WatchedView<RpcQListView>>(nullptr);
        connect = std::make_unique<OpenConnect>();
        setViews();
    }

    void cleanup()
    {
        SystemCalls::stop();
        connect.reset();
        removeAll();
    }

    void aViewStartsNoNginxByItself() { QCOMPARE(connect->nginx, nullptr); }

    void aViewStartsNoRpcServerByItself() { QCOMPARE(connect->rpc, nullptr); }

    /// It shows the rows of both starts.
    void aViewThatComesLaterStartsNginxAgain()
    {
        connect = std::make_unique<OpenConnect>(); // without views
        connect->openNginx();
        setViews();
        QCOMPARE(nginxView->rows(), missing(nginx) + missing(nginx));
    }

    void aViewThatComesLaterStartsTheRpcServerAgain()
    {
        connect = std::make_unique<OpenConnect>();
        connect->openRpc();
        setViews();
        QCOMPARE(rpcView->rows(), missing(rpcServer) + missing(rpcServer));
    }

    void openingNginxReturnsTrue() { QCOMPARE(connect->openNginx(), true); }

    void openingTheRpcServerReturnsTrue() { QCOMPARE(connect->openRpc(), true); }

    void aRedeployStopsEachServiceBeforeItStartsItAgain()
    {
        deploy();
        const QStringList nginxStop = stopOfNginx();
        const QStringList rpcStop = stopOfTheRpcServer();
        nginxView->atModel = [] { SystemCalls::note("nginx row"); };
        rpcView->atModel = [] { SystemCalls::note("rpc row"); };
        deploy();
        QCOMPARE(SystemCalls::lines(),
                 nginxStop + QStringList({"nginx row", "nginx row", "nginx starts"}) + rpcStop +
                     QStringList({"rpc row", "rpc row", "rpcServer starts"}));
    }

    void aRedeployBeginsTheNginxListAnew()
    {
        deploy();
        deploy();
        QCOMPARE(nginxView->rows(), started(nginx));
    }

    void aRedeployBeginsTheRpcListAnew()
    {
        deploy();
        deploy();
        QCOMPARE(rpcView->rows(), started(rpcServer));
    }

    void closingTheRpcServerKillsIt()
    {
        deploy();
        const QStringList stop = stopOfTheRpcServer();
        SystemCalls::recordStops();
        connect->closeRpc();
        QCOMPARE(SystemCalls::lines(), stop);
    }

    void closingNginxRunsItsStopCommandThenKillsIt()
    {
        deploy();
        const QStringList stop = stopOfNginx();
        SystemCalls::recordStops();
        connect->closeNginx();
        QCOMPARE(SystemCalls::lines(), stop);
    }

    void closingTheRpcServerForgetsIt()
    {
        connect->openRpc();
        connect->closeRpc();
        QCOMPARE(connect->rpc, nullptr);
    }

    void closingNginxForgetsIt()
    {
        connect->openNginx();
        connect->closeNginx();
        QCOMPARE(connect->nginx, nullptr);
    }

    void closingTheRpcServerReturnsTrue()
    {
        connect->openRpc();
        QCOMPARE(connect->closeRpc(), true);
    }

    void closingNginxReturnsTrue()
    {
        connect->openNginx();
        QCOMPARE(connect->closeNginx(), true);
    }

    void closingTheRpcServerWithoutOneReturnsTrue() { QCOMPARE(connect->closeRpc(), true); }

    void aDeployAfterAStopBeginsTheListsAnew()
    {
        deploy();
        connect->closeRpc();
        connect->closeNginx();
        deploy();
        QCOMPARE(nginxView->rows() + rpcView->rows(), started(nginx) + started(rpcServer));
    }

    void closingNginxWithoutOneIsAnInvalidMemoryAccess()
    {
        const QString end = runApart([&] { connect->closeNginx(); });
        QCOMPARE(end, QString("signal %1").arg(SIGSEGV));
    }

    /// A stop while nothing is deployed does the RPC half, then dies on the spot.
    void aStopWithoutADeployEndsWithinTheClosingOfNginx()
    {
        runApart([&] {
            connect->closeRpc();
            SystemCalls::note("closed rpc");
            connect->closeNginx();
            SystemCalls::note("closed nginx");
        });
        QCOMPARE(SystemCalls::lines(true), QStringList("child closed rpc"));
    }

    void theDestructionStopsRpcThenNginx()
    {
        deploy();
        const QStringList stops = stopOfTheRpcServer() + stopOfNginx();
        SystemCalls::recordStops();
        connect.reset();
        QCOMPARE(SystemCalls::lines(), stops);
    }

    void theDestructionStopsNginxAlone()
    {
        deploy();
        connect->closeRpc();
        const QStringList stops = stopOfNginx();
        SystemCalls::recordStops();
        connect.reset();
        QCOMPARE(SystemCalls::lines(), stops);
    }

    void theDestructionStopsTheRpcServerAlone()
    {
        deploy();
        connect->closeNginx();
        const QStringList stops = stopOfTheRpcServer();
        SystemCalls::recordStops();
        connect.reset();
        QCOMPARE(SystemCalls::lines(), stops);
    }

    void theDestructionWithoutADeployStopsNothing()
    {
        SystemCalls::recordStops();
        connect.reset();
        QCOMPARE(SystemCalls::lines(), QStringList());
    }

    /// The stop command is made to throw. Nobody may catch that: the process ends.
    void anExceptionInTheDestructionEndsTheProcess()
    {
        deploy();
        const QString end = runApart([&] {
            SystemCalls::at("system", [] { throw std::runtime_error("no stop command"); });
            try {
                delete connect.release();
            } catch (const std::runtime_error &) {
            }
        });
        QCOMPARE(end, QString("signal %1").arg(SIGABRT));
    }

private:
    /// What the log tells of the stop of the service that runs now.
    QStringList stopOfNginx() const
    {
        return {stopCommand(), "nginx stops", killOf(*connect->nginx)};
    }
    QStringList stopOfTheRpcServer() const { return {killOf(*connect->rpc)}; }

    void setViews()
    {
        connect->setRpcUi(rpcView.get());
        connect->setNginxUi(nginxView.get());
    }

    /// Opens both, each when the one before runs and its reader has nothing to do; from here on the
    /// log tells what that takes.
    void deploy()
    {
        install(nginx);
        install(rpcServer);
        SystemCalls::recordStops();
        QVERIFY(connect->openNginx());
        QVERIFY(isIdle(*connect->nginx, nginx));
        QVERIFY(connect->openRpc());
        QVERIFY(isIdle(*connect->rpc, rpcServer));
    }

    std::unique_ptr<WatchedView<NginxQListView>> nginxView;
    std::unique_ptr<WatchedView<RpcQListView>> rpcView;
    std::unique_ptr<OpenConnect> connect;
};

BUNDLE_TEST_MAIN(ConnectTest)
#include "ConnectTest.moc"
