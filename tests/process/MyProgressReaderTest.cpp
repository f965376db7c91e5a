#include "tests/process/Recorder.h"
#include "tests/support/Eventually.h"
#include "tests/support/Processes.h"

#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/ioctl.h>
#include <utility>

namespace {

using Texts = QList<QByteArray>;

/// The cancellation state and type of the calling thread, which it has afterwards still.
std::pair<int, int> cancellation()
{
    std::pair<int, int> now{-1, -1};
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &now.first);
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &now.second);
    pthread_setcanceltype(now.second, nullptr);
    pthread_setcancelstate(now.first, nullptr);
    return now;
}

const std::pair<int, int> heldOff{PTHREAD_CANCEL_DISABLE, PTHREAD_CANCEL_DEFERRED};

/// A runner whose reader is run on the test's own thread, for a number of turns.
struct Turns : FedRecorder
{
    void insertMsg(std::string msg) override
    {
        FedRecorder::insertMsg(msg);
        SystemCalls::note("sink " + QByteArray::fromStdString(msg));
        inTheSink = cancellation();
        if (!fedLater.isEmpty()) {
            feed(fedLater.takeFirst());
        }
        running = --left > 0;
    }

    /// Reads that many times and returns what the sink was given.
    Texts read(int turns)
    {
        left = turns;
        result = MyProgress::autoUpdate(this);
        afterwards = cancellation();
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        return messages.all();
    }

    Texts fedLater; ///< one at each message
    int left = 0;
    void *result = nullptr;
    std::pair<int, int> inTheSink;
    std::pair<int, int> afterwards;
};

} // namespace

/// What the reader hands to the sink, and when.
class MyProgressReaderTest : public QObject
{
    Q_OBJECT

private slots:
    /// A cancellation strikes while the reader waits for output or pauses. It is held off
    /// elsewhere, each time behind a wait for one that is on its way: a sink would be cut off in
    /// the middle otherwise, and a thread that returns frees its memory.
    void turnReadsHandsOverAndPauses()
    {
        Turns runner;
        runner.feed("hello");
        runner.endOfFile();
        SystemCalls::record(runner.running);
        runner.read(2);
        SystemCalls::stop();
        const QString wait = "poll 0 0 (deferred) (running)";
        const QString read = QString("read %1 512 (cancellable) (running)").arg(runner.pipeFds[0]);
        QCOMPARE(
            SystemCalls::lines(),
            (QStringList{wait, read, wait, "sink hello (running)",
                         "usleep 200000 (cancellable) (running)", wait, read, wait,
                         "sink  (running)", "usleep 200000 (cancellable)", "poll 0 0 (deferred)"}));
        QCOMPARE(runner.result, static_cast<void *>(&runner));
        QCOMPARE(runner.inTheSink, heldOff);
        QCOMPARE(runner.afterwards, heldOff);
    }

    void nothingIsReadWhileNotRunning()
    {
        Turns runner;
        runner.feed("hello");
        runner.setStatus(false);
        QCOMPARE(runner.read(1), Texts());
        QCOMPARE(runner.result, static_cast<void *>(&runner));
        QCOMPARE(runner.afterwards, heldOff);
        QCOMPARE(runner.readMsg(), std::string("hello"));
    }

    void sinkRunsOnTheReaderThread()
    {
        const std::unique_ptr<FedRecorder> runner(new FedRecorder);
        runner->endOfFile();
        runner->launch();
        QVERIFY(eventually([&] { return runner->messages.count() >= 2; }));
        for (const pthread_t sender : runner->messages.senders()) {
            QVERIFY(pthread_equal(sender, runner->readerThread));
        }
        QVERIFY(!pthread_equal(runner->readerThread, pthread_self()));
    }

    void readerEndsWhenTheRunnerStopsRunning()
    {
        const std::unique_ptr<FedRecorder> runner(new FedRecorder);
        runner->feed("hello");
        runner->launch();
        QVERIFY(eventually([&] { return runner->messages.count() == 1; }));
        runner->setStatus(false);
        runner->endOfFile(); // should it have begun another turn by now
        void *result = nullptr;
        QCOMPARE(pthread_join(runner->readerThread, &result), 0);
        QCOMPARE(result, static_cast<void *>(runner.get()));
    }

    void lineArrivesOnceAndThenEmptyChunks()
    {
        const std::unique_ptr<Recorder> runner(new Recorder);
        runner->createProgress("", "echo hello");
        runner->launchRequest();
        QVERIFY(eventually([&] { return runner->messages.count() >= 4; }));
        QCOMPARE(runner->messages.all().mid(0, 4), (Texts{"hello\n", "", "", ""}));
        QCOMPARE(runner->getStatus(), true);
    }

