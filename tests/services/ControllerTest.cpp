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

using namespace Services;

namespace {

// CONTROLLER is the class that this is built for.
constexpr bool isNginx = std::is_same_v<CONTROLLER, Nginx>;
using View = std::conditional_t<isNginx, NginxQListView, RpcQListView>;
const QString &program = isNginx ? nginx : rpcServer;

/// Its fields in the open.
struct Controller : CONTROLLER
{
    using CONTROLLER::launchRequested;
    using CONTROLLER::messages;
    using CONTROLLER::view;
};

} // namespace

/// The behaviour that both controllers have.
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

    void dropsAnEmptyMessage()
    {
        controller->view = view.get();
        controller->insertMsg("");
        QCOMPARE(view->count(), std::size_t{0});
        controller->insertMsg("first");
        controller->insertMsg("");
        QCOMPARE(view->count(), std::size_t{1});
        QCOMPARE(view->rows(), QStringList("first"));
    }

    /// Every one is still there afterwards, with what it showed.
    void everyMessageInstallsANewModelOfItsOwn()
    {
        controller->view = view.get();
        const QStringList messages{"first", "second", "second", "fourth\nand fifth\n"};
        for (const QString &message : messages) {
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

    /// The rows of the output come although the event loop of the view's thread does not run. One
    /// row is one chunk of 512 bytes at most.
    void showsTheOutputByItsReader()
    {
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

    void start()
    {
        install(program);
        controller->setUi(view.get());
        QVERIFY(isIdle(*controller, program));
    }

    std::unique_ptr<WatchedView<View>> view;
    std::unique_ptr<Controller> controller;
};

BUNDLE_TEST_MAIN(ControllerTest)
#include "ControllerTest.moc"
