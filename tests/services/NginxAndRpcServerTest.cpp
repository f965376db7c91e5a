#include "services/Nginx.h"
#include "services/RpcServer.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/WatchedView.h"
#include "ui/NginxQListView.h"
#include "ui/RpcQListView.h"

#include <QApplication>
#include <QScrollBar>

#include <atomic>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <sys/stat.h>

using namespace Services;

namespace {

/// One of the two controllers with its view; its fields in the open.
struct Tested
{
    virtual ~Tested() = default;
    virtual MyProgress &controller() = 0;
    virtual QStringList &messages() = 0;
    virtual void giveView() = 0; ///< without a start
    virtual void setUi() = 0;
    virtual void abolish() = 0;
    virtual void install(const QByteArray &lines = {}) = 0;
    virtual QListView &widget() = 0;
    virtual Watch &view() = 0;

    QString program, start; ///< below the install root; the line in the log
    QStringList heard;      ///< what the most derived sink got on the test's thread
};

template <typename Controller, typename View>
struct TestedOf : Tested
{
    struct Open : Controller
    {
        explicit Open(Tested &tested) : heard(tested.heard) {}
        void insertMsg(std::string msg) override
        {
            if (std::this_thread::get_id() == testThread) {
                heard.append(QString::fromStdString(msg));
            }
            Controller::insertMsg(msg);
        }
        using Controller::messages;
        using Controller::view;
        QStringList &heard;
        const std::thread::id testThread = std::this_thread::get_id();
    };

    MyProgress &controller() override { return open; }
    QStringList &messages() override { return open.messages; }
    void giveView() override { open.view = &watched; }
    void setUi() override { open.setUi(&watched); }
    void abolish() override { open.abolish(); }
    QListView &widget() override { return watched; }
    Watch &view() override { return watched; }

    WatchedView<View> watched{nullptr};
    Open open{*this};
};

struct TestedNginx : TestedOf<Nginx, NginxQListView>
{
    TestedNginx()
    {
        program = nginx;
        start = "nginx starts";
    }
    void install(const QByteArray &lines) override { installNginx(lines); }
};

struct TestedRpcServer : TestedOf<RpcServer, RpcQListView>
{
    TestedRpcServer()
    {
        program = rpcServer;
        start = "rpc starts";
    }
    void install(const QByteArray &lines) override { installRpcServer(lines); }
};

} // namespace

/// The behaviour that both controllers have.
class NginxAndRpcServerTest : public QObject
{
    Q_OBJECT

private slots:
    /// Every test runs with each.
    void initTestCase_data()
    {
        QTest::addColumn<bool>("isNginx");
        QTest::newRow("Nginx") << true;
        QTest::newRow("RpcServer") << false;
    }

    void init()
    {
        QFETCH_GLOBAL(bool, isNginx);
        SystemCalls::recordStops();
        if (isNginx) {
            tested = std::make_unique<TestedNginx>();
        } else {
            tested = std::make_unique<TestedRpcServer>();
        }
    }

    void cleanup()
    {
        SystemCalls::stop();
        tested.reset();
        removeAll();
    }

    void dropsAnEmptyMessage()
    {
        tested->giveView();
        say("");
        QCOMPARE(tested->messages(), QStringList());
        QCOMPARE(tested->view().count(), std::size_t{0});
        say("first");
        say("");
        QCOMPARE(tested->messages(), QStringList("first"));
        QCOMPARE(tested->view().count(), std::size_t{1});
    }

    void collectsWithoutAViewAndShowsAllInTheNextModel()
    {
        say("first");
        say("second");
        QCOMPARE(tested->messages(), QStringList({"first", "second"}));
        tested->giveView();
        say("");
        QCOMPARE(tested->view().count(), std::size_t{0});
        say("third");
        QCOMPARE(tested->view().count(), std::size_t{1});
        QCOMPARE(tested->view().rows(), QStringList({"first", "second", "third"}));
    }

