#pragma once

#include "process/MyProgress.h"
#include "tests/support/Services.h"
#include "tests/support/StandardOutput.h"
#include "tests/support/Unset.h"
#include "tests/support/WatchedView.h"

#include <QDir>
#include <QScrollBar>

#include <array>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <type_traits>
#include <vector>

/// The behaviour that both controllers have, one slot each.
class ControllerTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { threadsAtRest = threads(); }
    void init() { CallLog::clear(); }
    void cleanup()
    {
        QVERIFY2(Services::allEnded(), "a service is left");
        Services::removeAll();
    }

    virtual void startsWithoutViewAndMessages() = 0;
    virtual void addsTwoFieldsBehindTheRunners() = 0;
    virtual void keepsTheSlotsOfTheRunner() = 0;
    virtual void dropsAnEmptyMessage() = 0;
    virtual void collectsWithoutAViewAndShowsAllInTheNextModel() = 0;
    virtual void everyMessageInstallsANewModelOfItsOwn() = 0;
    virtual void aNewRowLeavesTheListWhereItWasScrolledTo() = 0;
    virtual void modelsOutliveTheirController() = 0;
    virtual void convertsMessagesFromUtf8_data() = 0;
    virtual void convertsMessagesFromUtf8() = 0;
    virtual void showsThePathAndThatTheProgramIsMissing() = 0;
    virtual void thePathGoesToTheMostDerivedSink() = 0;
    virtual void recordsThePathBeforeItLooksForTheProgram() = 0;
    virtual void requestsReadingAfterTheStart() = 0;
    virtual void showsThePathThenFoundThenTheOutput() = 0;
    virtual void outputIsShownByTheReaderThread() = 0;
    virtual void sinksDoNotWaitForEachOther() = 0;
    virtual void aRowIsAChunkThatMayCutACharacter() = 0;
    virtual void aFailedStartIsARow() = 0;
    virtual void releasesItsMessagesBeforeTheKill() = 0;
    virtual void aChunkDuringTheDestructionGoesToStandardOutput() = 0;
    virtual void aSecondStartLeavesTheFirstRunning() = 0;

protected:
    static int threads() { return QDir("/proc/self/task").entryList(QDir::Dirs).size(); }

    /// How many threads there are without a reader.
    int threadsAtRest = 0;
};

/// The same for one class and its view.
template <typename Controller, typename View>
class ControllerTestOf : public ControllerTest
{
protected:
    /// The controller with its fields in the open.
    class Open : public Controller
    {
    public:
        using Controller::basePath;
        using Controller::childPid;
        using Controller::launchRequested;
        using Controller::messages;
        using Controller::pipeFds;
        using Controller::reserved;
        using Controller::view;
        /// One more virtual operation, to see which slot it gets.
        virtual void further() {}
    };
    using Watched = WatchedView<View>;

    /// The program below the install root.
    virtual QString program() const = 0;
    /// Puts a service with these lines there.
    virtual void install(const QByteArray &lines) const = 0;
    /// What a service that must not be executed leaves in the pipe, at the end.
    virtual QString failure() const = 0;

    QString path() const { return BundleTest::root() + '/' + program(); }

    /// Waits until the service has noted its start and the reader has nothing to do: then no sink
    /// runs while the controller is deleted.
    static bool isIdle(const Open &controller)
    {
        return eventually([&] {
            return !CallLog::lines().filter(" starts").isEmpty() &&
                   CallLog::readersOf(controller.pipeFds[0]) == 1;
        });
    }

    static QString fifo() { return BundleTest::root() + "/fifo"; }
    /// A line of a script that waits until the test calls goOn().
    static QByteArray waiting() { return "read -r line <" + fifo().toUtf8() + '\n'; }
    static void makeFifo()
    {
        QFile::remove(fifo());
        QCOMPARE(mkfifo(qPrintable(fifo()), 0600), 0);
    }
    static void goOn() { std::ofstream(qPrintable(fifo())) << "go\n"; }

private:
    void startsWithoutViewAndMessages() override
    {
        const Unset<Open> controller;
        QCOMPARE(controller->view, nullptr);
        QCOMPARE(controller->messages, QStringList());
        QVERIFY(!controller->getStatus());
        QCOMPARE(controller->getBasePath(), BundleTest::root().toStdString());
    }

