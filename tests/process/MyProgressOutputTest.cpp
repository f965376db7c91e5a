#include "tests/process/Recorder.h"
#include "tests/support/Apart.h"
#include "tests/support/Eventually.h"
#include "tests/support/StandardOutput.h"

#include <QTest>

#include <array>
#include <cstdio>
#include <pty.h>
#include <sys/stat.h>

namespace {

/// A runner with the sink of the base.
struct Plain : MyProgress
{
    using MyProgress::childPid;
    using MyProgress::pipeFds;
    using MyProgress::readerThread;
};

QByteArray startedText(pid_t pid)
{
    return "Pipe ready\npid:" + QByteArray::number(pid) + "\nMain progress ready\n";
}

} // namespace

/// The launcher's standard output, to the byte, as it is when it goes into a file.
class MyProgressOutputTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { std::setvbuf(stdout, nullptr, _IOFBF, BUFSIZ); }

    void baseSinkPrintsTheTextAsItStands_data()
    {
        QTest::addColumn<QByteArray>("message");
        QTest::newRow("no line break") << QByteArray("hello");
        QTest::newRow("its own line breaks") << QByteArray("a\n\nb\n");
        QTest::newRow("per cent signs") << QByteArray("100%s%d%%");
        QTest::newRow("nothing") << QByteArray();
    }

    void baseSinkPrintsTheTextAsItStands()
    {
        QFETCH(QByteArray, message);
        const StandardOutput output;
        Plain().insertMsg(message.toStdString());
        QCOMPARE(output.text(), message);
    }

    void everyStepOfARunnerIsPrinted()
    {
        const StandardOutput output;
        pid_t pid = 0;
        {
            Plain runner;
            runner.makeProgress("/bin/true", "");
            pid = runner.childPid;
        }
        QCOMPARE(output.text(), "File found" + startedText(pid) + "Progress stopped");
    }

    void destructorSaysStoppedThroughTheBaseSink()
    {
        const StandardOutput output;
        pid_t pid = 0;
        const Messages *messages = nullptr;
        {
            Recorder runner;
            runner.makeProgress("/bin/true", sleeping);
            pid = runner.childPid;
            messages = &runner.messages;
        }
        QCOMPARE(output.text(), startedText(pid) + "Progress stopped");
        QCOMPARE(messages->joined(), QByteArray("File found"));
    }

    void missingProgramIsReportedByTheSinkOnly()
    {
        const StandardOutput output;
        Recorder().makeProgress("/nowhere/at/all", "");
        QCOMPARE(output.text(), QByteArray());
        Plain().makeProgress("/nowhere/at/all", "");
        QCOMPARE(output.text(), QByteArray("File not found"));
    }

    void createPipeIsReported()
    {
        const StandardOutput output;
        Plain().createPipe();
        QCOMPARE(output.text(), QByteArray("Pipe ready\n"));
    }

    void readerPrintsNothingOfItsOwn()
    {
        const StandardOutput output;
        Plain runner;
        runner.createProgress("", "echo hello");
        const int before = SystemCalls::pausesBegun();
        runner.launchRequest();
        QVERIFY(eventually([&] { return SystemCalls::pausesBegun() > before + 1; }));
        runner.setStatus(false);
        pthread_join(runner.readerThread, nullptr);
        QCOMPARE(output.text(), startedText(runner.childPid) + "hello\n");
    }

    void nothingIsFlushed()
    {
        const StandardOutput output;
        {
            Recorder runner;
            runner.makeProgress("/bin/true", sleeping);
            runner.launchRequest();
        }
        struct stat file = {};
        fstat(STDOUT_FILENO, &file);
        QCOMPARE(file.st_size, off_t{0});
        QVERIFY(output.text().startsWith("Pipe ready"));
    }

    void startedProgramWritesIntoACleanPipe()
    {
        const StandardOutput output;
        Recorder runner;
        runner.createProgress("", "echo hello");
        QCOMPARE(wholeOutput(runner), QByteArray("hello\n"));
    }

    /// What the launcher has not flushed goes into the pipe, and stays in the launcher.
    void failedStartFlushesTheLaunchersLinesIntoThePipe()
    {
        const StandardOutput output;
        std::printf("flushed line\n");
        std::fflush(stdout);
        std::printf("earlier line\n");
        Plain runner;
        runner.makeProgress("/etc/passwd", "");
        QCOMPARE(wholeOutput(runner), QByteArray("earlier line\nFile foundPipe ready\n"
                                                 "Child progress ready\n"
                                                 "child progress loaded fail\n"));
        QCOMPARE(output.text(),
                 "flushed line\nearlier line\nFile found" + startedText(runner.childPid));
    }

    void onATerminalTheChildsLineStaysOutOfThePipe_data()
    {
        QTest::addColumn<QByteArray>("command");
        QTest::addColumn<QByteArray>("inThePipe");
        QTest::newRow("started") << QByteArray("echo hello") << QByteArray("hello\n");
        QTest::newRow("failed") << QByteArray()
                                << QByteArray("Child progress ready\nchild progress loaded fail\n");
    }

    void onATerminalTheChildsLineStaysOutOfThePipe()
    {
        QFETCH(QByteArray, command);
        QFETCH(QByteArray, inThePipe);
        const QString end = runApart([&] {
            int terminal = -1;
            std::array<char, 64> name{};
            if (openpty(&terminal, &terminal, name.data(), nullptr, nullptr) != 0 ||
                std::freopen(name.data(), "w", stdout) == nullptr) {
                _exit(1);
            }
            Recorder runner;
            runner.createProgress("/etc/passwd", command.toStdString());
            std::exit(wholeOutput(runner) == inThePipe ? 0 : 2);
        });
        QCOMPARE(end, QString("status 0"));
    }

    void exitHandlersOfTheLauncherStayOutOfTheChild()
    {
        const StandardOutput output;
        const QString end = runApart([] {
            std::atexit([] { std::printf("handler"); });
            Recorder runner;
            runner.createProgress("/etc/passwd", "");
            const bool clean = wholeOutput(runner) ==
                               "Pipe ready\nChild progress ready\nchild progress loaded fail\n";
            std::exit(clean ? 0 : 2);
        });
        QCOMPARE(end, QString("status 0"));
        QVERIFY(output.text().endsWith("handler")); // in the launcher
    }
};

QTEST_GUILESS_MAIN(MyProgressOutputTest)
#include "MyProgressOutputTest.moc"
