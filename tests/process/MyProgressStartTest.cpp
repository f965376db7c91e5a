#include "tests/process/Processes.h"
#include "tests/process/Recorder.h"
#include "tests/process/SystemCalls.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <memory>
#include <utility>

using Processes::about;
using Processes::descriptor;

namespace {

/// Commands whose process can be looked at for as long as its runner lives.
const char *const waitingShell = "read line"; // from the test's standard input, where none comes

/// Notes each line of the program's standard output among the system calls, for as long as it
/// lives.
class NotedOutput
{
public:
    NotedOutput()
    {
        cookie_io_functions_t functions{};
        functions.write = [](void *, const char *text, std::size_t size) {
            SystemCalls::note(QByteArray(text, static_cast<int>(size)).trimmed());
            return static_cast<ssize_t>(size);
        };
        FILE *notes = fopencookie(nullptr, "w", functions);
        std::setvbuf(notes, nullptr, _IOLBF, BUFSIZ);
        before = std::exchange(stdout, notes);
    }
    ~NotedOutput() { std::fclose(std::exchange(stdout, before)); }
    NotedOutput(const NotedOutput &) = delete;
    NotedOutput &operator=(const NotedOutput &) = delete;

private:
    FILE *before;
};

} // namespace

/// From makeProgress() to a child that runs and a reader that reads.
class MyProgressStartTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init() { runner.reset(new Recorder); }
    void cleanup() { runner.reset(); }

    void missingProgramStartsNothing();
    void danglingLinkIsAMissingProgram();
    void onlyTheExistenceIsChecked_data();
    void onlyTheExistenceIsChecked();
    void fileFoundComesBeforeTheStart();
    void createProgressChecksAndReportsNothing();

    void emptyCommandRunsTheProgramItself();
    void directProgramGetsNoArgumentsAndNoEnvironment();
    void commandRunsInBash();
    void bashIsNotLookedUpInThePath();
    void shellInheritsTheEnvironment();
    void childInheritsDirectoryInputAndGroup();

    void bothStreamsShareOnePipeInOrder();
    void childKeepsTheWriteEndUnderItsNumber();
    void launcherKeepsTheReadEndOnly();
    void laterChildCarriesEarlierReadEnds_data();
    void laterChildCarriesEarlierReadEnds();
    void startTakesItsStepsInOrder();
    void childTakesItsStepsInOrder();
    void secondStartForgetsTheFirstChild();

    void launchRequestStartsTheReader();
    void launchRequestBeforeTheStartOnlySetsTheFlag();
    void launchRequestWithoutARunningChildStartsNothing();
    void everyLaunchRequestStartsAReader();
    void launchNeedsOnlyAChild();
    void launchWithoutAChildStartsNothing();
    void createPipeFillsBothEnds();

private:
    std::unique_ptr<Recorder> runner;
};

/// A standard input of this test's own, which never ends and is never written to.
void MyProgressStartTest::initTestCase()
{
    std::array<int, 2> input{};
    QVERIFY(pipe(input.data()) == 0);
    QVERIFY(dup2(input[0], STDIN_FILENO) == STDIN_FILENO);
}

void MyProgressStartTest::missingProgramStartsNothing()
{
    SystemCalls::record(runner->running);
    runner->makeProgress("/nowhere/at/all", "echo started");
    SystemCalls::stop();
    QCOMPARE(runner->messages.all(), QList<QByteArray>{"File not found"});
    QCOMPARE(SystemCalls::lines(), QStringList());
    QCOMPARE(runner->getStatus(), false);
    QCOMPARE(runner->childPid, -1);
    runner->launchRequest();
    QCOMPARE(runner->readerResult, -1);
}

void MyProgressStartTest::danglingLinkIsAMissingProgram()
{
    const QTemporaryDir directory;
    QVERIFY(QFile::link("/nowhere", directory.filePath("link")));
    runner->makeProgress(directory.filePath("link").toStdString(), "");
    QCOMPARE(runner->messages.all(), QList<QByteArray>{"File not found"});
}

void MyProgressStartTest::onlyTheExistenceIsChecked_data()
{
    QTest::addColumn<QString>("path");
    QTest::newRow("a directory") << "/";
    QTest::newRow("not executable") << "/etc/passwd";
    QTest::newRow("a device") << "/dev/null";
}

