#include "tests/process/Recorder.h"
#include "tests/support/Eventually.h"
#include "tests/support/Processes.h"
#include "tests/support/StandardOutput.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <memory>

Q_DECLARE_METATYPE(std::string)

using Processes::about;
using Processes::descriptor;

namespace {

QByteArray realPath(const char *program)
{
    return QFile::encodeName(QFileInfo(program).canonicalFilePath());
}

} // namespace

/// From makeProgress() to a child that runs and a reader that reads, and what goes wrong there.
class MyProgressStartTest : public QObject
{
    Q_OBJECT

private slots:
    /// A standard input of this test's own, which never ends and is never written to.
    void initTestCase()
    {
        std::array<int, 2> input{};
        QVERIFY(pipe(input.data()) == 0);
        QVERIFY(dup2(input[0], STDIN_FILENO) == STDIN_FILENO);
    }
    void init() { runner.reset(new Noting); }
    void cleanup()
    {
        runner.reset();
        SystemCalls::stop();
    }

    void missingProgramStartsNothing()
    {
        SystemCalls::record(runner->running);
        runner->makeProgress("/nowhere/at/all", "echo started");
        runner->launchRequest();
        runner->launch();
        runner.reset();
        QCOMPARE(SystemCalls::lines(), (QStringList{"access 0", "sink File not found"}));
    }

    void missingProgramIsNotPrinted()
    {
        const StandardOutput output;
        runner->makeProgress("/nowhere/at/all", "echo started");
        QCOMPARE(output.text(), QByteArray());
    }

    void linkThatLeadsNowhereIsAMissingProgram()
    {
        const QTemporaryDir directory;
        const QString path = directory.filePath("program");
        QVERIFY(QFile::link("/nowhere", path));
        runner->makeProgress(path.toStdString(), "echo started");
        QCOMPARE(runner->messages.all(), QList<QByteArray>{"File not found"});
    }

    /// A text will do, since only the existence is looked at. The reader has no attributes.
    void startTakesItsStepsInOrder()
    {
        runner->launchRequest();
        SystemCalls::record(runner->running);
        runner->makeProgress("/etc/passwd", sleeping);
        QCOMPARE(SystemCalls::lines(),
                 (QStringList{"access 0", "sink File found", "pipe", "fork",
                              QString("close %1 (running)").arg(runner->pipeFds[1]),
                              "pthread_create (running)"}));
    }

    void startCallsTheSinkOnItsOwnThread()
    {
        runner->makeProgress("/etc/passwd", sleeping);
        QVERIFY2(pthread_equal(runner->messages.sender(), pthread_self()),
                 "another thread called the sink");
    }

    void requestBeforeTheStartMakesNoReader()
    {
        runner->launchRequest();
        QCOMPARE(runner->readerResult, -1);
    }

    void startAfterTheRequestMakesTheReader()
    {
        runner->launchRequest();
        runner->createProgress("", sleeping);
        QCOMPARE(runner->readerResult, 0);
    }

    void requestHoldsForTheNextStartAsWell()
    {
        runner->launchRequest();
        runner->createProgress("", sleeping);
        QCOMPARE(runner->launchRequested, true);
    }

    void commandRunsInBash()
    {
        startShell();
        QCOMPARE(Processes::link(runner->childPid, "exe"), realPath("/bin/bash"));
    }

    void commandIsBashsArgument()
    {
        startShell();
        QCOMPARE(about(runner->childPid, "cmdline").split('\0'),
                 (QList<QByteArray>{"bash", "-c", shellCommand, ""}));
    }

    void commandHasTheLaunchersEnvironment()
    {
        QVERIFY(qputenv("OF_THE_LAUNCHER", "1"));
        startShell();
        QVERIFY(qunsetenv("OF_THE_LAUNCHER"));
        const QList<QByteArray> environment = about(runner->childPid, "environ").split('\0');
        QVERIFY2(environment.contains("OF_THE_LAUNCHER=1"), environment.join('\n'));
    }

    void shellIsNotLookedForInPath()
    {
        const QByteArray path = qgetenv("PATH");
        QVERIFY(qputenv("PATH", "/nowhere"));
        runner->createProgress("", "echo hello");
        QVERIFY(qputenv("PATH", path));
        QCOMPARE(wholeOutput(*runner), QByteArray("hello\n"));
    }

    void pathOfACommandPlaysNoPart()
    {
        runner->createProgress("/nowhere/at/all", "echo hello");
        QCOMPARE(wholeOutput(*runner), QByteArray("hello\n"));
    }

