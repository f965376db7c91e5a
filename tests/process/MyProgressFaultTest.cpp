#include "tests/process/Recorder.h"
#include "tests/support/Eventually.h"
#include "tests/support/Processes.h"
#include "tests/support/StandardOutput.h"

#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <fcntl.h>
#include <memory>

namespace {

/// Longer than the kernel lets one argument be (MAX_ARG_STRLEN), so that no shell starts with it.
std::string tooLongCommand()
{
    return "echo started" + std::string(128 * 1024, ' ');
}

} // namespace

/// What goes wrong, what is said of it, and what a runner makes of it.
class MyProgressFaultTest : public QObject
{
    Q_OBJECT

private slots:
    void init() { runner.reset(new Recorder); }
    void cleanup() { runner.reset(); }

    void failedPipeIsSaidAndStartsNothing()
    {
        const StandardOutput output;
        runner->setStatus(true);
        runner->launchRequested = true;
        SystemCalls::record(runner->running);
        SystemCalls::failNext("pipe", EMFILE);
        runner->createProgress("/bin/true", "");
        QCOMPARE(runner->getStatus(), false);
        QCOMPARE(runner->childPid, -1);
        QCOMPARE(runner->readerResult, -1);
        SystemCalls::failNext("pipe", EMFILE);
        QCOMPARE(runner->createPipe(), false);
        SystemCalls::stop();
        QCOMPARE(SystemCalls::lines(), (QStringList{"pipe", "pipe"})); // not running by then
        QCOMPARE(callsOfDeletion(runner), QStringList());
        QCOMPARE(output.text(), QByteArray("Pipe created fail\nPipe created fail\n"));
    }

    void failedForkIsNotSaidAndLeavesThePipeOpen()
    {
        runner->createProgress("", sleeping);
        const pid_t earlierChild = runner->childPid;
        runner->launchRequested = true;
        const StandardOutput output;
        SystemCalls::record(runner->running);
        SystemCalls::failNext("fork", EAGAIN);
        runner->createProgress("", sleeping);
        runner->launchRequest();
        runner->launch();
        SystemCalls::stop();
        QCOMPARE(SystemCalls::lines(), (QStringList{"pipe", "fork"}));
        QCOMPARE(output.text(), QByteArray("Pipe ready\n"));
        QCOMPARE(runner->childPid, -1);
        QCOMPARE(runner->getStatus(), false);
        QCOMPARE(runner->readerResult, -1);
        QVERIFY(fcntl(runner->pipeFds[0], F_GETFD) != -1);
        QVERIFY(fcntl(runner->pipeFds[1], F_GETFD) != -1);
        QCOMPARE(callsOfDeletion(runner), QStringList());
        kill(earlierChild, SIGKILL);
    }

    void failedReaderIsNotSaidAndLeavesTheOutputUnread()
    {
        runner->createProgress("", "echo hello");
        const pid_t child = runner->childPid;
        {
            const StandardOutput output;
            requestFailingReader();
            QCOMPARE(output.text(), QByteArray());
        }
        QCOMPARE(runner->readerResult, EAGAIN);
        QCOMPARE(runner->launchRequested, true);
        QCOMPARE(runner->getStatus(), true);
        Processes::ended(child);
        QCOMPARE(runner->messages.count(), 0);
        QCOMPARE(runner->readMsg(), std::string("hello\n"));           // still there
        QCOMPARE(callsOfDeletion(runner), QStringList{killOf(child)}); // there is nothing to cancel
    }

    void failedSecondReaderLeavesTheFirst()
    {
        runner->createProgress("", sleeping);
        runner->launchRequest();
        const pthread_t first = runner->readerThread;
        requestFailingReader();
        QCOMPARE(runner->readerResult, EAGAIN);
        QVERIFY(pthread_equal(runner->readerThread, first));
    }

    void childThatCannotBecomeItsProgramEnds_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("command");
        QTest::addColumn<QByteArray>("lastLine");
        const QByteArray direct = "child progress loaded fail\n";
        QTest::newRow("missing") << "/nowhere" << QByteArray() << direct; // gone since the check
        QTest::newRow("not executable") << "/etc/passwd" << QByteArray() << direct;
        QTest::newRow("no program inside") << "text" << QByteArray() << direct;
        QTest::newRow("no shell") << "" << QByteArray::fromStdString(tooLongCommand())
                                  << QByteArray("Child progress loaded fail\n");
    }

    /// The child wrote the line and ended well, and the runner knows nothing of it.
    void childThatCannotBecomeItsProgramEnds()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, command);
        QFETCH(QByteArray, lastLine);
        const QTemporaryDir directory;
        QFile text(directory.filePath("text"));
        QVERIFY(text.open(QIODevice::WriteOnly) && text.write("echo started\n") > 0);
        text.close();
        QVERIFY(text.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
        runner->createProgress((path == "text" ? text.fileName() : path).toStdString(),
                               command.toStdString());
        const pid_t child = runner->childPid;
        const siginfo_t end = Processes::ended(child);
        QCOMPARE(end.si_code, static_cast<int>(CLD_EXITED));
        QCOMPARE(end.si_status, 0);
        QVERIFY(wholeOutput(*runner).endsWith("Child progress ready\n" + lastLine));
        QCOMPARE(runner->getStatus(), true);
        QCOMPARE(runner->childPid, child);

        SystemCalls::record(runner->running);
        QCOMPARE(runner->deleteProgress(), true);
        SystemCalls::stop();
        QCOMPARE(SystemCalls::lines(), QStringList{killOf(child)});
        QCOMPARE(runner->messages.all().last(), QByteArray("Progress stopped"));
        QCOMPARE(Processes::state(child), 'Z');
    }

    void childKilledFromOutsideCountsAsRunning()
    {
        runner->createProgress("", sleeping);
        runner->launchRequest();
        const pid_t child = runner->childPid;
        kill(child, SIGKILL);
        QCOMPARE(Processes::ended(child).si_status, SIGKILL);
        QVERIFY(eventually([&] { return runner->messages.count() >= 2; }));
        QCOMPARE(runner->messages.joined(), QByteArray());
        QCOMPARE(runner->getStatus(), true);
        QCOMPARE(runner->childPid, child);
        QCOMPARE(callsOfDeletion(runner), (QStringList{killOf(child), "pthread_cancel"}));
    }

private:
    void requestFailingReader()
    {
        SystemCalls::record(runner->running);
        SystemCalls::failNext("pthread_create", EAGAIN);
        runner->launchRequest();
        SystemCalls::stop();
    }

    std::unique_ptr<Recorder> runner;
};

QTEST_GUILESS_MAIN(MyProgressFaultTest)
#include "MyProgressFaultTest.moc"