void MyProgressStartTest::onlyTheExistenceIsChecked()
{
    QFETCH(QString, path);
    runner->makeProgress(path.toStdString(), "echo started");
    QCOMPARE(runner->messages.all(), QList<QByteArray>{"File found"});
    QCOMPARE(runner->getStatus(), true);
    QCOMPARE(wholeOutput(*runner), QByteArray("started\n"));
}

void MyProgressStartTest::fileFoundComesBeforeTheStart()
{
    struct Early : Recorder
    {
        void insertMsg(std::string msg) override
        {
            Recorder::insertMsg(msg);
            pidAtMessage.push_back(childPid);
        }
        std::vector<std::int32_t> pidAtMessage;
    };
    runner.reset(new Early);
    runner->makeProgress("/bin/true", "");
    QCOMPARE(runner->messages.all(), QList<QByteArray>{"File found"});
    QCOMPARE(static_cast<Early &>(*runner).pidAtMessage, std::vector<std::int32_t>{-1});
    QVERIFY(pthread_equal(runner->messages.senders().front(), pthread_self()));
}

void MyProgressStartTest::createProgressChecksAndReportsNothing()
{
    runner->createProgress("/nowhere/at/all", "echo started");
    QCOMPARE(wholeOutput(*runner), QByteArray("started\n"));
    QCOMPARE(runner->messages.count(), 0);
}

void MyProgressStartTest::emptyCommandRunsTheProgramItself()
{
    runner->makeProgress("/bin/cat", ""); // waits for input, without a shell around it
    WAIT_UNTIL(Processes::program(runner->childPid) == "cat");
    QCOMPARE(Processes::link(runner->childPid, "exe"),
             QFile::encodeName(QFileInfo("/bin/cat").canonicalFilePath()));
}

void MyProgressStartTest::directProgramGetsNoArgumentsAndNoEnvironment()
{
    const QString probe = QCoreApplication::applicationDirPath() + "/ArgumentsProbe";
    runner->makeProgress(probe.toStdString(), "");
    const QByteArray output = wholeOutput(*runner);
    // Linux 5.18 and newer put one empty string in the place of an empty list.
    QVERIFY2(output == "arguments 0:\nenvironment:\n" ||
                 output == "arguments 1: []\nenvironment:\n",
             output.constData());
}

void MyProgressStartTest::commandRunsInBash()
{
    runner->makeProgress("/bin/true", waitingShell);
    WAIT_UNTIL(about(runner->childPid, "cmdline") == QByteArray("bash\0-c\0read line\0", 18));
    QCOMPARE(Processes::link(runner->childPid, "exe"),
             QFile::encodeName(QFileInfo("/bin/bash").canonicalFilePath()));
}

void MyProgressStartTest::bashIsNotLookedUpInThePath()
{
    const QTemporaryDir directory;
    QFile other(directory.filePath("bash"));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.write("#!/bin/sh\necho wrong\n");
    other.close();
    QVERIFY(other.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    const QByteArray path = qgetenv("PATH");
    QVERIFY(qputenv("PATH", QFile::encodeName(directory.path())));
    runner->createProgress("", "echo right");
    QVERIFY(qputenv("PATH", path));
    QCOMPARE(wholeOutput(*runner), QByteArray("right\n"));
}

void MyProgressStartTest::shellInheritsTheEnvironment()
{
    QVERIFY(qputenv("ORVANE_TEST", "kept for the shell"));
    runner->makeProgress("/bin/true", waitingShell);
    QVERIFY(qunsetenv("ORVANE_TEST"));
    WAIT_UNTIL(Processes::program(runner->childPid) == "bash");
    const QList<QByteArray> variables = about(runner->childPid, "environ").split('\0');
    QVERIFY(variables.contains("ORVANE_TEST=kept for the shell"));
    QVERIFY(variables.contains("PATH=" + qgetenv("PATH")));
}

void MyProgressStartTest::childInheritsDirectoryInputAndGroup()
{
    runner->makeProgress("/bin/true", sleeping);
    WAIT_UNTIL(Processes::program(runner->childPid) == "tail");
    QCOMPARE(Processes::link(runner->childPid, "cwd"), Processes::link(getpid(), "cwd"));
    QCOMPARE(descriptor(runner->childPid, STDIN_FILENO), descriptor(getpid(), STDIN_FILENO));
    QCOMPARE(getpgid(runner->childPid), getpgid(0));
    QCOMPARE(getsid(runner->childPid), getsid(0));
}

void MyProgressStartTest::bothStreamsShareOnePipeInOrder()
{
    runner->createProgress("", "echo 1; echo 2 >&2; echo 3; echo 4 >&2; echo 5");
    QCOMPARE(wholeOutput(*runner), QByteArray("1\n2\n3\n4\n5\n"));
}

void MyProgressStartTest::childKeepsTheWriteEndUnderItsNumber()
{
    runner->createProgress("", sleeping);
    const pid_t child = runner->childPid;
    WAIT_UNTIL(Processes::program(child) == "tail");
    const QByteArray ourPipe = descriptor(getpid(), runner->pipeFds[0]);
    QVERIFY(ourPipe.startsWith("pipe:"));
    QCOMPARE(descriptor(child, STDOUT_FILENO), ourPipe);
    QCOMPARE(descriptor(child, STDERR_FILENO), ourPipe);
    QCOMPARE(descriptor(child, runner->pipeFds[1]), ourPipe);
    QCOMPARE(descriptor(child, runner->pipeFds[0]), QByteArray());
}

void MyProgressStartTest::launcherKeepsTheReadEndOnly()
{
    runner->createProgress("", sleeping);
    QCOMPARE(fcntl(runner->pipeFds[0], F_GETFL), O_RDONLY); // and it blocks
    QCOMPARE(fcntl(runner->pipeFds[1], F_GETFD), -1);
}

void MyProgressStartTest::laterChildCarriesEarlierReadEnds_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::newRow("shell") << QByteArray(waitingShell);
    QTest::newRow("direct") << QByteArray();
}

