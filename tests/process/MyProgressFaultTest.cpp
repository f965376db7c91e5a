#include "tests/process/Processes.h"
#include "tests/process/Recorder.h"
#include "tests/process/SystemCalls.h"

#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <fcntl.h>
#include <memory>

using Processes::Limit;
using Processes::NoNewTasks;

namespace {

/// Longer than the kernel lets one argument be, so that no shell starts with it.
std::string tooLongCommand()
{
    constexpr std::size_t argumentBytes = 128 * 1024; // MAX_ARG_STRLEN
    return "echo started" + std::string(argumentBytes, ' ');
}

/// What the runner asks of the system when it is deleted.
QStringList callsOfDeletion(std::unique_ptr<Recorder> &runner)
{
    SystemCalls::record(runner->running);
    runner.reset();
    SystemCalls::stop();
    return SystemCalls::lines();
}

bool isOpen(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

} // namespace

/// What goes wrong, and what a runner makes of it. The texts are held by MyProgressOutputTest.
class MyProgressFaultTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { runner.reset(new Recorder); }
    void cleanup() { runner.reset(); }

    void runnerWithAMissingProgramIsDeletedQuietly();
    void failedPipeStartsNothing();
    void failedForkLeavesThePipeOpen();
    void failedReaderLeavesTheOutputUnread();
    void failedSecondReaderLeavesTheFirst();
    void programThatCannotRunEndsTheChild_data();
    void programThatCannotRunEndsTheChild();
    void shellThatCannotRunEndsTheChild();
    void childKilledFromOutsideCountsAsRunning();

private:
    void expectEndedChild(const char *lastLine);

    std::unique_ptr<Recorder> runner;
};

void MyProgressFaultTest::runnerWithAMissingProgramIsDeletedQuietly()
{
    runner->makeProgress("/nowhere/at/all", "");
    runner->launchRequest();
    QCOMPARE(runner->getStatus(), false);
    QCOMPARE(callsOfDeletion(runner), QStringList());
}

void MyProgressFaultTest::failedPipeStartsNothing()
{
    runner->setStatus(true);
    runner->launchRequested = true;
    {
        const Limit noDescriptors(RLIMIT_NOFILE, 0);
        SystemCalls::record(runner->running);
        runner->createProgress("/bin/true", "");
        SystemCalls::stop();
    }
    QCOMPARE(SystemCalls::lines(), QStringList{"pipe"}); // and no longer running by then
    QCOMPARE(runner->getStatus(), false);
    QCOMPARE(runner->childPid, -1);
    QCOMPARE(runner->readerResult, -1);
    {
        const Limit noDescriptors(RLIMIT_NOFILE, 0);
        QCOMPARE(runner->createPipe(), false);
    }
    QCOMPARE(callsOfDeletion(runner), QStringList());
}

void MyProgressFaultTest::failedForkLeavesThePipeOpen()
{
    runner->createProgress("", sleeping);
    const pid_t earlierChild = runner->childPid;
    runner->launchRequested = true;
    {
        const NoNewTasks limit;
        SystemCalls::record(runner->running);
        runner->createProgress("", sleeping);
        SystemCalls::stop();
    }
    QCOMPARE(SystemCalls::lines(), (QStringList{"pipe", "fork"}));
    QCOMPARE(runner->childPid, -1);
    QCOMPARE(runner->getStatus(), false);
    QVERIFY(isOpen(runner->pipeFds[0]));
    QVERIFY(isOpen(runner->pipeFds[1]));
    runner->launchRequest();
    runner->launch();
    QCOMPARE(runner->readerResult, -1);
    QCOMPARE(callsOfDeletion(runner), QStringList());
    kill(earlierChild, SIGKILL);
}

void MyProgressFaultTest::failedReaderLeavesTheOutputUnread()
{
    runner->createProgress("", "echo hello");
    {
        const NoNewTasks limit;
        runner->launchRequest();
    }
    QCOMPARE(runner->readerResult, EAGAIN);
    QCOMPARE(runner->launchRequested, true);
    QCOMPARE(runner->getStatus(), true);
    Processes::ended(runner->childPid);
    QCOMPARE(runner->messages.count(), 0);
    QCOMPARE(runner->readMsg(), std::string("hello\n")); // still there
    const QString kill = QString("kill %1 9").arg(runner->childPid);
    QCOMPARE(callsOfDeletion(runner), QStringList{kill}); // there is nothing to cancel
}

void MyProgressFaultTest::failedSecondReaderLeavesTheFirst()
{
    runner->createProgress("", sleeping);
    runner->launchRequest();
    const pthread_t first = runner->readerThread;
    {
        const NoNewTasks limit;
        runner->launchRequest();
    }
    QCOMPARE(runner->readerResult, EAGAIN);
    QVERIFY(pthread_equal(runner->readerThread, first));
}

/// The child wrote the line and ended well, and the runner knows nothing of it.
void MyProgressFaultTest::expectEndedChild(const char *lastLine)
{
    const pid_t child = runner->childPid;
    const siginfo_t end = Processes::ended(child);
    QCOMPARE(end.si_code, static_cast<int>(CLD_EXITED));
    QCOMPARE(end.si_status, 0);
    QVERIFY(wholeOutput(*runner).endsWith(QByteArray("Child progress ready\n") + lastLine));
    QCOMPARE(runner->getStatus(), true);
    QCOMPARE(runner->childPid, child);

    SystemCalls::record(runner->running);
    QCOMPARE(runner->deleteProgress(), true);
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(), QStringList{QString("kill %1 9").arg(child)});
    QCOMPARE(runner->messages.all().last(), QByteArray("Progress stopped"));
    QCOMPARE(Processes::state(child), 'Z');
}

void MyProgressFaultTest::programThatCannotRunEndsTheChild_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("missing") << "/nowhere/at/all"; // gone since the check
    QTest::newRow("not executable") << "/etc/passwd";
    QTest::newRow("a directory") << "/";
    QTest::newRow("no program inside") << "text";
}

void MyProgressFaultTest::programThatCannotRunEndsTheChild()
{
    QFETCH(QString, path);
    const QTemporaryDir directory;
    QFile text(directory.filePath("text"));
    QVERIFY(text.open(QIODevice::WriteOnly) && text.write("echo started\n") > 0);
    text.close();
    QVERIFY(text.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    runner->createProgress((path == "text" ? text.fileName() : path).toStdString(), "");
    expectEndedChild("child progress loaded fail\n");
}

void MyProgressFaultTest::shellThatCannotRunEndsTheChild()
{
    runner->makeProgress("/bin/true", tooLongCommand());
    expectEndedChild("Child progress loaded fail\n");
}

void MyProgressFaultTest::childKilledFromOutsideCountsAsRunning()
{
    runner->createProgress("", sleeping);
    runner->launchRequest();
    const pid_t child = runner->childPid;
    kill(child, SIGKILL);
    QCOMPARE(Processes::ended(child).si_status, SIGKILL);
    WAIT_UNTIL(runner->messages.count() >= 2);
    QCOMPARE(runner->messages.joined(), QByteArray());
    QCOMPARE(runner->getStatus(), true);
    QCOMPARE(runner->childPid, child);
    QCOMPARE(callsOfDeletion(runner),
             (QStringList{QString("kill %1 9").arg(child), "pthread_cancel"}));
}

QTEST_GUILESS_MAIN(MyProgressFaultTest)
#include "MyProgressFaultTest.moc"
