#include "services/Connect.h"

#include "tests/support/Allocations.h"
#include "tests/support/Controllers.h"
#include "tests/support/Crash.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/Unset.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QApplication>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <type_traits>

using namespace Controllers;

namespace {

/// The coordinator with its fields in the open.
class Coordinator : public Connect
{
public:
    using Connect::nginx;
    using Connect::nginxView;
    using Connect::rpc;
    using Connect::rpcView;
};

} // namespace

class ConnectTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        CallLog::clear();
        nginxView = std::make_unique<WatchedView<NginxQListView>>(nullptr);
        rpcView = std::make_unique<WatchedView<RpcQListView>>(nullptr);
        connect = std::make_unique<Coordinator>();
    }

    void cleanup()
    {
        CallLog::clear(); // what a test runs at a call has gone with the test
        connect.reset();
        QVERIFY2(Services::allEnded(), "a service is left");
        Services::removeAll();
    }

    void startsEmpty()
    {
        const Unset<Coordinator> unset;
        QCOMPARE(unset->nginx, nullptr);
        QCOMPARE(unset->rpc, nullptr);
        QCOMPARE(unset->rpcView, nullptr);
        QCOMPARE(unset->nginxView, nullptr);
    }

    void holdsFourPointersInOrder()
    {
        QVERIFY((std::is_same_v<decltype(Coordinator::nginx), Nginx *>));
        QVERIFY((std::is_same_v<decltype(Coordinator::rpc), RpcServer *>));
        QVERIFY((std::is_same_v<decltype(Coordinator::rpcView), RpcQListView *>));
        QVERIFY((std::is_same_v<decltype(Coordinator::nginxView), NginxQListView *>));
        const auto *start = reinterpret_cast<const char *>(connect.get());
        const auto place = [&](const void *field) {
            return (static_cast<const char *>(field) - start) /
                   static_cast<std::ptrdiff_t>(sizeof(void *));
        };
        QCOMPARE(place(&connect->nginx), 0);
        QCOMPARE(place(&connect->rpc), 1);
        QCOMPARE(place(&connect->rpcView), 2);
        QCOMPARE(place(&connect->nginxView), 3);
        QCOMPARE(sizeof(Connect), 4 * sizeof(void *));
    }

    void aViewIsOnlyRecordedWhileThereIsNoController()
    {
        setViews();
        QCOMPARE(connect->nginxView, nginxView.get());
        QCOMPARE(connect->rpcView, rpcView.get());
        QCOMPARE(connect->nginx, nullptr);
        QCOMPARE(connect->rpc, nullptr);
        QCOMPARE(nginxView->count(), std::size_t{0});
        QCOMPARE(rpcView->count(), std::size_t{0});
    }

    void openingStartsAControllerInItsView()
    {
        install();
        setViews();
        QVERIFY(connect->openNginx());
        QVERIFY(connect->nginx != nullptr);
        QCOMPARE(connect->rpc, nullptr);
        QVERIFY(connect->openRpc());
        QVERIFY(connect->rpc != nullptr);
        QCOMPARE(rowsOf(nginxView->model()), started(Services::nginx));
        QCOMPARE(rowsOf(rpcView->model()), started(Services::rpcServer));
        QVERIFY(areIdle(*connect));
    }

    void aControllerIsStoredBeforeItIsStarted()
    {
        setViews();
        QList<bool> stored;
        nginxView->atModel = [&] { stored.append(connect->nginx != nullptr); };
        rpcView->atModel = [&] { stored.append(connect->rpc != nullptr); };
        connect->openNginx();
        connect->openRpc();
        QCOMPARE(stored, QList<bool>({true, true, true, true}));
    }

    /// A controller without a view collects its rows; the view that comes later shows them all, and
    /// those of the start that setting it means.
    void aViewThatComesLaterStartsTheControllerAgain()
    {
        connect->openNginx();
        connect->openRpc();
        setViews();
        QCOMPARE(rowsOf(nginxView->model()), missing(Services::nginx) + missing(Services::nginx));
        QCOMPARE(rowsOf(rpcView->model()),
                 missing(Services::rpcServer) + missing(Services::rpcServer));
        QCOMPARE(nginxView->count(), std::size_t{2});
        QCOMPARE(rpcView->count(), std::size_t{2});
        QCOMPARE(connect->nginxView, nginxView.get());
        QCOMPARE(connect->rpcView, rpcView.get());
    }

    void aRedeployStopsEachServiceBeforeItStartsItAgain()
    {
        install();
        deploy();
        const QString oldNginx = killOf(connect->nginx);
        const QString oldRpc = killOf(connect->rpc);
        CallLog::clear();
        connect->openNginx();
        QVERIFY(eventually([&] { return isIdleNow(connect->nginx, "nginx starts"); }));
        connect->openRpc();
        QVERIFY(eventually([&] { return isIdleNow(connect->rpc, "rpc starts"); }));
        QCOMPARE(CallLog::lines(), QStringList({stopCommand(), "nginx stops", oldNginx,
                                                "nginx starts", oldRpc, "rpc starts"}));
        QCOMPARE(rowsOf(nginxView->model()), started(Services::nginx));
        QCOMPARE(rowsOf(rpcView->model()), started(Services::rpcServer));
        QVERIFY(areIdle(*connect));
    }

    void aRedeployDeletesTheOldControllerBeforeItMakesTheNew()
    {
        connect->openNginx();
        connect->openRpc();
        const void *oldNginx = connect->nginx;
        const void *oldRpc = connect->rpc;
        Allocations::record();
        connect->openNginx();
        connect->openRpc();
        const std::vector<Allocations::Event> events = Allocations::recorded();
        QVERIFY(isDeletedFirst(events, oldNginx, connect->nginx, sizeof(Nginx)));
        QVERIFY(isDeletedFirst(events, oldRpc, connect->rpc, sizeof(RpcServer)));
    }

    /// The old one is still there while its stop command runs.
    void theStopCommandRunsBeforeTheDeletion()
    {
        install();
        deploy();
        const void *old = connect->nginx;
        QList<bool> deleted;
        CallLog::atSystem = [&] { deleted.append(Allocations::wasDeleted(old)); };
        CallLog::atKill = [&](pid_t) { deleted.append(Allocations::wasDeleted(old)); };
        Allocations::record();
        QVERIFY(connect->closeNginx());
        Allocations::recorded();
        QCOMPARE(deleted, QList<bool>({false, false}));
        QVERIFY(Allocations::wasDeleted(old));
    }

    void aDeployAfterAStopIsLikeTheFirst()
    {
        install();
        deploy();
        QVERIFY(connect->closeRpc());
        QVERIFY(connect->closeNginx());
        CallLog::clear();
        deploy();
        QCOMPARE(CallLog::lines(), QStringList({"nginx starts", "rpc starts"}));
        QCOMPARE(rowsOf(nginxView->model()), started(Services::nginx));
        QCOMPARE(rowsOf(rpcView->model()), started(Services::rpcServer));
    }

    void closingStopsAndForgetsAController()
    {
        install();
        deploy();
        const QString nginxKill = killOf(connect->nginx);
        const QString rpcKill = killOf(connect->rpc);
        CallLog::clear();
        QVERIFY(connect->closeRpc());
        QCOMPARE(connect->rpc, nullptr);
        QCOMPARE(CallLog::lines(), QStringList(rpcKill));
        QVERIFY(connect->closeNginx());
        QCOMPARE(connect->nginx, nullptr);
        QCOMPARE(CallLog::lines(), QStringList({rpcKill, stopCommand(), "nginx stops", nginxKill}));
        QVERIFY(Services::allEnded());
        QVERIFY(connect->closeRpc());
        QCOMPARE(CallLog::lines().size(), 4);
    }

    void aMissingProgramNeedsNoStop()
    {
        setViews();
        const StandardOutput output;
        connect->openNginx();
        connect->openRpc();
        connect->openNginx();
        connect->openRpc();
        QVERIFY(connect->closeRpc());
        QVERIFY(connect->closeNginx());
        QCOMPARE(CallLog::lines(), QStringList());
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(rowsOf(nginxView->model()), missing(Services::nginx));
        QCOMPARE(rowsOf(rpcView->model()), missing(Services::rpcServer));
    }

    void closingRpcWithoutOneIsHarmless()
    {
        QVERIFY(connect->closeRpc());
        QCOMPARE(connect->rpc, nullptr);
        QCOMPARE(CallLog::lines(), QStringList());
    }

    /// A stop while nothing is deployed: the RPC half returns, then the process dies on the spot.
    void closingNginxWithoutOneIsAnInvalidMemoryAccess()
    {
        const Crash::End end = Crash::inAnotherProcess([&](const auto &say) {
            say(connect->closeRpc() ? "closed rpc" : "closeRpc failed");
            connect->closeNginx();
            say("survived");
        });
        QCOMPARE(end.said, QByteArray("closed rpc\n"));
        QVERIFY2(end.wasKilledBy(SIGSEGV), qPrintable(end.text()));
    }

    void theDestructionStopsRpcThenNginx()
    {
        install();
        deploy();
        const QString nginxKill = killOf(connect->nginx);
        const QString rpcKill = killOf(connect->rpc);
        CallLog::clear();
        const void *oldRpc = connect->rpc;
        const void *oldNginx = connect->nginx;
        const StandardOutput output;
        Allocations::record();
        connect.reset();
        Allocations::recorded();
        QCOMPARE(output.text(), QByteArray("Progress stoppedProgress stopped"));
        QCOMPARE(CallLog::lines(), QStringList({rpcKill, stopCommand(), "nginx stops", nginxKill}));
        QVERIFY(Allocations::wasDeleted(oldRpc));
        QVERIFY(Allocations::wasDeleted(oldNginx));
    }

    void theDestructionStopsWhatThereIs()
    {
        install();
        setViews();
        connect->openNginx();
        QVERIFY(eventually([&] { return isIdleNow(connect->nginx, "nginx starts"); }));
        const QString nginxKill = killOf(connect->nginx);
        CallLog::clear();
        connect.reset();
        QCOMPARE(CallLog::lines(), QStringList({stopCommand(), "nginx stops", nginxKill}));

        connect = std::make_unique<Coordinator>();
        connect->openRpc();
        QVERIFY(eventually([&] { return isIdleNow(connect->rpc, "rpc starts"); }));
        const QString rpcKill = killOf(connect->rpc);
        CallLog::clear();
        connect.reset();
        QCOMPARE(CallLog::lines(), QStringList(rpcKill));
    }

    void theDestructionOfAnIdleOneDoesNothing()
    {
        setViews();
        const StandardOutput output;
        connect.reset();
        QCOMPARE(CallLog::lines(), QStringList());
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

    void everyDeletionGoesThroughAVirtualDestructor()
    {
        QVERIFY(std::has_virtual_destructor_v<Nginx>);
        QVERIFY(std::has_virtual_destructor_v<RpcServer>);
    }

    /// The stop command is made to throw. Nobody may catch that: the process ends.
    void anExceptionInTheDestructionEndsTheProcess()
    {
        install();
        deploy();
        const Crash::End end = Crash::inAnotherProcess([&](const auto &say) {
            std::set_terminate([] { _exit(42); });
            CallLog::atSystem = [] { throw std::runtime_error("no stop command"); };
            try {
                say("destroying");
                connect.reset();
            } catch (const std::runtime_error &) {
                say("caught");
            }
        });
        QCOMPARE(end.said, QByteArray("destroying\n"));
        QVERIFY2(end.exitedWith(42), qPrintable(end.text()));
    }

private:
    static void install()
    {
        Services::installNginx();
        Services::installRpcServer();
    }

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
        QVERIFY(eventually([&] { return isIdleNow(connect->nginx, "nginx starts"); }));
        QVERIFY(connect->openRpc());
        QVERIFY(areIdle(*connect));
    }

    static QStringList started(const QString &program)
    {
        return {BundleTest::root() + '/' + program, "File found"};
    }
    static QStringList missing(const QString &program)
    {
        return {BundleTest::root() + '/' + program, "File not found"};
    }

    /// Whether, of these two objects, the old one goes before the new one comes. Both may have the
    /// same address.
    static bool isDeletedFirst(const std::vector<Allocations::Event> &events, const void *before,
                               const void *after, std::size_t bytes)
    {
        const auto deleted =
            std::find_if(events.begin(), events.end(), [&](const Allocations::Event &event) {
                return !event.made && event.address == before;
            });
        return std::any_of(deleted, events.end(), [&](const Allocations::Event &event) {
            return event.made && event.address == after && event.bytes == bytes;
        });
    }

    std::unique_ptr<WatchedView<NginxQListView>> nginxView;
    std::unique_ptr<WatchedView<RpcQListView>> rpcView;
    std::unique_ptr<Coordinator> connect;
};

BUNDLE_TEST_MAIN(QApplication, ConnectTest)
#include "ConnectTest.moc"
