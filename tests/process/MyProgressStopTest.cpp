#include "tests/process/Recorder.h"
#include "tests/support/Apart.h"
#include "tests/support/Eventually.h"
#include "tests/support/Processes.h"

#include <QTest>

#include <array>
#include <atomic>
#include <link.h>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <sys/syscall.h>

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
        QStringList lines = SystemCalls::lines();
        lines.removeAll("sink "); // of the reader, which may see the child's end first
        QCOMPARE(lines, (QStringList{killOf(runner->childPid), "pthread_cancel",
                                     "sink Progress stopped"}));
        QCOMPARE(runner->getStatus(), false);
        QCOMPARE(runner->launchRequested, true);
        QVERIFY(pthread_equal(runner->messages.sender(), pthread_self()));
        QCOMPARE(callsOfDeletion(runner), QStringList()); // none of them twice
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
        QCOMPARE(callsOfDeletion(runner), (QStringList{killOf(child), "pthread_cancel"}));
        const siginfo_t end = Processes::ended(child);
        QCOMPARE(end.si_code, static_cast<int>(CLD_KILLED));
        QCOMPARE(end.si_status, SIGKILL);
        QCOMPARE(Processes::state(child), 'Z');
        QVERIFY(endOf(reader) != nullptr); // a detached or joined thread cannot be joined
        QVERIFY(Processes::descriptor(getpid(), readEnd).startsWith("pipe:"));
    }

    void childPidIsSignalledAsItStands()
    {
        // The first shows that the signals of the code under test come by SystemCalls.cpp, which
        // hands on none to every process or to the group.
        for (const int pid : {FedRecorder::noProcess, -1, 0}) {
            runner->childPid = pid;
            SystemCalls::record(runner->running);
            runner->deleteProgress();
            QCOMPARE(SystemCalls::lines(), (QStringList{killOf(pid), "sink Progress stopped"}));
        }
    }

    void onlyTheProcessIsSignalled()
    {
        std::array<int, 2> input{};
        QVERIFY(pipe(input.data()) == 0);
        QVERIFY(dup2(input[0], STDIN_FILENO) == STDIN_FILENO);
        runner->createProgress("", "(echo ready; read line; echo \"$line\") <&0 & wait");
        QCOMPARE(runner->readMsg(), std::string("ready\n")); // from the grandchild
        runner->deleteProgress();
        QCOMPARE(Processes::ended(runner->childPid).si_status, SIGKILL);
        QVERIFY(write(input[1], "still there?\n", 13) == 13);
        QCOMPARE(runner->readMsg(), std::string("still there?\n"));
    }

    void readerBlockedInTheReadIsCancelled()
    {
        FedRecorder fed;
        fed.launch();
        QVERIFY(eventually([&] { return SystemCalls::readersOf(fed.pipeFds[0]) == 1; }));
        fed.deleteProgress(); // the pipe stays open, and the read would never end
        QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
    }

    void onlyTheLastReaderIsCancelled()
    {
        FedRecorder fed;
        fed.launchRequest();
        const pthread_t first = fed.readerThread;
        fed.launchRequest();
        QVERIFY(eventually([&] { return SystemCalls::readersOf(fed.pipeFds[0]) == 2; }));
        fed.deleteProgress();
        QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
        fed.endOfFile(); // wakes the first, which finds that it is to stop
        QCOMPARE(endOf(first), static_cast<void *>(&fed));
    }

    void sinkInProgressIsNotCutOff()
    {
        struct Slow : FedRecorder
        {
            void insertMsg(std::string msg) override
            {
                entered = true;
                while (!mayGoOn && msg != "Progress stopped") {
                    sleepShortly(); // where even a deferred cancellation would come in
                }
                ++finished;
            }
            std::atomic<bool> entered{false};
            std::atomic<bool> mayGoOn{false};
            std::atomic<int> finished{0};
        };
        Slow slow;
        slow.feed("hello");
        slow.launch();
        QVERIFY(eventually([&] { return slow.entered.load(); }));
        slow.deleteProgress();
        QCOMPARE(slow.finished.load(), 1); // it does not wait for the reader's sink
        slow.mayGoOn = true;
        endOf(slow.readerThread);
        QCOMPARE(slow.finished.load(), 2);
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
            }
            std::atomic<int> begun{0};
        };
        Held held;
        held.feed("first");
        held.launch();
        QVERIFY(eventually(
            [&] { return held.begun == 1 && SystemCalls::readersOf(held.pipeFds[0]) == 1; }));
        pthread_cancel(held.readerThread);
        held.feed("second");
        QCOMPARE(endOf(held.readerThread), PTHREAD_CANCELED);
        QCOMPARE(held.begun.load(), 1);
        held.setStatus(false);
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
