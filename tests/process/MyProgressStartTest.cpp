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
        const QTemporaryDir directory;
        const QString path = directory.filePath("program");
        QVERIFY(QFile::link("/nowhere", path)); // even if there is a link to it
        const StandardOutput output;
        SystemCalls::record(runner->running);
        runner->makeProgress(path.toStdString(), "echo started");
        runner->launchRequest();
        runner->launch();
        runner.reset();
        QCOMPARE(SystemCalls::lines(), (QStringList{"access 0", "sink File not found"}));
        QCOMPARE(output.text(), QByteArray());
    }

    /// A text will do, since only the existence is looked at.
    void startTakesItsStepsInOrder()
    {
        runner->launchRequest();
        QCOMPARE(runner->readerResult, -1);
        SystemCalls::record(runner->running);
        runner->makeProgress("/etc/passwd", sleeping);
        QCOMPARE(SystemCalls::lines(),
                 (QStringList{"access 0", "sink File found", "pipe", "fork",
                              QString("close %1 (running)").arg(runner->pipeFds[1]),
                              "pthread_create (running)"})); // with no attributes
        QVERIFY(pthread_equal(runner->messages.sender(), pthread_self()));
        QCOMPARE(runner->readerResult, 0);
        QCOMPARE(runner->launchRequested, true); // for the next start as well
    }

    /// createProgress() looks at no path; and the shell's own one plays no part.
    void commandRunsInBashWithTheLaunchersEnvironment()
    {
        const QByteArray path = qgetenv("PATH");
        QVERIFY(qputenv("PATH", "/nowhere"));
        runner->createProgress("/nowhere/at/all", "echo hello; read line");
        QVERIFY(qputenv("PATH", path));
        QCOMPARE(runner->readMsg(), std::string("hello\n"));
        QCOMPARE(about(runner->childPid, "cmdline"),
                 QByteArray("bash\0-c\0echo hello; read line\0", 30));
        QCOMPARE(Processes::link(runner->childPid, "exe"), realPath("/bin/bash"));
        QVERIFY(about(runner->childPid, "environ").split('\0').contains("PATH=/nowhere"));
        QCOMPARE(runner->messages.count(), 0);
    }

    void emptyCommandRunsTheProgramWithoutArgumentsAndEnvironment()
    {
        runner->makeProgress("/bin/cat", ""); // without a shell around it
        const pid_t child = runner->childPid;
        QVERIFY(eventually([&] { // it waits for input
            return Processes::program(child) == "cat" && Processes::state(child) == 'S';
        }));
        QCOMPARE(Processes::link(child, "exe"), realPath("/bin/cat"));
        // Linux 5.18 and newer put one empty string in the place of an empty list.
        const QByteArray arguments = about(child, "cmdline");
        QVERIFY2(arguments.isEmpty() || arguments == QByteArray(1, '\0'), arguments);
        QCOMPARE(about(child, "environ"), QByteArray());
    }

    void childInheritsDirectoryInputAndGroup()
    {
        start();
        QCOMPARE(Processes::link(runner->childPid, "cwd"), Processes::link(getpid(), "cwd"));
        QCOMPARE(descriptor(runner->childPid, STDIN_FILENO), descriptor(getpid(), STDIN_FILENO));
        QCOMPARE(getpgid(runner->childPid), getpgid(0));
        QCOMPARE(getsid(runner->childPid), getsid(0));
    }

    void bothStreamsShareOnePipeInOrder()
    {
        runner->createProgress("", "echo 1; echo 2 >&2; echo 3; echo 4 >&2; echo 5");
        QCOMPARE(wholeOutput(*runner), QByteArray("1\n2\n3\n4\n5\n"));
    }

    /// The child holds the write end three times, the launcher the read end.
    void eachSideKeepsItsEnd()
    {
        start();
        const pid_t child = runner->childPid;
        const QByteArray ourPipe = descriptor(getpid(), runner->pipeFds[0]);
        QVERIFY(ourPipe.startsWith("pipe:"));
        QCOMPARE(descriptor(child, STDOUT_FILENO), ourPipe);
        QCOMPARE(descriptor(child, STDERR_FILENO), ourPipe);
        QCOMPARE(descriptor(child, runner->pipeFds[1]), ourPipe);
        QCOMPARE(descriptor(child, runner->pipeFds[0]), QByteArray());
        QCOMPARE(fcntl(runner->pipeFds[0], F_GETFL) & O_NONBLOCK, 0);
        QCOMPARE(fcntl(runner->pipeFds[1], F_GETFD), -1);
    }

    /// What an earlier start made stays as it is, and a later child carries its read end.
    void secondStartForgetsTheFirstChild()
    {
        start();
        const pid_t firstChild = runner->childPid;
        const int firstReadEnd = runner->pipeFds[0];
        const QByteArray firstPipe = descriptor(getpid(), firstReadEnd);
        start();
        const pid_t secondChild = runner->childPid;
        QVERIFY(secondChild != firstChild);
        QVERIFY(runner->pipeFds[0] != firstReadEnd);
        QCOMPARE(descriptor(secondChild, firstReadEnd), firstPipe);

        runner.reset();
        QCOMPARE(Processes::ended(secondChild).si_status, SIGKILL);
        QVERIFY(Processes::isAlive(firstChild));
        QCOMPARE(descriptor(getpid(), firstReadEnd), firstPipe);
        kill(firstChild, SIGKILL);
    }

    void launchRequestWithoutARunningChildStartsNothing()
    {
        FedRecorder fed;
        fed.setStatus(false);
        fed.launchRequest();
        QCOMPARE(fed.readerResult, -1);
        fed.setStatus(true);
        for (const int pid : {-1, 0}) {
            fed.childPid = pid;
            fed.launchRequest();
            fed.launch();
            QCOMPARE(fed.readerResult, -1);
        }
        fed.setStatus(false);
    }

    void launchNeedsOnlyAChild()
    {
        FedRecorder fed;
        fed.setStatus(false);
        fed.launch();
        QCOMPARE(fed.readerResult, 0);
        QCOMPARE(fed.launchRequested, false);
        QCOMPARE(endOf(fed.readerThread), static_cast<void *>(&fed)); // as nothing is running
    }

    void createPipeSaysHowItWent()
    {
        const StandardOutput output;
        QCOMPARE(runner->createPipe(), true);
        failNext("pipe", EMFILE);
        QCOMPARE(runner->createPipe(), false);
        QCOMPARE(output.text(), QByteArray("Pipe ready\nPipe created fail\n"));
    }

    void failedPipeIsSaidAndStartsNothing()
    {
        const StandardOutput output;
        runner->setStatus(true);
        failNext("pipe", EMFILE);
        runner->createProgress("/bin/true", "");
        runner.reset();
        QCOMPARE(SystemCalls::lines(), QStringList{"pipe"}); // not running by then
        QCOMPARE(output.text(), QByteArray("Pipe created fail\n"));
    }

    void failedForkIsNotSaidAndLeavesThePipeOpen()
    {
        start();
        const pid_t earlierChild = runner->childPid;
        const StandardOutput output;
        failNext("fork", EAGAIN);
        runner->createProgress("", sleeping);
        QCOMPARE(runner->childPid, -1);
        const auto [readEnd, writeEnd] = runner->pipeFds;
        runner->launchRequest();
        runner->launch();
        runner.reset();
        QCOMPARE(SystemCalls::lines(), (QStringList{"pipe", "fork"}));
        QCOMPARE(output.text(), QByteArray("Pipe ready\n"));
        QVERIFY(fcntl(readEnd, F_GETFD) != -1);
        QVERIFY(fcntl(writeEnd, F_GETFD) != -1);
        kill(earlierChild, SIGKILL);
    }

    void failedReaderIsNotSaidAndLeavesTheOutputUnread()
    {
        runner->createProgress("", "echo hello");
        const QString kill = killOf(runner->childPid);
        const StandardOutput output;
        failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        QCOMPARE(output.text(), QByteArray());
        QCOMPARE(runner->readerResult, EAGAIN);
        QCOMPARE(runner->readMsg(), std::string("hello\n"));
        QCOMPARE(callsOfDeletion(runner), QStringList{kill}); // there is nothing to cancel
    }

    void failedSecondReaderLeavesTheFirst()
    {
        runner->createProgress("", sleeping);
        runner->launchRequest();
        const pthread_t first = runner->readerThread;
        failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        QCOMPARE(runner->readerResult, EAGAIN);
        QVERIFY(pthread_equal(runner->readerThread, first));
    }

    void childThatCannotBecomeItsProgramEnds_data()
    {
        QTest::addColumn<QByteArray>("command");
        QTest::addColumn<QByteArray>("lastLine");
        QTest::newRow("no program inside")
            << QByteArray() << QByteArray("child progress loaded fail\n");
        // Longer than the kernel lets one argument be (MAX_ARG_STRLEN).
        QTest::newRow("no shell") << "echo started" + QByteArray(128 * 1024, ' ')
                                  << QByteArray("Child progress loaded fail\n");
    }

    /// The child wrote the line and ended well, and the runner knows nothing of it.
    void childThatCannotBecomeItsProgramEnds()
    {
        QFETCH(QByteArray, command);
        QFETCH(QByteArray, lastLine);
        const QTemporaryDir directory;
        QFile text(directory.filePath("text"));
        QVERIFY(text.open(QIODevice::WriteOnly) && text.write("echo started\n") > 0);
        text.close();
        QVERIFY(text.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        runner->createProgress(text.fileName().toStdString(), command.toStdString());
        const pid_t child = runner->childPid;
        const siginfo_t end = Processes::ended(child);
        QCOMPARE(end.si_code, static_cast<int>(CLD_EXITED));
        QCOMPARE(end.si_status, 0);
        QVERIFY(wholeOutput(*runner).endsWith("Child progress ready\n" + lastLine));
        QCOMPARE(runner->getStatus(), true);
        QCOMPARE(callsOfDeletion(runner), QStringList{killOf(child)});
        QCOMPARE(Processes::state(child), 'Z');
    }

private:
    void start()
    {
        runner->createProgress("", sleeping);
        QVERIFY(eventually([&] { return Processes::program(runner->childPid) == "tail"; }));
    }

    void failNext(const char *name, int error)
    {
        SystemCalls::record(runner->running);
        SystemCalls::failNext(name, error);
    }

    std::unique_ptr<Noting> runner;
};

QTEST_GUILESS_MAIN(MyProgressStartTest)
#include "MyProgressStartTest.moc"
