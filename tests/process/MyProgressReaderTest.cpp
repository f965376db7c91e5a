#include "tests/process/Processes.h"
#include "tests/process/Recorder.h"
#include "tests/process/SystemCalls.h"

#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <sys/ioctl.h>
#include <utility>
#include <vector>

namespace {

using Texts = QList<QByteArray>;

constexpr std::chrono::milliseconds readerPause(200);

/// A runner whose reader is run on the test's own thread, for a number of turns.
struct Turns : FedRecorder
{
    void insertMsg(std::string msg) override
    {
        FedRecorder::insertMsg(msg);
        SystemCalls::note("sink " + QByteArray::fromStdString(msg));
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
        pthread_setcancelstate(cancelState, nullptr);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &cancelType);
        pthread_setcanceltype(cancelType, nullptr);
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
        pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &stateAfterwards);
        pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &typeAfterwards);
        return messages.all();
    }

    Texts fedLater; ///< one at each message
    int left = 0;
    void *result = nullptr;
    int cancelState = -1; ///< as the sink found it
    int cancelType = -1;
    int stateAfterwards = -1;
    int typeAfterwards = -1;
};

} // namespace

/// What the reader hands to the sink, and when.
class MyProgressReaderTest : public QObject
{
    Q_OBJECT

private slots:
    void turnReadsHandsOverAndPauses();
    void nothingIsReadWhileNotRunning();
    void sinkRunsWithCancellationHeldOff();
    void readerReturnsWithCancellationHeldOff();
    void sinkRunsOnTheReaderThread();
    void readerEndsWhenTheRunnerStopsRunning();

    void lineArrivesOnceAndThenEmptyChunks();
    void outputIsCutIntoChunks_data();
    void outputIsCutIntoChunks();
    void chunkEndsAtItsFirstZeroByte_data();
    void chunkEndsAtItsFirstZeroByte();
    void shorterChunkCarriesNothingOver();
    void bytesPassUnchanged();
    void characterIsCutByTheLimit();

    void readMsgReadsOnceWithoutSinkAndPause();
    void readMsgReturnsOneChunk();
    void readMsgReturnsNothingAtTheEndAndOnErrors();
    void fullPipeBlocksTheChildAndLosesNothing();
    void pipeEndsWithTheLastWriteEnd();
    void readErrorGivesEmptyChunks();
};

void MyProgressReaderTest::turnReadsHandsOverAndPauses()
{
    Turns runner;
    runner.feed("hello");
    runner.endOfFile();
    SystemCalls::record(runner.running);
    runner.read(2);
    SystemCalls::stop();
    const QString read = QString("read %1 512 (cancellable) (running)").arg(runner.pipeFds[0]);
    QCOMPARE(SystemCalls::lines(),
             (QStringList{read, "sink hello (running)", "usleep 200000 (cancellable) (running)",
                          read, "sink  (running)", "usleep 200000 (cancellable)"}));
    QCOMPARE(runner.result, static_cast<void *>(&runner));
}

void MyProgressReaderTest::nothingIsReadWhileNotRunning()
{
    Turns runner;
    runner.feed("hello");
    runner.setStatus(false);
    SystemCalls::record(runner.running);
    runner.read(1);
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(), QStringList());
    QCOMPARE(runner.result, static_cast<void *>(&runner));
}

/// Outside of the sink, turnReadsHandsOverAndPauses() shows that the thread can be cancelled.
void MyProgressReaderTest::sinkRunsWithCancellationHeldOff()
{
    Turns runner;
    runner.endOfFile();
    runner.read(1);
    QCOMPARE(runner.cancelState, PTHREAD_CANCEL_DISABLE);
    QCOMPARE(runner.cancelType, PTHREAD_CANCEL_DEFERRED);
}

/// On its way out a thread frees its memory.
void MyProgressReaderTest::readerReturnsWithCancellationHeldOff()
{
    for (const bool running : {true, false}) {
        Turns runner;
        runner.endOfFile();
        runner.setStatus(running);
        runner.read(1);
        QCOMPARE(runner.stateAfterwards, PTHREAD_CANCEL_DISABLE);
        QCOMPARE(runner.typeAfterwards, PTHREAD_CANCEL_DEFERRED);
    }
}

