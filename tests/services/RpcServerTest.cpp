#include "services/RpcServer.h"

#include "tests/services/ControllerTest.h"
#include "tests/support/Repaints.h"
#include "ui/RpcQListView.h"

#include <QApplication>

class RpcServerTest : public ControllerTestOf<RpcServer, RpcQListView>
{
    Q_OBJECT

    QString program() const override { return "rpcServer/MacOs/rpcServer"; }
    void install(const QByteArray &lines) const override { Services::installRpcServer(lines); }
    QString failure() const override { return "child progress loaded fail\n"; }

private slots:
    /// What the new model itself asks for is painted while it is installed.
    void theViewIsAskedToRepaintAfterEachModel()
    {
        Watched view(nullptr);
        Repaints repaints(&view);
        QVERIFY(repaints.shownFully);
        view.atModel = [&] { repaints.settle(); };
        Open controller;
        controller.view = &view;
        controller.insertMsg("first");
        QTRY_COMPARE(repaints.count, 1);
        controller.insertMsg("second");
        QTRY_COMPARE(repaints.count, 1);
        QCOMPARE(view.count(), std::size_t{2});
    }

    void isStartedWithoutArgumentsAndEnvironment()
    {
        qputenv("ORVANE_SEEN", "yes");
        install(Services::noting("$0 in $PWD with $# arguments"
                                 " and $(wc -c </proc/$$/environ) bytes of environment"));
        Open controller;
        controller.setUi(nullptr);
        qunsetenv("ORVANE_SEEN");
        QVERIFY(eventually([] { return CallLog::lines().size() == 2; }));
        QCOMPARE(CallLog::lines().last(), path() + " in " + QDir::currentPath() +
                                              " with 0 arguments and 0 bytes of environment");
        QVERIFY(isIdle(controller));
    }

    void onlyTheDeletionStopsIt()
    {
        install({});
        Watched view(nullptr);
        auto controller = std::make_unique<Open>();
        controller->setUi(&view);
        QVERIFY(isIdle(*controller));
        const std::int32_t child = controller->childPid;
        controller->abolish();
        QCOMPARE(CallLog::lines(), QStringList("rpc starts"));
        QVERIFY(Services::isAlive(child));
        QVERIFY(controller->getStatus());
        QCOMPARE(controller->messages, QStringList({path(), "File found"}));

        controller.reset();
        QCOMPARE(CallLog::lines(), QStringList({"rpc starts", QString("kill %1 9").arg(child)}));
        QVERIFY(eventually([&] { return !Services::isAlive(child); }));
        QCOMPARE(view.count(), std::size_t{2});
    }
};

BUNDLE_TEST_MAIN(QApplication, RpcServerTest)
#include "RpcServerTest.moc"
