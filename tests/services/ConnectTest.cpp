#include "services/Connect.h"

#include "tests/support/Apart.h"
#include "tests/support/Controllers.h"
#include "tests/support/Deletions.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QApplication>

#include <exception>
#include <memory>
#include <stdexcept>

using namespace Controllers;
using namespace Services;

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
    }

    void cleanup()
    {
        SystemCalls::stop();
        connect.reset();
        removeAll();
    }

    void aViewIsOnlyRecordedWhileThereIsNoController()
    {
        setViews();
        QCOMPARE(connect->nginxView, nginxView.get());
        QCOMPARE(connect->rpcView, rpcView.get());
        QCOMPARE(connect->nginx, nullptr);
        QCOMPARE(connect->rpc, nullptr);
        QCOMPARE(nginxView->count() + rpcView->count(), std::size_t{0});
    }

    void openingStartsAControllerInItsView()
    {
        installBoth();
        setViews();
        QVERIFY(connect->openNginx());
        QVERIFY(connect->nginx != nullptr);
        QCOMPARE(connect->rpc, nullptr);
        QVERIFY(connect->openRpc());
        QVERIFY(connect->rpc != nullptr);
        QCOMPARE(nginxView->rows(), started(nginx));
        QCOMPARE(rpcView->rows(), started(rpcServer));
        QVERIFY(areIdle(*connect));
    }

    /// A controller without a view collects its rows; the view that comes later shows them all, and
    /// those of the start that setting it means.
    void aViewThatComesLaterStartsTheControllerAgain()
    {
        connect->openNginx();
        connect->openRpc();
        setViews();
        QCOMPARE(nginxView->rows(), missing(nginx) + missing(nginx));
        QCOMPARE(rpcView->rows(), missing(rpcServer) + missing(rpcServer));
        QCOMPARE(connect->nginxView, nginxView.get());
        QCOMPARE(connect->rpcView, rpcView.get());
    }

    void aRedeployStopsEachServiceBeforeItStartsItAgain()
    {
        installBoth();
        deploy();
        const QString oldNginx = killOf(connect->nginx);
        const QString oldRpc = killOf(connect->rpc);
        SystemCalls::recordStops();
        connect->openNginx();
        QVERIFY(isIdle(connect->nginx, "nginx starts"));
        connect->openRpc();
        QVERIFY(isIdle(connect->rpc, "rpc starts"));
        QCOMPARE(SystemCalls::lines(), QStringList({stopCommand(), "nginx stops", oldNginx,
                                                    "nginx starts", oldRpc, "rpc starts"}));
        QCOMPARE(nginxView->rows(), started(nginx));
        QCOMPARE(rpcView->rows(), started(rpcServer));
    }

    /// And the new one is known before it starts.
    void aRedeployDeletesTheOldControllerBeforeItStartsTheNew()
    {
        setViews();
        connect->openNginx();
        connect->openRpc();
        QStringList seen;
        const auto look = [&seen](const void *&old, const auto &current) {
            return [&] {
                seen.append(Deletions::happened(old) && current != nullptr ? "right" : "wrong");
            };
        };
        const void *oldNginx = connect->nginx;
        const void *oldRpc = connect->rpc;
        nginxView->atModel = look(oldNginx, connect->nginx);
        rpcView->atModel = look(oldRpc, connect->rpc);
        Deletions::watch(oldNginx, oldRpc);
        connect->openNginx();
        connect->openRpc();
        QCOMPARE(seen, QStringList({"right", "right", "right", "right"}));
    }

    void aDeployAfterAStopIsLikeTheFirst()
    {
        installBoth();
        deploy();
        QVERIFY(connect->closeRpc());
        QVERIFY(connect->closeNginx());
        SystemCalls::recordStops();
        deploy();
        QCOMPARE(SystemCalls::lines(), QStringList({"nginx starts", "rpc starts"}));
        QCOMPARE(nginxView->rows(), started(nginx));
        QCOMPARE(rpcView->rows(), started(rpcServer));
    }

    /// nginx's controller is still there while its stop command and the kill run.
    void closingStopsDeletesAndForgetsAController()
    {
        installBoth();
        deploy();
        const QString nginxKill = killOf(connect->nginx);
        const QString rpcKill = killOf(connect->rpc);
        const void *oldNginx = connect->nginx;
        const void *oldRpc = connect->rpc;
        SystemCalls::recordStops();
        Deletions::watch(oldNginx, oldRpc);
        QVERIFY(connect->closeRpc());
        QVERIFY(Deletions::happened(oldRpc));
        QCOMPARE(connect->rpc, nullptr);
        QCOMPARE(SystemCalls::lines(), QStringList(rpcKill));

        bool tooEarly = false;
        const auto look = [&] { tooEarly = tooEarly || Deletions::happened(oldNginx); };
        SystemCalls::at("system", look);
        SystemCalls::at("kill", look);
        QVERIFY(connect->closeNginx());
        QVERIFY(!tooEarly);
        QVERIFY(Deletions::happened(oldNginx));
        QCOMPARE(connect->nginx, nullptr);
        const QStringList lines{rpcKill, stopCommand(), "nginx stops", nginxKill};
        QCOMPARE(SystemCalls::lines(), lines);
        QVERIFY(connect->closeRpc()); // harmless without one
        QCOMPARE(SystemCalls::lines(), lines);
    }

    void aMissingProgramNeedsNoStop()
    {
        setViews();
        const StandardOutput output;
        for (int i = 0; i < 2; ++i) {
            connect->openNginx();
            connect->openRpc();
        }
        QVERIFY(connect->closeRpc());
        QVERIFY(connect->closeNginx());
        QCOMPARE(SystemCalls::lines(), QStringList());
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(nginxView->rows(), missing(nginx));
        QCOMPARE(rpcView->rows(), missing(rpcServer));
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

    void theDestructionStopsRpcThenNginx()
    {
        installBoth();
        deploy();
        const QString nginxKill = killOf(connect->nginx);
        const QString rpcKill = killOf(connect->rpc);
        SystemCalls::recordStops();
        const void *oldRpc = connect->rpc;
        const void *oldNginx = connect->nginx;
        const StandardOutput output;
        Deletions::watch(oldRpc, oldNginx);
        connect.reset();
        QCOMPARE(output.text(), QByteArray("Progress stoppedProgress stopped"));
        QCOMPARE(SystemCalls::lines(),
                 QStringList({rpcKill, stopCommand(), "nginx stops", nginxKill}));
        QVERIFY(Deletions::happened(oldRpc));
        QVERIFY(Deletions::happened(oldNginx));
    }

    void theDestructionStopsWhatThereIs()
    {
        installBoth();
        connect->openNginx();
        QVERIFY(isIdle(connect->nginx, "nginx starts"));
        QStringList expected{"nginx starts", stopCommand(), "nginx stops", killOf(connect->nginx)};
        connect = std::make_unique<OpenConnect>();
        QCOMPARE(SystemCalls::lines(), expected);

        connect->openRpc();
        QVERIFY(isIdle(connect->rpc, "rpc starts"));
        expected << "rpc starts" << killOf(connect->rpc);
        connect = std::make_unique<OpenConnect>();
        QCOMPARE(SystemCalls::lines(), expected);

        const StandardOutput output;
        connect.reset(); // and nothing for an idle one
        QCOMPARE(SystemCalls::lines(), expected);
        QCOMPARE(output.text(), QByteArray());
    }

    void theViewsAreNotOwned()
    {
        setViews();
        connect->openNginx();
        connect->openRpc();
        const QPointer<QObject> nginxWatch(nginxView.get());
        const QPointer<QObject> rpcWatch(rpcView.get());
        connect.reset();
        QVERIFY(!nginxWatch.isNull());
        QVERIFY(!rpcWatch.isNull());
    }

    /// The stop command is made to throw. Nobody may catch that: the process ends.
    void anExceptionInTheDestructionEndsTheProcess()
    {
        installBoth();
        deploy();
        const QString end = runApart([&] {
            SystemCalls::at("system", [] { throw std::runtime_error("no stop command"); });
            try {
                connect.reset();
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

    /// Opens both and waits until they run and their readers have nothing to do.
    void deploy()
    {
        setViews();
        QVERIFY(connect->openNginx());
        QVERIFY(isIdle(connect->nginx, "nginx starts"));
        QVERIFY(connect->openRpc());
        QVERIFY(areIdle(*connect));
    }

    std::unique_ptr<WatchedView<NginxQListView>> nginxView;
    std::unique_ptr<WatchedView<RpcQListView>> rpcView;
    std::unique_ptr<OpenConnect> connect;
};

BUNDLE_TEST_MAIN(QApplication, ConnectTest)
#include "ConnectTest.moc"
