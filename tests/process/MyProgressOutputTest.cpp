#include "tests/process/Processes.h"
#include "tests/process/Recorder.h"

#include <QTest>

#include <array>
#include <cstdio>
#include <pthread.h>
#include <pty.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/stat.h>

using Processes::Limit;
using Processes::NoNewTasks;

namespace {

/// A runner with the sink of the base.
struct Plain : MyProgress
{
    using MyProgress::childPid;
    using MyProgress::pipeFds;
    using MyProgress::readerThread;
};

/// Everything on the standard output and error of a process that does @p scenario and ends.
QByteArray outputOf(const std::function<void()> &scenario)
{
    const Processes::Run run = Processes::runApart(scenario);
    return run.status == 0 ? run.output : "status " + QByteArray::number(run.status);
}

QByteArray startedText(const QByteArray &pid)
{
    return "Pipe ready\npid:" + pid + "\nMain progress ready\n";
}

} // namespace

/// The launcher's standard output and error, to the byte. A scenario that has to tell more adds it
/// at the end, behind a bar.
class MyProgressOutputTest : public QObject
{
    Q_OBJECT

private slots:
    void baseSinkPrintsTheTextAsItStands_data();
    void baseSinkPrintsTheTextAsItStands();
    void everyStepOfARunnerIsPrinted();
    void destructorSaysStoppedThroughTheBaseSink();
    void missingProgramIsReportedByTheSinkOnly();
    void createPipeIsReported();
    void failedPipeIsReported();
    void failedForkIsNotReported();
    void failedReaderIsNotReported();
    void readerPrintsNothingOfItsOwn();
    void nothingIsFlushed();

    void startedProgramWritesIntoACleanPipe();
    void failedStartFlushesTheLaunchersLinesIntoThePipe_data();
    void failedStartFlushesTheLaunchersLinesIntoThePipe();
    void flushedLinesAreNotRepeatedInThePipe();
    void onATerminalTheChildsLineStaysOutOfThePipe_data();
    void onATerminalTheChildsLineStaysOutOfThePipe();
    void exitHandlersOfTheLauncherStayOutOfTheChild();
};

void MyProgressOutputTest::baseSinkPrintsTheTextAsItStands_data()
{
    QTest::addColumn<QByteArray>("message");
    QTest::addColumn<QByteArray>("printed");
    QTest::newRow("no line break") << QByteArray("hello") << QByteArray("hello");
    QTest::newRow("its own line breaks") << QByteArray("a\n\nb\n") << QByteArray("a\n\nb\n");
    QTest::newRow("per cent signs") << QByteArray("100%s%d%%") << QByteArray("100%s%d%%");
    QTest::newRow("nothing") << QByteArray() << QByteArray();
    QTest::newRow("a zero byte") << QByteArray("a\0b", 3) << QByteArray("a");
}

void MyProgressOutputTest::baseSinkPrintsTheTextAsItStands()
{
    QFETCH(QByteArray, message);
    QFETCH(QByteArray, printed);
    QCOMPARE(outputOf([&] { Plain().insertMsg(message.toStdString()); }), printed);
}

void MyProgressOutputTest::everyStepOfARunnerIsPrinted()
{
    const QByteArray output = outputOf([] {
        pid_t pid = 0;
        {
            Plain runner;
            runner.makeProgress("/bin/true", "");
            pid = runner.childPid;
        }
        std::printf("|%d", pid);
    });
    const QByteArray pid = output.mid(output.indexOf('|') + 1);
    QVERIFY(pid.toInt() > 0);
    QCOMPARE(output, "File found" + startedText(pid) + "Progress stopped|" + pid);
}

void MyProgressOutputTest::destructorSaysStoppedThroughTheBaseSink()
{
    const QByteArray output = outputOf([] {
        pid_t pid = 0;
        const Messages *messages = nullptr;
        {
            Recorder runner;
            runner.makeProgress("/bin/true", sleeping);
            pid = runner.childPid;
            messages = &runner.messages;
        }
        std::printf("|%s|%d", messages->joined().constData(), pid);
    });
    const QByteArray pid = output.mid(output.lastIndexOf('|') + 1);
    QCOMPARE(output, startedText(pid) + "Progress stopped|File found|" + pid);
}

void MyProgressOutputTest::missingProgramIsReportedByTheSinkOnly()
{
    QCOMPARE(outputOf([] { Plain().makeProgress("/nowhere/at/all", ""); }),
             QByteArray("File not found"));
    QCOMPARE(outputOf([] { Recorder().makeProgress("/nowhere/at/all", ""); }), QByteArray());
}

void MyProgressOutputTest::createPipeIsReported()
{
    QCOMPARE(outputOf([] { Plain().createPipe(); }), QByteArray("Pipe ready\n"));
    QCOMPARE(outputOf([] {
                 const Limit noDescriptors(RLIMIT_NOFILE, 0);
                 Plain().createPipe();
             }),
             QByteArray("Pipe created fail\n"));
}

void MyProgressOutputTest::failedPipeIsReported()
{
    QCOMPARE(outputOf([] {
                 const Limit noDescriptors(RLIMIT_NOFILE, 0);
                 Recorder().createProgress("/bin/true", "");
             }),
             QByteArray("Pipe created fail\n"));
}

void MyProgressOutputTest::failedForkIsNotReported()
{
    QCOMPARE(outputOf([] {
                 const NoNewTasks limit;
                 Recorder().createProgress("/bin/true", "");
             }),
             QByteArray("Pipe ready\n"));
}

