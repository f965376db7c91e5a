#include "services/RpcServer.h"
#include "tests/support/Processes.h"
#include "tests/support/Repaints.h"
#include "tests/support/Services.h"
#include "tests/support/WatchedView.h"
#include "ui/RpcQListView.h"

#include <QApplication>

#include <memory>

using namespace Services;

/// What only the RPC server's controller does.
class RpcServerTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        SystemCalls::recordStops();
        controller = std::make_unique<RpcServer>();
    }

    void cleanup()
    {
        SystemCalls::stop();
        controller.reset();
        removeAll();
    }

    /// What the new model itself asks for is painted while it is installed.
    void theViewIsAskedToRepaintAfterEachModel()
    {
        WatchedView<RpcQListView> view(nullptr);
        Repaints repaints(&view);
        QVERIFY(repaints.shownFully);
        view.atModel = [&] { repaints.settle(); };
        controller->setUi(&view);
        QVERIFY(eventually([&] { return repaints.count == 1; }, handleEvents));
        controller->insertMsg("third");
        QVERIFY(eventually([&] { return repaints.count == 1; }, handleEvents));
        QCOMPARE(view.count(), std::size_t{3});
    }

    void isStartedWithoutArgumentsAndEnvironment()
    {
        qputenv("ORVANE_SEEN", "yes");
        installRpcServer(noting("$0 in $PWD with $# arguments"
                                " and $(wc -c </proc/$$/environ) bytes of environment"));
        controller->setUi(nullptr);
        qunsetenv("ORVANE_SEEN");
        QVERIFY(isIdle(controller.get(), "rpc starts"));
        QVERIFY(eventually([] { return SystemCalls::lines().size() == 2; }));
        QCOMPARE(SystemCalls::lines().last(), BundleTest::root() + '/' + rpcServer + " in " +
                                                  QDir::currentPath() +
                                                  " with 0 arguments and 0 bytes of environment");
    }

    void onlyTheDeletionStopsIt()
    {
        installRpcServer();
        WatchedView<RpcQListView> view(nullptr);
        controller->setUi(&view);
        QVERIFY(isIdle(controller.get(), "rpc starts"));
        const pid_t child = childOf(*controller);
        RpcServer::abolish();
        QCOMPARE(SystemCalls::lines(), QStringList("rpc starts"));
        QVERIFY(Processes::isAlive(child));
        QVERIFY(controller->getStatus());

        const QString kill = killOf(controller.get());
        controller.reset();
        QCOMPARE(SystemCalls::lines(), QStringList({"rpc starts", kill}));
        QVERIFY(eventually([&] { return !Processes::isAlive(child); }));
        QCOMPARE(view.rows(), started(rpcServer));
    }

private:
    std::unique_ptr<RpcServer> controller;
};

BUNDLE_TEST_MAIN(QApplication, RpcServerTest)
#include "RpcServerTest.moc"