void MyProgressStartTest::laterChildCarriesEarlierReadEnds()
{
    QFETCH(QByteArray, command);
    runner->createProgress("", sleeping);
    Recorder second;
    second.createProgress("", sleeping);
    Recorder third;
    third.createProgress("/bin/cat", command.toStdString());
    WAIT_UNTIL(Processes::program(third.childPid) == (command.isEmpty() ? "cat" : "bash"));
    for (const Recorder *earlier :
         {const_cast<const Recorder *>(runner.get()), const_cast<const Recorder *>(&second)}) {
        const int readEnd = earlier->pipeFds[0];
        QVERIFY(descriptor(getpid(), readEnd).startsWith("pipe:"));
        QCOMPARE(descriptor(third.childPid, readEnd), descriptor(getpid(), readEnd));
    }
}

void MyProgressStartTest::startTakesItsStepsInOrder()
{
    runner->launchRequest();
    {
        const NotedOutput output;
        SystemCalls::record(runner->running);
        runner->createProgress("", sleeping);
        SystemCalls::stop();
    }
    const QString writeEnd = QString::number(runner->pipeFds[1]);
    const QString pid = QString::number(runner->childPid);
    QCOMPARE(SystemCalls::lines(),
             (QStringList{"pipe", "Pipe ready", "fork", "pid:" + pid,
                          "Main progress ready (running)", "close " + writeEnd + " (running)",
                          "pthread_create (running)"})); // with no attributes
}

void MyProgressStartTest::childTakesItsStepsInOrder()
{
    {
        const NotedOutput output;
        SystemCalls::record(runner->running);
        runner->createProgress("", sleeping);
        SystemCalls::stop(); // here; the child goes on
    }
    WAIT_UNTIL(Processes::program(runner->childPid) == "tail");
    const QString readEnd = QString::number(runner->pipeFds[0]);
    const QString writeEnd = QString::number(runner->pipeFds[1]);
    QCOMPARE(SystemCalls::childLines(),
             (QStringList{"close " + readEnd, "dup2 " + writeEnd + " 1", "dup2 " + writeEnd + " 2",
                          "Child progress ready"}));
}

/// What an earlier start made stays as it is; only the fields tell of the new one.
void MyProgressStartTest::secondStartForgetsTheFirstChild()
{
    runner->createProgress("", sleeping);
    const pid_t firstChild = runner->childPid;
    const int firstReadEnd = runner->pipeFds[0];
    runner->createProgress("", sleeping);
    const pid_t secondChild = runner->childPid;
    QVERIFY(secondChild != firstChild);
    QVERIFY(runner->pipeFds[0] != firstReadEnd);

    runner.reset();
    QCOMPARE(Processes::ended(secondChild).si_status, SIGKILL);
    WAIT_UNTIL(Processes::program(firstChild) == "tail");
    QCOMPARE(descriptor(firstChild, STDOUT_FILENO), descriptor(getpid(), firstReadEnd));
    kill(firstChild, SIGKILL);
}

