#include "services/Nginx.h"
#include "services/RpcServer.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QScrollBar>

#include <atomic>
#include <memory>
#include <tuple>

using namespace Services;

namespace {

// CONTROLLER is the class that this is built for.
constexpr bool isNginx = std::is_same_v<CONTROLLER, Nginx>;
using View = std::conditional_t<isNginx, NginxQListView, RpcQListView>;
const QString &program = isNginx ? nginx : rpcServer;
constexpr auto updated =
    std::get<isNginx>(std::tuple(&RpcQListView::updated, &NginxQListView::nginxUpdated));

/// Its fields in the open.
struct Controller : CONTROLLER
{
    using CONTROLLER::launchRequested;
    using CONTROLLER::messages;
    using CONTROLLER::view;
};

} // namespace

/// Either controller, and where the two differ.
class ControllerTest : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        SystemCalls::recordStops();
        view = std::make_unique<WatchedView<View>>(nullptr);
        controller = std::make_unique<Controller>();
    }

    void cleanup()
    {
        QVERIFY(!controller || !controller->getStatus() || isIdle(*controller, program));
        SystemCalls::stop();
        controller.reset();
        removeAll();
    }

    /// Every one is still there afterwards, with what it showed. An empty message is dropped.
    void everyMessageInstallsANewModelOfItsOwn()
    {
        controller->view = view.get();
        const QStringList messages{"first", "second", "second", "fourth\nand fifth\n"};
        for (const QString &message : messages) {
            controller->insertMsg("");
            controller->insertMsg(message.toStdString());
            QCOMPARE(view->model()->parent(), nullptr);
        }
        int shown = 0;
        for (const auto &[model, thread] : view->installed()) {
            QVERIFY(!model.isNull());
            QCOMPARE(model->stringList(), messages.mid(0, ++shown));
        }
        QCOMPARE(shown, 4);
    }

    /// By a signal of the nginx view, and by a repaint of the RPC view. What the new model itself
    /// asks for is painted while it is installed.
    void theViewIsToldAfterEachModel()
    {
        int signalled = 0;
        connect(view.get(), updated, [&] { ++signalled; });
        QVERIFY(view->showSettled());
        controller->view = view.get();
        view->atModel = [&] {
            view->settle();
            signalled = 0;
        };
        for (const char *message : {"first", "second", ""}) {
            controller->insertMsg(message);
            QCOMPARE(signalled, isNginx ? 1 : 0);
            QVERIFY(isNginx || eventually([&] { return view->repaints == 1; }, handleEvents));
        }
    }

    void aNewRowLeavesTheListWhereItWasScrolledTo()
    {
        controller->view = view.get();
        for (int i = 0; i < 100; ++i) {
            controller->insertMsg("row");
        }
        QVERIFY(view->showSettled());
        view->scrollToBottom();
        const QScrollBar *bar = view->verticalScrollBar();
        const int bottom = bar->value();
        QVERIFY(bottom > 0);
        controller->insertMsg("one more");
        QVERIFY(eventually([&] { return bar->maximum() == bottom + 1; }, handleEvents));
        QCOMPARE(bar->value(), bottom);
    }

    /// Blanks and a zero byte stay, and what is no UTF-8 becomes a replacement character.
    void convertsMessagesFromUtf8()
    {
        controller->view = view.get();
        controller->insertMsg({" \xC3\xA9\xFF\0z \r\n\n", 10});
        const QString expected = QStringLiteral(" \u00E9\uFFFD\0z \r\n\n");
        QCOMPARE(view->rows(), QStringList(expected));
    }

    void passesItsMessagesToTheVirtualSink()
    {
        struct Deaf : CONTROLLER
        {
            void insertMsg(std::string /*msg*/) override {}
        };
        Deaf().setUi(view.get());
        QCOMPARE(view->count(), std::size_t{0});
    }

    void aMissingProgramIsShownAndNeedsNoStop()
    {
        const StandardOutput output;
        controller->setUi(view.get());
        QCOMPARE(view->rows(), missing(program));
        QVERIFY(!controller->getStatus());
        controller->abolish();
        controller.reset();
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(SystemCalls::lines(), QStringList());
    }

    /// The program appears while the path is shown, and is found.
    void showsThePathThenLooksForTheProgramThenRequestsReading()
    {
        QList<bool> requested;
        view->atModel = [&] {
            requested.append(controller->launchRequested);
            install(program);
        };
        controller->setUi(view.get());
        QCOMPARE(view->rows(), started(program));
        QCOMPARE(requested, QList<bool>({false, false}));
        QVERIFY(controller->launchRequested);
    }

    /// Nginx by the shell, in its folder; the RPC server by itself, without the environment. What
    /// BASH_ENV names, bash(1) reads before it runs a command or a script.
    void eachIsStartedInItsOwnWay()
    {
        const QString root = BundleTest::root();
        BundleTest::writeScript("environment", noting("$0 reads it: $BASH_EXECUTION_STRING"));
        qputenv("BASH_ENV", root.toUtf8() + "/environment");
        start(noting("$0 in $PWD with $# arguments"));
        qunsetenv("BASH_ENV");
        const QStringList byShell{
            "bash reads it: cd " + root + "/nginx && sbin/nginx",
            "sbin/nginx reads it: ", "sbin/nginx in " + root + "/nginx with 0 arguments"};
        const QStringList directly{root + '/' + rpcServer + " in " + QDir::currentPath() +
                                   " with 0 arguments"};
        const QStringList &own = isNginx ? byShell : directly;
        QCOMPARE(SystemCalls::lines().mid(0, own.size()), own);
    }

    /// The rows and signals come although the event loop of the view's thread does not run. One row
    /// is one chunk of 512 bytes at most.
    void showsTheOutputByItsReader()
    {
        std::atomic<int> signalled{0};
        connect(view.get(), updated, [&] { ++signalled; });
        const QByteArray half(511, 'a');
        install(program, "/usr/bin/printf '" + half + "\\303\\251z\\nand more'\n");
        controller->setUi(view.get());
        QVERIFY(eventually([&] { return view->count() == 4; }));
        QCOMPARE(view->rows(), started(program) << half + QStringLiteral("\uFFFD")
                                                << QStringLiteral("\uFFFDz\nand more"));
        for (std::size_t i = 0; i < 4; ++i) {
            const bool here = i < 2;
            QCOMPARE(view->installed()[i].thread == std::this_thread::get_id(), here);
            QCOMPARE(view->installed()[i].model->thread() == thread(), here);
        }
        QVERIFY(eventually([&] { return signalled == (isNginx ? 4 : 0); }));
    }

    /// No lock: a message of the GUI thread is shown while the reader is inside the sink. It stands
    /// behind its own changes there, so that the two do not meet in them.
    void sinksDoNotWaitForEachOther()
    {
        install(program, "echo output\n");
        const auto here = std::this_thread::get_id();
        std::atomic<bool> inside{false};
        std::atomic<bool> overtaken{false};
        view->atModel = [&] {
            if (std::this_thread::get_id() != here) {
                inside = true;
                overtaken = eventually([&] { return view->count() == 4; });
            }
        };
        controller->setUi(view.get());
        QVERIFY(eventually([&] { return inside.load(); }));
        controller->insertMsg("meanwhile");
        QVERIFY(eventually([&] { return overtaken.load(); }));
    }

    /// A reader may be using it still. Two lists share their strings until one is released.
    void neverReleasesTheListThatAMessageReplaces()
    {
        controller->messages = QStringList("first");
        const QStringList replaced = controller->messages;
        controller->view = view.get();
        controller->insertMsg("second");
        QVERIFY(!replaced.isDetached());
    }

    void releasesItsMessagesBeforeTheKill()
    {
        start();
        const QString kill = killOf(*controller);
        controller->messages = QStringList("not in a model");
        const QStringList shared = controller->messages;
        bool released = false;
        SystemCalls::at("kill", [&] { released = shared.isDetached(); });
        QVERIFY(!shared.isDetached());
        controller.reset();
        QCOMPARE(SystemCalls::lines().last(), kill);
        QVERIFY(released);
    }

    /// And waits for it, whatever it answers. The child is left alone, nothing recorded.
    void abolishRunsTheStopCommandOfARunningNginxAlone()
    {
        start({}, "sleep 0.1\n" + noting("after a while") + "echo stopping\nexit 3\n");
        const StandardOutput output;
        controller->setStatus(false);
        controller->abolish();
        controller->setStatus(true);
        controller->abolish();
        const QStringList stop{stopCommand(), "nginx stops", "after a while"};
        QCOMPARE(SystemCalls::lines().mid(1), isNginx ? stop : QStringList());
        QCOMPARE(output.text().contains("stopping\n"), isNginx); // the launcher's, not the list's
        QVERIFY(Processes::isAlive(childOf(*controller)));
        QVERIFY(controller->getStatus());
        QCOMPARE(view->rows(), started(program));
    }

    /// Its reader goes on, and the second start and its request start one each.
    void aSecondStartLeavesTheFirstRunning()
    {
        start();
        const pid_t first = childOf(*controller);
        controller->setUi(view.get());
        QCOMPARE(view->rows(), started(program) + started(program));
        QVERIFY(Processes::isAlive(first));
        QCOMPARE(SystemCalls::lines().filter("kill"), QStringList());

        // Only one of the readers would be cancelled. All end by themselves after the end of file.
        const int before = threads();
        controller->setStatus(false);
        kill(first, SIGKILL);
        kill(childOf(*controller), SIGKILL);
        QVERIFY(eventually([&] { return threads() <= before - 3; }));
    }

private:
    static int threads() { return QDir("/proc/self/task").entryList(QDir::Dirs).size(); }

    void start(const QByteArray &started = {}, const QByteArray &stopped = {})
    {
        install(program, started, stopped);
        controller->setUi(view.get());
        QVERIFY(isIdle(*controller, program));
    }

    std::unique_ptr<WatchedView<View>> view;
    std::unique_ptr<Controller> controller;
};

BUNDLE_TEST_MAIN(ControllerTest)
#include "ControllerTest.moc"
