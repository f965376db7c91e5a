#include "tests/process/Recorder.h"
#include "tests/support/Eventually.h"
#include "tests/support/Processes.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <fcntl.h>
#include <memory>
#include <utility>

using Processes::about;
using Processes::descriptor;

namespace {

/// How a descriptor is open, and whether it blocks. An emulator adds flags of its own.
int modeOf(int fd)
{
    return fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK);
}

/// A command whose shell can be looked at for as long as its runner lives.
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
        before = std::exchange(stdout, fopencookie(nullptr, "w", functions));
        std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    }
    ~NotedOutput() { std::fclose(std::exchange(stdout, before)); }
    NotedOutput(const NotedOutput &) = delete;
    NotedOutput &operator=(const NotedOutput &) = delete;

private:
    FILE *before;
};

QByteArray realPath(const char *program)
{
    return QFile::encodeName(QFileInfo(program).canonicalFilePath());
}

} // namespace

/// From makeProgress() to a child that runs and a reader that reads.
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
        QVERIFY(qputenv("ORVANE_TEST", "kept for the shell"));
    }
    void init() { runner.reset(new Recorder); }
    void cleanup() { runner.reset(); }

    void missingProgramStartsNothing_data()
    {
        QTest::addColumn<bool>("link");
        QTest::newRow("nothing there") << false;
        QTest::newRow("a link to nothing") << true;
    }

    void missingProgramStartsNothing()
    {
        QFETCH(bool, link);
        const QTemporaryDir directory;
        const QString path = directory.filePath("program");
        QVERIFY(!link || QFile::link("/nowhere", path));
        SystemCalls::record(runner->running);
        runner->makeProgress(path.toStdString(), "echo started");
        runner->launchRequest();
        runner->launch();
        SystemCalls::stop();
        QCOMPARE(SystemCalls::lines(), QStringList());
        QCOMPARE(runner->messages.all(), QList<QByteArray>{"File not found"});
        QCOMPARE(runner->getStatus(), false);
        QCOMPARE(runner->childPid, -1);
        QCOMPARE(callsOfDeletion(runner), QStringList());
    }

    void onlyTheExistenceIsChecked_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("a directory") << "/";
        QTest::newRow("not executable") << "/etc/passwd";
    }

    void onlyTheExistenceIsChecked()
    {
        QFETCH(QString, path);
        runner->makeProgress(path.toStdString(), "echo started");
        QCOMPARE(runner->messages.all(), QList<QByteArray>{"File found"});
        QCOMPARE(runner->getStatus(), true);
        QCOMPARE(wholeOutput(*runner), QByteArray("started\n"));
    }

    void fileFoundComesBeforeTheStart()
    {
        struct Early : Recorder
        {
            void insertMsg(std::string msg) override
            {
                Recorder::insertMsg(msg);
                pidAtMessage.append(childPid);
            }
            QList<std::int32_t> pidAtMessage;
        };
        auto *early = new Early;
        runner.reset(early);
        runner->makeProgress("/bin/true", "");
        QCOMPARE(runner->messages.all(), QList<QByteArray>{"File found"});
        QCOMPARE(early->pidAtMessage, QList<std::int32_t>{-1});
        QVERIFY(pthread_equal(runner->messages.senders().front(), pthread_self()));
    }

    /// createProgress() looks at no path; and the shell's own one plays no part.
    void commandRunsInBashWithTheLaunchersEnvironment()
    {
        const QByteArray path = qgetenv("PATH");
        QVERIFY(qputenv("PATH", "/nowhere"));
        runner->createProgress("/nowhere/at/all", waitingShell);
        QVERIFY(qputenv("PATH", path));
        QVERIFY(eventually([&] { return Processes::program(runner->childPid) == "bash"; }));
        QCOMPARE(about(runner->childPid, "cmdline"), QByteArray("bash\0-c\0read line\0", 18));
        QCOMPARE(Processes::link(runner->childPid, "exe"), realPath("/bin/bash"));
        const QList<QByteArray> variables = about(runner->childPid, "environ").split('\0');
        QVERIFY(variables.contains("ORVANE_TEST=kept for the shell"));
        QVERIFY(variables.contains("PATH=/nowhere"));
        QCOMPARE(runner->messages.count(), 0);
    }

    void emptyCommandRunsTheProgramWithoutArgumentsAndEnvironment()
    {
        runner->makeProgress("/bin/cat", ""); // waits for input, without a shell around it
        QVERIFY(eventually([&] { return Processes::program(runner->childPid) == "cat"; }));
        QCOMPARE(Processes::link(runner->childPid, "exe"), realPath("/bin/cat"));
        // Linux 5.18 and newer put one empty string in the place of an empty list.
        const QByteArray arguments = about(runner->childPid, "cmdline");
        QVERIFY2(arguments.isEmpty() || arguments == QByteArray(1, '\0'), arguments);
        QCOMPARE(about(runner->childPid, "environ"), QByteArray());
    }

    void childInheritsDirectoryInputAndGroup()
    {
        start(*runner);
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
        start(*runner);
        const pid_t child = runner->childPid;
        const QByteArray ourPipe = descriptor(getpid(), runner->pipeFds[0]);
        QVERIFY(ourPipe.startsWith("pipe:"));
        QCOMPARE(descriptor(child, STDOUT_FILENO), ourPipe);
        QCOMPARE(descriptor(child, STDERR_FILENO), ourPipe);
        QCOMPARE(descriptor(child, runner->pipeFds[1]), ourPipe);
        QCOMPARE(descriptor(child, runner->pipeFds[0]), QByteArray());
        QCOMPARE(modeOf(runner->pipeFds[0]), O_RDONLY); // and it blocks
        QCOMPARE(fcntl(runner->pipeFds[1], F_GETFD), -1);
    }

    void laterChildCarriesEarlierReadEnds_data()
    {
        QTest::addColumn<QByteArray>("command");
        QTest::newRow("shell") << QByteArray(waitingShell);
        QTest::newRow("direct") << QByteArray();
    }

    void laterChildCarriesEarlierReadEnds()
    {
        QFETCH(QByteArray, command);
        start(*runner);
        Recorder later;
        later.createProgress("/bin/cat", command.toStdString());
        QVERIFY(eventually([&] {
            return Processes::program(later.childPid) == (command.isEmpty() ? "cat" : "bash");
        }));
        const int readEnd = runner->pipeFds[0];
        QCOMPARE(descriptor(later.childPid, readEnd), descriptor(getpid(), readEnd));
    }

    void startTakesItsStepsInOrder()
    {
        runner->launchRequest();
        {
            SystemCalls::record(runner->running);
            const NotedOutput output;
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

    void childTakesItsStepsInOrder()
    {
        {
            SystemCalls::record(runner->running);
            const NotedOutput output;
            runner->createProgress("", sleeping);
            SystemCalls::stop(); // here; the child goes on
        }
        QVERIFY(eventually([&] { return Processes::program(runner->childPid) == "tail"; }));
        const QString readEnd = QString::number(runner->pipeFds[0]);
        const QString writeEnd = QString::number(runner->pipeFds[1]);
        QCOMPARE(SystemCalls::lines(true),
                 (QStringList{"child close " + readEnd, "child dup2 " + writeEnd + " 1",
                              "child dup2 " + writeEnd + " 2", "child Child progress ready"}));
    }

    /// What an earlier start made stays as it is; only the fields tell of the new one.
    void secondStartForgetsTheFirstChild()
    {
        start(*runner);
        const pid_t firstChild = runner->childPid;
        const int firstReadEnd = runner->pipeFds[0];
        start(*runner);
        const pid_t secondChild = runner->childPid;
        QVERIFY(secondChild != firstChild);
        QVERIFY(runner->pipeFds[0] != firstReadEnd);

        runner.reset();
        QCOMPARE(Processes::ended(secondChild).si_status, SIGKILL);
        QVERIFY(Processes::isAlive(firstChild));
        QCOMPARE(descriptor(firstChild, STDOUT_FILENO), descriptor(getpid(), firstReadEnd));
        kill(firstChild, SIGKILL);
    }

    void launchRequestStartsTheReader()
    {
        runner->makeProgress("/bin/true", std::string("echo hello; ") + sleeping);
        QCOMPARE(runner->readerResult, -1);
        runner->launchRequest();
        QCOMPARE(runner->readerResult, 0);
        QCOMPARE(runner->launchRequested, true);
        QVERIFY(eventually([&] { return runner->messages.all().contains("hello\n"); }));
    }

    void launchRequestBeforeTheStartOnlySetsTheFlag()
    {
        runner->launchRequest();
        QCOMPARE(runner->launchRequested, true);
        QCOMPARE(runner->readerResult, -1);
        QCOMPARE(runner->getStatus(), false);

        runner->createProgress("", std::string("echo hello; ") + sleeping);
        QCOMPARE(runner->readerResult, 0);
        QCOMPARE(runner->launchRequested, true); // for the next start as well
        QVERIFY(eventually([&] { return runner->messages.joined() == "hello\n"; }));

        const pid_t firstChild = runner->childPid;
        const pthread_t firstReader = runner->readerThread;
        runner->createProgress("", sleeping);
        QVERIFY(!pthread_equal(runner->readerThread, firstReader));
        kill(firstChild, SIGKILL);
        pthread_cancel(firstReader); // the runner has forgotten it
        pthread_join(firstReader, nullptr);
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

    void everyLaunchRequestStartsAReader()
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

    void launchNeedsOnlyAChild()
    {
        FedRecorder fed;
        fed.setStatus(false);
        QCOMPARE(fed.getStatus(), false);
        fed.launch();
        QCOMPARE(fed.readerResult, 0);
        QCOMPARE(fed.launchRequested, false);
        void *result = nullptr;
        QCOMPARE(pthread_join(fed.readerThread, &result), 0); // ends at once: nothing is running
        QCOMPARE(result, static_cast<void *>(&fed));
    }

    void createPipeFillsBothEnds()
    {
        QCOMPARE(runner->createPipe(), true);
        QCOMPARE(modeOf(runner->pipeFds[0]), O_RDONLY);
        QCOMPARE(modeOf(runner->pipeFds[1]), O_WRONLY);
        QCOMPARE(fcntl(runner->pipeFds[0], F_GETFD), 0); // the child inherits it
        QCOMPARE(descriptor(getpid(), runner->pipeFds[0]),
                 descriptor(getpid(), runner->pipeFds[1]));
        QCOMPARE(runner->getStatus(), false);
    }

private:
    static void start(Recorder &started)
    {
        started.createProgress("", sleeping);
        QVERIFY(eventually([&] { return Processes::program(started.childPid) == "tail"; }));
    }

    std::unique_ptr<Recorder> runner;
};

QTEST_GUILESS_MAIN(MyProgressStartTest)
#include "MyProgressStartTest.moc"