void MyProgressStartTest::launchRequestStartsTheReader()
{
    runner->makeProgress("/bin/true", std::string("echo hello; ") + sleeping);
    QCOMPARE(runner->readerResult, -1);
    runner->launchRequest();
    QCOMPARE(runner->readerResult, 0);
    QCOMPARE(runner->launchRequested, true);
    WAIT_UNTIL(runner->messages.all().contains("hello\n"));
}

void MyProgressStartTest::launchRequestBeforeTheStartOnlySetsTheFlag()
{
    runner->launchRequest();
    QCOMPARE(runner->launchRequested, true);
    QCOMPARE(runner->readerResult, -1);
    QCOMPARE(runner->getStatus(), false);

    runner->createProgress("", std::string("echo hello; ") + sleeping);
    QCOMPARE(runner->readerResult, 0);
    QCOMPARE(runner->launchRequested, true); // for the next start as well
    WAIT_UNTIL(runner->messages.joined() == "hello\n");

    const pid_t firstChild = runner->childPid;
    const pthread_t firstReader = runner->readerThread;
    runner->createProgress("", sleeping);
    QVERIFY(!pthread_equal(runner->readerThread, firstReader));
    kill(firstChild, SIGKILL);
    pthread_cancel(firstReader); // the runner has forgotten it
    pthread_join(firstReader, nullptr);
}

void MyProgressStartTest::launchRequestWithoutARunningChildStartsNothing()
{
    runner->createProgress("", sleeping);
    runner->setStatus(false);
    runner->launchRequest();
    QCOMPARE(runner->readerResult, -1);
    runner->setStatus(true);

    FedRecorder childless;
    childless.childPid = -1;
    childless.launchRequest();
    QCOMPARE(childless.readerResult, -1);
    childless.childPid = 0;
    childless.launchRequest();
    QCOMPARE(childless.readerResult, -1);
    childless.setStatus(false);
}

void MyProgressStartTest::everyLaunchRequestStartsAReader()
{
    FedRecorder fed;
    SystemCalls::record(fed.running);
    fed.launchRequest();
    const pthread_t first = fed.readerThread;
    fed.launchRequest();
    SystemCalls::stop();
    QCOMPARE(SystemCalls::lines(),
             (QStringList{"pthread_create (running)", "pthread_create (running)"}));
    QVERIFY(!pthread_equal(fed.readerThread, first));
    fed.setStatus(false);
    fed.endOfFile();
    QCOMPARE(pthread_join(first, nullptr), 0);
    QCOMPARE(pthread_join(fed.readerThread, nullptr), 0);
}

void MyProgressStartTest::launchNeedsOnlyAChild()
{
    runner->createProgress("", sleeping);
    runner->setStatus(false);
    runner->launch();
    QCOMPARE(runner->readerResult, 0);
    QCOMPARE(runner->launchRequested, false);
    void *result = nullptr;
    QCOMPARE(pthread_join(runner->readerThread, &result), 0); // ends at once: nothing is running
    QCOMPARE(result, static_cast<void *>(runner.get()));
    runner->readerThread = {};
    runner->setStatus(true);
}

void MyProgressStartTest::launchWithoutAChildStartsNothing()
{
    FedRecorder childless;
    for (const int pid : {-1, 0}) {
        childless.childPid = pid;
        childless.launch();
        QCOMPARE(childless.readerResult, -1);
    }
    childless.setStatus(false);
}

void MyProgressStartTest::createPipeFillsBothEnds()
{
    QCOMPARE(runner->createPipe(), true);
    QCOMPARE(fcntl(runner->pipeFds[0], F_GETFL), O_RDONLY);
    QCOMPARE(fcntl(runner->pipeFds[1], F_GETFL), O_WRONLY);
    QCOMPARE(fcntl(runner->pipeFds[0], F_GETFD), 0); // the child inherits it
    QCOMPARE(descriptor(getpid(), runner->pipeFds[0]), descriptor(getpid(), runner->pipeFds[1]));
    QCOMPARE(runner->getStatus(), false);
}

QTEST_GUILESS_MAIN(MyProgressStartTest)
#include "MyProgressStartTest.moc"
