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

    void viewsAreOnlyRecordedWhileThereIsNoController()
    {
        QCOMPARE(connect->nginx, nullptr);
        QCOMPARE(connect->rpc, nullptr);
    }

    /// It shows the rows of both starts.
    void aViewThatComesLaterStartsTheControllerAgain()
    {
        connect = std::make_unique<OpenConnect>(); // without views
        connect->openNginx();
        connect->openRpc();
        setViews();
        QCOMPARE(nginxView->rows(), missing(nginx) + missing(nginx));
        QCOMPARE(rpcView->rows(), missing(rpcServer) + missing(rpcServer));
    }

    void aRedeployStopsEachServiceBeforeItStartsItAgain()
    {
        deploy();
        const QString oldNginx = killOf(*connect->nginx);
        const QString oldRpc = killOf(*connect->rpc);
        nginxView->atModel = [] { SystemCalls::note("nginx row"); };
        rpcView->atModel = [] { SystemCalls::note("rpc row"); };
        deploy();
        QCOMPARE(SystemCalls::lines(),
                 QStringList({stopCommand(), "nginx stops", oldNginx, "nginx row", "nginx row",
                              "nginx starts", oldRpc, "rpc row", "rpc row", "rpcServer starts"}));
        QCOMPARE(nginxView->rows(), started(nginx));
        QCOMPARE(rpcView->rows(), started(rpcServer));
    }

    void closingStopsDeletesAndForgetsAController()
    {
        deploy();
        const QString rpcKill = killOf(*connect->rpc);
        const QStringList nginxStop{stopCommand(), "nginx stops", killOf(*connect->nginx)};
        SystemCalls::recordStops();
        QVERIFY(connect->closeRpc());
        QCOMPARE(connect->rpc, nullptr);
        QCOMPARE(SystemCalls::lines(), QStringList(rpcKill));
        QVERIFY(connect->closeRpc()); // harmless without one
        QVERIFY(connect->closeNginx());
        QCOMPARE(connect->nginx, nullptr);
        QCOMPARE(SystemCalls::lines(), QStringList(rpcKill) + nginxStop);
        deploy(); // in the same views
        QCOMPARE(nginxView->count() + rpcView->count(), std::size_t{8});
        QCOMPARE(nginxView->rows() + rpcView->rows(), started(nginx) + started(rpcServer));
    }

    /// A stop while nothing is deployed: the RPC half returns, then the process dies on the spot.
    void closingNginxWithoutOneIsAnInvalidMemoryAccess()
    {
        const QString end = runApart([&] {
            SystemCalls::note(connect->closeRpc() ? "closed rpc" : "closeRpc failed");
            connect->closeNginx();
            SystemCalls::note("survived");
        });
        QCOMPARE(SystemCalls::lines(true), QStringList("child closed rpc"));
        QCOMPARE(end, QString("signal %1").arg(SIGSEGV));
    }

    void theDestructionStopsRpcThenNginx_data()
    {
        QTest::addColumn<bool>("withRpc");
        QTest::addColumn<bool>("withNginx");
        QTest::newRow("both") << true << true;
        QTest::newRow("nginx alone") << false << true;
        QTest::newRow("rpc alone") << true << false;
        QTest::newRow("none") << false << false;
    }

    void theDestructionStopsRpcThenNginx()
    {
        QFETCH(bool, withRpc);
        QFETCH(bool, withNginx);
        deploy();
        QStringList stops;
        if (withRpc) {
            stops << killOf(*connect->rpc);
        } else {
            connect->closeRpc();
        }
        if (withNginx) {
            stops << stopCommand() << "nginx stops" << killOf(*connect->nginx);
        } else {
            connect->closeNginx();
        }
        SystemCalls::recordStops();
        connect.reset();
        QCOMPARE(SystemCalls::lines(), stops);
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