    void createProgressCallsNoSink()
    {
        runner->createProgress("", sleeping);
        QCOMPARE(runner->messages.all(), QList<QByteArray>());
    }

    void emptyCommandRunsTheProgramItself()
    {
        QVERIFY(startCat());
        QCOMPARE(Processes::link(runner->childPid, "exe"), realPath("/bin/cat"));
    }

    void emptyCommandGivesNoArguments()
    {
        QVERIFY(startCat());
        // Linux 5.18 and newer put one empty string in the place of an empty list.
        const QByteArray arguments = about(runner->childPid, "cmdline");
        QVERIFY2(arguments.isEmpty() || arguments == QByteArray(1, '\0'), arguments);
    }

    void emptyCommandGivesNoEnvironment()
    {
        QVERIFY(startCat());
        QCOMPARE(about(runner->childPid, "environ"), QByteArray());
    }

    void childInheritsTheDirectory()
    {
        start();
        QCOMPARE(Processes::link(runner->childPid, "cwd"), Processes::link(getpid(), "cwd"));
    }

    void childInheritsTheInput()
    {
        start();
        QCOMPARE(descriptor(runner->childPid, STDIN_FILENO), descriptor(getpid(), STDIN_FILENO));
    }

    void childInheritsTheProcessGroup()
    {
        start();
        QCOMPARE(getpgid(runner->childPid), getpgid(0));
    }

    void childInheritsTheSession()
    {
        start();
        QCOMPARE(getsid(runner->childPid), getsid(0));
    }

    void bothStreamsShareOnePipeInOrder()
    {
        runner->createProgress("", "echo 1; echo 2 >&2; echo 3; echo 4 >&2; echo 5");
        QCOMPARE(wholeOutput(*runner), QByteArray("1\n2\n3\n4\n5\n"));
    }

    void childHoldsTheWriteEnd_data()
    {
        QTest::addColumn<int>("place");
        QTest::newRow("as standard output") << STDOUT_FILENO;
        QTest::newRow("as standard error") << STDERR_FILENO;
        QTest::newRow("where the pipe was made") << whereThePipeWasMade;
    }

    void childHoldsTheWriteEnd()
    {
        QFETCH(int, place);
        start();
        const int fd = place == whereThePipeWasMade ? runner->pipeFds[1] : place;
        QCOMPARE(descriptor(runner->childPid, fd), descriptor(getpid(), runner->pipeFds[0]));
    }

    void childClosesTheReadEnd()
    {
        start();
        QCOMPARE(descriptor(runner->childPid, runner->pipeFds[0]), QByteArray());
    }

    void launcherHoldsTheReadEnd()
    {
        start();
        const QByteArray readEnd = descriptor(getpid(), runner->pipeFds[0]);
        QVERIFY2(readEnd.startsWith("pipe:"), "no pipe, but: " + readEnd);
    }

    void launcherWaitsInItsReads()
    {
        start();
        QCOMPARE(fcntl(runner->pipeFds[0], F_GETFL) & O_NONBLOCK, 0);
    }

    void launcherClosesTheWriteEnd()
    {
        start();
        QVERIFY2(!isOpen(runner->pipeFds[1]), "the launcher holds the write end");
    }

    void secondStartMakesANewChild()
    {
        const Earlier first = startTwice();
        QVERIFY2(runner->childPid != first.child, "it is the first child still");
        kill(first.child, SIGKILL);
    }

    void secondStartMakesANewPipe()
    {
        const Earlier first = startTwice();
        QVERIFY2(runner->pipeFds[0] != first.readEnd, "it is the first pipe still");
        kill(first.child, SIGKILL);
    }

    void secondChildCarriesTheReadEndOfTheFirst()
    {
        const Earlier first = startTwice();
        QCOMPARE(descriptor(runner->childPid, first.readEnd), first.pipe);
        kill(first.child, SIGKILL);
    }

    void deletionKillsTheSecondChild()
    {
        const Earlier first = startTwice();
        const pid_t second = runner->childPid;
        runner.reset();
        QCOMPARE(Processes::ended(second).si_status, SIGKILL);
        kill(first.child, SIGKILL);
    }

    void deletionLeavesTheFirstChildAlive()
    {
        const Earlier first = startTwice();
        const pid_t second = runner->childPid;
        runner.reset();
        Processes::ended(second);
        QVERIFY2(Processes::isAlive(first.child), "the first child was killed as well");
        kill(first.child, SIGKILL);
    }

