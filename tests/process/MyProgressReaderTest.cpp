#include "tests/process/Recorder.h"
#include "tests/support/Eventually.h"
#include "tests/support/Processes.h"

#include <QTest>

#include <fcntl.h>
#include <memory>
#include <sys/ioctl.h>

namespace {

using Texts = QList<QByteArray>;

/// A runner whose reader is run on the test's own thread, for a number of turns.
struct Turns : FedRecorder
{
    void insertMsg(std::string msg) override
    {
        FedRecorder::insertMsg(msg);
        SystemCalls::note("sink " + QByteArray::fromStdString(msg));
        usleep(0); // is noted, and whether a cancellation is held off
        running = --left > 0;
    }

    /// Reads that many times and returns what the sink was given.
    Texts read(int turns)
    {
        left = turns;
        result = MyProgress::autoUpdate(this);
        usleep(0); // likewise
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
        return messages.all();
    }

    /// The calls of that many turns, with what the reader says of its cancellation at each.
    QStringList callsOf(int turns)
    {
        static const bool unmarked = false;
        SystemCalls::record(unmarked);
        read(turns);
        SystemCalls::stop();
        return SystemCalls::lines();
    }

    /// A cancellation strikes while the reader waits for output or pauses. It is held off
    /// elsewhere: a sink would be cut off in the middle otherwise, and a thread that returns frees
    /// its memory. Where the reader begins to hold it off it waits for one that is on its way.
    QStringList callsOfOneTurn(const QString &text) const
    {
        return {QString("read %1 512 (cancellable)").arg(pipeFds[0]),
                waitForACancellation,
                "sink " + text,
                "usleep 0 (held off)", // in the sink
                "usleep 200000 (cancellable)",
                waitForACancellation}; // before the look whether to go on
    }
    static inline const QString waitForACancellation = "poll 0 0 (deferred)";
    static inline const QString behindTheReader = "usleep 0 (held off)";

    int left = 0;
    void *result = nullptr;
};

} // namespace