    /// Every one is still there afterwards, with what it showed.
    void everyMessageInstallsANewModelOfItsOwn()
    {
        tested->giveView();
        QStringList expected;
        for (const char *message : {"first", "second", "second", "fourth\nand fifth\n"}) {
            say(message);
            expected.append(message);
            QCOMPARE(tested->messages(), expected);
            QCOMPARE(tested->widget().model()->metaObject()->className(), "QStringListModel");
            QCOMPARE(tested->widget().model()->parent(), nullptr);
        }
        QCOMPARE(tested->view().count(), std::size_t{4});
        for (int i = 0; i < 4; ++i) {
            QCOMPARE(tested->view().rowsAt(static_cast<std::size_t>(i)), expected.mid(0, i + 1));
        }
    }

    void aNewRowLeavesTheListWhereItWasScrolledTo()
    {
        tested->giveView();
        for (int i = 0; i < 100; ++i) {
            say("row");
        }
        QListView &list = tested->widget();
        list.show();
        QVERIFY(QTest::qWaitForWindowExposed(&list));
        list.scrollToBottom();
        const int bottom = list.verticalScrollBar()->value();
        QVERIFY(bottom > 0);
        say("one more");
        QVERIFY(eventually([&] { return list.verticalScrollBar()->maximum() == bottom + 1; },
                           handleEvents));
        QCOMPARE(list.verticalScrollBar()->value(), bottom);
    }

