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
        const QString wait = "poll 0 0 (deferred) (running)";
        const QString read = QString("read %1 512 (cancellable) (running)").arg(runner.pipeFds[0]);
        const QString heldOff = "usleep 0 (held off)";
        const QString pause = "usleep 200000 (cancellable)";
        QCOMPARE(SystemCalls::lines(),
                 (QStringList{wait, read, wait, "sink hello (running)", heldOff + " (running)",
                              pause + " (running)", wait, read, wait, "sink  (running)",
                              heldOff + " (running)", pause, "poll 0 0 (deferred)", heldOff}));
        QCOMPARE(runner.result, static_cast<void *>(&runner));
    }

    void nothingIsReadWhileNotRunning()
    {
        Turns runner;
        runner.setStatus(false);
        SystemCalls::record(runner.running);
        QCOMPARE(runner.read(1), Texts());
        QCOMPARE(SystemCalls::lines(), (QStringList{"poll 0 0 (deferred)", "usleep 0 (held off)"}));
        QCOMPARE(runner.result, static_cast<void *>(&runner));
    }

    void sinkRunsOnTheReaderThreadUntilTheRunnerStopsRunning()
    {
        FedRecorder runner;
        runner.feed("hello");
        runner.launch();
        QVERIFY(eventually([&] { return runner.messages.count() == 1; }));
        QVERIFY(pthread_equal(runner.messages.sender(), runner.readerThread));
        runner.setStatus(false);
        runner.endOfFile(); // should it have begun another turn by now
        QCOMPARE(endOf(runner.readerThread), static_cast<void *>(&runner));
    }

    void lineArrivesOnceAndThenEmptyChunks()
    {
        const std::unique_ptr<Recorder> runner(new Recorder);
        runner->createProgress("", "echo hello");
        runner->launchRequest();
        QCOMPARE(runner->readerResult, 0);
        QVERIFY(eventually([&] { return runner->messages.count() >= 4; }));
        QCOMPARE(runner->messages.all().mid(0, 4), (Texts{"hello\n", "", "", ""}));
        QCOMPARE(runner->getStatus(), true); // as if the child had not ended
    }

    void outputIsCutIntoChunks_data()
    {
        QTest::addColumn<QByteArray>("output");
        QTest::addColumn<Texts>("chunks");
        const QByteArray full(512, 'x');
        QTest::newRow("512 bytes") << full << Texts{full, ""};
        QTest::newRow("1300 bytes") << full + full + "and more" << Texts{full, full, "and more"};
        QTest::newRow("up to a zero byte") << QByteArray("ab\0cd\0", 6) << Texts{"ab", ""};
        QTest::newRow("a zero byte at the start") << QByteArray("\0abc", 4) << Texts{""};
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

    void readErrorGivesEmptyChunks()
    {
        Turns runner;
        runner.pipeFds[0] = -1;
        QCOMPARE(runner.read(2), (Texts{"", ""}));
    }

    void readMsgReadsOnceWithoutSinkAndPause()
    {
        FedRecorder runner;
        runner.feed(QByteArray(512, 'x') + QByteArray("y\0z", 3));
        runner.endOfFile();
        SystemCalls::record(runner.running);
        QCOMPARE(runner.readMsg(), std::string(512, 'x'));
        QCOMPARE(SystemCalls::lines(),
                 QStringList{QString("read %1 512 (deferred) (running)").arg(runner.pipeFds[0])});
        QCOMPARE(runner.readMsg(), std::string("y"));
        QCOMPARE(runner.readMsg(), std::string()); // end of file
        runner.pipeFds[0] = -1;
        QCOMPARE(runner.readMsg(), std::string()); // an error
        QCOMPARE(runner.messages.count(), 0);
    }

    void fullPipeBlocksTheChildAndLosesNothing()
    {
        Recorder runner;
        runner.createPipe();
        const int capacity = fcntl(runner.pipeFds[0], F_GETPIPE_SZ);
        runner.createProgress("", "printf %0" + std::to_string(2 * capacity) + "d 0");
        QVERIFY(eventually([&] {
            int waiting = 0; // bytes; the last page of the pipe may stay partly empty
            return ioctl(runner.pipeFds[0], FIONREAD, &waiting) == 0 &&
                   waiting > capacity - PIPE_BUF;
        }));
        QVERIFY(Processes::isAlive(runner.childPid)); // as it has more to write
        QCOMPARE(wholeOutput(runner), QByteArray(2 * capacity, '0'));
    }
};

QTEST_GUILESS_MAIN(MyProgressReaderTest)
#include "MyProgressReaderTest.moc"
