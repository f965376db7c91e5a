#include "tests/process/Recorder.h"
#include "tests/support/Apart.h"
#include "tests/support/Eventually.h"
#include "tests/support/Processes.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <link.h>
#include <memory>
#include <poll.h>
#include <semaphore.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/syscall.h>

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

/// A runner whose messages come in while its destructor runs: late enough to miss the most derived
/// part of the object, and early enough for the reader not to be cancelled.
struct Middle : FedRecorder
{
    explicit Middle(Messages &forMiddle) : middleMessages(forMiddle) {}
    ~Middle() override
    {
        feed("late");
        eventually([&] { return middleMessages.all().contains("late"); });
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

/// deleteProgress() and the destructor.
class MyProgressStopTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { runner.reset(new Noting); }
    void cleanup()
    {
        runner.reset();
        SystemCalls::stop();
    }

    void stopTakesItsStepsInOrder()
    {
        runner->createProgress("", sleeping);
        runner->launchRequest();
        SystemCalls::record(runner->running);
        QCOMPARE(runner->deleteProgress(), true);
        SystemCalls::stop();
        QCOMPARE(SystemCalls::lines(), (QStringList{killOf(runner->childPid), "pthread_cancel",
                                                    "sink Progress stopped"}));
        QCOMPARE(runner->getStatus(), false);
        QCOMPARE(runner->launchRequested, true);
        QVERIFY(pthread_equal(runner->messages.senders().back(), pthread_self()));
    }

    /// The message goes to the base sink then, see MyProgressOutputTest. The reader is neither
    /// joined nor detached, the child never reaped, the read end never closed.
    void destructorStopsARunningRunner()
    {
        runner->createProgress("", sleeping);
        runner->launchRequest();
        const pid_t child = runner->childPid;
        const pthread_t reader = runner->readerThread;
        const int readEnd = runner->pipeFds[0];
        const Messages &messages = runner->messages;
        QCOMPARE(callsOfDeletion(runner), (QStringList{killOf(child), "pthread_cancel"}));
        QCOMPARE(messages.joined(), QByteArray());
        const siginfo_t end = Processes::ended(child);
        QCOMPARE(end.si_code, static_cast<int>(CLD_KILLED));
        QCOMPARE(end.si_status, SIGKILL);
        QCOMPARE(Processes::state(child), 'Z');
        QVERIFY(endOf(reader) != nullptr); // a detached or joined thread cannot be joined
        QVERIFY(Processes::descriptor(getpid(), readEnd).startsWith("pipe:"));
    }

    void destructorLeavesAStoppedRunnerAlone()
    {
        runner->createProgress("", sleeping);
        const pid_t child = runner->childPid;
        runner->setStatus(false);
        QCOMPARE(callsOfDeletion(runner), QStringList());
        QVERIFY(eventually([&] { return Processes::program(child) == "tail"; }));
        kill(child, SIGKILL);
    }

    void runnerWithoutAReaderIsStopped()
    {
        runner->createProgress("", sleeping);
        const pid_t child = runner->childPid;
        QCOMPARE(callsOfDeletion(runner), QStringList{killOf(child)});
        QCOMPARE(Processes::ended(child).si_status, SIGKILL);
    }

    void childPidIsSignalledAsItStands_data()
    {
        QTest::addColumn<int>("pid");
        QTest::newRow("no such process") << FedRecorder::noProcess;
        QTest::newRow("every process") << -1; // see kill() in SystemCalls.cpp
        QTest::newRow("the group") << 0;
    }

    void childPidIsSignalledAsItStands()
    {
        QFETCH(int, pid);
        // Go on only if the signals of the code under test are known to come by here.
        for (const int signalled : {FedRecorder::noProcess, pid}) {
            runner->childPid = signalled;
            SystemCalls::record(runner->running);
            QCOMPARE(runner->deleteProgress(), true);
            SystemCalls::stop();
            QCOMPARE(SystemCalls::lines(),
                     (QStringList{killOf(signalled), "sink Progress stopped"}));
        }
    }

    void onlyTheProcessIsSignalled()
    {
        const QTemporaryDir directory;
        const QByteArray questions = QFile::encodeName(directory.filePath("questions"));
        const QByteArray answers = QFile::encodeName(directory.filePath("answers"));
        QVERIFY(mkfifo(questions, S_IRWXU) == 0);
        QVERIFY(mkfifo(answers, S_IRWXU) == 0);

        runner->createProgress("", "(read line <'" + questions.toStdString() +
                                       "'; echo \"$line\" >'" + answers.toStdString() +
                                       "') & wait");
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

    void everyStartLeavesOneDescriptor()
    {
        const auto descriptors = [] {
            return QDir("/proc/self/fd").entryList(QDir::Files | QDir::System).size();
        };
        const int before = descriptors();
        QVERIFY(before > 2);
        for (int i = 1; i <= 3; ++i) {
            runner.reset(new Noting);
            runner->createProgress("", sleeping);
            runner->launchRequest();
            runner.reset();
            QCOMPARE(descriptors(), before + i);
        }
    }

    void readerBlockedInTheReadIsCancelled()
    {
        FedRecorder fed;
        fed.launch();
        QVERIFY(eventually([&] { return SystemCalls::readersOf(fed.pipeFds[0]) == 1; }));
        fed.deleteProgress(); // the pipe stays open, and the read would never end
        QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
    }

    void sleepingReaderIsCancelled()
    {
        SystemCalls::changePauses(3'600'000'000); // microseconds
        FedRecorder fed;
        const int before = SystemCalls::pausesBegun();
        fed.feed("hello");
        fed.launch();
        QVERIFY(eventually([&] { return SystemCalls::pausesBegun() > before; }));
        fed.deleteProgress();
        QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
    }

    void sinkInProgressIsNotCutOff()
    {
        struct Slow : FedRecorder
        {
            void insertMsg(std::string msg) override
            {
                if (msg == "Progress stopped") {
                    return;
                }
                sem_post(&entered);
                while (sem_wait(&mayGoOn) !=
                       0) { // where even a deferred cancellation would come in
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

    void onlyTheLastReaderIsCancelled()
    {
        FedRecorder fed;
        fed.launch();
        const pthread_t first = fed.readerThread;
        fed.launch();
        QVERIFY(eventually([&] { return SystemCalls::readersOf(fed.pipeFds[0]) == 2; }));
        fed.deleteProgress();
        QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
        fed.endOfFile(); // wakes the first, which finds that it is to stop
        QCOMPARE(endOf(first), static_cast<void *>(&fed));
    }

    void lateChunkGoesToWhatTheObjectPresents()
    {
        Messages &forMiddle = Messages::make();
        auto *most = new Most(forMiddle);
        const Messages &forMost = most->messages;
        most->feed("early");
        most->launch();
        const pthread_t reader = most->readerThread;
        QVERIFY(eventually([&] { return forMost.count() == 1; }));
        delete most;
        QCOMPARE(forMost.all(), QList<QByteArray>{"early"});
        QCOMPARE(forMiddle.all(), QList<QByteArray>{"late"});
        QVERIFY(endOf(reader) != nullptr);
    }

    /// A reader that is cancelled inside the lazy binding of a call leaves the loader locked.
    void callsAreBoundAtTheStart()
    {
        bool now = false;
        for (const ElfW(Dyn) *entry = _DYNAMIC; entry->d_tag != DT_NULL; ++entry) {
            now = now || (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_BIND_NOW) != 0);
        }
        QVERIFY(now);
    }

    /// In glibc a cancellation comes as a signal. Here it is held back until the reader waits for
    /// something again: in the hold-off in front of the sink, which is there for that. A sink that
    /// is struck in the allocator leaves it locked, and the next fork() stops for good.
    void cancellationOnItsWayStrikesBeforeTheSink()
    {
        struct Held : FedRecorder
        {
            void insertMsg(std::string) override
            {
                if (++begun == 1) {
                    // Not by the C library, which lets nobody block its own signals.
                    const std::uint64_t cancellation = 1U << 31U; // signal 32
                    syscall(SYS_rt_sigprocmask, SIG_BLOCK, &cancellation, nullptr,
                            sizeof cancellation);
                } else {
                    poll(nullptr, 0, 0); // takes what is held back, as any wait in a sink would
                }
                ++finished;
            }
            std::atomic<int> begun{0};
            std::atomic<int> finished{0};
        };
        Held held;
        const auto readerWaits = [&] { return SystemCalls::readersOf(held.pipeFds[0]) == 1; };
        held.feed("first");
        held.launch();
        QVERIFY(eventually([&] { return held.finished == 1 && readerWaits(); }));
        pthread_cancel(held.readerThread);
        held.feed("second");
        QCOMPARE(endOf(held.readerThread), PTHREAD_CANCELED);
        QCOMPARE(held.begun.load(), held.finished.load());
        held.setStatus(false);
    }

    void exceptionOutOfTheStopEndsTheProcess()
    {
        const QString end = runApart([] {
            try {
                Recorder inside;
                inside.createProgress("", "exec true");
                inside.launchRequest();
                SystemCalls::record(inside.running);
                SystemCalls::at("pthread_cancel", [] { throw std::runtime_error("no stop"); });
            } catch (const std::runtime_error &) {
            }
        });
        QCOMPARE(end, QString("signal %1").arg(SIGABRT));
    }

private:
    std::unique_ptr<Noting> runner;
};

QTEST_GUILESS_MAIN(MyProgressStopTest)
#include "MyProgressStopTest.moc"
