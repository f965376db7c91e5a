#include "tests/process/Processes.h"
#include "tests/process/Recorder.h"
#include "tests/process/SystemCalls.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <atomic>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sched.h>
#include <semaphore.h>
#include <stdexcept>
#include <sys/stat.h>

namespace {

/// Waits for the end of the thread and returns what it ended with.
void *endOf(pthread_t thread)
{
    void *result = nullptr;
    return pthread_join(thread, &result) == 0 ? result : nullptr;
}

/// A runner that notes each message among the system calls.
struct Noting : Recorder
{
    void insertMsg(std::string msg) override
    {
        Recorder::insertMsg(msg);
        SystemCalls::note("sink " + QByteArray::fromStdString(msg));
    }
};

} // namespace

/// deleteProgress() and the destructor.
class MyProgressStopTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { runner.reset(new Noting); }
    void cleanup() { runner.reset(); }

    void stopTakesItsStepsInOrder();
    void destructorStopsARunningRunner();
    void destructorLeavesAStoppedRunnerAlone();
    void childPidIsSignalledAsItStands_data();
    void childPidIsSignalledAsItStands();
    void childIsKilledAndNeverReaped();
    void onlyTheProcessIsSignalled();
    void readEndStaysOpen();

    void readerBlockedInTheReadIsCancelled();
    void sleepingReaderIsCancelled();
    void sinkInProgressIsNotCutOff();
    void readerIsNeitherJoinedNorDetached();
    void runnerWithoutAReaderIsStopped();
    void onlyTheLastReaderIsCancelled();
    void lateChunkGoesToWhatTheObjectPresents();
    void chattyRunnersStopAtAnyMoment();
    void cancelledReadersLeaveNoLockBehind();

    void exceptionOutOfTheStopEndsTheProcess();

private:
    std::unique_ptr<Noting> runner;
};

void MyProgressStopTest::stopTakesItsStepsInOrder()
{
    runner->createProgress("", sleeping);
    runner->launchRequest();
    SystemCalls::record(runner->running);
    const bool result = runner->deleteProgress();
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(), (QStringList{QString("kill %1 9").arg(runner->childPid),
                                                "pthread_cancel", "sink Progress stopped"}));
    QCOMPARE(result, true);
    QCOMPARE(runner->getStatus(), false);
    QCOMPARE(runner->launchRequested, true);
    QCOMPARE(runner->messages.all().last(), QByteArray("Progress stopped"));
    QVERIFY(pthread_equal(runner->messages.senders().back(), pthread_self()));
}

/// The message goes to the base sink then, see MyProgressOutputTest.
void MyProgressStopTest::destructorStopsARunningRunner()
{
    runner->createProgress("", sleeping);
    runner->launchRequest();
    const pid_t child = runner->childPid;
    Messages &messages = runner->messages;
    SystemCalls::record(runner->running);
    runner.reset();
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(),
             (QStringList{QString("kill %1 9").arg(child), "pthread_cancel"}));
    QCOMPARE(messages.joined(), QByteArray());
}

void MyProgressStopTest::destructorLeavesAStoppedRunnerAlone()
{
    runner->createProgress("", sleeping);
    const pid_t child = runner->childPid;
    runner->setStatus(false);
    SystemCalls::record(runner->running);
    runner.reset();
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(), QStringList());
    WAIT_UNTIL(Processes::program(child) == "tail");
    kill(child, SIGKILL);
}

void MyProgressStopTest::childPidIsSignalledAsItStands_data()
{
    QTest::addColumn<int>("pid");
    QTest::newRow("no such process") << FedRecorder::noProcess;
    QTest::newRow("every process") << -1; // see kill() in SystemCalls.cpp
    QTest::newRow("the group") << 0;
}

void MyProgressStopTest::childPidIsSignalledAsItStands()
{
    QFETCH(int, pid);
    runner->childPid = FedRecorder::noProcess;
    SystemCalls::record(runner->running);
    runner->deleteProgress();
    // Go on only if the signals of the code under test are known to come by here.
    QCOMPARE(SystemCalls::lines(), (QStringList{QString("kill %1 9").arg(FedRecorder::noProcess),
                                                "sink Progress stopped"}));

    runner->childPid = pid;
    SystemCalls::record(runner->running);
    QCOMPARE(runner->deleteProgress(), true);
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(),
             (QStringList{QString("kill %1 9").arg(pid), "sink Progress stopped"}));
}

