#include "services/RpcServer.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"
#include "tests/support/WatchedView.h"
#include "ui/RpcQListView.h"

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
        view = std::make_unique<WatchedView<RpcQListView>>(nullptr);
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
        QVERIFY(view->showSettled());
        view->atModel = [&] { view->settle(); };
        controller->setUi(view.get());
        QVERIFY(eventually([&] { return view->repaints == 1; }, handleEvents));
        controller->insertMsg("third");
        QVERIFY(eventually([&] { return view->repaints == 1; }, handleEvents));
        QCOMPARE(view->count(), std::size_t{3});
    }

    void isStartedWithoutArgumentsAndEnvironment()
    {
        start(noting("$0 in $PWD with $# arguments"
                     " and $(wc -c </proc/$$/environ) bytes of environment"));
        QCOMPARE(SystemCalls::lines().first(), BundleTest::root() + '/' + rpcServer + " in " +
                                                   QDir::currentPath() +
                                                   " with 0 arguments and 0 bytes of environment");
    }

    void abolishDoesNothing()
    {
        start();
        RpcServer::abolish();
        QCOMPARE(SystemCalls::lines(), QStringList("rpcServer starts"));
        QVERIFY(Processes::isAlive(childOf(*controller)));
        QVERIFY(controller->getStatus());
        QCOMPARE(view->rows(), started(rpcServer));
    }

private:
    void start(const QByteArray &started = {})
    {
        install(rpcServer, started);
        controller->setUi(view.get());
        QVERIFY(isIdle(*controller, rpcServer));
    }

    std::unique_ptr<WatchedView<RpcQListView>> view;
    std::unique_ptr<RpcServer> controller;
};

BUNDLE_TEST_MAIN(RpcServerTest)
#include "RpcServerTest.moc"
