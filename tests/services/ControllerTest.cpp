#include "services/Nginx.h"
#include "services/RpcServer.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QRegularExpression>
#include <QScrollBar>

#include <atomic>
#include <memory>
#include <type_traits>

using namespace Services;

/// Where the two controllers differ.
template <typename>
struct Differences;

template <>
struct Differences<Nginx>
{
    using View = NginxQListView;
    static constexpr auto updated = &NginxQListView::nginxUpdated;
    static constexpr int signalsOfARow = 1;
    inline static const QString &program = nginx;
};

template <>
struct Differences<RpcServer>
{
    using View = RpcQListView;
    static constexpr auto updated = &RpcQListView::updated;
    static constexpr int signalsOfARow = 0; // it asks for a repaint in place of it
    inline static const QString &program = rpcServer;
};

namespace {

// CONTROLLER is the class that this is built for.
constexpr bool isNginx = std::is_same_v<CONTROLLER, Nginx>;
using View = Differences<CONTROLLER>::View;
constexpr auto updated = Differences<CONTROLLER>::updated;
constexpr int signalsOfARow = Differences<CONTROLLER>::signalsOfARow;
const QString &program = Differences<CONTROLLER>::program;

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

    /// A message may hold several lines, and may come twice.
    void aMessageIsARow()
    {
        controller->view = view.get();
        for (const char *message : {"first", "second", "second", "fourth\nand fifth\n"}) {
            controller->insertMsg(message);
        }
        QCOMPARE(view->rows(), QStringList({"first", "second", "second", "fourth\nand fifth\n"}));
    }

    void everyMessageInstallsAModel()
    {
        controller->view = view.get();
        controller->insertMsg("first");
        controller->insertMsg("second");
        QCOMPARE(view->count(), std::size_t{2});
    }

    void anEmptyMessageInstallsNoModel()
    {
        controller->view = view.get();
        controller->insertMsg("");
        QCOMPARE(view->count(), std::size_t{0});
    }

    void anEmptyMessageIsNoRow()
    {
        controller->insertMsg("");
        QCOMPARE(controller->messages, QStringList());
    }

    void messagesAreCollectedWithoutAView()
    {
        controller->insertMsg("first");
        controller->insertMsg("second");
        QCOMPARE(controller->messages, QStringList({"first", "second"}));
    }

    void aViewThatComesLaterShowsAllMessages()
    {
        controller->insertMsg("first");
        controller->view = view.get();
        controller->insertMsg("second");
        QCOMPARE(view->rows(), QStringList({"first", "second"}));
    }

    void aModelHasNoParent()
    {
        controller->view = view.get();
        controller->insertMsg("first");
        QCOMPARE(view->model()->parent(), nullptr);
    }

    /// The view may be painting it still.
    void aModelStaysAsItIsBesideTheNext()
    {
        controller->view = view.get();
        controller->insertMsg("first");
        controller->insertMsg("second");
        const auto first = view->installed().front().model;
        QVERIFY2(!first.isNull(), "the first model was deleted");
        QCOMPARE(first->stringList(), QStringList("first"));
    }

    /// The nginx view emits its signal, the RPC view none.
    void theViewsSignalComesAfterTheModel()
    {
        int signalled = 0;
        connect(view.get(), updated, [&] { ++signalled; });
        controller->view = view.get();
        view->atModel = [&] { signalled = 0; };
        controller->insertMsg("first");
        QCOMPARE(signalled, signalsOfARow);
    }

    void anEmptyMessageGivesNoSignal()
    {
        int signalled = 0;
        connect(view.get(), updated, [&] { ++signalled; });
        controller->view = view.get();
        controller->insertMsg("");
        QCOMPARE(signalled, 0);
    }