    void convertsMessagesFromUtf8_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("row");
        QTest::newRow("blanks") << QByteArray(" a \r\n\n") << " a \r\n\n";
        QTest::newRow("two bytes") << QByteArray("\xC3\xA9") << QStringLiteral("\u00E9");
        QTest::newRow("not UTF-8") << QByteArray("a\xFFz") << QStringLiteral("a\uFFFDz");
        QTest::newRow("a zero byte") << QByteArray("a\0z", 3) << QString("a") + QChar(u'\0') + "z";
        QTest::newRow("cut at its end") << QByteArray("a\xC3") << QStringLiteral("a\uFFFD");
        QTest::newRow("cut at its start") << QByteArray("\xA9z") << QStringLiteral("\uFFFDz");
    }

    void convertsMessagesFromUtf8()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, row);
        tested->giveView();
        tested->controller().insertMsg(bytes.toStdString());
        QCOMPARE(tested->messages(), QStringList(row));
        QCOMPARE(tested->view().rows(), QStringList(row));
    }

    void showsThePathAndThatTheProgramIsMissing()
    {
        const StandardOutput output;
        tested->setUi();
        QCOMPARE(tested->view().rows(), missing(tested->program));
        QCOMPARE(tested->heard, missing(tested->program));
        QVERIFY(!tested->controller().getStatus());
        QCOMPARE(childOf(tested->controller()), -1);
        tested->abolish();
        tested.reset();
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(SystemCalls::lines(), QStringList());
    }

    /// The program appears while the path is shown, and is found.
    void recordsThePathBeforeItLooksForTheProgram()
    {
        tested->view().atModel = [&] {
            if (tested->view().count() == 1) {
                tested->install();
            }
        };
        tested->setUi();
        QCOMPARE(tested->view().rows(), started(tested->program));
        QVERIFY(isIdle());
    }

    void requestsReadingAfterTheStart()
    {
        const auto requested = [&] { return tested->controller().*(&OpenRunner::launchRequested); };
        QList<bool> before;
        tested->view().atModel = [&] { before.append(requested()); };
        tested->install();
        tested->setUi();
        QCOMPARE(before, QList<bool>({false, false}));
        QVERIFY(requested());
        QVERIFY(isIdle());
    }

    /// The rows of the output come although the event loop of the view's thread does not run. One
    /// row is one chunk of 512 bytes at most.
    void showsThePathThenFoundThenTheOutputByItsReader()
    {
        const QByteArray half(511, 'a');
        tested->install("/usr/bin/printf '" + half + "\\303\\251z\\nand more'\n" + waiting() +
                        "printf three >&2\n");
        makeFifo();
        tested->setUi();
        const Watch &view = tested->view();
        QVERIFY(eventually([&] { return view.count() == 4; }));
        QStringList rows = started(tested->program);
        rows << half + QStringLiteral("\uFFFD") << QStringLiteral("\uFFFDz\nand more");
        QCOMPARE(view.rows(), rows);
        goOn();
        QVERIFY(eventually([&] { return view.count() == 5; }));
        QCOMPARE(view.rows(), rows << "three");
        for (std::size_t i = 0; i < 5; ++i) {
            QCOMPARE(view.threadOf(i) == std::this_thread::get_id(), i < 2);
        }
        QVERIFY(view.modelAt(4)->thread() != tested->widget().thread()); // nor handed over later
        QVERIFY(isIdle());
    }

    /// No lock: a message of the GUI thread is shown while the reader is inside the sink. It stands
    /// behind its own changes there, so that the two do not meet in them.
    void sinksDoNotWaitForEachOther()
    {
        tested->install("echo output\n");
        const auto here = std::this_thread::get_id();
        std::atomic<bool> inside{false};
        std::atomic<bool> overtaken{false};
        std::atomic<bool> left{false};
        tested->view().atModel = [&] {
            if (std::this_thread::get_id() != here) {
                inside = true;
                overtaken = eventually([&] { return tested->view().count() == 4; });
                left = true;
            }
        };
        tested->setUi();
        QVERIFY(eventually([&] { return inside.load(); }));
        say("meanwhile");
        QVERIFY(eventually([&] { return left.load(); }));
        QVERIFY(overtaken);
        QCOMPARE(tested->view().rows(), started(tested->program) << "output\n"
                                                                 << "meanwhile");
        QVERIFY(isIdle());
    }

    /// Two lists share their strings until one of them is released.
    void releasesItsMessagesBeforeTheKill()
    {
        tested->install();
        tested->setUi();
        QVERIFY(isIdle());
        const QString kill = killOf(&tested->controller());
        tested->messages() = QStringList("not in a model");
        const QStringList shared = tested->messages();
        QVERIFY(!shared.isDetached());
        bool released = false;
        SystemCalls::at("kill", [&] { released = shared.isDetached(); });
        tested.reset();
        QCOMPARE(SystemCalls::lines().last(), kill);
        QVERIFY(released);
    }

    void aSecondStartLeavesTheFirstRunning()
    {
        tested->install();
        tested->setUi();
        QVERIFY(isIdle());
        const pid_t first = childOf(tested->controller());
        const int firstPipe = pipeOf(tested->controller());

        tested->setUi();
        QCOMPARE(tested->view().rows(), started(tested->program) + started(tested->program));
        const pid_t second = childOf(tested->controller());
        const int secondPipe = pipeOf(tested->controller());
        QVERIFY(second != first);
        QVERIFY(Processes::isAlive(first));
        QVERIFY(Processes::isAlive(second));
        QVERIFY(secondPipe != firstPipe);
        QVERIFY(fcntl(firstPipe, F_GETFD) != -1);
        // One from the first start; one each from the start and from the request of the second.
        QVERIFY(eventually([&] { return SystemCalls::readersOf(secondPipe) == 2; }));
        QCOMPARE(SystemCalls::readersOf(firstPipe), 1);
        QCOMPARE(SystemCalls::lines().filter("kill"), QStringList());

        // Only one of the readers would be cancelled. All end by themselves after the end of file.
        const int before = threads();
        tested->controller().setStatus(false);
        kill(first, SIGKILL);
        kill(second, SIGKILL);
        QVERIFY(eventually([&] { return threads() == before - 3; }));
        close(firstPipe);
    }

private:
    void say(const char *message) { tested->controller().insertMsg(message); }
    bool isIdle() { return Services::isIdle(&tested->controller(), tested->start); }

    static int threads() { return QDir("/proc/self/task").entryList(QDir::Dirs).size(); }

    static QString fifo() { return BundleTest::root() + "/fifo"; }
    /// A line of a script that waits until the test calls goOn().
    static QByteArray waiting() { return "read -r line <" + fifo().toUtf8() + '\n'; }
    static void makeFifo()
    {
        QFile::remove(fifo());
        QCOMPARE(mkfifo(qPrintable(fifo()), 0600), 0);
    }
    static void goOn() { std::ofstream(qPrintable(fifo())) << "go\n"; }

    std::unique_ptr<Tested> tested;
};

BUNDLE_TEST_MAIN(QApplication, NginxAndRpcServerTest)
#include "NginxAndRpcServerTest.moc"