    void outputIsCutIntoChunks_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<Texts>("chunks");
        const QByteArray full(512, 'x');
        QTest::newRow("512 bytes") << full << Texts{full, ""};
        QTest::newRow("513 bytes") << full + "y" << Texts{full, "y"};
        QTest::newRow("1300 bytes") << full + full + "and more" << Texts{full, full, "and more"};
        QTest::newRow("up to a zero byte") << QByteArray("ab\0cd\0", 6) << Texts{"ab", ""};
        QTest::newRow("a zero byte at the start") << QByteArray("\0abc", 4) << Texts{""};
        QTest::newRow("a zero byte in the second")
            << full + QByteArray("y\0z", 3) << Texts{full, "y"};
        QTest::newRow("a character is cut")
            << QByteArray(511, 'a') + "\xc3\xa9" << Texts{QByteArray(511, 'a') + "\xc3", "\xa9"};
        QByteArray bytes;
        for (int byte = 255; byte > 0; --byte) { // no UTF-8
            bytes.append(static_cast<char>(byte));
        }
        QTest::newRow("bytes pass unchanged") << bytes << Texts{bytes};
    }

    void outputIsCutIntoChunks()
    {
        QFETCH(QByteArray, output);
        QFETCH(Texts, chunks);
        Turns runner;
        runner.feed(output);
        runner.endOfFile();
        QCOMPARE(runner.read(chunks.size()), chunks);
    }

    void shorterChunkCarriesNothingOver()
    {
        Turns runner;
        runner.feed("a long message");
        runner.fedLater = Texts{"short"};
        QCOMPARE(runner.read(2), (Texts{"a long message", "short"}));
    }

    void readMsgReadsOnceWithoutSinkAndPause()
    {
        FedRecorder runner;
        runner.feed(QByteArray(512, 'x') + QByteArray("y\0z", 3));
        runner.endOfFile();
        SystemCalls::record(runner.running);
        QCOMPARE(runner.readMsg(), std::string(512, 'x'));
        SystemCalls::stop();
        QCOMPARE(SystemCalls::lines().size(), 1);
        QVERIFY(SystemCalls::lines().first().startsWith(
            QString("read %1 512 ").arg(runner.pipeFds[0])));
        QCOMPARE(runner.readMsg(), std::string("y"));
        QCOMPARE(runner.readMsg(), std::string()); // end of file
        runner.pipeFds[0] = -1;
        QCOMPARE(runner.readMsg(), std::string()); // an error
        QCOMPARE(runner.messages.count(), 0);
    }

    void fullPipeBlocksTheChildAndLosesNothing()
    {
        constexpr int numbers = 20000;
        QByteArray expected;
        for (int number = 1; number <= numbers; ++number) {
            expected += QByteArray::number(number) + '\n';
        }
        Recorder runner;
        runner.createProgress("", "exec seq " + std::to_string(numbers));
        const int capacity = fcntl(runner.pipeFds[0], F_GETPIPE_SZ);
        QVERIFY(expected.size() > capacity + PIPE_BUF);
        QVERIFY(eventually([&] {
            int waiting = 0; // bytes; the last page of the pipe may stay partly empty
            return ioctl(runner.pipeFds[0], FIONREAD, &waiting) == 0 &&
                   waiting > capacity - PIPE_BUF;
        }));
        QVERIFY(Processes::isAlive(runner.childPid)); // as it has more to write
        QCOMPARE(wholeOutput(runner), expected);
    }

    /// The child holds the write end three times; with one left, the reader waits for more.
    void pipeEndsWithTheLastWriteEnd()
    {
        std::array<int, 2> input{};
        QVERIFY(pipe(input.data()) == 0);
        QVERIFY(dup2(input[0], STDIN_FILENO) == STDIN_FILENO);
        const QTemporaryDir directory;
        const QString closed = directory.filePath("closed");

        const std::unique_ptr<Recorder> runner(new Recorder);
        runner->createProgress("", "exec 1>&- 2>&-; >" + closed.toStdString() +
                                       "; read number; eval \"exec $number>&-\"; read line");
        runner->launchRequest();
        QVERIFY(eventually([&] { return QFile::exists(closed); }));
        pollfd readEnd{runner->pipeFds[0], POLLIN, 0};
        QCOMPARE(poll(&readEnd, 1, 0), 0); // neither output nor end of file
        QCOMPARE(runner->messages.count(), 0);

        const QByteArray number = QByteArray::number(runner->pipeFds[1]) + '\n';
        QVERIFY(write(input[1], number.constData(), static_cast<std::size_t>(number.size())) ==
                number.size());
        QVERIFY(eventually([&] { return runner->messages.count() >= 2; }));
        QCOMPARE(runner->messages.joined(), QByteArray());
        QVERIFY(eventually([&] { return Processes::state(runner->childPid) == 'S'; })); // lives on
        QCOMPARE(runner->getStatus(), true);
    }

    void readErrorGivesEmptyChunks()
    {
        Turns runner;
        runner.feed("hello");
        const int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC); // EISDIR
        QVERIFY(dup2(directory, runner.pipeFds[0]) == runner.pipeFds[0]);
        QCOMPARE(runner.read(2), (Texts{"", ""}));
        close(directory);
    }
};

QTEST_GUILESS_MAIN(MyProgressReaderTest)
#include "MyProgressReaderTest.moc"