/// What the reader hands to the sink, and when.
class MyProgressReaderTest : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { SystemCalls::stop(); }

    void aTurnReadsHandsOverAndPauses()
    {
        Turns runner;
        runner.feed("hello");
        const QStringList before{Turns::waitForACancellation};
        QCOMPARE(runner.callsOf(1),
                 before + runner.callsOfOneTurn("hello") + QStringList(Turns::behindTheReader));
    }

    void everyTurnIsLikeTheFirst()
    {
        Turns runner;
        runner.feed("hello");
        runner.endOfFile();
        const QStringList before{Turns::waitForACancellation};
        QCOMPARE(runner.callsOf(3), before + runner.callsOfOneTurn("hello") +
                                        runner.callsOfOneTurn("") + runner.callsOfOneTurn("") +
                                        QStringList(Turns::behindTheReader));
    }

    void nothingIsReadWhileNotRunning()
    {
        Turns runner;
        runner.setStatus(false);
        QCOMPARE(runner.callsOf(1),
                 QStringList({Turns::waitForACancellation, Turns::behindTheReader}));
    }

    void readerReturnsItsRunner()
    {
        Turns runner;
        runner.endOfFile();
        runner.read(1);
        QCOMPARE(runner.result, static_cast<void *>(&runner));
    }

    void readerThatFindsNothingRunningReturnsItsRunner()
    {
        Turns runner;
        runner.setStatus(false);
        runner.read(1);
        QCOMPARE(runner.result, static_cast<void *>(&runner));
    }

    void sinkRunsOnTheReaderThread()
    {
        FedRecorder runner;
        runner.feed("hello");
        runner.launch();
        QVERIFY(eventually([&] { return runner.messages.count() == 1; }));
        const bool onTheReaderThread =
            pthread_equal(runner.messages.sender(), runner.readerThread) != 0;
        stop(runner);
        QVERIFY2(onTheReaderThread, "another thread called the sink");
    }

    void readerThreadEndsWhenTheRunnerStopsRunning()
    {
        FedRecorder runner;
        runner.feed("hello");
        runner.launch();
        QVERIFY(eventually([&] { return runner.messages.count() == 1; }));
        QCOMPARE(stop(runner), static_cast<void *>(&runner));
    }

    void lineArrivesOnceAndThenEmptyChunks()
    {
        const auto runner = runnerOfHello();
        QVERIFY(eventually([&] { return runner->messages.count() >= 4; }));
        QCOMPARE(runner->messages.all().mid(0, 4), (Texts{"hello\n", "", "", ""}));
    }

    void childThatHasEndedCountsAsRunning()
    {
        const auto runner = runnerOfHello();
        Processes::ended(runner->childPid);
        QVERIFY(eventually([&] { return runner->messages.all().contains(""); })); // end of file
        QCOMPARE(runner->getStatus(), true);
    }

    void outputIsCutIntoChunks_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<Texts>("chunks");
        const QByteArray full(512, 'x');
        QTest::newRow("512 bytes, and the end") << full << Texts{full, ""};
        QTest::newRow("1300 bytes") << full + full + "and more" << Texts{full, full, "and more"};
        QTest::newRow("up to a zero byte") << QByteArray("ab\0cd\0", 6) << Texts{"ab", ""};
        QTest::newRow("a zero byte at the start") << QByteArray("\0abc", 4) << Texts{""};
        QByteArray bytes;
        for (int byte = 255; byte > 0; --byte) { // no UTF-8
            bytes.append(static_cast<char>(byte));
        }
        QTest::newRow("every byte but zero") << bytes << Texts{bytes};
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

    void readErrorGivesEmptyChunks()
    {
        Turns runner;
        runner.pipeFds[0] = -1;
        QCOMPARE(runner.read(2), (Texts{"", ""}));
    }

    void readMsgReadsOnceAndDoesNotPause()
    {
        FedRecorder runner;
        runner.feed("hello");
        SystemCalls::record(runner.running);
        runner.readMsg();
        QCOMPARE(SystemCalls::lines(),
                 QStringList{QString("read %1 512 (deferred) (running)").arg(runner.pipeFds[0])});
    }

    void readMsgCallsNoSink()
    {
        FedRecorder runner;
        runner.feed("hello");
        runner.readMsg();
        QCOMPARE(runner.messages.all(), Texts());
    }

    void readMsgReturnsTheFirstChunk_data() { outputIsCutIntoChunks_data(); }

    void readMsgReturnsTheFirstChunk()
    {
        QFETCH(QByteArray, output);
        QFETCH(Texts, chunks);
        FedRecorder runner;
        runner.feed(output);
        QCOMPARE(QByteArray::fromStdString(runner.readMsg()), chunks.first());
    }

    void readMsgGoesOnWhereItEnded()
    {
        FedRecorder runner;
        runner.feed(QByteArray(512, 'x') + "and more");
        runner.readMsg();
        QCOMPARE(runner.readMsg(), std::string("and more"));
    }

    void readMsgReturnsNothingAtTheEndOfFile()
    {
        FedRecorder runner;
        runner.endOfFile();
        QCOMPARE(runner.readMsg(), std::string());
    }

    void readMsgReturnsNothingAfterAnError()
    {
        FedRecorder runner;
        runner.pipeFds[0] = -1;
        QCOMPARE(runner.readMsg(), std::string());
    }

    void fullPipeBlocksTheChild()
    {
        Recorder runner;
        fillThePipe(runner);
        QVERIFY2(Processes::isAlive(runner.childPid), "the child ended with more to write");
    }

    void fullPipeLosesNothing()
    {
        Recorder runner;
        const int bytes = fillThePipe(runner);
        QCOMPARE(wholeOutput(runner), QByteArray(bytes, '0'));
    }

private:
    /// Not on the stack: its reader may touch it after the deletion.
    static std::unique_ptr<Recorder> runnerOfHello()
    {
        std::unique_ptr<Recorder> runner(new Recorder);
        runner->createProgress("", "echo hello");
        runner->launchRequest();
        return runner;
    }

    /// Has the reader find that it is to stop, and returns what its thread ended with.
    static void *stop(FedRecorder &runner)
    {
        runner.setStatus(false);
        runner.endOfFile(); // should it have begun another turn by now
        return endOf(runner.readerThread);
    }

    /// Starts a child that writes twice what the pipe holds, waits until it is full, and returns
    /// the number of bytes that the child wants to write.
    static int fillThePipe(Recorder &runner)
    {
        runner.createPipe();
        const int capacity = fcntl(runner.pipeFds[0], F_GETPIPE_SZ);
        runner.createProgress("", "printf %0" + std::to_string(2 * capacity) + "d 0");
        const bool full = eventually([&] {
            int waiting = 0; // bytes; the last page of the pipe may stay partly empty
            return ioctl(runner.pipeFds[0], FIONREAD, &waiting) == 0 &&
                   waiting > capacity - PIPE_BUF;
        });
        if (!full) {
            QTest::qFail("the pipe did not fill", __FILE__, __LINE__);
        }
        return 2 * capacity;
    }
};

QTEST_GUILESS_MAIN(MyProgressReaderTest)
#include "MyProgressReaderTest.moc"