    void deletionLeavesTheFirstReadEndOpen()
    {
        const Earlier first = startTwice();
        runner.reset();
        QCOMPARE(descriptor(getpid(), first.readEnd), first.pipe);
        kill(first.child, SIGKILL);
    }

    void requestMakesNoReader_data()
    {
        QTest::addColumn<bool>("running");
        QTest::addColumn<int>("childPid");
        QTest::newRow("not running") << false << int{FedRecorder::noProcess};
        QTest::newRow("without a child") << true << -1;
        QTest::newRow("in the child") << true << 0;
    }

    void requestMakesNoReader()
    {
        QFETCH(bool, running);
        QFETCH(int, childPid);
        FedRecorder fed;
        fed.running = running;
        fed.childPid = childPid;
        fed.launchRequest();
        fed.running = false;
        QCOMPARE(fed.readerResult, -1);
    }

    void launchMakesNoReader_data()
    {
        QTest::addColumn<int>("childPid");
        QTest::newRow("without a child") << -1;
        QTest::newRow("in the child") << 0;
    }

    void launchMakesNoReader()
    {
        QFETCH(int, childPid);
        FedRecorder fed;
        fed.childPid = childPid;
        fed.launch();
        fed.running = false;
        QCOMPARE(fed.readerResult, -1);
    }

    void launchNeedsOnlyAChild()
    {
        FedRecorder fed;
        fed.running = false;
        fed.launch();
        QCOMPARE(fed.readerResult, 0);
        endOf(fed.readerThread); // which finds nothing running
    }

    void launchIsNoRequest()
    {
        FedRecorder fed;
        fed.running = false;
        fed.launch();
        QCOMPARE(fed.launchRequested, false);
        endOf(fed.readerThread);
    }

    void createPipeReturnsTrue() { QCOMPARE(runner->createPipe(), true); }

    void createPipeIsPrinted()
    {
        const StandardOutput output;
        runner->createPipe();
        QCOMPARE(output.text(), QByteArray("Pipe ready\n"));
    }

    void createPipeThatFailsReturnsFalse()
    {
        failNext("pipe", EMFILE);
        QCOMPARE(runner->createPipe(), false);
    }

    void createPipeThatFailsIsPrinted()
    {
        const StandardOutput output;
        failNext("pipe", EMFILE);
        runner->createPipe();
        QCOMPARE(output.text(), QByteArray("Pipe created fail\n"));
    }

    void failedPipeStartsNothing()
    {
        runner->setStatus(true); // until the start
        failNext("pipe", EMFILE);
        runner->createProgress("/bin/true", "");
        runner.reset();
        QCOMPARE(SystemCalls::lines(), QStringList{"pipe"});
    }

    void failedPipeIsPrinted()
    {
        const StandardOutput output;
        failNext("pipe", EMFILE);
        runner->createProgress("/bin/true", "");
        QCOMPARE(output.text(), QByteArray("Pipe created fail\n"));
    }

    void failedForkStartsNothing()
    {
        failNext("fork", EAGAIN);
        runner->createProgress("", sleeping);
        runner->launchRequest();
        runner->launch();
        runner.reset();
        QCOMPARE(SystemCalls::lines(), (QStringList{"pipe", "fork"}));
    }

    void failedForkIsNotPrinted()
    {
        const StandardOutput output;
        failNext("fork", EAGAIN);
        runner->createProgress("", sleeping);
        QCOMPARE(output.text(), QByteArray("Pipe ready\n"));
    }

    void failedForkLeavesThePipeOpen()
    {
        failNext("fork", EAGAIN);
        runner->createProgress("", sleeping);
        const auto [readEnd, writeEnd] = runner->pipeFds;
        runner.reset();
        QVERIFY2(isOpen(readEnd) && isOpen(writeEnd), "an end of the pipe was closed");
    }

    void failedForkForgetsTheEarlierChild()
    {
        start();
        const pid_t earlierChild = runner->childPid;
        failNext("fork", EAGAIN);
        runner->createProgress("", sleeping);
        QCOMPARE(runner->childPid, -1);
        kill(earlierChild, SIGKILL);
    }

    void failedForkEndsTheStatusOfTheEarlierChild()
    {
        start();
        const pid_t earlierChild = runner->childPid;
        failNext("fork", EAGAIN);
        runner->createProgress("", sleeping);
        QCOMPARE(runner->getStatus(), false);
        kill(earlierChild, SIGKILL);
    }

    void failedReaderIsNotPrinted()
    {
        runner->createProgress("", sleeping);
        const StandardOutput output;
        failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        QCOMPARE(output.text(), QByteArray());
    }