    void addsTwoFieldsBehindTheRunners() override
    {
        QVERIFY((std::is_same_v<decltype(Open::view), View *>));
        QVERIFY((std::is_same_v<decltype(Open::messages), QStringList>));
        const Open controller;
        const auto *start = reinterpret_cast<const char *>(&controller);
        const auto *view = reinterpret_cast<const char *>(&controller.view);
        const auto *messages = reinterpret_cast<const char *>(&controller.messages);
        QVERIFY(view > reinterpret_cast<const char *>(&controller.reserved));
        QCOMPARE(messages - view, static_cast<std::ptrdiff_t>(sizeof(View *)));
        QCOMPARE(messages + sizeof(QStringList) - start,
                 static_cast<std::ptrdiff_t>(sizeof(Controller)));
    }

    /// A pointer to a virtual member holds one more than its place in the table, in bytes (Itanium
    /// C++ ABI). The destructor takes the two places before the sink.
    void keepsTheSlotsOfTheRunner() override
    {
        QVERIFY(
            (std::is_same_v<decltype(&Controller::insertMsg), void (Controller::*)(std::string)>));
        QVERIFY(std::has_virtual_destructor_v<Controller>);
        QCOMPARE(slotOf(&Controller::insertMsg), 2);
        QCOMPARE(slotOf(&Open::further), 3);
    }

    void dropsAnEmptyMessage() override
    {
        Watched view(nullptr);
        Open controller;
        controller.view = &view;
        controller.insertMsg("");
        QCOMPARE(controller.messages, QStringList());
        QCOMPARE(view.model(), nullptr);

        controller.insertMsg("first");
        const QAbstractItemModel *model = view.model();
        controller.insertMsg("");
        QCOMPARE(controller.messages, QStringList("first"));
        QCOMPARE(view.model(), model);
        QCOMPARE(view.count(), std::size_t{1});
    }

    void collectsWithoutAViewAndShowsAllInTheNextModel() override
    {
        Watched view(nullptr);
        Open controller;
        controller.insertMsg("first");
        controller.insertMsg("second");
        QCOMPARE(controller.messages, QStringList({"first", "second"}));

        controller.view = &view;
        controller.insertMsg("");
        QCOMPARE(view.model(), nullptr);
        controller.insertMsg("third");
        QCOMPARE(view.count(), std::size_t{1});
        QCOMPARE(rowsOf(view.model()), QStringList({"first", "second", "third"}));
    }

    void everyMessageInstallsANewModelOfItsOwn() override
    {
        Watched view(nullptr);
        Open controller;
        controller.view = &view;
        QStringList expected;
        for (const char *message : {"first", "second", "second", "fourth\nand fifth\n"}) {
            controller.insertMsg(message);
            expected.append(message);
            QCOMPARE(view.model()->metaObject()->className(), "QStringListModel");
            QCOMPARE(view.model()->parent(), nullptr);
            QCOMPARE(rowsOf(view.model()), expected);
        }
        // Every one is still there, with what it showed.
        QCOMPARE(view.count(), std::size_t{4});
        for (std::size_t i = 0; i < view.count(); ++i) {
            QVERIFY(!view.modelAt(i).isNull());
            QCOMPARE(rowsOf(view.modelAt(i)), expected.mid(0, static_cast<int>(i) + 1));
        }
    }

