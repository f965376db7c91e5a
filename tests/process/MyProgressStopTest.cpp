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
        start();
        SystemCalls::record(runner->running); // no line is marked as one that comes while running
        runner->deleteProgress();
        QStringList lines = SystemCalls::lines();
        lines.removeAll("sink "); // of the reader, which may see the child's end first
        QCOMPARE(lines, (QStringList{killOf(runner->childPid), "pthread_cancel",
                                     "sink Progress stopped"}));
    }

    void stopReturnsTrue()
    {
        start();
        QCOMPARE(runner->deleteProgress(), true);
    }

    void stopEndsTheStatus()
    {
        start();
        runner->deleteProgress();
        QCOMPARE(runner->getStatus(), false);
    }

    void stopLeavesTheRequest()
    {
        start();
        runner->deleteProgress();
        QCOMPARE(runner->launchRequested, true);
    }

    void stopCallsTheSinkOnItsOwnThread()
    {
        struct Listening : Recorder
        {
            void insertMsg(std::string msg) override
            {
                if (msg == "Progress stopped") {
                    onTheTestsThread = pthread_equal(testsThread, pthread_self()) != 0;
                }
            }
            pthread_t testsThread = pthread_self();
            std::atomic<bool> onTheTestsThread{false};
        };
        const std::unique_ptr<Listening> listening(new Listening);
        listening->createProgress("", sleeping);
        listening->launchRequest();
        listening->deleteProgress();
        QVERIFY2(listening->onTheTestsThread, "no message, or one of another thread");
    }

    void deletionAfterAStopTakesNoStepAgain()
    {
        start();
        runner->deleteProgress();
        QCOMPARE(callsOfDeletion(runner), QStringList());
    }

    /// The message goes to the base sink then, see MyProgressOutputTest.
    void destructorTakesTheStepsOfAStop()
    {
        start();
        const pid_t child = runner->childPid;
        QCOMPARE(callsOfDeletion(runner), (QStringList{killOf(child), "pthread_cancel"}));
    }

    void destructorKillsTheChild()
    {
        start();
        const pid_t child = runner->childPid;
        runner.reset();
        const siginfo_t end = Processes::ended(child);
        QCOMPARE(end.si_code, static_cast<int>(CLD_KILLED));
        QCOMPARE(end.si_status, SIGKILL);
    }

    void destructorDoesNotReapTheChild()
    {
        start();
        const pid_t child = runner->childPid;
        runner.reset();
        Processes::ended(child);
        QCOMPARE(Processes::state(child), 'Z');
    }

    void destructorNeitherJoinsNorDetachesTheReader()
    {
        start();
        const pthread_t reader = runner->readerThread;
        runner.reset();
        QVERIFY2(endOf(reader) != nullptr, "the reader can no longer be joined");
    }

    void destructorLeavesTheReadEndOpen()
    {
        start();
        const int readEnd = runner->pipeFds[0];
        runner.reset();
        const QByteArray target = Processes::descriptor(getpid(), readEnd);
        QVERIFY2(target.startsWith("pipe:"), "the read end is closed, or another file: " + target);
    }

    void childPidIsSignalledAsItStands_data()
    {
        QTest::addColumn<int>("childPid");
        // Shows that the signals of the code under test come by SystemCalls.cpp, which hands on
        // none to every process or to the group.
        QTest::newRow("no process has it") << int{FedRecorder::noProcess};
        QTest::newRow("every process") << -1;
        QTest::newRow("the group") << 0;
    }

    void childPidIsSignalledAsItStands()
    {
        QFETCH(int, childPid);
        runner->childPid = childPid;
        SystemCalls::record(runner->running);
        runner->deleteProgress();
        QCOMPARE(SystemCalls::lines(), (QStringList{killOf(childPid), "sink Progress stopped"}));
    }

    void childOfTheChildSurvives()
    {
        std::array<int, 2> input{};
        QVERIFY(pipe(input.data()) == 0);
        const auto [readEnd, writeEnd] = input;
        QVERIFY(dup2(readEnd, STDIN_FILENO) == STDIN_FILENO);
        runner->createProgress("", "(echo ready; read line; echo \"$line\") <&0 & wait");
        QCOMPARE(runner->readMsg(), std::string("ready\n")); // from the child's child
        runner->deleteProgress();
        QCOMPARE(Processes::ended(runner->childPid).si_status, SIGKILL);
        const QByteArray question = "still there?\n";
        QCOMPARE(write(writeEnd, question.constData(), std::size_t(question.size())),
                 ssize_t{question.size()});
        QCOMPARE(runner->readMsg(), question.toStdString());
    }

    void readerBlockedInTheReadIsCancelled()
    {
        FedRecorder fed;
        fed.launch();
        QVERIFY(eventually([&] { return SystemCalls::readersOf(fed.pipeFds[0]) == 1; }));
        fed.deleteProgress(); // the pipe stays open, and the read would never end
        QCOMPARE(endOf(fed.readerThread), PTHREAD_CANCELED);
    }

    void ofTwoReadersTheLastIsCancelled()
    {
        FedRecorder fed;
        const Ends ends = stopTwoReaders(fed);
        QCOMPARE(ends.ofTheLast, PTHREAD_CANCELED);
    }

    void ofTwoReadersTheFirstIsNotCancelled()
    {
        FedRecorder fed;
        const Ends ends = stopTwoReaders(fed);
        QCOMPARE(ends.ofTheFirst, static_cast<void *>(&fed));
    }

    void stopDoesNotWaitForTheReadersSink()
    {
        SlowSink slow;
        slow.feed("hello");
        slow.launch();
        QVERIFY(eventually([&] { return slow.entered.load(); }));
        slow.deleteProgress();
        const bool waited = slow.finished;
        slow.mayGoOn = true;
        endOf(slow.readerThread);
        QVERIFY2(!waited, "the reader's sink has finished before the stop");
    }

    void sinkInProgressIsNotCutOff()
    {
        SlowSink slow;
        slow.feed("hello");
        slow.launch();
        QVERIFY(eventually([&] { return slow.entered.load(); }));
        slow.deleteProgress();
        slow.mayGoOn = true;
        endOf(slow.readerThread);
        QVERIFY2(slow.finished, "the sink did not come to its end");
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
                    constexpr unsigned cancellationSignal = 32;
                    const std::uint64_t blocked = std::uint64_t{1} << (cancellationSignal - 1);
                    syscall(SYS_rt_sigprocmask, SIG_BLOCK, &blocked, nullptr, sizeof blocked);
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
        endOf(held.readerThread);
        held.setStatus(false);
        QCOMPARE(held.begun.load(), 1); // not with "second"
    }

    /// A reader that is cancelled inside the lazy binding of a call leaves the loader locked.
    void callsAreBoundAtTheStart()
    {
        bool now = false;
        for (const ElfW(Dyn) *entry = _DYNAMIC; entry->d_tag != DT_NULL; ++entry) {
            now = now || (entry->d_tag == DT_FLAGS && (entry->d_un.d_val & DF_BIND_NOW) != 0);
        }
        QVERIFY2(now, "this program was linked without -z now");
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
    /// A sink that the test holds up, unless it is called by the stop.
    struct SlowSink : FedRecorder
    {
        void insertMsg(std::string msg) override
        {
            if (msg == "Progress stopped") {
                return;
            }
            entered = true;
            while (!mayGoOn) {
                sleepShortly(); // where even a deferred cancellation would come in
            }
            finished = true;
        }
        std::atomic<bool> entered{false};
        std::atomic<bool> mayGoOn{false};
        std::atomic<bool> finished{false};
    };

    /// What the threads of two readers ended with.
    struct Ends
    {
        void *ofTheFirst;
        void *ofTheLast;
    };

    /// Starts two readers, stops their runner, and ends the first, if it reads still, by the end of
    /// the file.
    static Ends stopTwoReaders(FedRecorder &fed)
    {
        fed.launchRequest();
        const pthread_t first = fed.readerThread;
        fed.launchRequest();
        const bool bothRead =
            eventually([&] { return SystemCalls::readersOf(fed.pipeFds[0]) == 2; });
        if (!bothRead) {
            QTest::qFail("two readers did not come to read", __FILE__, __LINE__);
        }
        fed.deleteProgress();
        void *const ofTheLast = endOf(fed.readerThread);
        fed.endOfFile();
        return {endOf(first), ofTheLast};
    }

    void start()
    {
        runner->createProgress("", sleeping);
        runner->launchRequest();
    }

    std::unique_ptr<Noting> runner;
};

QTEST_GUILESS_MAIN(MyProgressStopTest)
#include "MyProgressStopTest.moc"