void MyProgressOutputTest::failedReaderIsNotReported()
{
    const QByteArray output = outputOf([] {
        pid_t pid = 0;
        {
            Plain runner;
            runner.createProgress("", sleeping);
            pid = runner.childPid;
            const NoNewTasks limit;
            runner.launchRequest();
        }
        std::printf("|%d", pid);
    });
    const QByteArray pid = output.mid(output.indexOf('|') + 1);
    QCOMPARE(output, startedText(pid) + "Progress stopped|" + pid);
}

void MyProgressOutputTest::readerPrintsNothingOfItsOwn()
{
    const QByteArray output = outputOf([] {
        Plain runner;
        runner.createProgress("", "echo hello");
        Processes::ended(runner.childPid);
        runner.launchRequest();
        int waiting = 1; // bytes
        while (waiting > 0) {
            ioctl(runner.pipeFds[0], FIONREAD, &waiting);
        }
        runner.setStatus(false);
        pthread_join(runner.readerThread, nullptr);
        std::printf("|%d", runner.childPid);
    });
    const QByteArray pid = output.mid(output.indexOf('|') + 1);
    QCOMPARE(output, startedText(pid) + "hello\n|" + pid);
}

void MyProgressOutputTest::nothingIsFlushed()
{
    const QByteArray output = outputOf([] {
        auto *runner = new Recorder;
        runner->makeProgress("/bin/true", sleeping);
        runner->launchRequest();
        delete runner;
        struct stat file
        {
        };
        fstat(STDOUT_FILENO, &file);
        std::printf("|%ld", static_cast<long>(file.st_size)); // bytes
    });
    QVERIFY(output.startsWith("Pipe ready"));
    QVERIFY2(output.endsWith("|0"), output.constData());
}

void MyProgressOutputTest::startedProgramWritesIntoACleanPipe()
{
    const QByteArray output = outputOf([] {
        Recorder runner;
        runner.createProgress("", "echo hello");
        std::printf("|%s|", wholeOutput(runner).constData());
    });
    QVERIFY2(output.contains("|hello\n|"), output.constData());
}

void MyProgressOutputTest::failedStartFlushesTheLaunchersLinesIntoThePipe_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("direct") << QByteArray() << QByteArray("child progress loaded fail\n");
    QTest::newRow("shell") << QByteArray(200'000, ' ') // more than one argument can hold
                           << QByteArray("Child progress loaded fail\n");
}

void MyProgressOutputTest::failedStartFlushesTheLaunchersLinesIntoThePipe()
{
    QFETCH(QByteArray, command);
    QFETCH(QByteArray, line);
    const QByteArray output = outputOf([&] {
        std::printf("earlier line\n");
        Plain runner;
        runner.makeProgress("/etc/passwd", command.toStdString());
        const QByteArray fromPipe = wholeOutput(runner);
        std::printf("|%s|%d|", fromPipe.constData(), runner.childPid);
    });
    const QList<QByteArray> parts = output.split('|');
    QCOMPARE(parts.size(), 4);
    const QByteArray inherited = "earlier line\nFile foundPipe ready\n";
    QCOMPARE(parts[1], inherited + "Child progress ready\n" + line);
    QCOMPARE(parts[0], "earlier line\nFile found" + startedText(parts[2]));
    QCOMPARE(parts[3], QByteArray("Progress stopped"));
}

void MyProgressOutputTest::flushedLinesAreNotRepeatedInThePipe()
{
    const QByteArray output = outputOf([&] {
        std::printf("earlier line\n");
        std::fflush(stdout);
        Recorder runner;
        runner.createProgress("/etc/passwd", "");
        std::printf("|%s|", wholeOutput(runner).constData());
    });
    QCOMPARE(output.split('|').value(1),
             QByteArray("Pipe ready\nChild progress ready\nchild progress loaded fail\n"));
}

void MyProgressOutputTest::onATerminalTheChildsLineStaysOutOfThePipe_data()
{
    QTest::addColumn<QByteArray>("command");
    QTest::addColumn<QByteArray>("inThePipe");
    QTest::newRow("started") << QByteArray("echo hello") << QByteArray("hello\n");
    QTest::newRow("failed") << QByteArray()
                            << QByteArray("Child progress ready\nchild progress loaded fail\n");
}

void MyProgressOutputTest::onATerminalTheChildsLineStaysOutOfThePipe()
{
    QFETCH(QByteArray, command);
    QFETCH(QByteArray, inThePipe);
    const QByteArray output = outputOf([&] {
        int terminal = -1;
        std::array<char, 64> name{};
        if (openpty(&terminal, &terminal, name.data(), nullptr, nullptr) != 0 ||
            std::freopen(name.data(), "w", stdout) == nullptr) {
            _exit(1);
        }
        Recorder runner;
        runner.createProgress("/etc/passwd", command.toStdString());
        std::fprintf(stderr, "|%s|", wholeOutput(runner).constData());
    });
    QCOMPARE(output.split('|').value(1), inThePipe);
}

void MyProgressOutputTest::exitHandlersOfTheLauncherStayOutOfTheChild()
{
    const QByteArray output = outputOf([] {
        std::atexit([] { std::printf("handler"); });
        Recorder runner;
        runner.createProgress("/etc/passwd", "");
        std::printf("|%s|", wholeOutput(runner).constData());
    });
    QCOMPARE(output.split('|').value(1),
             QByteArray("Pipe ready\nChild progress ready\nchild progress loaded fail\n"));
    QVERIFY2(output.endsWith("handler"), output.constData()); // in the launcher
}

QTEST_GUILESS_MAIN(MyProgressOutputTest)
#include "MyProgressOutputTest.moc"