    void aNewRowLeavesTheListWhereItWasScrolledTo() override
    {
        Watched view(nullptr);
        Open controller;
        controller.view = &view;
        for (int i = 0; i < 100; ++i) {
            controller.insertMsg("row");
        }
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view));
        view.scrollToBottom();
        const int bottom = view.verticalScrollBar()->value();
        QVERIFY(bottom > 0);
        controller.insertMsg("one more");
        QTRY_COMPARE(view.verticalScrollBar()->maximum(), bottom + 1);
        QCOMPARE(view.verticalScrollBar()->value(), bottom);
    }

    void modelsOutliveTheirController() override
    {
        Watched view(nullptr);
        {
            Open controller;
            controller.view = &view;
            controller.insertMsg("first");
            controller.insertMsg("second");
        }
        QCOMPARE(rowsOf(view.modelAt(0)), QStringList("first"));
        QCOMPARE(rowsOf(view.modelAt(1)), QStringList({"first", "second"}));
        QCOMPARE(view.model(), view.modelAt(1));
    }

    void convertsMessagesFromUtf8_data() override
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("row");
        QTest::newRow("ascii") << QByteArray("plain") << "plain";
        QTest::newRow("blanks") << QByteArray(" a \r\n\n") << " a \r\n\n";
        QTest::newRow("two bytes") << QByteArray("\xC3\xA9") << QStringLiteral("\u00E9");
        QTest::newRow("four bytes")
            << QByteArray("\xF0\x9F\x98\x80") << QStringLiteral("\U0001F600");
        QTest::newRow("not UTF-8") << QByteArray("a\xFFz") << QStringLiteral("a\uFFFDz");
        QTest::newRow("Latin 1") << QByteArray("a\xE9z") << QStringLiteral("a\uFFFDz");
        QTest::newRow("cut at its end") << QByteArray("a\xC3") << QStringLiteral("a\uFFFD");
        QTest::newRow("a zero byte") << QByteArray("a\0z", 3) << QString("a") + QChar(u'\0') + "z";
        QTest::newRow("cut at its start") << QByteArray("\xA9z") << QStringLiteral("\uFFFDz");
    }

    void convertsMessagesFromUtf8() override
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, row);
        Watched view(nullptr);
        Open controller;
        controller.view = &view;
        controller.insertMsg(bytes.toStdString());
        QCOMPARE(controller.messages, QStringList(row));
        QCOMPARE(rowsOf(view.model()), QStringList(row));
    }

    void showsThePathAndThatTheProgramIsMissing() override
    {
        Watched view(nullptr);
        StandardOutput output;
        {
            Open controller;
            controller.setUi(&view);
            QCOMPARE(rowsOf(view.model()), QStringList({path(), "File not found"}));
            QVERIFY(!controller.getStatus());
            QCOMPARE(controller.childPid, -1);
            controller.abolish();
        }
        QCOMPARE(view.count(), std::size_t{2});
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(CallLog::lines(), QStringList());
    }

    void thePathGoesToTheMostDerivedSink() override
    {
        struct Heard : Open
        {
            void insertMsg(std::string msg) override { heard += QString::fromStdString(msg); }
            QStringList heard;
        };
        Heard controller;
        controller.setUi(nullptr);
        QCOMPARE(controller.heard, QStringList({path(), "File not found"}));
        QCOMPARE(controller.messages, QStringList());
    }

    /// The program appears while the path is shown, and is found.
    void recordsThePathBeforeItLooksForTheProgram() override
    {
        Watched view(nullptr);
        view.atModel = [&] {
            if (view.count() == 1) {
                install({});
            }
        };
        Open controller;
        controller.setUi(&view);
        QCOMPARE(rowsOf(view.model()), QStringList({path(), "File found"}));
        QVERIFY(isIdle(controller));
    }

    void requestsReadingAfterTheStart() override
    {
        install({});
        Watched view(nullptr);
        Open controller;
        QList<bool> requested;
        QList<bool> started;
        view.atModel = [&] {
            requested.append(controller.launchRequested);
            started.append(controller.childPid != -1);
        };
        controller.setUi(&view);
        QCOMPARE(requested, QList<bool>({false, false}));
        QCOMPARE(started, QList<bool>({false, false}));
        QVERIFY(controller.launchRequested);
        QVERIFY(isIdle(controller));
    }

    void showsThePathThenFoundThenTheOutput() override
    {
        install("/usr/bin/printf 'one\\ntwo\\n'\n" + waiting() + "printf three >&2\n");
        makeFifo();
        Watched view(nullptr);
        Open controller;
        controller.setUi(&view);
        QVERIFY(eventually([&] { return view.count() == 3; }));
        QCOMPARE(rowsOf(view.model()), QStringList({path(), "File found", "one\ntwo\n"}));
        goOn();
        QVERIFY(eventually([&] { return view.count() == 4; }));
        QCOMPARE(rowsOf(view.model()), QStringList({path(), "File found", "one\ntwo\n", "three"}));
        QVERIFY(isIdle(controller));
    }

    /// The row comes although the event loop of the view's thread does not run.
    void outputIsShownByTheReaderThread() override
    {
        install("echo output\n");
        Watched view(nullptr);
        Open controller;
        controller.setUi(&view);
        QVERIFY(eventually([&] { return view.count() == 3; }));
        QVERIFY(view.threadOf(0) == std::this_thread::get_id());
        QVERIFY(view.threadOf(1) == std::this_thread::get_id());
        QVERIFY(view.threadOf(2) != std::this_thread::get_id());
        QVERIFY(view.modelAt(2)->thread() != view.thread()); // nor is it handed over afterwards
        QVERIFY(isIdle(controller));
    }

    /// No lock: a message of the GUI thread is shown while the reader is inside the sink. It stands
    /// behind its own changes there, so that the two do not meet in them.
    void sinksDoNotWaitForEachOther() override
    {
        install("echo output\n");
        Watched view(nullptr);
        const auto here = std::this_thread::get_id();
        std::atomic<bool> inside{false};
        std::atomic<bool> overtaken{false};
        std::atomic<bool> left{false};
        view.atModel = [&] {
            if (std::this_thread::get_id() != here) {
                inside = true;
                overtaken = eventually([&] { return view.count() == 4; });
                left = true;
            }
        };
        Open controller;
        controller.setUi(&view);
        QVERIFY(eventually([&] { return inside.load(); }));
        controller.insertMsg("meanwhile");
        QVERIFY(eventually([&] { return left.load(); }));
        QVERIFY(overtaken);
        QCOMPARE(rowsOf(view.model()),
                 QStringList({path(), "File found", "output\n", "meanwhile"}));
        QVERIFY(isIdle(controller));
    }

    void aRowIsAChunkThatMayCutACharacter() override
    {
        const QByteArray half(511, 'a'); // one byte below the size of a chunk
        install("/usr/bin/printf '" + half + "\\303\\251z\\nand more'\n");
        Watched view(nullptr);
        Open controller;
        controller.setUi(&view);
        QVERIFY(eventually([&] { return view.count() == 4; }));
        QCOMPARE(rowsOf(view.model()).mid(2), QStringList({half + QStringLiteral("\uFFFD"),
                                                           QStringLiteral("\uFFFDz\nand more")}));
        QVERIFY(isIdle(controller));
    }

    void aFailedStartIsARow() override
    {
        install({});
        QVERIFY(QFile::setPermissions(path(), QFile::ReadOwner));
        Watched view(nullptr);
        Open controller;
        controller.setUi(&view);
        QVERIFY(eventually([&] { return view.count() == 3; }));
        const QStringList rows = rowsOf(view.model());
        QCOMPARE(rows.mid(0, 2), QStringList({path(), "File found"}));
        QVERIFY2(rows.at(2).endsWith(failure()), qPrintable(rows.at(2)));
        QVERIFY(controller.getStatus());
        controller.setStatus(false);
        QVERIFY(eventually([&] { return threads() == threadsAtRest; }));
    }

    /// Two lists share their strings until one of them is released.
    void releasesItsMessagesBeforeTheKill() override
    {
        install({});
        auto controller = std::make_unique<Open>();
        controller->setUi(nullptr);
        QVERIFY(isIdle(*controller));
        const QStringList shared = controller->messages;
        QCOMPARE(shared, QStringList({path(), "File found"}));
        QVERIFY(!shared.isDetached());
        bool released = false;
        CallLog::atKill = [&](pid_t) { released = shared.isDetached(); };
        const std::int32_t child = controller->childPid;
        std::unique_ptr<MyProgress> base = std::move(controller);
        base.reset();
        QCOMPARE(CallLog::lines().last(), QString("kill %1 9").arg(child));
        QVERIFY(released);
    }

    void aChunkDuringTheDestructionGoesToStandardOutput() override
    {
        install(waiting() + "printf late\n");
        makeFifo();
        Watched view(nullptr);
        StandardOutput output;
        auto controller = std::make_unique<Open>();
        controller->setUi(&view);
        QVERIFY(isIdle(*controller));
        bool arrived = false;
        CallLog::atKill = [&](pid_t) {
            goOn();
            arrived = eventually([&] { return output.text().endsWith("late"); });
        };
        controller.reset();
        QVERIFY(arrived);
        QVERIFY(output.text().endsWith("lateProgress stopped"));
        QCOMPARE(rowsOf(view.model()), QStringList({path(), "File found"}));
    }

    void aSecondStartLeavesTheFirstRunning() override
    {
        install({});
        Watched view(nullptr);
        Open controller;
        controller.setUi(&view);
        QVERIFY(isIdle(controller));
        const pid_t first = controller.childPid;
        const int firstPipe = controller.pipeFds[0];

        controller.setUi(&view);
        QCOMPARE(rowsOf(view.model()), QStringList({path(), "File found", path(), "File found"}));
        const pid_t second = controller.childPid;
        const int secondPipe = controller.pipeFds[0];
        QVERIFY(second != first);
        QVERIFY(Services::isAlive(first));
        QVERIFY(Services::isAlive(second));
        QVERIFY(secondPipe != firstPipe);
        QVERIFY(fcntl(firstPipe, F_GETFD) != -1);
        // One from the first start; one each from the start and from the request of the second.
        QVERIFY(eventually([&] { return CallLog::readersOf(secondPipe) == 2; }));
        QCOMPARE(CallLog::readersOf(firstPipe), 1);
        QCOMPARE(CallLog::lines().filter("kill"), QStringList());

        // Only one of the readers would be cancelled. All end by themselves after the end of file.
        controller.setStatus(false);
        kill(first, SIGKILL);
        kill(second, SIGKILL);
        QVERIFY(eventually([&] { return threads() == threadsAtRest; }));
        close(firstPipe);
    }

    template <typename Member>
    static std::ptrdiff_t slotOf(Member member)
    {
        std::ptrdiff_t place = 0;
        std::memcpy(&place, &member, sizeof place);
        return (place - 1) / static_cast<std::ptrdiff_t>(sizeof(void *));
    }
};