    void failedReaderLeavesItsErrorCode()
    {
        runner->createProgress("", sleeping);
        failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        QCOMPARE(runner->readerResult, EAGAIN);
    }

    void failedReaderLeavesTheOutputUnread()
    {
        runner->createProgress("", "echo hello");
        failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        QCOMPARE(runner->readMsg(), std::string("hello\n"));
    }

    void failedReaderIsNotCancelled()
    {
        runner->createProgress("", sleeping);
        const QString kill = killOf(runner->childPid);
        failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        QCOMPARE(callsOfDeletion(runner), QStringList{kill});
    }

    void failedSecondReaderLeavesTheFirst()
    {
        runner->createProgress("", sleeping);
        runner->launchRequest();
        const pthread_t first = runner->readerThread;
        failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        QVERIFY2(pthread_equal(runner->readerThread, first), "the first reader is forgotten");
    }

    // What such a child writes is held by MyProgressOutputTest.
    void childThatFailsEndsWithStatus0_data() { addFailures(); }

    void childThatFailsEndsWithStatus0()
    {
        startFailing();
        const siginfo_t end = Processes::ended(runner->childPid);
        QCOMPARE(end.si_code, static_cast<int>(CLD_EXITED));
        QCOMPARE(end.si_status, 0);
    }

    void childThatFailsCountsAsRunning_data() { addFailures(); }

    void childThatFailsCountsAsRunning()
    {
        startFailing();
        Processes::ended(runner->childPid);
        QCOMPARE(runner->getStatus(), true);
    }

    void childThatFailsIsKilledAllTheSame_data() { addFailures(); }

    void childThatFailsIsKilledAllTheSame()
    {
        startFailing();
        const pid_t child = runner->childPid;
        Processes::ended(child);
        QCOMPARE(callsOfDeletion(runner), QStringList{killOf(child)});
    }

    void childThatFailsIsNotWaitedFor_data() { addFailures(); }

    void childThatFailsIsNotWaitedFor()
    {
        startFailing();
        const pid_t child = runner->childPid;
        Processes::ended(child);
        runner.reset();
        QCOMPARE(Processes::state(child), 'Z');
    }

    /// No shell takes it for a script of its own.
    void executableTextIsNotRun()
    {
        const QTemporaryDir directory;
        QFile text(directory.filePath("text"));
        QVERIFY(text.open(QIODevice::WriteOnly) && text.write("echo started\n") > 0);
        text.close();
        QVERIFY(text.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        runner->createProgress(text.fileName().toStdString(), "");
        const QByteArray output = wholeOutput(*runner);
        QVERIFY2(output.endsWith("child progress loaded fail\n"), output);
    }

private:
    static constexpr int whereThePipeWasMade = -1;
    const QByteArray shellCommand = "echo ready; read line"; // from an input that never ends

    void start()
    {
        runner->createProgress("", sleeping);
        QVERIFY(eventually([&] { return Processes::program(runner->childPid) == "tail"; }));
    }

    /// Starts a shell that stays.
    void startShell()
    {
        runner->createProgress("", shellCommand.toStdString());
        QCOMPARE(runner->readMsg(), std::string("ready\n"));
    }

    /// Starts cat(1) directly and returns whether it came to wait for input.
    bool startCat()
    {
        runner->createProgress("/bin/cat", "");
        return eventually([&] {
            return Processes::program(runner->childPid) == "cat" &&
                   Processes::state(runner->childPid) == 'S';
        });
    }

    /// What the first of two starts has made.
    struct Earlier
    {
        pid_t child;
        int readEnd;
        QByteArray pipe;
    };

    Earlier startTwice()
    {
        start();
        const int readEnd = runner->pipeFds[0];
        const Earlier first{runner->childPid, readEnd, descriptor(getpid(), readEnd)};
        start();
        return first;
    }

    static void addFailures()
    {
        QTest::addColumn<std::string>("command");
        QTest::newRow("no program") << std::string();
        // Longer than the kernel lets one argument be (MAX_ARG_STRLEN).
        QTest::newRow("no shell") << std::string(std::size_t{128} * 1024, ' ');
    }

    void startFailing()
    {
        QFETCH(std::string, command);
        runner->createProgress("/etc/passwd", command);
    }

    static bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

    void failNext(const char *name, int error)
    {
        SystemCalls::record(runner->running);
        SystemCalls::failNext(name, error);
    }

    std::unique_ptr<Noting> runner;
};

QTEST_GUILESS_MAIN(MyProgressStartTest)
#include "MyProgressStartTest.moc"