void MyProgressStopTest::childIsKilledAndNeverReaped()
{
    runner->createProgress("", sleeping);
    const pid_t child = runner->childPid;
    runner.reset();
    const siginfo_t end = Processes::ended(child);
    QCOMPARE(end.si_pid, child);
    QCOMPARE(end.si_code, static_cast<int>(CLD_KILLED));
    QCOMPARE(end.si_status, SIGKILL);
    QCOMPARE(Processes::state(child), 'Z');
}

void MyProgressStopTest::onlyTheProcessIsSignalled()
{
    const QTemporaryDir directory;
    const QByteArray questions = QFile::encodeName(directory.filePath("questions"));
    const QByteArray answers = QFile::encodeName(directory.filePath("answers"));
    QVERIFY(mkfifo(questions.constData(), S_IRWXU) == 0);
    QVERIFY(mkfifo(answers.constData(), S_IRWXU) == 0);

    runner->createProgress("", "(read line <'" + questions.toStdString() + "'; echo \"$line\" >'" +
                                   answers.toStdString() + "') & wait");
    const pid_t child = runner->childPid;
    QFile question(questions);
    QVERIFY(question.open(QIODevice::WriteOnly)); // waits for the grandchild
    runner.reset();
    QCOMPARE(Processes::ended(child).si_status, SIGKILL);

    question.write("still there?\n");
    question.close();
    QFile answer(answers);
    QVERIFY(answer.open(QIODevice::ReadOnly));
    QCOMPARE(answer.readAll(), QByteArray("still there?\n"));
}

void MyProgressStopTest::readEndStaysOpen()
{
    const auto descriptors = [] {
        return QDir("/proc/self/fd").entryList(QDir::Files | QDir::System).size();
    };
    QVERIFY(descriptors() > 2);
    const int before = descriptors();
    for (int i = 1; i <= 3; ++i) {
        runner.reset(new Noting);
        runner->createProgress("", sleeping);
        runner->launchRequest();
        const int readEnd = runner->pipeFds[0];
        runner.reset();
        QVERIFY(Processes::descriptor(getpid(), readEnd).startsWith("pipe:"));
        QCOMPARE(descriptors(), before + i);
    }
}

void MyProgressStopTest::readerBlockedInTheReadIsCancelled()
{
    FedRecorder fed;
    const int before = SystemCalls::readsBegun();
    fed.launch();
    WAIT_UNTIL(SystemCalls::readsBegun() == before + 1);
    fed.deleteProgress(); // the pipe stays open, and the read would never end
    QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
}