void MyProgressReaderTest::sinkRunsOnTheReaderThread()
{
    const std::unique_ptr<FedRecorder> runner(new FedRecorder);
    runner->endOfFile();
    runner->launch();
    WAIT_UNTIL(runner->messages.count() >= 2);
    for (const pthread_t sender : runner->messages.senders()) {
        QVERIFY(pthread_equal(sender, runner->readerThread));
    }
    QVERIFY(!pthread_equal(runner->readerThread, pthread_self()));
}

void MyProgressReaderTest::readerEndsWhenTheRunnerStopsRunning()
{
    const std::unique_ptr<FedRecorder> runner(new FedRecorder);
    runner->feed("hello");
    runner->launch();
    WAIT_UNTIL(runner->messages.count() == 1);
    runner->setStatus(false);
    runner->endOfFile(); // should it have begun another turn by now
    void *result = nullptr;
    QCOMPARE(pthread_join(runner->readerThread, &result), 0);
    QCOMPARE(result, static_cast<void *>(runner.get()));
}

void MyProgressReaderTest::lineArrivesOnceAndThenEmptyChunks()
{
    const std::unique_ptr<Recorder> runner(new Recorder);
    runner->createProgress("", "echo hello");
    runner->launchRequest();
    WAIT_UNTIL(runner->messages.count() >= 4);
    QCOMPARE(runner->messages.all().mid(0, 4), (Texts{"hello\n", "", "", ""}));
    QCOMPARE(runner->getStatus(), true);
    const auto times = runner->messages.arrivals();
    for (std::size_t i = 1; i < times.size(); ++i) {
        QVERIFY(times[i] - times[i - 1] >= readerPause);
    }
}

void MyProgressReaderTest::outputIsCutIntoChunks_data()
{
    QTest::addColumn<QList<int>>("sizes");
    QTest::newRow("512 bytes") << QList<int>{512, 0};
    QTest::newRow("513 bytes") << QList<int>{512, 1};
    QTest::newRow("1300 bytes") << QList<int>{512, 512, 276};
}

void MyProgressReaderTest::outputIsCutIntoChunks()
{
    QFETCH(QList<int>, sizes);
    Texts expected;
    char letter = 'a';
    for (const int size : std::as_const(sizes)) {
        expected.append(QByteArray(size, letter++));
    }
    Turns runner;
    runner.feed(expected.join());
    runner.endOfFile();
    QCOMPARE(runner.read(sizes.size()), expected);
    const auto times = runner.messages.arrivals();
    for (std::size_t i = 1; i < times.size(); ++i) {
        QVERIFY(times[i] - times[i - 1] >= readerPause);
    }
}

void MyProgressReaderTest::chunkEndsAtItsFirstZeroByte_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<Texts>("messages");
    QTest::newRow("in the middle") << QByteArray("ab\0cd\0", 6) << Texts{"ab"};
    QTest::newRow("at the start") << QByteArray("\0abc", 4) << Texts{""};
    QTest::newRow("in the second chunk")
        << QByteArray(512, 'x') + QByteArray("y\0z", 3) << Texts{QByteArray(512, 'x'), "y"};
}

void MyProgressReaderTest::chunkEndsAtItsFirstZeroByte()
{
    QFETCH(QByteArray, output);
    QFETCH(Texts, messages);
    Turns runner;
    runner.feed(output);
    QCOMPARE(runner.read(messages.size()), messages);
}

void MyProgressReaderTest::shorterChunkCarriesNothingOver()
{
    Turns runner;
    runner.feed("a long message");
    runner.fedLater = Texts{"short"};
    QCOMPARE(runner.read(2), (Texts{"a long message", "short"}));
}