    /// What the new model itself asks for is painted while it is installed.
    void theRpcViewRepaintsAfterTheModel()
    {
        if (isNginx) {
            // Before C++20, the "..." of the macro takes one argument at least.
            QSKIP("The nginx view asks for no repaint, as QListViewsTest shows.", "");
        }
        QVERIFY(view->showSettled());
        controller->view = view.get();
        view->atModel = [&] { view->settle(); };
        controller->insertMsg("first");
        QVERIFY2(eventually([&] { return view->repaints == 1; }, handleEvents),
                 qPrintable(QString("%1 repaints").arg(view->repaints)));
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

    void everyMessageOfAStartGoesToTheVirtualSink()
    {
        struct Deaf : CONTROLLER
        {
            void insertMsg(std::string /*msg*/) override {}
        };
        Deaf().setUi(view.get());
        QCOMPARE(view->count(), std::size_t{0});
    }

    void aMissingProgramIsShown()
    {
        controller->setUi(view.get());
        QCOMPARE(view->rows(), missing(program));
    }

    void aMissingProgramDoesNotCountAsRunning()
    {
        controller->setUi(view.get());
        QCOMPARE(controller->getStatus(), false);
    }

    void aMissingProgramIsNotStopped()
    {
        controller->setUi(view.get());
        controller->abolish();
        controller.reset();
        QCOMPARE(SystemCalls::lines(), QStringList());
    }

    void aMissingProgramIsNotPrinted()
    {
        const StandardOutput output;
        controller->setUi(view.get());
        controller->abolish();
        controller.reset();
        QCOMPARE(output.text(), QByteArray());
    }

    /// The program appears while the path is shown, and is found.
    void showsThePathBeforeItLooksForTheProgram()
    {
        view->atModel = [] { install(program); };
        controller->setUi(view.get());
        QCOMPARE(view->rows(), started(program));
    }

    void doesNotRequestReadingBeforeTheStart()
    {
        install(program);
        bool requested = false;
        view->atModel = [&] { requested = requested || controller->launchRequested; };
        controller->setUi(view.get());
        QVERIFY(isIdle(*controller, program));
        QVERIFY2(!requested, "reading was requested while a row of the start was shown");
    }

    void requestsReadingWithTheStart()
    {
        start();
        QCOMPARE(controller->launchRequested, true);
    }

    void onlyNginxIsStartedInItsFolder()
    {
        start(noting("$0 in $PWD with $# arguments"));
        const QString root = BundleTest::root();
        const QString nginxStart = "sbin/nginx in " + root + "/nginx with 0 arguments";
        const QString rpcStart =
            root + '/' + rpcServer + " in " + QDir::currentPath() + " with 0 arguments";
        QCOMPARE(SystemCalls::lines().constFirst(), isNginx ? nginxStart : rpcStart);
    }

    /// What BASH_ENV names, bash(1) reads before it runs a command or a script: nginx comes by a
    /// shell with the environment, the RPC server by itself and without.
    void onlyNginxIsStartedByAShellWithTheEnvironment()
    {
        const QString root = BundleTest::root();
        BundleTest::writeScript("environment", noting("$0 reads it: $BASH_EXECUTION_STRING"));
        qputenv("BASH_ENV", root.toUtf8() + "/environment");
        start();
        qunsetenv("BASH_ENV");
        const QStringList ofNginx{"bash reads it: cd " + root + "/nginx && sbin/nginx",
                                  "sbin/nginx reads it: "};
        const QStringList ofTheRpcServer;
        QCOMPARE(SystemCalls::lines().filter("reads it"), isNginx ? ofNginx : ofTheRpcServer);
    }

    /// What is no UTF-8 becomes a replacement character, as both halves of a cut character do.
    void aRowIsOneChunk()
    {
        const QByteArray firstHalf = "\\303"; // as printf(1) takes it
        const QByteArray secondHalf = "\\251";
        const QByteArray text(chunkBytes - 1, 'a');
        install(program, "/usr/bin/printf '" + text + firstHalf + secondHalf + "z\\nand more'\n");
        controller->setUi(view.get());
        QVERIFY(eventually([&] { return view->count() == 4; }));
        QCOMPARE(view->rows(), started(program) << text + QStringLiteral("\uFFFD")
                                                << QStringLiteral("\uFFFDz\nand more"));
    }

    void theRowsOfAStartAreMadeOnTheCallersThread()
    {
        start();
        for (const auto &row : view->installed()) {
            QVERIFY2(row.thread == std::this_thread::get_id(), "another thread installed a row");
        }
    }

    /// It comes although the event loop of the view's thread does not run.
    void aRowOfOutputIsInstalledByAnotherThread()
    {
        QVERIFY(startWithOutput());
        QVERIFY2(view->installed().back().thread != std::this_thread::get_id(),
                 "the test's own thread installed it");
    }

    void theModelOfOutputBelongsToTheThreadOfTheReader()
    {
        QVERIFY(startWithOutput());
        QVERIFY2(view->installed().back().model->thread() != thread(),
                 "the model was made by, or handed over to, the test's own thread");
    }

    void theSignalOfOutputNeedsNoEventLoop()
    {
        std::atomic<int> signalled{0};
        connect(view.get(), updated, [&] { ++signalled; });
        QVERIFY(startWithOutput());
        const int rows = 3;
        QVERIFY2(eventually([&] { return signalled == rows * signalsOfARow; }),
                 qPrintable(QString("%1 signals").arg(signalled.load())));
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

    /// Of nginx alone. It waits for the command, whatever that answers.
    void abolishRunsTheStopCommandToItsEnd()
    {
        start({}, "sleep 0.1\n" + noting("after a while") + "exit 3\n");
        controller->abolish();
        const QStringList stop{stopCommand(), "nginx stops", "after a while"};
        QCOMPARE(linesAfterTheStart(), isNginx ? stop : QStringList());
    }

    void abolishRunsNothingWhileNotRunning()
    {
        start();
        controller->setStatus(false);
        controller->abolish();
        controller->setStatus(true);
        QCOMPARE(linesAfterTheStart(), QStringList());
    }

    void theStopCommandsOutputIsTheLaunchers()
    {
        start({}, "echo stopping\n");
        const StandardOutput output;
        controller->abolish();
        QCOMPARE(output.text(), QByteArray(isNginx ? "stopping\n" : ""));
    }

    void theStopCommandsOutputIsNoRow()
    {
        start({}, "echo stopping\n");
        const StandardOutput output;
        controller->abolish();
        QCOMPARE(view->rows(), started(program));
    }

    void abolishLeavesTheChildAlive()
    {
        start();
        controller->abolish();
        QVERIFY2(Processes::isAlive(childOf(*controller)), "the child has ended");
    }

    void abolishLeavesTheStatus()
    {
        start();
        controller->abolish();
        QCOMPARE(controller->getStatus(), true);
    }

    void aSecondStartIsShownBelowTheFirst()
    {
        startTwice();
        endBoth();
        QCOMPARE(view->rows(), started(program) + started(program));
    }

    void aSecondStartLeavesTheFirstChildAlive()
    {
        startTwice();
        const bool alive = Processes::isAlive(firstChild);
        endBoth();
        QVERIFY2(alive, "the first child has ended");
    }

    void aSecondStartStopsNothing()
    {
        startTwice();
        const QStringList lines = SystemCalls::lines();
        endBoth();
        QCOMPARE(lines.filter(QRegularExpression("^(kill|system) ")), QStringList());
    }

    /// The start and its request make one each.
    void aSecondStartMakesTwoReaders()
    {
        startTwice();
        const auto readers = [&] { return SystemCalls::readersOf(readEndOf(*controller)); };
        const bool two = eventually([&] { return readers() == 2; });
        const QByteArray seen = QByteArray::number(readers()) + " readers";
        endBoth();
        QVERIFY2(two, seen);
    }

private:
    static constexpr int chunkBytes = 512; // of one read of the reader

    static QStringList linesAfterTheStart() { return SystemCalls::lines().mid(1); }

    static int threads() { return QDir("/proc/self/task").entryList(QDir::Dirs).size(); }

    /// Leaves the first child in `firstChild`.
    void startTwice()
    {
        start();
        firstChild = childOf(*controller);
        controller->setUi(view.get());
    }

    /// Ends both children and waits for the end of their three readers. A deletion would cancel one
    /// of these; so they end by themselves, after the end of file.
    void endBoth()
    {
        const int before = threads();
        controller->setStatus(false);
        kill(firstChild, SIGKILL);
        kill(childOf(*controller), SIGKILL);
        QVERIFY2(eventually([&] { return threads() <= before - 3; }),
                 qPrintable(QString("of %1 threads, %2 are left").arg(before).arg(threads())));
    }

    /// Starts a program that writes, and returns whether its output came to be a row.
    bool startWithOutput()
    {
        install(program, "echo output\n");
        controller->setUi(view.get());
        return eventually([&] { return view->count() == 3; });
    }

    void start(const QByteArray &started = {}, const QByteArray &stopped = {})
    {
        install(program, started, stopped);
        controller->setUi(view.get());
        QVERIFY(isIdle(*controller, program));
    }

    std::unique_ptr<WatchedView<View>> view;
    std::unique_ptr<Controller> controller;
    pid_t firstChild = 0;
};

BUNDLE_TEST_MAIN(ControllerTest)
#include "ControllerTest.moc"