void MyProgressStopTest::sleepingReaderIsCancelled()
{
    // In a process of its own for the long pause, which it would otherwise wait for.
    const Processes::Run run = Processes::runApart([] {
        SystemCalls::changePauses(3'600'000'000); // microseconds
        FedRecorder fed;
        const int before = SystemCalls::pausesBegun();
        fed.feed("hello");
        fed.launch();
        while (SystemCalls::pausesBegun() == before) {
            sched_yield();
        }
        fed.deleteProgress();
        std::exit(endOf(fed.readerThread) == PTHREAD_CANCELED ? 0 : 1);
    });
    QCOMPARE(run.status, 0);
}

void MyProgressStopTest::sinkInProgressIsNotCutOff()
{
    struct Slow : FedRecorder
    {
        void insertMsg(std::string msg) override
        {
            if (msg == "Progress stopped") {
                return;
            }
            sem_post(&entered);
            while (sem_wait(&mayGoOn) != 0) { // where even a deferred cancellation would come in
            }
            finished = true;
        }
        sem_t entered{};
        sem_t mayGoOn{};
        std::atomic<bool> finished{false};
    };
    Slow slow;
    sem_init(&slow.entered, 0, 0);
    sem_init(&slow.mayGoOn, 0, 0);
    slow.feed("hello");
    slow.launch();
    while (sem_wait(&slow.entered) != 0) {
    }
    QCOMPARE(slow.deleteProgress(), true); // and does not wait for the sink
    QCOMPARE(slow.finished.load(), false);
    sem_post(&slow.mayGoOn);
    QCOMPARE(endOf(slow.readerThread), PTHREAD_CANCELED);
    QCOMPARE(slow.finished.load(), true);
}

void MyProgressStopTest::readerIsNeitherJoinedNorDetached()
{
    runner->createProgress("", sleeping);
    runner->launchRequest();
    const pthread_t reader = runner->readerThread;
    pthread_attr_t attributes{};
    QCOMPARE(pthread_getattr_np(reader, &attributes), 0);
    int detached = -1;
    pthread_attr_getdetachstate(&attributes, &detached);
    pthread_attr_destroy(&attributes);
    QCOMPARE(detached, PTHREAD_CREATE_JOINABLE);
    runner.reset();
    QVERIFY(endOf(reader) != nullptr); // a detached or joined thread cannot be joined
}

void MyProgressStopTest::runnerWithoutAReaderIsStopped()
{
    runner->createProgress("", sleeping);
    const pid_t child = runner->childPid;
    runner.reset();
    QCOMPARE(Processes::ended(child).si_status, SIGKILL);
}

void MyProgressStopTest::onlyTheLastReaderIsCancelled()
{
    FedRecorder fed;
    const int before = SystemCalls::readsBegun();
    fed.launch();
    const pthread_t first = fed.readerThread;
    fed.launch();
    WAIT_UNTIL(SystemCalls::readsBegun() == before + 2);
    fed.deleteProgress();
    QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
    fed.endOfFile(); // wakes the first, which finds that it is to stop
    QCOMPARE(endOf(first), static_cast<void *>(&fed));
}

namespace {

/// Lives for as long as its own part of the object is there to take messages.
struct Middle : FedRecorder
{
    explicit Middle(Messages &forMiddle) : middleMessages(forMiddle) {}
    ~Middle() override
    {
        feed("late"); // the most derived part is gone, and the reader not yet cancelled
        while (!middleMessages.all().contains("late")) {
            usleep(1000);
        }
    }
    void insertMsg(std::string msg) override { middleMessages.add(msg); }
    Messages &middleMessages;
};

struct Most : Middle
{
    using Middle::Middle;
    void insertMsg(std::string msg) override { messages.add(msg); }
};

} // namespace

void MyProgressStopTest::lateChunkGoesToWhatTheObjectPresents()
{
    Messages &forMiddle = Messages::make();
    auto *most = new Most(forMiddle);
    Messages &forMost = most->messages;
    most->feed("early");
    most->launch();
    const pthread_t reader = most->readerThread;
    WAIT_UNTIL(forMost.count() == 1);
    delete most;
    QCOMPARE(forMost.all(), QList<QByteArray>{"early"});
    QCOMPARE(forMiddle.all(), QList<QByteArray>{"late"});
    QVERIFY(endOf(reader) != nullptr);
}

/// Whatever the reader is at: reading, in the sink, on its way into a pause.
void MyProgressStopTest::chattyRunnersStopAtAnyMoment()
{
    constexpr int cycles = 100;
    for (int i = 0; i < cycles; ++i) {
        const std::unique_ptr<Recorder> chatty(new Recorder);
        chatty->createProgress("", "while :; do echo chatter; done");
        chatty->launchRequest();
        usleep(static_cast<useconds_t>(i * 50)); // microseconds
    }
}

/// fork() takes the allocator's locks. One that a cancelled reader has left locked, in the sink or
/// on its way out, stops it for good.
void MyProgressStopTest::cancelledReadersLeaveNoLockBehind()
{
#ifdef __SANITIZE_ADDRESS__
    QSKIP("the sanitizer has an allocator of its own");
#endif
    const Processes::Run run = Processes::runApart([] {
        struct Busy : FedRecorder
        {
            void insertMsg(std::string) override
            {
                // Seven of a size: so many glibc's allocator keeps for a thread until it ends.
                std::array<std::string, 420> texts;
                for (std::size_t i = 0; i < texts.size(); ++i) {
                    texts[i].assign(16 + i / 7 * 16, 'a');
                }
            }
        };
        constexpr int stops = 3000;
        SystemCalls::changePauses(20); // microseconds
        Busy fed;
        fed.endOfFile();
        for (int i = 0; i < stops; ++i) {
            fed.setStatus(true);
            const int before = SystemCalls::pausesBegun();
            fed.launch();
            while (SystemCalls::pausesBegun() <= before + 1) {
                sched_yield();
            }
            fed.setStatus(false); // so that it may be about to return
            for (volatile int delay = 0; delay < i % 800 * 200; delay = delay + 1) {
            }
            fed.deleteProgress();
            const pid_t child = fork();
            if (child == 0) {
                _exit(0);
            }
            waitpid(child, nullptr, 0);
            pthread_join(fed.readerThread, nullptr);
        }
    });
    QVERIFY2(run.status == 0, run.output.right(1000).constData());
}

void MyProgressStopTest::exceptionOutOfTheStopEndsTheProcess()
{
    const Processes::Run run = Processes::runApart([] {
        SystemCalls::throwFromCancel();
        try {
            Recorder inside;
            inside.createProgress("", "exec true");
            inside.launchRequest();
        } catch (const std::runtime_error &) {
        }
    });
    QVERIFY(WIFSIGNALED(run.status));
    QCOMPARE(WTERMSIG(run.status), SIGABRT);
}

QTEST_GUILESS_MAIN(MyProgressStopTest)
#include "MyProgressStopTest.moc"