void MyProgressReaderTest::bytesPassUnchanged()
{
    QByteArray bytes;
    for (int byte = 255; byte > 0; --byte) { // no UTF-8
        bytes.append(static_cast<char>(byte));
    }
    Turns runner;
    runner.feed(bytes);
    QCOMPARE(runner.read(1), Texts{bytes});
}

void MyProgressReaderTest::characterIsCutByTheLimit()
{
    Turns runner;
    runner.feed(QByteArray(511, 'a') + "\xc3\xa9");
    QCOMPARE(runner.read(2), (Texts{QByteArray(511, 'a') + "\xc3", "\xa9"}));
}

void MyProgressReaderTest::readMsgReadsOnceWithoutSinkAndPause()
{
    FedRecorder runner;
    runner.feed("hello");
    SystemCalls::record(runner.running);
    const std::string text = runner.readMsg();
    SystemCalls::stop();
    QCOMPARE(text, std::string("hello"));
    QCOMPARE(SystemCalls::lines(),
             QStringList{QString("read %1 512 (running)").arg(runner.pipeFds[0])});
    QCOMPARE(runner.messages.count(), 0);
}

void MyProgressReaderTest::readMsgReturnsOneChunk()
{
    FedRecorder runner;
    runner.feed(QByteArray(512, 'x') + QByteArray("y\0z", 3));
    QCOMPARE(runner.readMsg(), std::string(512, 'x'));
    QCOMPARE(runner.readMsg(), std::string("y"));
}

void MyProgressReaderTest::readMsgReturnsNothingAtTheEndAndOnErrors()
{
    FedRecorder runner;
    runner.feed("hello");
    runner.endOfFile();
    QCOMPARE(runner.readMsg(), std::string("hello"));
    QCOMPARE(runner.readMsg(), std::string());
    runner.pipeFds[0] = -1;
    QCOMPARE(runner.readMsg(), std::string());
}

void MyProgressReaderTest::fullPipeBlocksTheChildAndLosesNothing()
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
    int waiting = 0; // bytes; the last page of the pipe may stay partly empty
    WAIT_UNTIL(ioctl(runner.pipeFds[0], FIONREAD, &waiting) == 0 && waiting > capacity - PIPE_BUF);
    siginfo_t end{};
    waitid(P_PID, static_cast<id_t>(runner.childPid), &end, WEXITED | WNOHANG | WNOWAIT);
    QCOMPARE(end.si_pid, 0); // lives, as it has more to write
    QCOMPARE(wholeOutput(runner), expected);
}

/// The child holds the write end three times; with one left, the reader waits for more.
void MyProgressReaderTest::pipeEndsWithTheLastWriteEnd()
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
    WAIT_UNTIL(QFile::exists(closed));
    pollfd readEnd{runner->pipeFds[0], POLLIN, 0};
    QCOMPARE(poll(&readEnd, 1, 0), 0); // neither output nor end of file
    QCOMPARE(runner->messages.count(), 0);

    const QByteArray number = QByteArray::number(runner->pipeFds[1]) + '\n';
    QVERIFY(write(input[1], number.constData(), static_cast<std::size_t>(number.size())) ==
            number.size());
    WAIT_UNTIL(runner->messages.count() >= 2);
    QCOMPARE(runner->messages.joined(), QByteArray());
    QCOMPARE(Processes::program(runner->childPid), QByteArray("bash")); // lives on
    WAIT_UNTIL(Processes::state(runner->childPid) == 'S');
    QCOMPARE(runner->getStatus(), true);
}

void MyProgressReaderTest::readErrorGivesEmptyChunks()
{
    Turns runner;
    runner.feed("hello");
    const int directory = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QVERIFY(dup2(directory, runner.pipeFds[0]) == runner.pipeFds[0]);
    char byte = 0;
    QVERIFY(read(runner.pipeFds[0], &byte, 1) == -1 && errno == EISDIR);
    QCOMPARE(runner.read(2), (Texts{"", ""}));
    close(directory);
}

QTEST_GUILESS_MAIN(MyProgressReaderTest)
#include "MyProgressReaderTest.moc"
